#pragma once

#include <QString>
#include <QUrl>

// What the updater asks of the window: the offer, alerts, and the download's progress window.
// The application shows them as dialogs; tests answer them from a script. Main thread.
class UpdaterUi {
public:
    virtual ~UpdaterUi() = default;

    enum class Choice { install, skip, later };
    // The offer: "アップデート", "この版はスキップ" (`canSkip`), "あとで".
    virtual Choice offer(const QString& text, bool canSkip) = 0;
    virtual void alert(const QString& title, const QString& text) = 0;
    // The program cannot replace itself where it is: true when the operator asks for the
    // download page ("ダウンロードページを開く").
    virtual bool askForDownloadPage(const QString& title, const QString& text) = 0;
    virtual void openPage(const QUrl& page) = 0;
    // "ダウンロード中…" with a cancel button (which calls Updater::cancelDownload); fraction
    // 0…1, or negative while the size is not known.
    virtual void showProgress(double fraction) = 0;
    virtual void hideProgress() = 0;
};
