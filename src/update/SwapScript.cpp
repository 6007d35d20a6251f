#include "update/SwapScript.h"

#include <QDir>
#include <QFile>
#include <QProcess>

namespace SwapScript {

QString text() {
    return QStringLiteral(R"(#!/bin/sh
# Puts a new Vorlin in place of the old one once the old one has quit, then starts it.
pid=$1 new=$2 target=$3 work=$4 limit=${5:-600}
# A process that has ended but not yet been reaped by its parent (state Z) has quit too.
running() {
    kill -0 "$1" 2>/dev/null || return 1
    state=$(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1)
    [ "$state" != Z ]
}
polls=0
while running "$pid"; do
    polls=$((polls + 1))
    [ "$polls" -ge "$limit" ] && exit 1
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
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text().toUtf8()) < 0 ||
        !file.flush())
        return file.errorString();
    file.close();
    if (!QProcess::startDetached(QStringLiteral("/bin/sh"),
                                 {path, QString::number(pid), newTree, target, work}))
        return QStringLiteral("/bin/sh を起動できません");
    return std::nullopt;
}

} // namespace SwapScript
