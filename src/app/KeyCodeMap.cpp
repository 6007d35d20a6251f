#include "app/KeyCodeMap.h"

#include <array>
#include <linux/input-event-codes.h>
#include <utility>

#include <Qt>

#include "model/KeyboardLayout.h"

namespace KeyCodeMap {
namespace {

// evdev code → layout key code, by physical position.
constexpr std::pair<std::uint32_t, KeyCode> kTable[] = {
    {KEY_ESC, KeyboardLayout::kEscape},
    {KEY_F1, 122},
    {KEY_F2, 120},
    {KEY_F3, 99},
    {KEY_F4, 118},
    {KEY_F5, 96},
    {KEY_F6, 97},
    {KEY_F7, 98},
    {KEY_F8, 100},
    {KEY_F9, 101},
    {KEY_F10, 109},
    {KEY_F11, 103},
    {KEY_F12, 111},
    {KEY_GRAVE, 50},
    {KEY_1, 18},
    {KEY_2, 19},
    {KEY_3, 20},
    {KEY_4, 21},
    {KEY_5, 23},
    {KEY_6, 22},
    {KEY_7, 26},
    {KEY_8, 28},
    {KEY_9, 25},
    {KEY_0, 29},
    {KEY_MINUS, 27},
    {KEY_EQUAL, 24}, // JIS: "-" and "^"
    {KEY_YEN, 93},
    {KEY_BACKSPACE, 51},
    {KEY_TAB, 48},
    {KEY_Q, 12},
    {KEY_W, 13},
    {KEY_E, 14},
    {KEY_R, 15},
    {KEY_T, 17},
    {KEY_Y, 16},
    {KEY_U, 32},
    {KEY_I, 34},
    {KEY_O, 31},
    {KEY_P, 35},
    {KEY_LEFTBRACE, 33},
    {KEY_RIGHTBRACE, 30}, // JIS: "@" and "["
    {KEY_ENTER, 36},
    {KEY_A, 0},
    {KEY_S, 1},
    {KEY_D, 2},
    {KEY_F, 3},
    {KEY_G, 5},
    {KEY_H, 4},
    {KEY_J, 38},
    {KEY_K, 40},
    {KEY_L, 37},
    {KEY_SEMICOLON, 41},
    {KEY_APOSTROPHE, 39}, // JIS ":"
    {KEY_BACKSLASH, 42},  // US "\", JIS "]"
    {KEY_Z, 6},
    {KEY_X, 7},
    {KEY_C, 8},
    {KEY_V, 9},
    {KEY_B, 11},
    {KEY_N, 45},
    {KEY_M, 46},
    {KEY_COMMA, 43},
    {KEY_DOT, 47},
    {KEY_SLASH, 44},
    {KEY_RO, 94}, // JIS "_"
    {KEY_SPACE, 49},
    {KEY_LEFT, 123},
    {KEY_RIGHT, 124},
    {KEY_DOWN, 125},
    {KEY_UP, 126},
    // The two keys beside the space bar of a JIS keyboard: 英数 and かな (Apple keyboards send
    // them as LANG2/LANG1, PC keyboards as 無変換/変換).
    {KEY_HANJA, 102},
    {KEY_MUHENKAN, 102},
    {KEY_HANGEUL, 104},
    {KEY_HENKAN, 104},
};

// X11 and Wayland number keys as evdev + 8.
constexpr std::uint32_t kXkbOffset = 8;

} // namespace

std::optional<KeyCode> fromEvdev(std::uint32_t evdevCode) {
    for (const auto& [evdev, code] : kTable)
        if (evdev == evdevCode)
            return code;
    return std::nullopt;
}

std::optional<KeyCode> fromXkb(std::uint32_t xkbCode) {
    if (xkbCode < kXkbOffset)
        return std::nullopt;
    return fromEvdev(xkbCode - kXkbOffset);
}

std::optional<std::uint32_t> toEvdev(KeyCode code) {
    for (const auto& [evdev, mapped] : kTable)
        if (mapped == code)
            return evdev;
    return std::nullopt;
}

std::optional<KeyCode> fromQtKey(int key) {
    static const std::pair<int, KeyCode> table[] = {
        {Qt::Key_A, 0},
        {Qt::Key_S, 1},
        {Qt::Key_D, 2},
        {Qt::Key_F, 3},
        {Qt::Key_H, 4},
        {Qt::Key_G, 5},
        {Qt::Key_Z, 6},
        {Qt::Key_X, 7},
        {Qt::Key_C, 8},
        {Qt::Key_V, 9},
        {Qt::Key_B, 11},
        {Qt::Key_Q, 12},
        {Qt::Key_W, 13},
        {Qt::Key_E, 14},
        {Qt::Key_R, 15},
        {Qt::Key_Y, 16},
        {Qt::Key_T, 17},
        {Qt::Key_1, 18},
        {Qt::Key_2, 19},
        {Qt::Key_3, 20},
        {Qt::Key_4, 21},
        {Qt::Key_6, 22},
        {Qt::Key_5, 23},
        {Qt::Key_Equal, 24},
        {Qt::Key_9, 25},
        {Qt::Key_7, 26},
        {Qt::Key_Minus, 27},
        {Qt::Key_8, 28},
        {Qt::Key_0, 29},
        {Qt::Key_BracketRight, 30},
        {Qt::Key_O, 31},
        {Qt::Key_U, 32},
        {Qt::Key_BracketLeft, 33},
        {Qt::Key_I, 34},
        {Qt::Key_P, 35},
        {Qt::Key_Return, 36},
        {Qt::Key_Enter, 36},
        {Qt::Key_L, 37},
        {Qt::Key_J, 38},
        {Qt::Key_Apostrophe, 39},
        {Qt::Key_K, 40},
        {Qt::Key_Semicolon, 41},
        {Qt::Key_Backslash, 42},
        {Qt::Key_Comma, 43},
        {Qt::Key_Slash, 44},
        {Qt::Key_N, 45},
        {Qt::Key_M, 46},
        {Qt::Key_Period, 47},
        {Qt::Key_Tab, 48},
        {Qt::Key_Space, 49},
        {Qt::Key_QuoteLeft, 50},
        {Qt::Key_Backspace, 51},
        {Qt::Key_Escape, KeyboardLayout::kEscape},
        {Qt::Key_yen, 93},
        {Qt::Key_F5, 96},
        {Qt::Key_F6, 97},
        {Qt::Key_F7, 98},
        {Qt::Key_F3, 99},
        {Qt::Key_F8, 100},
        {Qt::Key_F9, 101},
        {Qt::Key_F11, 103},
        {Qt::Key_F10, 109},
        {Qt::Key_F12, 111},
        {Qt::Key_F4, 118},
        {Qt::Key_F2, 120},
        {Qt::Key_F1, 122},
        {Qt::Key_Left, 123},
        {Qt::Key_Right, 124},
        {Qt::Key_Down, 125},
        {Qt::Key_Up, 126},
    };
    for (const auto& [qt, code] : table)
        if (qt == key)
            return code;
    return std::nullopt;
}

} // namespace KeyCodeMap
