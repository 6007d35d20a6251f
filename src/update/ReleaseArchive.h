#pragma once

#include <QString>

// A release archive (`vorlin-<version>-linux-<arch>.tar.zst`) unpacked in process with
// libarchive. Nothing in it may land outside the target folder: an absolute name, a ".." step,
// a hard link, a device or a FIFO refuses the archive; a symbolic link is kept only when its
// target is relative without "..", and nothing is written beneath one. The archive may not
// unpack to more than kMaxBytes or hold more than kMaxEntries entries. Any thread; throws
// UpdateError with "アーカイブを展開できません: " and the reason.
namespace ReleaseArchive {

constexpr qint64 kMaxBytes = 2ll << 30;
constexpr int kMaxEntries = 20000;

void unpack(const QString& archive, const QString& folder);

} // namespace ReleaseArchive
