#pragma once

#include <stdexcept>

#include <QString>

// Why a deck could not be built; the message is shown to the operator as it is.
class DeckError : public std::runtime_error {
public:
    static inline const QString kUnreadable = QStringLiteral("スライドを読み込めません");
    static inline const QString kLocked = QStringLiteral(
        "パスワードで保護されたファイルは開けません（保護を外して保存し直してください）");
    static inline const QString kEmptyPage = QStringLiteral("空のページがあります");
    static inline const QString kNoImage = QStringLiteral("画像を作れません");
    static inline const QString kPngFailed = QStringLiteral("PNG を書き出せません");
    static inline const QString kUnsupported = QStringLiteral("対応していないファイルです");
    static inline const QString kNoFolder = QStringLiteral("スライドの保存先を作れません");
    static inline const QString kCancelled = QStringLiteral("読み込みを中止しました");

    explicit DeckError(const QString& message) : std::runtime_error(message.toStdString()) {}
    QString message() const { return QString::fromStdString(what()); }
};
