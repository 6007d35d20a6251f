#include "app/Application.h"

#include <QFileInfo>
#include <QGuiApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QTranslator>

#include "app/BackgroundInput.h"
#include "app/DemoShow.h"
#include "app/KeyInput.h"
#include "app/MainWindow.h"
#include "app/UpdaterDialogs.h"
#include "app/WheelGuard.h"
#include "cue/AppModel.h"
#include "model/DocumentError.h"
#include "model/KeyboardLayout.h"
#include "model/Prefs.h"
#include "remote/MidiControl.h"
#include "remote/RemoteControl.h"
#include "update/Updater.h"
#include "video/CompositedVideoOutput.h"

namespace {

// QApplication's names must be set before anything reads the preferences.
int& named(int& argc) {
    QApplication::setApplicationName(QStringLiteral("Vorlin"));
    QApplication::setOrganizationName(QStringLiteral("Vorlin"));
    return argc;
}

// The application's video output: the same as a headless run's, with output windows.
std::unique_ptr<VideoOutput> outputFor(int instanceNumber) {
    auto output = std::make_unique<CompositedVideoOutput>();
    output->enableSurfaces(instanceNumber);
    return output;
}

} // namespace

Application::Application(int& argc, char** argv)
    : m_app(named(argc), argv),
      m_instance((Prefs::registerDefaults(), InstanceLock::acquire(InstanceLock::defaultFolder()))),
      m_model(std::make_unique<AppModel>(outputFor(m_instance.number()))) {
    // Qt's own dialogs (file dialogs, buttons) in Japanese, as the rest of the window.
    auto* qtTexts = new QTranslator(&m_app);
    if (qtTexts->load(QLocale(QLocale::Japanese), QStringLiteral("qtbase"), QStringLiteral("_"),
                      QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
        m_app.installTranslator(qtTexts);
    const int n = m_instance.number();
    m_model->session().setInstanceNumber(n);
    // The window benchmark's reference: the same program and tick with the views deaf to the
    // live state, so what drawing costs can be told apart from what running costs.
    if (qEnvironmentVariable("VORLIN_VIEW_UPDATES") == QStringLiteral("off"))
        m_model->live().blockSignals(true);
    m_window = std::make_unique<MainWindow>(*m_model, n);
    m_window->placeOnScreen();
    m_model->start();
    m_keys = std::make_unique<KeyInput>(*m_model);
    m_app.installEventFilter(m_keys.get());
    m_wheel = std::make_unique<WheelGuard>();
    m_app.installEventFilter(m_wheel.get());
    m_updaterDialogs =
        std::make_unique<UpdaterDialogs>(m_window.get(), [this] { m_updater->cancelDownload(); });
    m_updater = std::make_unique<Updater>(Updater::programOptions(), *m_updaterDialogs);
    m_window->onCheckForUpdates = [this] { m_updater->checkNow(); };
    // A verified release replaces this program once it has quit (the window still asks about an
    // unsaved show), and starts the new one.
    QObject::connect(m_updater.get(), &Updater::readyToRestart, m_window.get(),
                     [this] { m_window->close(); });
    QObject::connect(&m_app, &QCoreApplication::aboutToQuit, m_updater.get(),
                     [this] { m_updater->applicationWillTerminate(); });
    // Remote control (OSC), off unless switched on in the settings.
    m_remote = std::make_unique<RemoteControl>(*m_model);
    const auto listen = [this] {
        if (const auto problem = m_remote->configure())
            m_model->status().show(*problem);
    };
    // MIDI in (ALSA sequencer), off unless switched on; learning works on whatever comes in.
    m_midi = std::make_unique<MidiControl>(*m_model);
    const auto listenAll = [this, listen] {
        listen();
        if (const auto problem = m_midi->configure())
            m_model->status().show(*problem);
    };
    listenAll();
    m_window->onRemoteChange = listenAll;
    m_window->onLearnMidi = [this](const MidiBinding& target) {
        m_midi->learn(target);
        m_model->status().show(QStringLiteral("MIDI のノートかコントロールを送ってください（%1）")
                                   .arg(MidiControl::actionName(target)));
    };
    QObject::connect(m_midi.get(), &MidiControl::learned, m_window.get(),
                     [this] { m_window->update(); });
}

Application::~Application() {
    m_app.removeEventFilter(m_wheel.get());
    m_app.removeEventFilter(m_keys.get());
}

void Application::openStartShow(const QString& named) {
    AppModel& model = *m_model;
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
        model.status().show(QStringLiteral("キーマップを開けません: ") + error.message());
    }
}

int Application::exec() {
    AppModel& model = *m_model;
    const QStringList args = QApplication::arguments().mid(1);
    const QString named = args.isEmpty() ? QString() : args.first();
    ShowSession& session = model.session();
    session.enableRecovery(InstanceLock::defaultFolder() + QStringLiteral("/Recovery"));
    // Changes a crash left behind are offered over the window before any show opens.
    const bool leftBehind = session.recoveryCopy().has_value();
    if (!leftBehind)
        openStartShow(named);

    BackgroundInput background(
        model, [] { return QGuiApplication::applicationState() == Qt::ApplicationActive; });
    if (Prefs::value(Prefs::kBackgroundInput, false).toBool())
        background.setEnabled(true);
    m_window->onBackgroundInputChange = [&background](bool on) { background.setEnabled(on); };
    m_window->updateTitle();
    m_window->show();
    m_window->activateWindow();
    if (leftBehind && !session.offerRecovery(m_window->interaction()))
        openStartShow(named);
    if (Prefs::value(Prefs::kStartLocked, false).toBool())
        session.setLocked(true);
    m_window->updateTitle();
    if (Prefs::value(Prefs::kOpenVideoOnLaunch, false).toBool())
        model.video().show();
    m_updater->checkOnLaunch(m_instance.number());
    const int status = QApplication::exec();
    m_window->onBackgroundInputChange = nullptr;
    return status;
}

int runApplication(int& argc, char** argv) {
    Application app(argc, argv);
    return app.exec();
}
