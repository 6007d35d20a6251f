#pragma once

#include <cstdint>
#include <optional>

#include "model/KeyAssignment.h"

// The one translation from Linux key events to the key codes of the layouts (the codes show
// files store: A = 0, Space = 49, Escape = 53, ¥ = 93, _ = 94 …). Keys are matched by physical
// position, so the same table serves the US and the JIS keyboard. Both inputs use it: the local
// one (Qt's native scan code, which under X11 and Wayland is the evdev code + 8) and the
// background one (evdev codes read with libevdev). Any thread.
namespace KeyCodeMap {

// The layout key code of a Linux input (evdev) key code, or none for keys Vorlin does not use.
std::optional<KeyCode> fromEvdev(std::uint32_t evdevCode);
// The same for an XKB key code (QKeyEvent::nativeScanCode() under X11 and Wayland).
std::optional<KeyCode> fromXkb(std::uint32_t xkbCode);
// The layout key code of a Qt key (by symbol), for key events that carry no scan code
// (synthesized ones, platforms without one).
std::optional<KeyCode> fromQtKey(int qtKey);
// The evdev code that yields a layout key code (for tests and key simulation).
std::optional<std::uint32_t> toEvdev(KeyCode code);

} // namespace KeyCodeMap
