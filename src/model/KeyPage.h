#pragma once

#include <map>

#include <QString>
#include <QUuid>

#include "model/KeyAssignment.h"

// One whole keyboard of a show. The id is made anew for every page created or loaded; it tags
// the cues started on the page.
struct KeyPage {
    QUuid id = QUuid::createUuid();
    QString name;
    std::map<KeyCode, KeyAssignment> keys;
};
