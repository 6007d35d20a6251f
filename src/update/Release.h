#pragma once

#include <optional>

#include <QByteArray>
#include <QString>
#include <QStringList>

// The latest release as the feed (version.json) describes it; JSON keys equal the field names.
struct Release {
    QString version;                             // display version, e.g. 1.4.2
    int build = 0;                               // compared with the running program's build
    QString url;                                 // release address
    QString zip;                                 // address of the release archive
    std::optional<QString> page;                 // download page
    std::optional<QString> date;                 // for display
    std::optional<QString> minimumSystemVersion; // dotted
    QStringList notes;                           // one line each

    // Decodes a feed; none when it is not JSON or lacks version, build or zip.
    static std::optional<Release> fromJson(const QByteArray& json);

    // Dotted versions compared number by number (1.10 > 1.9; a missing part counts as 0):
    // negative, zero or positive.
    static int compareVersions(const QString& a, const QString& b);
    // Newer than the running build: by build number, or on an equal build by version.
    bool isNewer(const QString& currentVersion, int currentBuild) const;
};
