#pragma once

#include <type_traits>

#include <QComboBox>
#include <QList>
#include <QMenu>
#include <QString>

// The first of `items` whose text (a menu's title, a choice's current entry) begins with `text`.
template <typename T> T* startingWith(const QList<T*>& items, const QString& text) {
    for (T* item : items) {
        QString shown;
        if constexpr (std::is_base_of_v<QMenu, T>)
            shown = item->title();
        else if constexpr (std::is_base_of_v<QComboBox, T>)
            shown = item->currentText();
        else
            shown = item->text();
        if (shown.startsWith(text))
            return item;
    }
    return nullptr;
}
