#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include <QMainWindow>
#include <QPointer>

#include "app/DialogInteraction.h"
#include "model/MidiBinding.h"

class AppModel;
class CueListView;
class DeckPanel;
class DetailPanel;
class KeyboardView;
class MeterPanel;
class OutputBar;
class PageListPanel;
class QAction;
class QMenu;
class QTableWidget;

// The operator's window: master volume, output device and stop-all on top; the page list (shown
// on demand), the drawn keyboard and the meters in the middle; the running cues and the selected
// key's details below; the status line and the menu bar. No button, box or list in it takes
// keyboard focus, so keys always reach the show. Main thread.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    MainWindow(AppModel& model, int instanceNumber, QWidget* parent = nullptr);
    // Who answers the questions the show asks (dialogs over this window).
    Interaction& interaction() { return m_dialogs; }

    KeyboardView& keyboard() { return *m_keyboard; }
    QTableWidget& cueList();
    DetailPanel& detail() { return *m_detail; }
    MeterPanel& meters() { return *m_meters; }
    PageListPanel& pageList() { return *m_pages; }
    OutputBar& outputBar() { return *m_outputBar; }
    void setPageListShown(bool shown);
    void updateTitle();
    // Whether a changed show may be dropped: asks "保存" / "キャンセル" / "保存しない".
    bool confirmDiscard();
    bool saveDocument(bool forcePanel);

    // The frame saved for this instance ("VorlinMain-" + n), else centred and moved 30 points
    // right and down per instance so copies do not cover each other exactly.
    void placeOnScreen();
    // Minimum width from the panels shown (971, 1152 with the page list, +361 with a deck tab),
    // never below 980 or beyond the screen; then fitWindowToScreen.
    void updateMinWidth();
    // The window grows by the deck panel's width when the panel opens and gives it back when it
    // closes (not when zoomed or full screen).
    void resizeForDeckPanel(bool open);
    // Keeps the window inside the screen's available area.
    void fitWindowToScreen();

    // Arms MIDI learning for an operation (a key: `key`; a page: the current one).
    void learnMidi(MidiBinding::Action action, KeyCode key);
    // Brings up the settings window (made on first use).
    void showSettings();
    QWidget* settingsWindow() const { return m_settings; }
    // Called when the operator switches background input in the settings.
    std::function<void(bool)> onBackgroundInputChange;
    // A remote-control setting changed in the settings window.
    std::function<void()> onRemoteChange;
    // The menu's "MIDI で割り当て: …": the next MIDI message does what `target` says.
    std::function<void(const MidiBinding& target)> onLearnMidi;
    // The menu's "アップデートを確認…".
    std::function<void()> onCheckForUpdates;

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    // 再生 › 映像出力を開く／閉じる.
    void toggleVideoOutput();
    // 再生 › 映像の出力先: the window and every display, the control display marked, the wanted
    // displays not attached listed as such.
    void fillOutputMenu(QMenu& menu);
    // 取り消す／やり直す name the step they would take and are off when there is none.
    void followHistory(QAction& item, bool redo);
    void undoOrRedo(bool redo);
    void setOutput(const QString& name, bool on);
    void buildMenu();
    void openDocument();
    void showError(const QString& message);

    AppModel& m_model;
    int m_instance;
    DialogInteraction m_dialogs;
    KeyboardView* m_keyboard = nullptr;
    CueListView* m_cueList = nullptr;
    DetailPanel* m_detail = nullptr;
    MeterPanel* m_meters = nullptr;
    PageListPanel* m_pages = nullptr;
    DeckPanel* m_deckPanel = nullptr;
    OutputBar* m_outputBar = nullptr;
    QPointer<QWidget> m_settings;
};
