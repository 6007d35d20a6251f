#include "model/KeyboardLayout.h"

#include <set>
#include <stdexcept>

#include <QFile>
#include <QRegularExpression>

#include "model/Prefs.h"

namespace KeyboardLayout {
namespace {

using Sort = Item::Sort;

Item key(int code, const char* label, double width = 1.0) {
    return {Sort::key, code, QString::fromUtf8(label), width};
}
Item pad(const char* label, double width) {
    return {Sort::pad, 0, QString::fromUtf8(label), width};
}
Item gap(double width) {
    return {Sort::gap, 0, QString(), width};
}
Item stopAll() {
    return {Sort::stopAll, 0, QString(), 1.0};
}

RowSpec functionRow() {
    return {0.75,
            {stopAll(), gap(1), key(122, "F1"), key(120, "F2"), key(99, "F3"), key(118, "F4"),
             gap(0.5), key(96, "F5"), key(97, "F6"), key(98, "F7"), key(100, "F8"), gap(0.5),
             key(101, "F9"), key(109, "F10"), key(103, "F11"), key(111, "F12")}};
}

std::vector<RowSpec> usLayout() {
    return {functionRow(),
            {1,
             {key(50, "`"), key(18, "1"), key(19, "2"), key(20, "3"), key(21, "4"), key(23, "5"),
              key(22, "6"), key(26, "7"), key(28, "8"), key(25, "9"), key(29, "0"), key(27, "-"),
              key(24, "="), key(51, "BACKSPACE", 2)}},
            {1,
             {key(48, "TAB", 1.5), key(12, "Q"), key(13, "W"), key(14, "E"), key(15, "R"),
              key(17, "T"), key(16, "Y"), key(32, "U"), key(34, "I"), key(31, "O"), key(35, "P"),
              key(33, "["), key(30, "]"), key(42, "\\", 1.5)}},
            {1,
             {pad("caps", 1.75), key(0, "A"), key(1, "S"), key(2, "D"), key(3, "F"), key(5, "G"),
              key(4, "H"), key(38, "J"), key(40, "K"), key(37, "L"), key(41, ";"), key(39, "'"),
              key(36, "ENTER", 2.25)}},
            {1,
             {pad("shift", 2.25), key(6, "Z"), key(7, "X"), key(8, "C"), key(9, "V"), key(11, "B"),
              key(45, "N"), key(46, "M"), key(43, ","), key(47, "."), key(44, "/"),
              pad("shift", 0.75), key(126, "▲"), gap(1)}},
            {1,
             // What a PC keyboard has beside the space bar (the row keeps its width).
             {pad("Ctrl", 1.5), pad("Win", 1.25), pad("Alt", 1.5), key(49, "SPACE", 5.5),
              pad("Alt", 1.25), pad("Ctrl", 1), key(123, "◀"), key(125, "▼"), key(124, "▶")}}};
}

std::vector<RowSpec> jisLayout() {
    return {functionRow(),
            {1,
             {key(18, "1"), key(19, "2"), key(20, "3"), key(21, "4"), key(23, "5"), key(22, "6"),
              key(26, "7"), key(28, "8"), key(25, "9"), key(29, "0"), key(27, "-"), key(24, "^"),
              key(93, "¥"), key(51, "BACKSPACE", 2)}},
            {1,
             {key(48, "TAB", 1.5), key(12, "Q"), key(13, "W"), key(14, "E"), key(15, "R"),
              key(17, "T"), key(16, "Y"), key(32, "U"), key(34, "I"), key(31, "O"), key(35, "P"),
              key(33, "@"), key(30, "["), key(36, "ENTER", 1.5)}},
            {1,
             {pad("英数", 1.75), key(0, "A"), key(1, "S"), key(2, "D"), key(3, "F"), key(5, "G"),
              key(4, "H"), key(38, "J"), key(40, "K"), key(37, "L"), key(41, ";"), key(39, ":"),
              key(42, "]"), key(36, "ENTER", 1.25)}},
            {1,
             {pad("shift", 2), key(6, "Z"), key(7, "X"), key(8, "C"), key(9, "V"), key(11, "B"),
              key(45, "N"), key(46, "M"), key(43, ","), key(47, "."), key(44, "/"), key(94, "_"),
              key(126, "▲"), gap(1)}},
            {1,
             // A PC's JIS keyboard: the input-mode keys beside the space bar.
             {pad("Ctrl", 1), pad("Win", 1), pad("Alt", 1.25), pad("無変換", 1),
              key(49, "SPACE", 4.5), pad("変換", 1), pad("カタカナ/ひらがな", 1.25), pad("Ctrl", 1),
              key(123, "◀"), key(125, "▼"), key(124, "▶")}}};
}

} // namespace

std::vector<KeyRow> build(const std::vector<RowSpec>& layout) {
    std::vector<KeyRow> rows;
    for (std::size_t r = 0; r < layout.size(); ++r) {
        KeyRow row{static_cast<int>(r), layout[r].height, {}};
        for (std::size_t i = 0; i < layout[r].items.size(); ++i) {
            const Item& item = layout[r].items[i];
            KeySpec spec;
            spec.id = QString::number(r) + "-" + QString::number(i);
            spec.width = item.width;
            switch (item.sort) {
            case Sort::key:
                if (item.code < 0 || item.code > 65535)
                    throw std::logic_error("key code outside 0…65535 in a layout");
                spec.kind = KeySpec::Kind::key;
                spec.code = static_cast<KeyCode>(item.code);
                spec.label = item.label;
                break;
            case Sort::pad:
                spec.kind = KeySpec::Kind::pad;
                spec.label = item.label;
                break;
            case Sort::gap:
                spec.kind = KeySpec::Kind::gap;
                break;
            case Sort::stopAll:
                spec.kind = KeySpec::Kind::stopAll;
                spec.code = 53;
                spec.label = QStringLiteral("ESC");
                spec.width = 1.0;
                break;
            }
            row.keys.push_back(spec);
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

const std::vector<KeyRow>& usRows() {
    static const std::vector<KeyRow> rows = build(usLayout());
    return rows;
}

const std::vector<KeyRow>& jisRows() {
    static const std::vector<KeyRow> rows = build(jisLayout());
    return rows;
}

QString sessionLayoutName(const QString& keyboardFile) {
    const QString fromEnvironment = qEnvironmentVariable("XKB_DEFAULT_LAYOUT");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    QFile file(keyboardFile);
    if (file.open(QIODevice::ReadOnly)) {
        static const QRegularExpression line(QStringLiteral("^XKBLAYOUT=\"?([^\"\\n]*)\"?"),
                                             QRegularExpression::MultilineOption);
        const auto match = line.match(QString::fromUtf8(file.readAll()));
        if (match.hasMatch())
            return match.captured(1);
    }
    return {};
}

bool isJISLayoutName(const QString& xkbLayout) {
    // "jp", "jp(kana)", or the first of several layouts ("jp,us").
    return xkbLayout.section(QLatin1Char(','), 0, 0).trimmed().startsWith(QStringLiteral("jp"));
}

bool isJISFor(const QString& choice, const QString& xkbLayout) {
    if (choice == QStringLiteral("us"))
        return false;
    if (choice == QStringLiteral("jis"))
        return true;
    return isJISLayoutName(xkbLayout);
}

bool isJIS() {
    static const bool jis = isJISFor(Prefs::value(Prefs::kKeyboardLayout).toString(),
                                     sessionLayoutName(QStringLiteral("/etc/default/keyboard")));
    return jis;
}

const std::vector<KeyRow>& rows() {
    return isJIS() ? jisRows() : usRows();
}

double unitsHigh() {
    double total = 0.0;
    for (const KeyRow& row : rows())
        total += row.height;
    return total;
}

std::vector<KeyCode> fillOrderOf(const std::vector<KeyRow>& layoutRows) {
    std::vector<KeyCode> order;
    std::set<KeyCode> seen;
    for (const KeyRow& row : layoutRows)
        for (const KeySpec& spec : row.keys)
            if (spec.kind == KeySpec::Kind::key && seen.insert(spec.code).second)
                order.push_back(spec.code);
    return order;
}

std::map<KeyCode, QString> labelsOf(const std::vector<KeyRow>& layoutRows) {
    std::map<KeyCode, QString> map;
    for (const KeyRow& row : layoutRows)
        for (const KeySpec& spec : row.keys)
            if (spec.kind == KeySpec::Kind::key)
                map.emplace(spec.code, spec.label);
    return map;
}

const std::vector<KeyCode>& fillOrder() {
    static const std::vector<KeyCode> order = fillOrderOf(rows());
    return order;
}

const std::map<KeyCode, QString>& labels() {
    static const std::map<KeyCode, QString> map = labelsOf(rows());
    return map;
}

QString label(KeyCode code) {
    const auto found = labels().find(code);
    return found != labels().end() ? found->second : QStringLiteral("#") + QString::number(code);
}

} // namespace KeyboardLayout
