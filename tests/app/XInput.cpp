#include "XInput.h"

// clang-format off
// Qt first: Xlib's macros (Bool, Status, KeyPress …) break Qt's headers.
#include <QWidget>

#include "Wait.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>
// clang-format on

#include <cstdlib>
#include <vector>

namespace XInput {
namespace {

// A connection of our own to the same server: what it sends reaches the window as a device's.
Display* display() {
    static Display* const connection = XOpenDisplay(nullptr);
    return connection;
}

} // namespace

bool available() {
    int event = 0, error = 0, major = 0, minor = 0;
    return display() && XTestQueryExtension(display(), &event, &error, &major, &minor);
}

void settle(int ms) {
    Wait::pump(ms);
}

void click(QWidget* widget, QPoint where) {
    if (where.x() < 0)
        where = widget->rect().center();
    const QPoint at = widget->mapToGlobal(where);
    XTestFakeMotionEvent(display(), -1, at.x(), at.y(), 0);
    XTestFakeButtonEvent(display(), 1, True, 0);
    XTestFakeButtonEvent(display(), 1, False, 20);
    XFlush(display());
    settle();
}

void wheel(QWidget* widget, int steps) {
    const QPoint at = widget->mapToGlobal(widget->rect().center());
    XTestFakeMotionEvent(display(), -1, at.x(), at.y(), 0);
    const unsigned button = steps > 0 ? 4 : 5; // X's wheel up and down
    for (int n = 0; n < std::abs(steps); ++n) {
        XTestFakeButtonEvent(display(), button, True, 0);
        XTestFakeButtonEvent(display(), button, False, 10);
    }
    XFlush(display());
    settle();
}

void key(const QString& name, bool control, bool shift) {
    const KeyCode code = XKeysymToKeycode(display(), XStringToKeysym(name.toLatin1().constData()));
    const KeyCode ctrl = XKeysymToKeycode(display(), XStringToKeysym("Control_L"));
    const KeyCode shiftKey = XKeysymToKeycode(display(), XStringToKeysym("Shift_L"));
    if (control)
        XTestFakeKeyEvent(display(), ctrl, True, 0);
    if (shift)
        XTestFakeKeyEvent(display(), shiftKey, True, 0);
    XTestFakeKeyEvent(display(), code, True, 0);
    XTestFakeKeyEvent(display(), code, False, 30);
    if (shift)
        XTestFakeKeyEvent(display(), shiftKey, False, 0);
    if (control)
        XTestFakeKeyEvent(display(), ctrl, False, 0);
    XFlush(display());
    settle();
}

bool type(const QString& text) {
    struct Stroke {
        QString name;
        bool shift;
    };
    std::vector<Stroke> strokes;
    for (const QChar c : text) {
        if (c.isDigit() || (c >= 'a' && c <= 'z'))
            strokes.push_back({QString(c), false});
        else if (c >= 'A' && c <= 'Z')
            strokes.push_back({QString(c.toLower()), true});
        else if (c == '/')
            strokes.push_back({QStringLiteral("slash"), false});
        else if (c == '.')
            strokes.push_back({QStringLiteral("period"), false});
        else if (c == '-' || c == '_')
            strokes.push_back({QStringLiteral("minus"), c == '_'});
        else if (c == ' ')
            strokes.push_back({QStringLiteral("space"), false});
        else
            return false;
    }
    for (const Stroke& stroke : strokes)
        key(stroke.name, false, stroke.shift);
    return true;
}

QString activeWindowTitle() {
    Display* const x = display();
    const auto property = [x](Window window, const char* name, Atom type) -> QByteArray {
        Atom actual = 0;
        int format = 0;
        unsigned long count = 0, left = 0;
        unsigned char* data = nullptr;
        if (XGetWindowProperty(x, window, XInternAtom(x, name, False), 0, 1024, False, type,
                               &actual, &format, &count, &left, &data) != Success ||
            !data)
            return {};
        const QByteArray bytes(
            reinterpret_cast<const char*>(data),
            static_cast<qsizetype>(count * (format == 32 ? sizeof(long) : format / 8U)));
        XFree(data);
        return bytes;
    };
    const QByteArray active = property(DefaultRootWindow(x), "_NET_ACTIVE_WINDOW", XA_WINDOW);
    if (active.size() < static_cast<qsizetype>(sizeof(long)))
        return {};
    const auto window = static_cast<Window>(*reinterpret_cast<const long*>(active.constData()));
    if (window == 0)
        return {};
    return QString::fromUtf8(
        property(window, "_NET_WM_NAME", XInternAtom(x, "UTF8_STRING", False)));
}

} // namespace XInput
