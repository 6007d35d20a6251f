#include "update/SwapScript.h"

#include <QDir>
#include <QFile>
#include <QProcess>

namespace SwapScript {

QString text() {
    return QStringLiteral(R"(#!/bin/sh
# Puts a new Vorlin in place of the old one once the old one has quit, then starts it.
pid=$1 new=$2 target=$3 work=$4
polls=0
while kill -0 "$pid" 2>/dev/null; do
    polls=$((polls + 1))
    [ "$polls" -ge 600 ] && exit 1
    sleep 0.2
done
mv "$target" "$work/old" || exit 1
if mv "$new" "$target"; then
    rm -rf "$work/old"
else
    mv "$work/old" "$target"
    exit 1
fi
"$target/bin/vorlin" >/dev/null 2>&1 </dev/null &
rm -rf "$work"
)");
}

std::optional<QString> start(qint64 pid, const QString& newTree, const QString& target,
                             const QString& work) {
    const QString path = QDir(work).filePath(QStringLiteral("swap.sh"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        file.write(text().toUtf8()) < 0 || !file.flush())
        return file.errorString();
    file.close();
    if (!QProcess::startDetached(QStringLiteral("/bin/sh"),
                                 {path, QString::number(pid), newTree, target, work}))
        return QStringLiteral("/bin/sh を起動できません");
    return std::nullopt;
}

} // namespace SwapScript
