#pragma once

#include <map>
#include <vector>

#include <QString>

#include "model/KeyAssignment.h"

// One drawn cell of the on-screen keyboard.
struct KeySpec {
    enum class Kind { key, stopAll, pad, gap };
    static constexpr KeyCode kNoCode = 65535;

    QString id; // row + "-" + position
    KeyCode code = kNoCode;
    QString label;
    double width = 1.0;
    Kind kind = Kind::key;
};

struct KeyRow {
    int id = 0;
    double height = 1.0;
    std::vector<KeySpec> keys;
};

// The two keyboards Vorlin draws (US and JIS), which one is in use, and what other parts derive
// from it: the order in which free keys are filled and the key labels. Key codes are the
// layout's virtual key codes (A = 0, Space = 49, Escape = 53 …), the identity of a key in show
// files. Main thread; the choice is made once per run.
namespace KeyboardLayout {

// The one key the show reserves: it stops everything (fading; with Shift at once).
inline constexpr KeyCode kEscape = 53;

// A layout as written: rows of items (key, pad, gap or the stop-all cell).
struct Item {
    enum class Sort { key, pad, gap, stopAll };
    Sort sort = Sort::key;
    int code = 0;
    QString label;
    double width = 1.0;
};
struct RowSpec {
    double height = 1.0;
    std::vector<Item> items;
};

std::vector<KeyRow> build(const std::vector<RowSpec>& layout);
const std::vector<KeyRow>& usRows();
const std::vector<KeyRow>& jisRows();

// pref.keyboardLayout "us"/"jis", else the session's keyboard ("jp" → JIS). Evaluated once.
bool isJIS();
// The same rule for a given choice and session keyboard.
bool isJISFor(const QString& choice, const QString& xkbLayout);
// The session's keyboard without a display connection: what Wayland compositors and the
// console are told (XKB_DEFAULT_LAYOUT), else the XKBLAYOUT line of the system's keyboard
// configuration (`keyboardFile`, /etc/default/keyboard); "" when neither says. The application
// may refine this from the X server's own XKB names.
QString sessionLayoutName(const QString& keyboardFile);
// Whether a keyboard layout name (XKB: "jp", "us", "de(nodeadkeys)" …) is a JIS keyboard.
bool isJISLayoutName(const QString& xkbLayout);

const std::vector<KeyRow>& rows();
double unitsHigh();
// Codes of every key cell of rows(), top to bottom, left to right, each once.
const std::vector<KeyCode>& fillOrder();
const std::map<KeyCode, QString>& labels();
std::vector<KeyCode> fillOrderOf(const std::vector<KeyRow>& rows);
std::map<KeyCode, QString> labelsOf(const std::vector<KeyRow>& rows);
// The label, or "#" + code for a key the layout does not draw.
QString label(KeyCode code);

} // namespace KeyboardLayout
