#pragma once

#include <stdexcept>
#include <string>

// Why an output device could not be started; the text is shown to the operator as it is.
class AudioStartError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;

    // "出力デバイスを設定できません（" + reason + "）"
    static AudioStartError cannotSelect(const std::string& reason) {
        return AudioStartError("出力デバイスを設定できません（" + reason + "）");
    }
    static AudioStartError noFormat() { return AudioStartError("出力フォーマットを作れません"); }
};
