#pragma once

#include <functional>
#include <memory>

#include <QPointer>
#include <QProgressDialog>

#include "update/UpdaterUi.h"

class QWidget;

// The updater's questions as the window's dialogs: the offer, alerts, the download page, and
// the "ダウンロード中…" progress window whose cancel button calls `cancel`. Main thread.
class UpdaterDialogs : public UpdaterUi {
public:
    UpdaterDialogs(QWidget* parent, std::function<void()> cancel)
        : m_parent(parent), m_cancel(std::move(cancel)) {}

    Choice offer(const QString& text, bool canSkip) override;
    void alert(const QString& title, const QString& text) override;
    bool askForDownloadPage(const QString& title, const QString& text) override;
    void openPage(const QUrl& page) override;
    void showProgress(double fraction) override;
    void hideProgress() override;

private:
    QWidget* m_parent;
    std::function<void()> m_cancel;
    QPointer<QProgressDialog> m_progress;
};
