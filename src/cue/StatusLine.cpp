#include "cue/StatusLine.h"

void StatusLine::show(const QString& text) {
    m_text = text;
    emit changed(text); // also when the same text is said again: the operator did it again
}
