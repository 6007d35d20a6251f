#pragma once

#include <optional>
#include <vector>

#include <QList>
#include <QRect>
#include <QString>
#include <QStringList>

// The displays as the outputs name them. A show stores an output as a display's label
// ("2: Studio（1920×1080）"); displays come and go and are renumbered, so a label is matched to
// a display exactly first and then by the display's name. A value, made from Qt's screen list
// (or by a test). Any thread.
class QScreen;

class ScreenList {
public:
    struct Screen {
        QString name;
        QRect geometry;
    };

    ScreenList() = default;
    explicit ScreenList(std::vector<Screen> screens) : m_screens(std::move(screens)) {}
    // Qt's screens, the primary first (the one with the main window's menus); none without a
    // GUI application.
    static ScreenList current();
    // The same screens as Qt's objects, in the same order.
    static QList<QScreen*> qtScreens();

    const std::vector<Screen>& screens() const { return m_screens; }
    // "1: Studio（1920×1080）": position from 1, name, size.
    static QString label(const Screen& screen, int index);
    QStringList labels() const;
    // The display a stored output name means: a label matched exactly, else the first display
    // whose name begins the text after the first ":"; none when nothing matches.
    std::optional<int> find(const QString& name) const;
    // The wanted outputs that are displays not attached now (they come back by themselves).
    QStringList missing(const QStringList& outputs) const;

private:
    std::vector<Screen> m_screens;
};
