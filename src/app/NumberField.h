#pragma once

#include <QAbstractSpinBox>

namespace NumberField {

// How every number field of the window behaves: it takes the keyboard only when clicked
// into, applies a typed number on Enter (not per digit), and Enter hands the keys back to
// the show.
inline void releaseKeysOnEnter(QAbstractSpinBox* box) {
    box->setFocusPolicy(Qt::ClickFocus);
    box->setKeyboardTracking(false);
    QObject::connect(box, &QAbstractSpinBox::editingFinished, box, [box] { box->clearFocus(); });
}

} // namespace NumberField
