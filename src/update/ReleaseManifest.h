#pragma once

#include <map>
#include <optional>

#include <QByteArray>
#include <QString>

// The file list of a release, signed by its publisher (scripts/make-release writes it as
// MANIFEST at the top of the release tree, scripts/sign-release its signature MANIFEST.sig):
//
//   vorlin-release 1
//   version 1.4.2
//   build 57
//   key <the signer's Ed25519 public key: 32 bytes, base64>
//   file <SHA-256, hex> <size> <mode, octal> <path relative to the tree>
//   …
//
// Any thread.
struct ReleaseManifest {
    struct Entry {
        QByteArray sha256; // lower-case hex
        qint64 size = 0;
        int mode = 0; // permission bits
    };

    QString version;
    int build = 0;
    QByteArray key; // raw public key
    std::map<QString, Entry> files;

    static constexpr const char* kFileName = "MANIFEST";
    static constexpr const char* kSignatureName = "MANIFEST.sig";

    // None when the text is not a manifest (unknown header, a malformed line, a path that leaves
    // the tree, a file listed twice).
    static std::optional<ReleaseManifest> parse(const QByteArray& text);
};
