#include "SelfTest.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <functional>

#include <QAbstractButton>
#include <QAbstractScrollArea>
#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QDoubleSpinBox>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QGlyphRun>
#include <QGroupBox>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMenu>
#include <QMenuBar>
#include <QPointer>
#include <QProcess>
#include <QPushButton>
#include <QScreen>
#include <QSplitter>
#include <QStandardPaths>
#include <QTabWidget>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QTextLayout>
#include <QTimer>
#include <QWindow>

#include "Files.h"
#include "MediaFixtures.h"
#include "PdfFixture.h"
#include "Wait.h"
#include "Widgets.h"
#include "XInput.h"
#include "app/CueListView.h"
#include "app/DeckPanel.h"
#include "app/DemoShow.h"
#include "app/DetailPanel.h"
#include "app/KeyCodeMap.h"
#include "app/KeyInput.h"
#include "app/KeyboardView.h"
#include "app/MainWindow.h"
#include "app/MeterPanel.h"
#include "app/PageListPanel.h"
#include "app/WaveformView.h"
#include "cue/AppModel.h"
#include "model/DocumentError.h"
#include "model/KeyPalette.h"
#include "model/KeyboardLayout.h"
#include "model/KeymapDocument.h"
#include "model/Prefs.h"
#include "model/ShowFile.h"
#include "video/OutputSurface.h"
#include "video/ScreenList.h"

namespace SelfTest {
namespace {

struct Log {
    int passed = 0;
    int failed = 0;
    // Prints the check, its figures put in for %1, %2…, and gives back whether it held.
    template <typename... Figures>
    bool check(bool ok, const QString& what, const Figures&... figures) {
        QString text = what;
        ((text = text.arg(figures)), ...);
        std::printf("%s %s\n", ok ? "PASS" : "FAIL", text.toUtf8().constData());
        std::fflush(stdout);
        (ok ? passed : failed) += 1;
        return ok;
    }
};

void waitForMedia(AppModel& model) {
    Wait::until([&] { return model.media().pending() == 0; }, 20000);
}

// A key as the keyboard sends it, through the application's event filters.
void press(MainWindow& window, KeyCode code, bool down, Qt::KeyboardModifiers modifiers = {}) {
    const auto evdev = KeyCodeMap::toEvdev(code).value_or(0);
    QKeyEvent event(down ? QEvent::KeyPress : QEvent::KeyRelease, 0, modifiers, evdev + 8, 0, 0);
    QApplication::sendEvent(&window, &event);
}

void openDemo(AppModel& model, const QString& folder) {
    model.open(DemoShow::create(folder));
    waitForMedia(model);
}

void checkLayout(MainWindow& window, Log& log) {
    int missing = 0;
    for (KeyCode code : KeyboardLayout::fillOrder())
        missing += window.keyboard().cellRect(code).isEmpty();
    if (const QScreen* screen = window.screen()) {
        const QRect visible = screen->availableGeometry();
        log.check(window.minimumWidth() == std::min(980, visible.width()),
                  "minimum width %1 for a %2-point screen", window.minimumWidth(), visible.width());
        if (visible.width() >= 980 &&
            visible.height() >= 680) // a screen that can hold the minimum size
            log.check(visible.contains(window.geometry()), "the window lies inside the screen");
    }
    log.check(missing == 0, "every one of %1 keys has a drawn cell (%2 missing)",
              KeyboardLayout::fillOrder().size(), missing);
}

// The colour a key cell is drawn in: its palette entry, lighter while it plays.
QColor cellColour(AppModel& model, KeyCode code) {
    const auto c = KeyPalette::colorFor(model.document().assignments.at(code).colorIndex);
    const QColor colour = QColor::fromRgbF(c.red, c.green, c.blue);
    return model.isRunning(code) ? colour.lighter(160) : colour;
}

// Characters of `text` that no installed font can draw in `font` (they would show as empty
// boxes): the glyphs the text layout picked, fallback fonts included, that are .notdef.
QString missingGlyphs(const QString& text, const QFont& font) {
    QTextLayout layout(text, font);
    layout.beginLayout();
    while (layout.createLine().isValid()) {
    }
    layout.endLayout();
    QString missing;
    for (const QGlyphRun& run : layout.glyphRuns())
        for (const quint32 glyph : run.glyphIndexes())
            if (glyph == 0)
                missing += QStringLiteral("?");
    return missing.isEmpty() ? QString() : text;
}

// Every text a window shows: labels, buttons, group titles, list and table cells, combo items.
QStringList textsWithMissingGlyphs(QWidget& window) {
    QStringList bad;
    auto check = [&bad](const QString& text, const QFont& font) {
        const QString missing = missingGlyphs(text, font);
        if (!missing.isEmpty())
            bad << missing;
    };
    for (QLabel* label : window.findChildren<QLabel*>())
        check(label->text(), label->font());
    for (QAbstractButton* button : window.findChildren<QAbstractButton*>())
        check(button->text(), button->font());
    for (QGroupBox* box : window.findChildren<QGroupBox*>())
        check(box->title(), box->font());
    for (QComboBox* box : window.findChildren<QComboBox*>())
        for (int i = 0; i < box->count(); ++i)
            check(box->itemText(i), box->font());
    for (QListWidget* list : window.findChildren<QListWidget*>())
        for (int i = 0; i < list->count(); ++i)
            check(list->item(i)->text(), list->font());
    for (QTableWidget* table : window.findChildren<QTableWidget*>())
        for (int r = 0; r < table->rowCount(); ++r)
            for (int c = 0; c < table->columnCount(); ++c)
                if (const QTableWidgetItem* item = table->item(r, c))
                    check(item->text(), table->font());
    return bad;
}

QImage grab(QWidget& window) {
    QScreen* screen = window.screen();
    return (screen ? screen->grabWindow(window.winId()) : window.grab()).toImage();
}

// How many pixels of `area` (window coordinates) are close to `colour`.
int pixelsLike(const QImage& image, QWidget& window, QWidget& child, const QRect& area,
               const QColor& colour) {
    const QRect in(child.mapTo(&window, area.topLeft()), area.size());
    int count = 0;
    for (int y = in.top(); y <= in.bottom(); ++y)
        for (int x = in.left(); x <= in.right(); ++x) {
            const QColor c = image.pixelColor(QPoint(x, y) * image.devicePixelRatio());
            count += std::abs(c.red() - colour.red()) + std::abs(c.green() - colour.green()) +
                         std::abs(c.blue() - colour.blue()) <
                     30;
        }
    return count;
}

void checkScreenshot(AppModel& model, MainWindow& window, const QString& file,
                     const QString& folder, Log& log) {
    // Qt's own dialogs speak Japanese as the window does.
    log.check(QCoreApplication::translate("QPlatformTheme", "Cancel") != "Cancel",
              "Qt's own texts are in Japanese (Cancel: %1)",
              QCoreApplication::translate("QPlatformTheme", "Cancel"));
    openDemo(model, folder);
    window.setPageListShown(true);
    // A show in progress: the fanfare from the second page, then the bell, the drone and the
    // claps on the first; the drone selected, so the detail panel shows it.
    model.editor().switchPage(1);
    waitForMedia(model);
    press(window, 0, true);
    press(window, 0, false);
    model.editor().switchPage(0);
    waitForMedia(model);
    for (KeyCode code : {KeyCode(0), KeyCode(1), KeyCode(2)}) {
        press(window, code, true);
        press(window, code, false);
    }
    Wait::pump(600);
    const QImage image = grab(window);

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
        log.check(distance < 24, "cell %1 is drawn in %2 (wanted %3)", KeyboardLayout::label(code),
                  drawn.name(), wanted.name());
    }

    QTableWidget& cues = window.cueList();
    log.check(cues.rowCount() == 4 && cues.item(0, 1)->text() == QStringLiteral("第二部"),
              "the cue list shows 4 cues, the first from 第二部 (%1 rows)", cues.rowCount());
    const QRect progress = cues.visualItemRect(cues.item(1, CueListView::progressColumn));
    log.check(pixelsLike(image, window, *cues.viewport(), progress, QColor(90, 170, 230)) > 20,
              "the bell's row draws its progress bar");

    MeterPanel& meters = window.meters();
    const QRect first = meters.muteRect(0);
    const QRect bars(first.left(), 0, first.width() * 2, first.top());
    const int lit = pixelsLike(image, window, meters, bars, QColor(80, 200, 110)) +
                    pixelsLike(image, window, meters, bars, QColor(230, 200, 60)) +
                    pixelsLike(image, window, meters, bars, QColor(220, 60, 50));
    log.check(lit > 200, "output meters 1 and 2 are lit (%1 pixels)", lit);

    // The same meters by source: the playing keys' channels, grouped under their labels.
    meters.setShowsSources(true);
    Wait::pump(100);
    const QImage sourcesShot = grab(window);
    sourcesShot.save(QFileInfo(file).dir().filePath("meters-by-source.png"));
    const QRect panel(0, 0, meters.width(), first.top());
    const int litSources = pixelsLike(sourcesShot, window, meters, panel, QColor(80, 200, 110)) +
                           pixelsLike(sourcesShot, window, meters, panel, QColor(230, 200, 60));
    log.check(litSources > 200, "source meters of the playing keys are lit (%1 pixels)",
              litSources);
    meters.setShowsSources(false);

    QListWidget& pages = window.pageList().list();
    log.check(pages.isVisible() && pages.count() == 2 && pages.item(1)->text().contains("▶"),
              "the page list shows both pages, 第二部 marked as playing");

    model.status().show(QString());
    model.document().selectedKey = 1;
    emit model.cueEngine().selectedKeyChanged();
    Wait::pump(100);
    const QImage detailShot = grab(window); // the artefact: the drone in the detail panel
    log.check(detailShot.save(file), "the window is saved to " + file);
    auto* title = window.detail().findChild<QLineEdit*>("title");
    log.check(title && title->text() == QStringLiteral("ドローン（ループ）"),
              "the detail panel shows the selected drone");
    WaveformView* waveform = window.detail().findChild<WaveformView*>();
    log.check(waveform && pixelsLike(detailShot, window, *waveform, waveform->rect(),
                                     QColor(90, 170, 230)) > waveform->width() * 4,
              "the drone's waveform is drawn");

    const QStringList bad = textsWithMissingGlyphs(window);
    log.check(bad.isEmpty(), "every text of the window has its glyphs: " + bad.join(" | "));

    window.showSettings();
    Wait::pump(300);
    QWidget& settings = *window.settingsWindow();
    const QString settingsFile = QFileInfo(file).dir().filePath("settings-window.png");
    log.check(grab(settings).save(settingsFile), "the settings window is saved to " + settingsFile);
    const QStringList badSettings = textsWithMissingGlyphs(settings);
    log.check(badSettings.isEmpty(),
              "every text of the settings has its glyphs: " + badSettings.join(" | "));
}

} // namespace

// The output window from the menu: a window of its own showing the pictures of the keys, while
// the keys stay with the main window; the same menu entry closes it.
constexpr KeyCode kMovieKey = 6; // Z

// A 4:3 movie of 4 s on the Z key.
bool assignMovie(AppModel& model, const QString& folder, Log& log) {
    const MediaFixtures::Video video{160, 120, 0.0, 4.0};
    const std::string movie = (folder + "/movie.mp4").toStdString();
    QDir().mkpath(folder);
    if (!log.check(MediaFixtures::write(movie, "aac", {{1, 48000, 4.0, 440.0, 0.2}}, &video),
                   "a movie is written"))
        return false;
    model.editor().assign(QString::fromStdString(movie), kMovieKey);
    waitForMedia(model);
    return true;
}

// The output surface on screen that `is` picks, if there is one.
OutputSurface* exposedSurface(const std::function<bool(QWindow*)>& is) {
    for (QWindow* candidate : QGuiApplication::topLevelWindows())
        if (is(candidate) && candidate->isExposed())
            return dynamic_cast<OutputSurface*>(candidate);
    return nullptr;
}

bool anyVisible(const std::function<bool(QWindow*)>& is) {
    const QWindowList windows = QGuiApplication::topLevelWindows();
    return std::any_of(windows.begin(), windows.end(),
                       [&](QWindow* window) { return is(window) && window->isVisible(); });
}

// What OpenGL drew on `surface`, kept as `name` beside the screenshot; the movie (a grey well
// above black) must be in the middle of it.
QImage checkShowsMovie(OutputSurface& surface, const QString& shot, const QString& name,
                       const QString& what, Log& log) {
    const QImage frame = surface.grabFramebuffer();
    frame.save(QFileInfo(shot).dir().filePath(name));
    const int grey =
        frame.isNull() ? -1 : qGray(frame.pixel(frame.width() / 2, frame.height() / 2));
    log.check(grey > 20, "%1 shows the movie (grey %2 in the middle)", what, grey);
    return frame;
}

void checkOutputWindow(AppModel& model, MainWindow& window, const QString& shot,
                       const QString& folder, Log& log) {
    if (!assignMovie(model, folder, log))
        return;
    QAction* toggle = startingWith(window.findChildren<QAction*>(), "映像出力を開く／閉じる");
    if (!log.check(toggle, "the menu has 映像出力を開く／閉じる"))
        return;
    toggle->trigger();
    Wait::pump(400);
    const auto isOutputWindow = [](QWindow* window) {
        return window->title() == QStringLiteral("映像出力 #1");
    };
    OutputSurface* output = exposedSurface(isOutputWindow);
    const bool opened = log.check(output, "the menu opens the window 映像出力 #1");
    log.check(model.status().text() == QStringLiteral("映像出力は開いています"),
              "the status line says the output is open");
    if (!opened)
        return;
    press(window, kMovieKey, true);
    press(window, kMovieKey, false);
    log.check(model.isRunning(kMovieKey), "a key press still reaches the show");
    log.check(QGuiApplication::focusWindow() != output, "the output window leaves the keys alone");
    Wait::pump(700);
    const QImage frame =
        checkShowsMovie(*output, shot, "output-window.png", "the output window", log);
    log.check(!frame.isNull() && qGray(frame.pixel(4, frame.height() / 2)) == 0,
              "a 4:3 movie in the 16:9 window has black bars");
    toggle->trigger();
    Wait::pump(200);
    log.check(!model.video().isShowing() && !anyVisible(isOutputWindow),
              "the same entry closes it");
}

// Two displays: the operator chooses the second in 再生 › 映像の出力先; a surface covers exactly
// that display without a frame, the keys stay with the main window, and the movie a key starts
// is drawn there.
void checkDisplaySurface(AppModel& model, MainWindow& window, const QString& shot,
                         const QString& folder, Log& log) {
    const QList<QScreen*> screens = QGuiApplication::screens();
    if (!log.check(screens.size() >= 2, "Qt sees two displays (it sees %1)", screens.size()) ||
        !assignMovie(model, folder, log))
        return;
    QMenu* choices = startingWith(window.findChildren<QMenu*>(), "映像の出力先");
    if (!log.check(choices, "the menu has 映像の出力先"))
        return;
    emit choices->aboutToShow(); // as opening the menu does: it lists the displays attached now
    QAction* second = startingWith(choices->actions(), "2: ");
    if (!log.check(second, "the output menu lists a display 2"))
        return;
    log.check(!second->text().contains(QStringLiteral("※操作画面")),
              "display 2 is not marked as the main window's");
    second->trigger();
    Wait::pump(500);
    QScreen* target = ScreenList::qtScreens().value(1);
    const auto onTarget = [target](QWindow* window) { return window->screen() == target; };
    OutputSurface* surface = exposedSurface(onTarget);
    if (!log.check(surface, "choosing display 2 opens a surface on it"))
        return;
    log.check(surface->geometry() == target->geometry(),
              "the surface covers display 2 exactly (%1,%2 %3×%4)", surface->geometry().x(),
              surface->geometry().y(), surface->geometry().width(), surface->geometry().height());
    log.check(surface->flags().testFlag(Qt::FramelessWindowHint) &&
                  surface->flags().testFlag(Qt::WindowDoesNotAcceptFocus) &&
                  surface->flags().testFlag(Qt::WindowStaysOnTopHint),
              "the surface has no frame, stays on top and takes no focus");
    press(window, kMovieKey, true);
    press(window, kMovieKey, false);
    log.check(model.isRunning(kMovieKey), "a key press on the main window starts the movie");
    log.check(QGuiApplication::focusWindow() != surface,
              "the display surface leaves the keys alone");
    Wait::pump(500);
    // A 25 fps movie: a frame per new picture, not one per refresh of the display.
    const std::int64_t before = surface->framesDrawn();
    Wait::pump(1000);
    const std::int64_t frames = surface->framesDrawn() - before;
    log.check(frames >= 20 && frames <= 30,
              "the surface draws each new picture and nothing more (%1 frames in 1 s)", frames);
    checkShowsMovie(*surface, shot, "display-surface.png", "display 2", log);
    second->trigger(); // unchecked: the display is no longer wanted
    Wait::pump(300);
    log.check(!anyVisible(onTarget), "unchoosing display 2 closes its surface");
}

// The deck panel: opened from the detail panel for the demo's list key and for a PDF, with the
// slides' thumbnails, the live item marked as the real keys step, and closed again.
void checkDeckPanel(AppModel& model, MainWindow& window, const QString& shot, const QString& folder,
                    Log& log) {
    constexpr KeyCode kList = 3, kSlides = 5; // F (the demo's list) and G
    // Nothing over the main window in its picture.
    if (window.settingsWindow())
        window.settingsWindow()->close();
    model.video().hide();
    const QString pdf = folder + "/slides.pdf";
    log.check(writePdf(pdf, {Qt::red, Qt::green, Qt::blue}), "a three-page PDF is written");
    model.editor().assign(pdf, kSlides);
    waitForMedia(model);
    // Clear of the layout's own minimum, so the width given back is exactly the one taken.
    window.resize(window.minimumSizeHint().width() + 60, window.height());
    Wait::pump(100);
    const int closedWidth = window.width();
    DeckPanel* panel = window.findChild<DeckPanel*>();
    QPushButton* open = startingWith(window.detail().findChildren<QPushButton*>(), "一覧を開く");
    if (!log.check(panel && open && !panel->isVisible(), "the deck panel starts closed"))
        return;
    for (KeyCode code : {kList, kSlides}) {
        model.document().selectedKey = code;
        emit model.cueEngine().selectedKeyChanged();
        Wait::pump(50);
        open->click();
    }
    Wait::pump(1500); // thumbnails are made on pool threads
    log.check(panel->isVisible() && panel->tabs().count() == 2 &&
                  window.width() == closedWidth + DeckPanel::kWidth,
              "two tabs open and the window grew by %1 px (%2 → %3)", DeckPanel::kWidth,
              closedWidth, window.width());
    QListWidget& items = panel->list();
    log.check(items.count() == 3 && !items.item(0)->icon().isNull() &&
                  !items.item(2)->icon().isNull(),
              "the slides are listed with thumbnails (%1 items)", items.count());
    press(window, kSlides, true);
    press(window, kSlides, false);
    press(window, kSlides, true);
    press(window, kSlides, false);
    Wait::pump(300);
    log.check(items.count() == 3 && items.item(1)->text().startsWith(QStringLiteral("▶")) &&
                  !items.item(0)->text().startsWith(QStringLiteral("▶")),
              "two presses: the second slide is marked live");
    model.video().hide(); // the output window the slides opened would cover the panel
    Wait::pump(100);
    const QString file = QFileInfo(shot).dir().filePath("deck-panel.png");
    log.check(grab(window).save(file), "the window with the deck panel is saved to " + file);
    const QStringList bad = textsWithMissingGlyphs(*panel);
    log.check(bad.isEmpty(), "every text of the deck panel has its glyphs: " + bad.join(" | "));
    model.stopAll(true);
    while (panel->tabs().count() > 0)
        emit panel->tabs().tabCloseRequested(0);
    Wait::pump(200);
    // Back to where it was, unless what the detail panel shows now needs more.
    const int expected = std::max(closedWidth, window.minimumSizeHint().width());
    log.check(!panel->isVisible() && window.width() == expected,
              "closing the tabs closes the panel and gives the width back (%1, wanted %2)",
              window.width(), expected);
}

// The window as an operator uses it live, with real clicks and keys through the X server and a
// window manager: a click into a field and the ways out of it, Enter in a field, keys while a
// menu is open. A screenshot of each step goes next to `shot`.
// What does not fit in the window as laid out now: two shown widgets of one parent drawn over
// each other, or a label, button or meter smaller than it needs to be read whole (its text cut,
// its channel numbers gone). Widgets inside scroll areas and splitter handles are left out:
// they are meant to be partly hidden or to touch.
QStringList crowding(QWidget& root) {
    QStringList found;
    const auto name = [](const QWidget* w) {
        QString text = w->metaObject()->className();
        if (const auto* label = qobject_cast<const QLabel*>(w))
            text += " \"" + label->text().left(12) + "\"";
        else if (const auto* button = qobject_cast<const QAbstractButton*>(w))
            text += " \"" + button->text().left(12) + "\"";
        return text;
    };
    const std::function<void(QWidget*)> visit = [&](QWidget* parent) {
        QList<QWidget*> shown;
        for (QObject* child : parent->children()) {
            auto* w = qobject_cast<QWidget*>(child);
            if (!w || w->isWindow() || !w->isVisible() || qobject_cast<QSplitterHandle*>(w))
                continue;
            shown << w;
            if (!qobject_cast<QAbstractScrollArea*>(w))
                visit(w);
        }
        for (int i = 0; i < shown.size(); ++i) {
            QWidget* w = shown[i];
            const QSize needed = w->minimumSizeHint();
            const bool reads = qobject_cast<QLabel*>(w) || qobject_cast<QAbstractButton*>(w) ||
                               qobject_cast<QComboBox*>(w);
            const auto* label = qobject_cast<QLabel*>(w);
            if (reads && !(label && label->wordWrap()) &&
                (w->width() < needed.width() || w->height() < needed.height()))
                found << QString("%1 %2×%3 < %4×%5")
                             .arg(name(w))
                             .arg(w->width())
                             .arg(w->height())
                             .arg(needed.width())
                             .arg(needed.height());
            if (!reads && w->height() < w->minimumHeight())
                found << QString("%1 %2 high < its least %3")
                             .arg(name(w))
                             .arg(w->height())
                             .arg(w->minimumHeight());
            for (int j = i + 1; j < shown.size(); ++j)
                if (w->geometry().intersects(shown[j]->geometry()))
                    found << name(w) + " over " + name(shown[j]);
        }
    };
    visit(&root);
    return found;
}

void checkOperator(AppModel& model, MainWindow& window, const QString& shot, const QString& folder,
                   Log& log) {
    if (!log.check(XInput::available(), "the X server takes XTest input"))
        return;
    constexpr KeyCode kA = 0, kS = 1, kD = 2, kEnter = 36;
    openDemo(model, folder);
    // ENTER holds a sound too: Enter typed into a field must not start it.
    const KeyAssignment enter(model.document().assignments.at(kA).path, kEnter);
    model.document().assignments[kEnter] = enter;
    model.media().loadMedia(enter, false);
    waitForMedia(model);
    window.activateWindow();
    window.raise();
    XInput::settle(500);
    auto* keyboard = window.findChild<KeyboardView*>();
    auto* fadeIn = window.findChild<QDoubleSpinBox*>(QStringLiteral("fadeIn"));
    if (!log.check(keyboard && fadeIn, "the keyboard and the fade-in field are there"))
        return;
    int step = 0;
    const auto grab = [&] {
        const QString file = QString(shot).replace(".png", QString("-%1.png").arg(++step));
        window.grab().save(file);
    };
    const auto cell = [&](KeyCode code) { return keyboard->cellRect(code).center().toPoint(); };

    fadeIn->setFocus(); // as a closing dialog may leave it: not clicked into
    XInput::key("d");
    log.check(model.isRunning(kD) && !fadeIn->hasFocus(),
              "a field the focus came to without a click gives the keys to the show");
    model.stopAll(true);
    XInput::key("s");
    log.check(model.isRunning(kS), "S pressed on the keyboard plays its loop");
    XInput::click(keyboard, cell(kS));
    XInput::click(fadeIn);
    grab();
    log.check(fadeIn->hasFocus(), "a click puts the focus into the fade-in field");
    XInput::key("d");
    log.check(!model.isRunning(kD) && model.status().text() == KeyInput::kFieldMessage,
              "D typed into it starts nothing, and the status line says why");
    // With a key's details shown, on this laptop's screen and on the smaller ones the size
    // rules allow, every view keeps its labels and none is drawn over another.
    const QSize laptop = window.size();
    for (const QSize size : {laptop, QSize(1280, 690), QSize(980, 680)}) {
        window.resize(size);
        XInput::settle(300);
        const QStringList crowded = crowding(window);
        log.check(crowded.isEmpty(), "at %1×%2 nothing is cut or drawn over: %3", window.width(),
                  window.height(), crowded.join(" | "));
        if (size != laptop)
            grab();
    }
    window.resize(laptop);
    XInput::settle(300);
    XInput::key("Escape");
    log.check(model.isRunning(kS), "Escape typed into the clicked field leaves the loop playing");
    log.check(!fadeIn->hasFocus(), "and leaves the field");

    XInput::click(fadeIn);
    XInput::click(keyboard, cell(kD)); // selects D: the focus must not go back into a field
    grab();
    log.check(!fadeIn->hasFocus() && !QApplication::focusWidget()->inherits("QAbstractSpinBox"),
              "a click on the drawn keyboard ends the editing");
    XInput::key("Escape");
    log.check(!model.isRunning(kS), "then Escape stops the loop");

    XInput::key("s");
    XInput::click(keyboard, cell(kS));
    XInput::click(fadeIn);
    XInput::key("Right"); // past the selection the click left
    XInput::key("1");
    XInput::key("Return");
    grab();
    log.check(!model.isRunning(kEnter), "Enter in the field does not start ENTER's cue");
    log.check(!fadeIn->hasFocus(), "Enter confirms and leaves the field");
    XInput::key("a");
    log.check(model.isRunning(kA), "and the next key plays at once");

    QMenuBar* bar = window.menuBar();
    QAction* playMenu = startingWith(bar->actions(), "再生");
    if (playMenu)
        XInput::click(bar, bar->actionGeometry(playMenu).center());
    grab();
    log.check(QApplication::activePopupWidget() != nullptr, "a click opens the 再生 menu");
    XInput::key("d");
    log.check(!model.isRunning(kD), "a key typed into the open menu starts nothing behind it");
    XInput::key("Escape");
    log.check(QApplication::activePopupWidget() == nullptr, "Escape closes the menu");
    log.check(model.isRunning(kS) && model.isRunning(kA), "and stops nothing");
    grab();

    // The settings: the wheel over a choice scrolls instead of changing it; Escape closes them.
    window.showSettings();
    XInput::settle(300);
    // Closing deletes the settings window: hold it as a pointer that knows.
    const QPointer<QWidget> settings = window.settingsWindow();
    auto* tabs = settings ? settings->findChild<QTabWidget*>() : nullptr;
    if (!log.check(tabs && tabs->count() == 6, "the settings are in six tabs"))
        return;
    // Every tab fits the laptop's screen whole: the window's frame, and each page in it.
    const QRect screen = settings->screen()->availableGeometry();
    bool fits = settings->frameGeometry().height() <= screen.height();
    QString heights;
    const int given = tabs->currentWidget()->height(); // every page gets that area when shown
    for (int t = 0; t < tabs->count(); ++t) {
        const int needed = tabs->widget(t)->minimumSizeHint().height();
        fits = fits && needed <= given;
        heights += QString(" %1/%2").arg(needed).arg(given);
    }
    log.check(fits,
              "the settings (%1 high) fit a %2-pixel-high screen, every tab whole "
              "(needed/given:%3)",
              settings->frameGeometry().height(), screen.height(), heights);
    XInput::click(tabs->tabBar(), tabs->tabBar()->tabRect(1).center());
    log.check(tabs->currentIndex() == 1, "a click on 新しいキー opens that tab");
    QComboBox* mode = startingWith(tabs->currentWidget()->findChildren<QComboBox*>(), "トグル");
    if (!log.check(mode, "the settings show the default mode"))
        return;
    const int before = mode->currentIndex();
    XInput::wheel(mode, -3);
    grab();
    log.check(mode->currentIndex() == before,
              "the wheel over the default mode leaves it as it was");
    XInput::key("Escape");
    log.check(!settings || !settings->isVisible(), "Escape closes the settings");
    log.check(model.isRunning(kS) && model.isRunning(kA), "and stops nothing");
}

// A PDF deck stepped by real presses: after each, the cue list's bar and the key's own bar on
// the screen (read back from the X server, not redrawn for the check) show index ÷ items. Only
// a picture changes with a step: the step's own redraw is the only one.
void checkDeckProgress(AppModel& model, MainWindow& window, const QString& folder, Log& log) {
    constexpr KeyCode kSlides = 5; // G
    const QString pdf = folder + "/steps.pdf";
    if (!log.check(writePdf(pdf, {Qt::red, Qt::green, Qt::blue}), "a three-page PDF is written"))
        return;
    model.stopAll(true); // nothing else running: nothing else makes the views draw
    model.editor().assign(pdf, kSlides);
    waitForMedia(model);
    // The slides' output window, small in the screen's corner: the keyboard stays in sight.
    model.video().show();
    XInput::settle(300);
    for (QWindow* w : QGuiApplication::topLevelWindows())
        if (w->isVisible() && w->title().startsWith(QStringLiteral("映像出力")))
            w->setGeometry(window.screen()->geometry().right() - 200, 0, 160, 90);
    window.activateWindow();
    XInput::settle(300);
    auto* list = window.findChild<CueListView*>();
    auto* keyboard = window.findChild<KeyboardView*>();
    const QRect cell = keyboard->cellRect(kSlides).toAlignedRect();
    for (int step = 1; step <= 3; ++step) {
        XInput::key("g");
        XInput::settle(400);
        QString listed;
        const auto& rows = model.live().cues();
        for (std::size_t r = 0; r < rows.size(); ++r)
            if (rows[r].key == kSlides &&
                list->item(static_cast<int>(r), CueListView::progressColumn))
                listed = list->item(static_cast<int>(r), CueListView::progressColumn)
                             ->data(CueListView::kShownRole)
                             .toString()
                             .section('|', 1);
        // The key's bar on the screen: its ink-coloured part, in the middle of its 5 px.
        const QPoint origin = keyboard->mapToGlobal(cell.topLeft());
        const QImage picture =
            window.screen()
                ->grabWindow(0, origin.x(), origin.y(), cell.width(), cell.height())
                .toImage();
        const QRectF exact = keyboard->cellRect(kSlides);
        const int y = static_cast<int>(exact.bottom() - 7.0) - cell.top();
        const double width = exact.width() - 12; // the bar's insets
        int inked = 0;
        for (int x = 0; x < picture.width(); ++x) {
            const QRgb c = picture.pixel(x, y) & RGB_MASK; // the screen's alpha is not kept
            inked += c == (qRgb(235, 235, 240) & RGB_MASK) || c == (qRgb(25, 25, 28) & RGB_MASK);
        }
        const int wanted = (100 * step + 1) / 3;
        const double drawn = static_cast<double>(inked) / width;
        log.check(listed == QString::number(wanted) && std::abs(inked - width * step / 3.0) <= 2,
                  "slide %1 of 3: the cue list says %2 % (%3), the key's bar is %4 % "
                  "drawn",
                  step, listed, wanted, std::lround(100 * drawn));
    }
}

// Whether the show file at `path` has something on `code` on its current page.
bool savedHas(const QString& path, KeyCode code) {
    try {
        const KeymapDocument doc = KeymapDocument::decode(Files::read(path));
        const std::size_t current = static_cast<std::size_t>(doc.currentPage.value_or(0));
        return doc.pages && current < doc.pages->size() &&
               (*doc.pages)[current].keys.count(QString::number(code));
    } catch (const DocumentError&) {
        return false;
    }
}

// Ctrl+I on the selected key, the file's path typed into the open panel, and Return. The
// panel is typed into once it is the active window; in this process it runs its own event loop
// inside the key press, so a timer answers it from there.
void typeIntoOpenPanel(const QString& file, Log& log) {
    bool typed = false;
    QString seen;
    QTimer poll;
    poll.setInterval(100);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        const QString title = XInput::activeWindowTitle();
        if (typed || !title.contains(QStringLiteral("キーに入れるファイル")))
            return;
        seen = title;
        typed = XInput::type(file);
        XInput::key(typed ? "Return" : "Escape");
    });
    poll.start();
    XInput::key("i", true);
    Wait::until([&] { return typed; }, 5000);
    XInput::settle(500);
    log.check(typed, "Ctrl+I opens the panel for the selected key (" + seen + "), " + file +
                         " typed into it");
}

// A copy of `file` beside it under a name a US keyboard can type.
QString typeableCopy(const QString& file) {
    const QString copy = QFileInfo(file).absolutePath() + QStringLiteral("/typed.wav");
    QFile::copy(file, copy);
    return copy;
}

// Keys only: an empty key pressed is selected, Ctrl+I and a typed path assign a file to it,
// undo and redo (Ctrl+Shift+Z and Ctrl+Y) reach the saved file through Ctrl+S, the menu names the
// step, and a field with the keyboard takes back its own typing instead of the show's edit; locked
// (Ctrl+Shift+L), Ctrl+I assigns nothing and undo takes nothing back, while a key still plays.
void checkTypedEditsAndLock(AppModel& model, MainWindow& window, Log& log) {
    const KeyCode z = *KeyCodeMap::fromQtKey(Qt::Key_Z);
    const KeyCode x = *KeyCodeMap::fromQtKey(Qt::Key_X);
    const auto& keys = model.document().assignments;
    const QString sound = typeableCopy(keys.at(0).path);
    const QString show = model.session().documentPath().value_or(QString());
    model.editor().clear(z);
    model.editor().clear(x);
    model.save(show);
    window.activateWindow();
    XInput::settle(300);
    XInput::key("z");
    log.check(model.document().selectedKey == z, "an empty key pressed is selected");
    typeIntoOpenPanel(sound, log);
    log.check(keys.count(z) && keys.at(z).path == sound,
              "its path typed and Return put the file on Z");
    XInput::key("z", true);
    XInput::key("s", true);
    log.check(!keys.count(z) && !savedHas(show, z), "Ctrl+Z, Ctrl+S: Z is empty in the file");
    XInput::key("z", true, true);
    XInput::key("s", true);
    log.check(keys.count(z) && savedHas(show, z), "Ctrl+Shift+Z, Ctrl+S: Z is back in it");
    const QAction* undo = startingWith(window.findChildren<QAction*>(), "取り消す");
    log.check(undo && undo->isEnabled() && undo->text().startsWith("取り消す: Z キー"),
              "the menu names the step: %1", undo ? undo->text() : QString());
    XInput::key("z", true);
    XInput::key("y", true);
    log.check(keys.count(z), "Ctrl+Z, then Ctrl+Y puts it back too");
    XInput::key("a"); // selects A: its name field is in the detail panel
    auto* name = window.findChild<QLineEdit*>(QStringLiteral("title"));
    if (!log.check(name, "the detail panel has the key's name field"))
        return;
    XInput::click(name);
    XInput::key("End");
    XInput::key("x");
    XInput::key("z", true);
    log.check(!name->text().endsWith('x') && keys.count(z),
              "Ctrl+Z in the name field takes back the typing, not the show's edit");
    XInput::key("Escape");

    XInput::key("l", true, true);
    auto* band = window.findChild<QLabel*>(QStringLiteral("lockBand"));
    log.check(model.session().isLocked() && band && band->isVisible(),
              "Ctrl+Shift+L locks the show and the band says so");
    XInput::key("x");
    XInput::key("i", true);
    XInput::settle(500);
    log.check(!QApplication::activeModalWidget() && !keys.count(x) &&
                  model.status().text().startsWith(QStringLiteral("本番モード中は")),
              "locked, Ctrl+I on an empty key opens nothing and assigns nothing");
    XInput::key("z", true);
    log.check(keys.count(z), "locked, Ctrl+Z takes nothing back");
    XInput::key("z");
    log.check(model.isRunning(z), "locked, a key press still plays");
    model.stopAll(true);
    XInput::key("l", true, true);
    log.check(!model.session().isLocked() && !band->isVisible(), "Ctrl+Shift+L unlocks it");
}

// The program as typed, killed (kill -9) with an edit not saved: started again, Return takes
// the offer to restore, and Ctrl+S writes the edit to the show's own file.
void checkRecoveryAfterKill(AppModel& model, MainWindow& window, const QString& folder, Log& log) {
    const KeyCode z = *KeyCodeMap::fromQtKey(Qt::Key_Z);
    const QString sound = typeableCopy(model.document().assignments.at(0).path);
    const QString show = folder + "/crash.vorlin";
    KeymapDocument empty;
    empty.pages = std::vector<PageDocument>{{QStringLiteral("ページ 1"), {}}};
    ShowFile::writeAtomically(show, empty.encode());
    // This process holds instance 1: the program started here is instance 2.
    const QString copy = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                         QStringLiteral("/Vorlin/Recovery/instance-2.vorlin");
    const auto mainWindowActive = [] {
        return XInput::activeWindowTitle().startsWith(QStringLiteral("Vorlin #2 — crash.vorlin"));
    };
    QProcess program;
    program.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    program.start(QStringLiteral(VORLIN_EXECUTABLE), {show});
    if (!Wait::until(mainWindowActive, 15000)) {
        log.check(false, "the program started as typed shows its window (" +
                             XInput::activeWindowTitle() + ")");
        program.kill();
        program.waitForFinished();
        return;
    }
    XInput::key("z");
    typeIntoOpenPanel(sound, log);
    log.check(Wait::until([&] { return QFile::exists(copy); }, 6000),
              "an edit not saved is in the recovery copy within seconds");
    ::kill(static_cast<pid_t>(program.processId()), SIGKILL);
    program.waitForFinished();
    log.check(!savedHas(show, z), "killed, the show's own file is as it was");

    // Started again with the show lock preferred: restoring and saving are not edits.
    Prefs::setValue(Prefs::kStartLocked, true);
    program.start(QStringLiteral(VORLIN_EXECUTABLE), {show});
    const bool offered = Wait::until(
        [] {
            const QString title = XInput::activeWindowTitle();
            return !title.isEmpty() && !title.startsWith(QStringLiteral("Vorlin #"));
        },
        15000);
    log.check(offered, "started again, it offers to restore (" + XInput::activeWindowTitle() + ")");
    XInput::key("Return");
    Wait::until(mainWindowActive, 5000);
    XInput::key("s", true);
    log.check(Wait::until([&] { return savedHas(show, z); }, 3000),
              "Return restores the edit and Ctrl+S writes it to the show's own file");
    log.check(Wait::until([&] { return !QFile::exists(copy); }, 3000),
              "and the recovery copy is gone once saved");
    Prefs::remove(Prefs::kStartLocked);
    XInput::key("x");
    XInput::key("i", true);
    XInput::settle(1500);
    log.check(mainWindowActive(), "started locked, Ctrl+I on an empty key opens nothing (" +
                                      XInput::activeWindowTitle() + ")");
    XInput::key("q", true);
    // It may have ended already while the key was sent (the event loop saw it then).
    const bool ended = program.state() == QProcess::NotRunning || program.waitForFinished(10000);
    log.check(ended && program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0,
              "Ctrl+Q ends it with nothing left to ask (%1, status %2)",
              ended ? "ended" : "still running", program.exitCode());
    if (program.state() != QProcess::NotRunning) {
        program.kill();
        program.waitForFinished();
    }
    window.activateWindow();
    XInput::settle(500);
}

int run(AppModel& model, MainWindow& window) {
    Log log;
    QTemporaryDir scratch; // the generated show and its sounds
    const QString folder = scratch.path() + "/Demo";
    window.show();
    Wait::pump(100);
    if (qEnvironmentVariableIsSet("VORLIN_SELFTEST_LAYOUT"))
        checkLayout(window, log);
    if (qEnvironmentVariableIsSet("VORLIN_SELFTEST_SCREENSHOT")) {
        checkScreenshot(model, window, qEnvironmentVariable("VORLIN_SELFTEST_SCREENSHOT"), folder,
                        log);
        checkOutputWindow(model, window, qEnvironmentVariable("VORLIN_SELFTEST_SCREENSHOT"), folder,
                          log);
        checkDeckPanel(model, window, qEnvironmentVariable("VORLIN_SELFTEST_SCREENSHOT"), folder,
                       log);
    }
    if (qEnvironmentVariableIsSet("VORLIN_SELFTEST_OPERATOR")) {
        checkOperator(model, window, qEnvironmentVariable("VORLIN_SELFTEST_OPERATOR"), folder, log);
        checkDeckProgress(model, window, folder, log);
        checkTypedEditsAndLock(model, window, log);
        checkRecoveryAfterKill(model, window, folder, log);
        // Last: Ctrl+Q with an output window open ends the program (its event loop returns),
        // the output window with it.
        model.stopAll(true);
        model.save(folder + "/operator.vorlin"); // nothing to ask about on the way out
        model.video().show();
        XInput::settle(500);
        QTimer::singleShot(200, [] { XInput::key("q", true); });
        QTimer::singleShot(5000, [] { QCoreApplication::exit(3); }); // no quit: say so
        QElapsedTimer quitting;
        quitting.start();
        const int status = QApplication::exec();
        log.check(status == 0 && quitting.elapsed() < 2500,
                  "Ctrl+Q with an output window open quits (status %1 after %2 ms)", status,
                  quitting.elapsed());
        log.check(!anyVisible([](QWindow*) { return true; }), "and leaves no window open");
    }
    if (qEnvironmentVariableIsSet("VORLIN_SELFTEST_DISPLAYS"))
        checkDisplaySurface(model, window, qEnvironmentVariable("VORLIN_SELFTEST_DISPLAYS"), folder,
                            log);
    model.stopAll(true);
    std::printf("selftest: %d passed, %d failed\n", log.passed, log.failed);
    return log.failed == 0 && log.passed > 0 ? 0 : 1;
}

} // namespace SelfTest
