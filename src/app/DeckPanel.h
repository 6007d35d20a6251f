#pragma once

#include <functional>
#include <optional>
#include <vector>

#include <QWidget>

#include "model/KeyAssignment.h"

class AppModel;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QListWidget;
class QPushButton;
class QTabBar;

// The item lists of deck, list and picture keys, one tab per key the operator opened: each item
// with its thumbnail, slide number and title, a tick for whether it plays, and the one on the
// outputs marked live. The selected item's settings are edited below the list; "ここから再生"
// takes it live, and so does a click when the key has clickToTake. Edits go through the
// editor (the key's own item list) and reach the next start of the key. Never takes the
// keyboard, except a number field clicked into. Main thread.
class DeckPanel : public QWidget {
    Q_OBJECT
public:
    static constexpr int kWidth = 361;

    explicit DeckPanel(AppModel& model, QWidget* parent = nullptr);

    QTabBar& tabs() { return *m_tabs; }
    QListWidget& list() { return *m_list; }

private:
    std::optional<KeyCode> key() const;
    std::vector<DeckItem> items() const;
    std::optional<QString> selectedID() const;
    void refreshTabs();
    void refreshItems();
    void refreshLive();
    void showSelected();
    void editSelected(const std::function<void(DeckItem&)>& change);
    void setThumbnail(const QString& id, const QImage& thumbnail);

    AppModel& m_model;
    QTabBar* m_tabs = nullptr;
    QListWidget* m_list = nullptr;
    QCheckBox* m_enabled = nullptr;
    QDoubleSpinBox* m_advanceAfter = nullptr;
    QDoubleSpinBox* m_transition = nullptr;
    QDoubleSpinBox* m_volume = nullptr;
    QComboBox* m_endAction = nullptr;
    QPushButton* m_take = nullptr;
    QPushButton* m_rename = nullptr;
    QPushButton* m_reset = nullptr;
    bool m_refreshing = false;
};
