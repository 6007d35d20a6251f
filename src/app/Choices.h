#pragma once

#include <QList>
#include <QPair>
#include <QString>

// Labels of the choices the settings window and the detail panel share, each with the stored
// name it stands for, in the order they are offered.
namespace Choices {

using List = QList<QPair<QString, QString>>;

inline const List& modes() {
    static const List list{{QStringLiteral("トグル（もう一度押すとフェード停止）"), "toggle"},
                           {QStringLiteral("リトリガー（押すたび頭から）"), "retrigger"},
                           {QStringLiteral("ホールド（押している間だけ）"), "hold"}};
    return list;
}

inline const List& onNext() {
    static const List list{{QStringLiteral("重ねて流し続ける"), "keep"},
                           {QStringLiteral("フェードアウトして止める"), "fade"},
                           {QStringLiteral("すぐに止める"), "cut"}};
    return list;
}

} // namespace Choices
