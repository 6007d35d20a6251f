#pragma once

#include <exception>
#include <string>

// Why a file could not become a clip. The message is shown to the operator as it is.
class LoadError : public std::exception {
public:
    enum class Kind { failed, tooLarge, cancelled };

    static inline const std::string kEmpty = "音声が空です";
    static inline const std::string kNoAudioTrack = "音声トラックがありません";
    static inline const std::string kNoBuffer = "バッファを確保できません";
    static inline const std::string kNoConverter = "サンプルレートを変換できません";
    static inline const std::string kConversionFailed = "変換に失敗しました";
    static inline const std::string kReadFailed = "読み込みに失敗しました";
    static inline const std::string kUnknownFormat = "音声フォーマットを判別できません";
    static inline const std::string kTooLarge = "音声が長すぎてメモリに展開できません";
    static inline const std::string kCancelled = "読み込みを中止しました";
    static inline const std::string kTooSlow =
        "ファイルの形式を読み取れません（時間がかかりすぎます。壊れている可能性があります）";

    static LoadError failed(std::string message) { return {Kind::failed, std::move(message)}; }
    static LoadError tooLarge() { return {Kind::tooLarge, kTooLarge}; }
    static LoadError cancelled() { return {Kind::cancelled, kCancelled}; }

    Kind kind() const { return m_kind; }
    const std::string& message() const { return m_message; }
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    LoadError(Kind kind, std::string message) : m_kind(kind), m_message(std::move(message)) {}

    Kind m_kind;
    std::string m_message;
};
