#pragma once

#include <QWidget>

class AppModel;
class QListWidget;

// The show's pages in order: a click switches to a page, a drag reorders them, the buttons add,
// duplicate, rename and delete (after asking). Pages with a cue playing are marked "▶", so the
// operator sees what still sounds from a page they left. Never takes the keyboard. Main thread.
class PageListPanel : public QWidget {
    Q_OBJECT
public:
    explicit PageListPanel(AppModel& model, QWidget* parent = nullptr);

    QListWidget& list() { return *m_list; }

private:
    void refresh();

    AppModel& m_model;
    QListWidget* m_list = nullptr;
    bool m_refreshing = false;
};
