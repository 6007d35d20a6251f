#include "video/ScreenList.h"

#include <QGuiApplication>
#include <QScreen>

QList<QScreen*> ScreenList::qtScreens() {
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance()))
        return {};
    QList<QScreen*> all = QGuiApplication::screens();
    if (QScreen* primary = QGuiApplication::primaryScreen(); primary && all.removeOne(primary))
        all.prepend(primary);
    return all;
}

ScreenList ScreenList::current() {
    std::vector<Screen> screens;
    for (const QScreen* screen : qtScreens())
        screens.push_back({screen->name(), screen->geometry()});
    return ScreenList(std::move(screens));
}

QString ScreenList::label(const Screen& screen, int index) {
    return QStringLiteral("%1: %2（%3×%4）")
        .arg(index + 1)
        .arg(screen.name)
        .arg(screen.geometry.width())
        .arg(screen.geometry.height());
}

QStringList ScreenList::labels() const {
    QStringList all;
    for (std::size_t i = 0; i < m_screens.size(); ++i)
        all << label(m_screens[i], static_cast<int>(i));
    return all;
}

std::optional<int> ScreenList::find(const QString& name) const {
    const QStringList all = labels();
    if (const auto exact = all.indexOf(name); exact >= 0)
        return static_cast<int>(exact);
    const qsizetype colon = name.indexOf(QLatin1Char(':'));
    const QString text = (colon < 0 ? name : name.mid(colon + 1)).trimmed();
    for (std::size_t i = 0; i < m_screens.size(); ++i) {
        if (!m_screens[i].name.isEmpty() && text.startsWith(m_screens[i].name))
            return static_cast<int>(i);
    }
    return std::nullopt;
}

QStringList ScreenList::missing(const QStringList& outputs) const {
    QStringList gone;
    for (const QString& output : outputs) {
        if (output != QStringLiteral("window") && !find(output))
            gone << output;
    }
    return gone;
}
