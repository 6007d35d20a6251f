#include "app/Application.h"

#include <QApplication>
#include <QFileInfo>
#include <QGuiApplication>

#include "app/BackgroundInput.h"
#include "app/DemoShow.h"
#include "app/InstanceLock.h"
#include "app/KeyInput.h"
#include "app/MainWindow.h"
#include "app/SelfTest.h"
#include "cue/AppModel.h"
#include "model/DocumentError.h"
#include "model/Prefs.h"

int runApplication(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vorlin"));
    QApplication::setOrganizationName(QStringLiteral("Vorlin"));
    Prefs::registerDefaults();
    const InstanceLock instance = InstanceLock::acquire(InstanceLock::defaultFolder());
    const int n = instance.number();

    AppModel model;
    model.session().setInstanceNumber(n);
    // The window benchmark's reference: the same program and tick with the views deaf to the
    // live state, so what drawing costs can be told apart from what running costs.
    if (qEnvironmentVariable("VORLIN_VIEW_UPDATES") == QStringLiteral("off"))
        model.live().blockSignals(true);
    MainWindow window(model, n);
    window.placeOnScreen();
    model.start();
    KeyInput keys(model);
    app.installEventFilter(&keys);
    if (SelfTest::requested())
        return SelfTest::run(model, window);

    const QStringList args = QApplication::arguments().mid(1);
    const QString named = args.isEmpty() ? QString() : args.first();
    try {
        if (!named.isEmpty())
            model.open(QFileInfo(named).absoluteFilePath());
        else
            model.restoreLastDocument();
        // A first start, or a last show that is gone: something to hear at once.
        if (!model.session().documentPath() && model.document().assignments.empty() &&
            named.isEmpty())
            model.open(DemoShow::create(DemoShow::defaultFolder()));
    } catch (const DocumentError& error) {
        model.cueEngine().setStatusMessage(QStringLiteral("キーマップを開けません: ") +
                                           error.message());
    }

    BackgroundInput background(
        model, [] { return QGuiApplication::applicationState() == Qt::ApplicationActive; });
    if (Prefs::value(Prefs::kBackgroundInput, false).toBool())
        background.setEnabled(true);
    window.onBackgroundInputChange = [&background](bool on) { background.setEnabled(on); };
    window.updateTitle();
    window.show();
    window.activateWindow();
    return app.exec();
}
