#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include <QFile>
#include <QObject>
#include <QString>
#include <QUrl>

#include "update/Release.h"
#include "update/UpdaterUi.h"

class QNetworkAccessManager;
class QNetworkReply;

// Keeps the program current: reads the release feed, offers a newer release, downloads its
// archive with a progress window, unpacks and verifies it (ReleaseVerifier), and when all is
// well arms the swap that replaces the installed tree once the program quits (SwapScript) and
// asks the application to quit (readyToRestart). Every failure ends the update with the
// installed program untouched.
//
// The installed tree is the folder above the executable's (`<root>/bin/vorlin`), marked by the
// VERSION file the install writes: a program run from its build folder, or from a folder it
// cannot write, refuses and offers the download page.
//
// Every transfer is bounded in size and time (Options); the download streams to disk; unpacking
// and verifying run on a pool thread.
//
// Main thread (network replies arrive on it).
class Updater : public QObject {
    Q_OBJECT
public:
    struct Options {
        QUrl feed;           // Updater::feedURL() in the program
        QString installRoot; // the folder that holds bin/vorlin
        QString currentVersion;
        int currentBuild = 0;
        QByteArray trustedKey; // raw Ed25519 key; empty: this build cannot update itself
        QString systemVersion; // compared with a release's minimumSystemVersion
        // Bounds of what a server may make us read, and for how long: a feed is a small JSON
        // file, a release archive the size of an installed tree.
        qint64 maxFeedBytes = 1 << 20;
        qint64 maxArchiveBytes = 512ll << 20;
        std::chrono::milliseconds feedTimeLimit{30000};
        // A transfer with no byte for this long has stalled.
        std::chrono::milliseconds transferTimeout{30000};
        std::chrono::milliseconds downloadTimeLimit{30 * 60 * 1000};
    };
    // Release notes beyond this many characters are cut (the offer shows them scrolled).
    static constexpr qsizetype kMaxNotes = 20000;

    static inline const QString kCheckFailed = QStringLiteral("アップデートを確認できませんでした");
    static inline const QString kInstallFailed = QStringLiteral("アップデートできませんでした");
    static inline const QString kUpToDate = QStringLiteral("Vorlin は最新です");

    Updater(Options options, UpdaterUi& ui, QObject* parent = nullptr);
    ~Updater() override;

    // VORLIN_UPDATE_URL when set, else the product's feed.
    static QUrl feedURL();
    // What the running program is: its version, build, publisher key and installed tree.
    static Options programOptions();

    // At start-up (instance 1 only): when "pref.autoCheckUpdates" is on and the last check is
    // more than 72000 s ago, checks 3 s later.
    void checkOnLaunch(int instance);
    // The menu's "アップデートを確認…".
    void checkNow() { check(true); }
    void check(bool userInitiated);
    void handle(const Release& release, bool userInitiated);
    void install(const Release& release);
    // The progress window's cancel button.
    void cancelDownload();

    // A verified release waits to replace the installed tree at quit.
    bool isArmed() const { return m_armed.has_value(); }
    // At quit: starts the swap when one is armed.
    void applicationWillTerminate();

signals:
    // A check or an install has ended, whatever its outcome (for tests and the menu).
    void finished();
    // A release is verified and armed: the application should quit so that it can be swapped.
    void readyToRestart();

private:
    void fail(const QString& title, const QString& text);
    void downloaded(const Release& release);
    void unpacked(const std::optional<QString>& refused, const QString& tree);

    Options m_options;
    UpdaterUi& m_ui;
    QNetworkAccessManager* m_network;
    QNetworkReply* m_download = nullptr;
    std::unique_ptr<QFile> m_archive;
    QString m_work; // the work folder of the update under way
    bool m_cancelled = false;
    struct Armed {
        QString newTree, target, work;
    };
    std::optional<Armed> m_armed;
};
