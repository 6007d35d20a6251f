#include "model/KeyboardLayout.h"

#include <gtest/gtest.h>

#include <QFile>

#include "Files.h"
#include "TempDir.h"

namespace {

using namespace KeyboardLayout;

int keyCells(const std::vector<KeyRow>& rows) {
    int n = 0;
    for (const auto& row : rows)
        for (const auto& spec : row.keys)
            n += spec.kind == KeySpec::Kind::key;
    return n;
}

double height(const std::vector<KeyRow>& rows) {
    double h = 0;
    for (const auto& row : rows)
        h += row.height;
    return h;
}

TEST(KeyboardLayout, UsHas67KeysAndJisHas69CellsOver68Codes) {
    EXPECT_EQ(keyCells(usRows()), 67);
    EXPECT_EQ(fillOrderOf(usRows()).size(), 67u);
    EXPECT_EQ(keyCells(jisRows()), 69);
    EXPECT_EQ(fillOrderOf(jisRows()).size(), 68u);
    EXPECT_EQ(height(usRows()), 5.75);
    EXPECT_EQ(height(jisRows()), 5.75);
    EXPECT_EQ(unitsHigh(), 5.75);
}

TEST(KeyboardLayout, FillOrdersRunFromTheFunctionKeysToTheArrows) {
    for (const auto* rows : {&usRows(), &jisRows()}) {
        const auto order = fillOrderOf(*rows);
        EXPECT_EQ(std::vector<KeyCode>(order.begin(), order.begin() + 3),
                  (std::vector<KeyCode>{122, 120, 99}));
        EXPECT_EQ(std::vector<KeyCode>(order.end() - 5, order.end()),
                  (std::vector<KeyCode>{126, 49, 123, 125, 124}));
    }
    // JIS: the two Return cells are one key, counted once, between [ and A.
    const auto jis = fillOrderOf(jisRows());
    const auto enter = std::find(jis.begin(), jis.end(), 36);
    EXPECT_EQ(*(enter - 1), 30);
    EXPECT_EQ(*(enter + 1), 0);
}

TEST(KeyboardLayout, CellsCarryIdsKindsAndTheStopAllPosition) {
    const KeySpec& stop = usRows()[0].keys[0];
    EXPECT_EQ(stop.kind, KeySpec::Kind::stopAll);
    EXPECT_EQ(stop.code, 53);
    EXPECT_EQ(stop.label, "ESC");
    EXPECT_EQ(usRows()[0].keys[2].id, "0-2");
    EXPECT_EQ(usRows()[0].keys[2].label, "F1");
    EXPECT_EQ(usRows()[0].keys[1].kind, KeySpec::Kind::gap);
    EXPECT_EQ(usRows()[0].keys[1].code, KeySpec::kNoCode);
    EXPECT_EQ(usRows()[3].keys[0].kind, KeySpec::Kind::pad);
    // The bottom rows name what a PC keyboard has there; every row of a layout keeps one width.
    const auto bottom = [](const std::vector<KeyRow>& rows) {
        QStringList labels;
        for (const KeySpec& spec : rows[5].keys)
            if (spec.kind == KeySpec::Kind::pad || spec.code == 49)
                labels << spec.label;
        return labels;
    };
    EXPECT_EQ(bottom(usRows()), (QStringList{"Ctrl", "Win", "Alt", "SPACE", "Alt", "Ctrl"}));
    EXPECT_EQ(bottom(jisRows()), (QStringList{"Ctrl", "Win", "Alt", "無変換", "SPACE", "変換",
                                              "カタカナ/ひらがな", "Ctrl"}));
    for (const auto& rows : {usRows(), jisRows()}) {
        EXPECT_EQ(labelsOf(rows).at(51), "BACKSPACE");
        const auto width = [](const KeyRow& row) {
            double sum = 0.0;
            for (const KeySpec& spec : row.keys)
                sum += spec.width;
            return sum;
        };
        for (std::size_t r = 2; r < rows.size(); ++r)
            EXPECT_DOUBLE_EQ(width(rows[r]), width(rows[1])) << r;
    }
    EXPECT_EQ(labelsOf(jisRows()).at(93), "¥");
    EXPECT_EQ(labelsOf(jisRows()).at(36), "ENTER");
    EXPECT_EQ(labelsOf(usRows()).at(42), "\\");
    EXPECT_THROW(build({{1, {{Item::Sort::key, 70000, "X", 1}}}}), std::logic_error);
}

TEST(KeyboardLayout, LabelsNameUndrawnKeysByCode) {
    EXPECT_EQ(label(0), "A");
    EXPECT_EQ(label(49), "SPACE");
    EXPECT_EQ(label(82), "#82"); // a keypad key: not drawn, still assignable
}

// The chosen layout wins over the session's keyboard; "auto" follows the first of its layouts.
TEST(KeyboardLayout, TheChoiceElseTheSessionsFirstLayoutMakesItJis) {
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"us", "jp", false},   {"jis", "us", true},           {"auto", "jp", true},
        {"auto", "us", false}, {"auto", "jp(kana),us", true}, {"auto", "us,jp", false},
        {"auto", "", false},
    };
    for (const auto& [choice, session, jis] : rows)
        EXPECT_EQ(isJISFor(choice, session), jis) << choice << " " << session;

    // The session's keyboard: the environment's, else the system file's XKBLAYOUT line.
    TempDir dir;
    const QByteArray own = qgetenv("XKB_DEFAULT_LAYOUT");
    const QString file = QString::fromStdString(dir.file("keyboard"));
    const std::tuple<const char*, const char*, const char*> sessions[] = {
        {"jp", "XKBLAYOUT=\"us\"\n", "jp"},
        {"", "XKBMODEL=\"jp106\"\nXKBLAYOUT=\"jp\"\nXKBVARIANT=\"\"\n", "jp"},
        {"", "XKBLAYOUT=us,jp\n", "us,jp"},
        {"", "# XKBLAYOUT=\"jp\"\nXKBMODEL=\"pc105\"\n", ""},
        {"", nullptr, ""},
    };
    for (const auto& [environment, text, name] : sessions) {
        QFile::remove(file);
        if (text)
            Files::write(file, text);
        qputenv("XKB_DEFAULT_LAYOUT", environment);
        EXPECT_EQ(sessionLayoutName(file), name) << environment << " " << (text ? text : "-");
    }
    qputenv("XKB_DEFAULT_LAYOUT", own);
}

} // namespace
