#pragma once

#include <cstdint>
#include <vector>

#include <QMainWindow>

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
};
