#pragma once

#include <QObject>

// 画面を識別（番号を表示）: on every display, for 2.5 s, its number large and its name and size
// below, over a dimmed picture of what is there, so the operator knows which display the output
// menu means. The overlays never take the keyboard or the mouse. Main thread.
namespace ScreenIdentifier {

inline constexpr int kShownMilliseconds = 2500;

void show();

} // namespace ScreenIdentifier
