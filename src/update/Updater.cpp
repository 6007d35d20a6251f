#include "update/Updater.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QThreadPool>
#include <QTimer>

#include "model/BuildInfo.h"
#include "model/Prefs.h"
#include "update/Ed25519.h"
#include "update/ReleaseArchive.h"
#include "update/ReleaseVerifier.h"
#include "update/SwapScript.h"
#include "update/UpdateError.h"

namespace {

// The product's release feed. The one place that names it.
const QUrl kFeed(QStringLiteral("https://vorlin.app/updates/linux/version.json"));

const QString kLastCheck = QStringLiteral("update.lastCheck");
const QString kSkippedBuild = QStringLiteral("update.skippedBuild");
constexpr double kCheckInterval = 72000.0; // seconds between automatic checks
constexpr int kLaunchDelay = 3000;         // ms after start-up

const QString kNeedsSystem = QStringLiteral("%1 以降が必要です");
const QString kOffer = QStringLiteral("Vorlin %1があります\n%2\n\nアップデートすると Vorlin "
                                      "をいったん終了して、新しい版で起動し直します。");
const QString kCannotReplace = QStringLiteral("この場所の Vorlin は自動で入れ替えられません");
const QString kFolder = QStringLiteral("置かれているフォルダ（%1）");
const QString kCancelled = QStringLiteral("アップデートを中止しました");
const QString kDownloadFailed = QStringLiteral("ダウンロードできませんでした（%1）");
const QString kNoProgram = QStringLiteral("アーカイブの中に Vorlin がありません");
const QString kNotVerified =
    QStringLiteral("ダウンロードしたアプリの署名を確認できないため、入れ替えを中止しました（%1）");
const QString kNotWritable = QStringLiteral("Vorlin が置かれているフォルダに書き込めません");
const QString kServerAnswer = QStringLiteral("サーバーの応答: %1");
const QString kCut = QStringLiteral("途中で切れました");
const QString kNotJson = QStringLiteral("サーバーの応答が JSON ではありません");
const QString kNotAFeed = QStringLiteral("サーバーの応答に版の情報がありません");
const QString kFeedTooLarge = QStringLiteral("サーバーの応答が大きすぎます（%1 KB まで）");
const QString kArchiveTooLarge =
    QStringLiteral("アーカイブが大きすぎます（案内された大きさか %1 MB を超えました）");
const QString kTooSlow = QStringLiteral("%1 秒以内に終わりませんでした");
const QString kNotesCut = QStringLiteral("\n…（以下省略）");

// Ends `reply` with `why` when it goes on longer than `limit` or grows beyond `maxBytes` (or
// beyond the length it announced). `why` is read when the reply has finished.
void bound(QNetworkReply* reply, std::chrono::milliseconds limit, qint64 maxBytes,
           const QString& tooLarge, std::shared_ptr<QString> why) {
    auto* timer = new QTimer(reply);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, reply, [reply, limit, why] {
        *why = kTooSlow.arg(std::chrono::duration_cast<std::chrono::seconds>(limit).count());
        reply->abort();
    });
    timer->start(limit);
    QObject::connect(reply, &QNetworkReply::downloadProgress, reply,
                     [reply, maxBytes, tooLarge, why](qint64 got, qint64 total) {
                         if (why->isEmpty() &&
                             (got > maxBytes || total > maxBytes || (total >= 0 && got > total))) {
                             *why = tooLarge;
                             reply->abort();
                         }
                     });
}

// The top folder of a release archive: the installed tree as it will be.
const QString kTreeName = QStringLiteral("vorlin");

bool writable(const QString& folder) {
    const QFileInfo info(folder);
    return info.isDir() && info.isWritable();
}

} // namespace

Updater::Updater(Options options, UpdaterUi& ui, QObject* parent)
    : QObject(parent), m_options(std::move(options)), m_ui(ui),
      m_network(new QNetworkAccessManager(this)) {}

Updater::~Updater() {
    // An armed release that never reached the swap (the program did not quit normally).
    if (m_armed)
        QDir(m_armed->work).removeRecursively();
}

QUrl Updater::feedURL() {
    const QByteArray set = qgetenv("VORLIN_UPDATE_URL");
    return set.isEmpty() ? kFeed : QUrl(QString::fromUtf8(set));
}

Updater::Options Updater::programOptions() {
    Options options;
    options.feed = feedURL();
    options.installRoot = QDir::cleanPath(QCoreApplication::applicationDirPath() + "/..");
    options.currentVersion = QString::fromLatin1(BuildInfo::kVersion);
    options.currentBuild = BuildInfo::kBuild;
    options.trustedKey = Ed25519::publicKeyOfPem(QByteArray(BuildInfo::kPublisherKey));
    options.systemVersion = QSysInfo::productVersion();
    return options;
}

void Updater::checkOnLaunch(int instance) {
    const double last = Prefs::value(kLastCheck, 0.0).toDouble();
    const double now = static_cast<double>(QDateTime::currentSecsSinceEpoch());
    if (instance != 1 || !Prefs::value(Prefs::kAutoCheckUpdates, true).toBool() ||
        now - last <= kCheckInterval)
        return;
    QTimer::singleShot(kLaunchDelay, this, [this] { check(false); });
}

void Updater::check(bool userInitiated) {
    QNetworkRequest request(m_options.feed);
    request.setTransferTimeout(static_cast<int>(m_options.transferTimeout.count()));
    QNetworkReply* reply = m_network->get(request);
    auto why = std::make_shared<QString>();
    bound(reply, m_options.feedTimeLimit, m_options.maxFeedBytes,
          kFeedTooLarge.arg(m_options.maxFeedBytes >> 10), why);
    // Taken as it comes, so that Qt holds no more than a piece of it.
    reply->setReadBufferSize(256 << 10);
    auto body = std::make_shared<QByteArray>();
    connect(reply, &QNetworkReply::readyRead, reply,
            [reply, body, why, max = m_options.maxFeedBytes] {
                *body += reply->readAll();
                if (body->size() > max && why->isEmpty()) {
                    *why = kFeedTooLarge.arg(max >> 10);
                    reply->abort();
                }
            });
    connect(reply, &QNetworkReply::finished, this, [this, reply, userInitiated, why, body] {
        reply->deleteLater();
        Prefs::setValue(kLastCheck, static_cast<double>(QDateTime::currentSecsSinceEpoch()));
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        std::optional<Release> release;
        if (why->isEmpty() && reply->error() == QNetworkReply::NoError) {
            *body += reply->readAll();
            QJsonParseError error;
            QJsonDocument::fromJson(*body, &error);
            release = Release::fromJson(*body);
            if (!release)
                *why = error.error != QJsonParseError::NoError ? kNotJson : kNotAFeed;
        } else if (why->isEmpty()) {
            *why = status > 0 ? kServerAnswer.arg(status) : reply->errorString();
        }
        if (!release) {
            // An automatic check never interrupts the operator with a failure.
            if (userInitiated)
                fail(kCheckFailed, kCheckFailed + "\n" + *why);
            else
                emit finished(); // fail() says it otherwise
            return;
        }
        handle(*release, userInitiated);
    });
}

void Updater::handle(const Release& release, bool userInitiated) {
    if (!release.isNewer(m_options.currentVersion, m_options.currentBuild)) {
        if (userInitiated)
            m_ui.alert(kUpToDate, kUpToDate);
        emit finished();
        return;
    }
    if (!userInitiated && Prefs::value(kSkippedBuild, -1).toInt() == release.build) {
        emit finished();
        return;
    }
    if (release.minimumSystemVersion &&
        Release::compareVersions(m_options.systemVersion, *release.minimumSystemVersion) < 0) {
        m_ui.alert(kCheckFailed, kNeedsSystem.arg(*release.minimumSystemVersion));
        emit finished();
        return;
    }
    const QString version = release.date
                                ? release.version + QStringLiteral("（%1）").arg(*release.date)
                                : release.version;
    QString notes = release.notes.join('\n');
    if (notes.size() > kMaxNotes)
        notes = notes.left(kMaxNotes) + kNotesCut;
    switch (m_ui.offer(kOffer.arg(version, notes), true)) {
    case UpdaterUi::Choice::install:
        install(release);
        return;
    case UpdaterUi::Choice::skip:
        Prefs::setValue(kSkippedBuild, release.build);
        break;
    case UpdaterUi::Choice::later:
        break;
    }
    emit finished();
}

void Updater::install(const Release& release) {
    const QString root = m_options.installRoot;
    const QString parent = QFileInfo(root).path();
    // Only an installed tree (marked by its VERSION file) in a folder we may change is replaced.
    if (!QFileInfo::exists(QDir(root).filePath(QStringLiteral("VERSION"))) || !writable(root) ||
        !writable(parent)) {
        if (m_ui.askForDownloadPage(kInstallFailed, kCannotReplace + "\n" + kFolder.arg(root)) &&
            release.page)
            m_ui.openPage(QUrl(*release.page));
        emit finished();
        return;
    }
    QTemporaryDir work(QDir::temp().filePath(QStringLiteral("vorlin-update-XXXXXX")));
    if (!work.isValid()) {
        fail(kInstallFailed, kNotWritable);
        return;
    }
    work.setAutoRemove(false);
    m_work = work.path();
    m_archive = std::make_unique<QFile>(QDir(m_work).filePath(QStringLiteral("Vorlin.tar.zst")));
    if (!m_archive->open(QIODevice::WriteOnly)) {
        fail(kInstallFailed, kNotWritable);
        return;
    }
    m_cancelled = false;
    QNetworkRequest request(QUrl(release.zip));
    request.setTransferTimeout(static_cast<int>(m_options.transferTimeout.count()));
    m_download = m_network->get(request);
    // What arrives goes to disk as it comes: never more than this in memory.
    m_download->setReadBufferSize(1 << 20);
    auto why = std::make_shared<QString>();
    bound(m_download, m_options.downloadTimeLimit, m_options.maxArchiveBytes,
          kArchiveTooLarge.arg(m_options.maxArchiveBytes >> 20), why);
    m_ui.showProgress(-1.0);
    connect(m_download, &QNetworkReply::readyRead, this,
            [this] { m_archive->write(m_download->readAll()); });
    connect(m_download, &QNetworkReply::downloadProgress, this, [this](qint64 got, qint64 total) {
        m_ui.showProgress(total > 0 ? static_cast<double>(got) / static_cast<double>(total) : -1.0);
    });
    connect(m_download, &QNetworkReply::finished, this, [this, release, why] {
        QNetworkReply* reply = std::exchange(m_download, nullptr);
        reply->deleteLater();
        m_ui.hideProgress();
        if (reply->isOpen())
            m_archive->write(reply->readAll());
        m_archive->close();
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        // A connection closed early does not always end as an error: the length tells.
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        const bool cut = length.isValid() && m_archive->size() < length.toLongLong();
        if (m_cancelled)
            fail(kInstallFailed, kCancelled);
        else if (!why->isEmpty())
            fail(kInstallFailed, kDownloadFailed.arg(*why));
        else if (cut)
            fail(kInstallFailed, kDownloadFailed.arg(kCut));
        else if (status >= 400) // named as the feed's answer is, not in the network's words
            fail(kInstallFailed, kDownloadFailed.arg(kServerAnswer.arg(status)));
        else if (reply->error() != QNetworkReply::NoError)
            fail(kInstallFailed, kDownloadFailed.arg(reply->errorString()));
        else
            downloaded(release);
    });
}

void Updater::downloaded(const Release& release) {
    // Unpacking and checking every file's digest take seconds: on a pool thread, the result
    // back here (unless the updater is gone by then).
    const QString work = m_work;
    const QString archive = m_archive->fileName();
    const QByteArray key = m_options.trustedKey;
    QThreadPool::globalInstance()->start(
        [self = QPointer<Updater>(this), work, archive, key, release] {
            const QString unpacked = QDir(work).filePath(QStringLiteral("unpacked"));
            const QString tree = QDir(unpacked).filePath(kTreeName);
            std::optional<QString> refused;
            try {
                if (!QDir(work).mkpath(QStringLiteral("unpacked")))
                    throw UpdateError(kNotWritable);
                ReleaseArchive::unpack(archive, unpacked);
                if (!QFileInfo(QDir(tree).filePath(QStringLiteral("bin/vorlin"))).isFile())
                    refused = kNoProgram;
                else if (const auto wrong = ReleaseVerifier(key).check(tree, release))
                    refused = kNotVerified.arg(*wrong);
            } catch (const UpdateError& error) {
                refused = error.message();
            }
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [self, refused, tree] {
                    if (self)
                        self->unpacked(refused, tree);
                },
                Qt::QueuedConnection);
        });
}

void Updater::unpacked(const std::optional<QString>& refused, const QString& tree) {
    if (refused) {
        fail(kInstallFailed, *refused);
        return;
    }
    m_armed = Armed{tree, m_options.installRoot, m_work};
    m_work.clear();
    emit finished();
    emit readyToRestart();
}

void Updater::cancelDownload() {
    if (!m_download)
        return;
    m_cancelled = true;
    m_download->abort();
}

void Updater::fail(const QString& title, const QString& text) {
    m_archive.reset();
    if (!m_work.isEmpty())
        QDir(m_work).removeRecursively();
    m_work.clear();
    m_ui.alert(title, text);
    emit finished();
}

void Updater::applicationWillTerminate() {
    if (!m_armed)
        return;
    if (const auto error = SwapScript::start(QCoreApplication::applicationPid(), m_armed->newTree,
                                             m_armed->target, m_armed->work))
        qWarning("Vorlin update: could not start swap script: %s", qPrintable(*error));
    m_armed.reset();
}
