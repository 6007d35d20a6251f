#pragma once

#include <optional>

#include <QByteArray>
#include <QString>

#include "update/Release.h"

// Whether an unpacked release may replace the running program. In order:
// 1. its MANIFEST is signed (MANIFEST.sig) by the key the manifest names, and the tree holds
//    exactly the files it lists, each of its size, mode and SHA-256 — else
//    "署名が正しくありません";
// 2. that key is the publisher's, built into this program: a program built without one gives
//    "いま動いている Vorlin に開発元の署名がありません", another key
//    "開発元がこのアプリと一致しません";
// 3. the manifest's version and build are the feed's release (no older archive replayed).
// The trusted key is given at construction only: the program passes BuildInfo's, tests their
// own. Any thread.
class ReleaseVerifier {
public:
    // `trustedKey`: the raw Ed25519 public key; empty when the program has none.
    explicit ReleaseVerifier(QByteArray trustedKey) : m_trustedKey(std::move(trustedKey)) {}

    static inline const QString kBadSignature = QStringLiteral("署名が正しくありません");
    static inline const QString kUnsignedProgram =
        QStringLiteral("いま動いている Vorlin に開発元の署名がありません");
    static inline const QString kOtherPublisher =
        QStringLiteral("開発元がこのアプリと一致しません");
    static inline const QString kOtherRelease =
        QStringLiteral("ダウンロードした版（%1、ビルド %2）が案内された版と一致しません");

    // The reason the release tree at `folder` may not be installed, or none.
    std::optional<QString> check(const QString& folder, const Release& expected) const;

private:
    QByteArray m_trustedKey;
};
