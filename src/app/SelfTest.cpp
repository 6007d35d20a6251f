#include "app/SelfTest.h"

#include <cstdio>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QKeyEvent>
#include <QPixmap>
#include <QScreen>
#include <QTemporaryDir>

#include "app/DemoShow.h"
#include "app/KeyCodeMap.h"
#include "app/KeyboardView.h"
#include "app/MainWindow.h"
#include "cue/AppModel.h"
#include "model/KeyPalette.h"
#include "model/KeyboardLayout.h"

namespace SelfTest {
namespace {

struct Log {
    int passed = 0;
    int failed = 0;
    void check(bool ok, const QString& what) {
        std::printf("%s %s\n", ok ? "PASS" : "FAIL", what.toUtf8().constData());
        std::fflush(stdout);
        (ok ? passed : failed) += 1;
    }
};

void waitFor(int milliseconds) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

void waitForMedia(AppModel& model) {
    QElapsedTimer timer;
    timer.start();
    while (model.media().pending() > 0 && timer.elapsed() < 20000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

// A key as the keyboard sends it, through the application's event filters.
void press(MainWindow& window, KeyCode code, bool down, Qt::KeyboardModifiers modifiers = {}) {
    const auto evdev = KeyCodeMap::toEvdev(code).value_or(0);
    QKeyEvent event(down ? QEvent::KeyPress : QEvent::KeyRelease, 0, modifiers, evdev + 8, 0, 0);
    QApplication::sendEvent(&window, &event);
}

double voiceProgress(AppModel& model, KeyCode code) {
    for (const auto& cue : model.cueEngine().cues())
        if (cue->key == code && cue->voiceID) {
            const auto status = model.mixer().snapshot();
            const auto found = status.find(*cue->voiceID);
            return found == status.end() ? -1.0 : found->second.progress;
        }
    return -1.0;
}

void openDemo(AppModel& model, const QString& folder) {
    model.open(DemoShow::create(folder));
    waitForMedia(model);
}

void checkKeys(AppModel& model, MainWindow& window, const QString& codes, const QString& folder,
               Log& log) {
    openDemo(model, folder);
    for (const QString& text : codes.split(',', Qt::SkipEmptyParts)) {
        const auto code = static_cast<KeyCode>(text.trimmed().toUInt());
        const auto& keys = model.document().assignments;
        press(window, code, true);
        press(window, code, false);
        if (!keys.count(code)) {
            log.check(model.document().selectedKey == code,
                      QString("key %1 (empty) selects the key").arg(code));
            continue;
        }
        const QString name = keys.at(code).displayName();
        const MediaInfo* info = model.document().mediaFor(keys.at(code));
        if (info && info->error) {
            log.check(model.cueEngine().statusMessage().contains(*info->error),
                      QString("key %1 (%2) reports: %3").arg(code).arg(name, *info->error));
            continue;
        }
        log.check(model.isRunning(code), QString("key %1 (%2) starts").arg(code).arg(name));
        const double before = voiceProgress(model, code);
        waitFor(150);
        log.check(voiceProgress(model, code) > before,
                  QString("key %1 (%2) plays on").arg(code).arg(name));
        press(window, code, true); // toggle, or retrigger: either way Shift stops it below
        press(window, code, false);
        press(window, code, true, Qt::ShiftModifier);
        log.check(!model.isRunning(code), QString("Shift+key %1 stops it").arg(code));
    }
}

void checkLayout(MainWindow& window, Log& log) {
    for (const KeyRow& row : KeyboardLayout::rows()) {
        QStringList cells;
        for (const KeySpec& spec : row.keys)
            if (spec.kind != KeySpec::Kind::gap)
                cells << QString("%1=%2").arg(spec.label).arg(spec.code);
        std::printf("row %d: %s\n", row.id, cells.join(' ').toUtf8().constData());
    }
    int missing = 0;
    for (KeyCode code : KeyboardLayout::fillOrder())
        missing += window.keyboard().cellRect(code).isEmpty();
    if (const QScreen* screen = window.screen()) {
        const QRect visible = screen->availableGeometry();
        log.check(window.minimumWidth() == std::min(980, visible.width()),
                  QString("minimum width %1 for a %2-point screen")
                      .arg(window.minimumWidth())
                      .arg(visible.width()));
        if (visible.width() >= 980 &&
            visible.height() >= 680) // a screen that can hold the minimum size
            log.check(visible.contains(window.geometry()), "the window lies inside the screen");
    }
    log.check(missing == 0, QString("every one of %1 keys has a drawn cell (%2 missing)")
                                .arg(KeyboardLayout::fillOrder().size())
                                .arg(missing));
}

void checkDemo(AppModel& model, MainWindow& window, const QString& folder, Log& log) {
    openDemo(model, folder);
    for (std::size_t page = 0; page < model.document().pages.size(); ++page) {
        model.editor().switchPage(page);
        waitForMedia(model);
        for (const auto& [code, a] : std::map(model.document().assignments)) {
            const MediaInfo* info = model.document().mediaFor(a);
            if (!info || !info->clip)
                continue; // lists wait for the deck model
            press(window, code, true);
            waitFor(120);
            log.check(voiceProgress(model, code) > 0.0,
                      QString("page %1: %2 sounds").arg(page + 1).arg(a.displayName()));
            press(window, code, false);
        }
        model.stopAll(true);
    }
}

// The colour a key cell is drawn in: its palette entry, lighter while it plays.
QColor cellColour(AppModel& model, KeyCode code) {
    const auto c = KeyPalette::colorFor(model.document().assignments.at(code).colorIndex);
    const QColor colour = QColor::fromRgbF(c.red, c.green, c.blue);
    return model.isRunning(code) ? colour.lighter(160) : colour;
}

void checkScreenshot(AppModel& model, MainWindow& window, const QString& file,
                     const QString& folder, Log& log) {
    openDemo(model, folder);
    press(window, 0, true); // the bell
    press(window, 1, true); // the drone
    waitFor(400);
    QScreen* screen = window.screen();
    const QPixmap shot = screen ? screen->grabWindow(window.winId()) : window.grab();
    log.check(shot.save(file), "the window is saved to " + file);
    const QImage image = shot.toImage();
    KeyboardView& keyboard = window.keyboard();
    for (KeyCode code : {KeyCode(0), KeyCode(1), KeyCode(2), KeyCode(3), KeyCode(5)}) {
        const QRectF cell = keyboard.cellRect(code);
        // A point inside the cell clear of its label and name: the upper right corner area.
        const QPoint at =
            keyboard.mapTo(&window, QPointF(cell.right() - 8, cell.top() + 8).toPoint());
        const QColor drawn = image.pixelColor(at * image.devicePixelRatio());
        const QColor wanted =
            model.document().assignments.count(code) ? cellColour(model, code) : QColor(58, 60, 66);
        const int distance = std::abs(drawn.red() - wanted.red()) +
                             std::abs(drawn.green() - wanted.green()) +
                             std::abs(drawn.blue() - wanted.blue());
        log.check(distance < 24,
                  QString("cell %1 is drawn in %2 (wanted %3)")
                      .arg(KeyboardLayout::label(code), drawn.name(), wanted.name()));
    }
}

} // namespace

bool requested() {
    for (const char* name : {"VORLIN_SELFTEST_KEYS", "VORLIN_SELFTEST_LAYOUT",
                             "VORLIN_SELFTEST_DEMO", "VORLIN_SELFTEST_SCREENSHOT"})
        if (qEnvironmentVariableIsSet(name))
            return true;
    return false;
}

int run(AppModel& model, MainWindow& window) {
    Log log;
    QTemporaryDir scratch; // the generated show and its sounds
    const QString folder = scratch.path() + "/Demo";
    window.show();
    waitFor(100);
    if (qEnvironmentVariableIsSet("VORLIN_SELFTEST_LAYOUT"))
        checkLayout(window, log);
    if (qEnvironmentVariableIsSet("VORLIN_SELFTEST_KEYS"))
        checkKeys(model, window, qEnvironmentVariable("VORLIN_SELFTEST_KEYS"), folder, log);
    if (qEnvironmentVariableIsSet("VORLIN_SELFTEST_DEMO"))
        checkDemo(model, window, folder, log);
    if (qEnvironmentVariableIsSet("VORLIN_SELFTEST_SCREENSHOT"))
        checkScreenshot(model, window, qEnvironmentVariable("VORLIN_SELFTEST_SCREENSHOT"), folder,
                        log);
    model.stopAll(true);
    std::printf("selftest: %d passed, %d failed\n", log.passed, log.failed);
    return log.failed == 0 && log.passed > 0 ? 0 : 1;
}

} // namespace SelfTest
