#include "deck/SlideConverter.h"

#include <csignal>
#include <mutex>
#include <unistd.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>

#include "deck/DeckCache.h"
#include "deck/DeckError.h"
#include "deck/SlideArchive.h"

namespace SlideConverter {

namespace {

const QString kMissing = QStringLiteral("LibreOffice が見つかりません（スライドの変換に必要です）");
const QString kNoPdf = QStringLiteral("LibreOffice で PDF に書き出せませんでした");
const QString kCannotOpen = QStringLiteral("LibreOffice でファイルを開けませんでした");
const QString kTimedOut =
    QStringLiteral("LibreOffice が %1 秒たっても応答しないため、変換を中止しました");

// PDF export with hidden slides; LibreOffice 7.4 and later take the filter's options as JSON.
const QString kPdfFilter = QStringLiteral(
    R"(pdf:impress_pdf_Export:{"ExportHiddenSlides":{"type":"boolean","value":"true"}})");

std::mutex& serial() {
    static std::mutex mutex;
    return mutex;
}

// Vorlin's own LibreOffice profile, kept between conversions (making one takes seconds).
QString profile() {
    return QDir::cleanPath(DeckCache::root() + QStringLiteral("/../LibreOffice"));
}

// A presentation may link pictures by address: LibreOffice would fetch them. Where the system
// lets a user make a namespace of their own, the office runs in one without a network.
QStringList withoutNetwork() {
    static const QStringList prefix = [] {
        const QString unshare = QStandardPaths::findExecutable(QStringLiteral("unshare"));
        if (unshare.isEmpty())
            return QStringList();
        const QStringList words{unshare, QStringLiteral("--net"), QStringLiteral("--map-root-user"),
                                QStringLiteral("--")};
        QProcess probe;
        probe.start(unshare, words.mid(1) + QStringList{QStringLiteral("true")});
        return probe.waitForFinished(5000) && probe.exitStatus() == QProcess::NormalExit &&
                       probe.exitCode() == 0
                   ? words
                   : QStringList();
    }();
    return prefix;
}

void killGroup(QProcess& process) {
    if (process.processId() > 0)
        ::kill(-static_cast<pid_t>(process.processId()), SIGKILL);
    process.waitForFinished(5000);
}

} // namespace

QString installedProgram() {
    for (const char* name : {"soffice", "libreoffice"}) {
        const QString found = QStandardPaths::findExecutable(QString::fromLatin1(name));
        if (!found.isEmpty())
            return found;
    }
    const QString bundled = QStringLiteral("/usr/lib/libreoffice/program/soffice");
    return QFileInfo(bundled).isExecutable() ? bundled : QString();
}

QString convert(const QString& source, const QString& folder, const QString& format,
                const DeckBuilder::CancelFlag* cancel, const Options& options) {
    const QString program = options.program.isEmpty() ? installedProgram() : options.program;
    if (program.isEmpty() || !QFileInfo(program).isExecutable())
        throw DeckError(kMissing);
    std::lock_guard lock(serial());
    if (cancel && cancel->load())
        throw DeckError(DeckError::kCancelled);

    // LibreOffice works in a folder of plain name on a copy of plain name (it reads "%20" or ";"
    // in a path as parts of a URL), and a PowerPoint file without its links to the outside.
    QDir().mkpath(DeckCache::root());
    QTemporaryDir work(DeckCache::root() + QStringLiteral("/.convert-XXXXXX"));
    if (!work.isValid())
        throw DeckError(DeckError::kNoFolder);
    const QString suffix = QFileInfo(source).suffix().toLower();
    const QString copy = work.filePath(QStringLiteral("source.") + suffix);
    if (suffix == QStringLiteral("pptx"))
        SlideArchive::copyWithoutExternalLinks(source, copy);
    else if (!QFile::copy(source, copy))
        throw DeckError(DeckError::kNoFolder);
    const QString extension = format.section(':', 0, 0);
    const QString written = work.filePath(QStringLiteral("source.") + extension);
    const QString output = folder + '/' + QFileInfo(source).completeBaseName() + '.' + extension;
    QFile::remove(output);
    QStringList command = withoutNetwork();
    command << program
            << QStringList{QStringLiteral("-env:UserInstallation=") +
                               QUrl::fromLocalFile(profile()).toString(),
                           "--headless",
                           "--invisible",
                           "--norestore",
                           "--nologo",
                           "--nodefault",
                           "--nolockcheck",
                           "--convert-to",
                           format == "pdf" ? kPdfFilter : format,
                           "--outdir",
                           work.path(),
                           copy};
    QProcess process;
    process.setProgram(command.takeFirst());
    process.setArguments(command);
    // Its own process group: LibreOffice's launcher starts the office as a child, and a hang is
    // ended by killing them all.
    process.setChildProcessModifier([] { ::setsid(); });
    process.start();
    if (!process.waitForStarted(10000))
        throw DeckError(kMissing);
    const QDeadlineTimer deadline(options.timeLimit);
    while (!process.waitForFinished(100)) {
        if (cancel && cancel->load()) {
            killGroup(process);
            throw DeckError(DeckError::kCancelled);
        }
        if (deadline.hasExpired()) {
            killGroup(process);
            throw DeckError(kTimedOut.arg(options.timeLimit.count()));
        }
    }
    const QString said =
        QString::fromUtf8(process.readAllStandardError() + process.readAllStandardOutput());
    if (QFileInfo(written).size() > 0 && QFile::rename(written, output))
        return output;
    if (said.contains(QStringLiteral("could not be loaded")))
        throw DeckError(kCannotOpen);
    throw DeckError(kNoPdf);
}

} // namespace SlideConverter
