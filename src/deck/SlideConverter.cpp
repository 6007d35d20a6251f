#include "deck/SlideConverter.h"

#include <csignal>
#include <mutex>
#include <unistd.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

#include "deck/DeckCache.h"
#include "deck/DeckError.h"

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

    const QString output =
        folder + '/' + QFileInfo(source).completeBaseName() + '.' + format.section(':', 0, 0);
    QFile::remove(output);
    QProcess process;
    process.setProgram(program);
    process.setArguments(
        {QStringLiteral("-env:UserInstallation=") + QUrl::fromLocalFile(profile()).toString(),
         "--headless", "--invisible", "--norestore", "--nologo", "--nodefault", "--nolockcheck",
         "--convert-to", format == "pdf" ? kPdfFilter : format, "--outdir", folder, source});
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
    if (QFileInfo(output).size() > 0)
        return output;
    if (said.contains(QStringLiteral("could not be loaded")))
        throw DeckError(kCannotOpen);
    throw DeckError(kNoPdf);
}

} // namespace SlideConverter
