#pragma once

#include <QPoint>
#include <QString>

class QWidget;

// Real input through the X server (XTest), as a mouse and a keyboard give it: the events pass
// the window manager, focus handling and the application's event filters, unlike events posted
// into widgets. Needs an X server with the XTEST extension (Xvfb has it). Main thread.
namespace XInput {

// Whether the X server takes fake input.
bool available();
// A left click at `where` inside `widget` (its centre when none is given).
void click(QWidget* widget, QPoint where = {-1, -1});
// The mouse wheel turned `steps` notches away from the user (negative: towards) over `widget`.
void wheel(QWidget* widget, int steps);
// A key by its X key name ("a", "Escape", "Return", "KP_Enter"), with Control and Shift held
// when asked.
void key(const QString& name, bool control = false, bool shift = false);
// Types `text` key by key as a US keyboard gives it (letters, digits, / . - _ and space);
// false, typing nothing, when it holds another character.
bool type(const QString& text);
// The title of the window the window manager made active (_NET_ACTIVE_WINDOW), empty if none.
QString activeWindowTitle();
// Lets the application take what the server sent (`ms` of its event loop).
void settle(int ms = 150);

} // namespace XInput
