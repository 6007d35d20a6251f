#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include <QMainWindow>
#include <QPointer>

#include "app/DialogInteraction.h"

class AppModel;
class KeyboardView;
class QLabel;
class QSlider;
class QTableWidget;

// The operator's window: the drawn keyboard, master volume and stop-all on top, the running cues
// with a stop button each, the output meters, the status line, and the menu bar. No control in
// it takes keyboard focus, so keys always reach the show. Main thread.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    MainWindow(AppModel& model, int instanceNumber, QWidget* parent = nullptr);

    KeyboardView& keyboard() { return *m_keyboard; }
    QTableWidget& cueList() { return *m_cueList; }
    void updateTitle();
    // Whether a changed show may be dropped: asks "保存" / "キャンセル" / "保存しない".
    bool confirmDiscard();
    bool saveDocument(bool forcePanel);

    // The frame saved for this instance ("VorlinMain-" + n), else centred and moved 30 points
    // right and down per instance so copies do not cover each other exactly.
    void placeOnScreen();
    // Minimum width from the panels shown (971, 1152 with the page list, +361 with a deck tab),
    // never below 980 or beyond the screen; then fitWindowToScreen.
    void updateMinWidth(bool pageListShown = false, bool deckTabOpen = false);
    // Keeps the window inside the screen's available area.
    void fitWindowToScreen();

    // Brings up the settings window (made on first use).
    void showSettings();
    QWidget* settingsWindow() const { return m_settings; }
    // Called when the operator switches background input in the settings.
    std::function<void(bool)> onBackgroundInputChange;

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void buildMenu();
    void refreshCues();
    void openDocument();
    void showError(const QString& message);

    AppModel& m_model;
    int m_instance;
    DialogInteraction m_dialogs;
    KeyboardView* m_keyboard = nullptr;
    QTableWidget* m_cueList = nullptr;
    QSlider* m_master = nullptr;
    QWidget* m_meters = nullptr;
    std::vector<std::int64_t> m_listedCues; // cue ids the list's rows and buttons stand for
    QPointer<QWidget> m_settings;
};
