#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include <QByteArray>
#include <QString>
#include <QStringList>

#include "model/KeyAssignment.h"
#include "model/MidiBinding.h"

// One page as the show file stores it. Keys stay strings here: turning them into key codes
// (and dropping the ones that are not) is part of opening.
struct PageDocument {
    QString name;
    std::map<QString, KeyAssignment> keys;
};

// The show file (".vorlin"): UTF-8 JSON, pretty-printed, keys sorted at every level, doubles
// integral without a fraction and otherwise in their shortest round-trip form, so saving the
// same show twice gives the same bytes.
struct KeymapDocument {
    QString format = QStringLiteral("vorlin");
    std::int64_t version = 1;
    std::map<QString, KeyAssignment> keys; // the current page, for readers that know no pages
    std::optional<QString> outputDeviceUID;
    double masterVolume = 1.0;
    QString videoTarget = QStringLiteral("window");
    std::optional<QStringList> videoOutputs;
    double stopAllFade = 1.0;
    std::optional<std::vector<std::int64_t>> mutedOutputs;
    std::optional<std::vector<PageDocument>> pages;
    std::optional<std::int64_t> currentPage;
    std::vector<MidiBinding> midiBindings;

    QByteArray encode() const;
    // Throws DocumentError (unreadable JSON, a required field missing, a wrong type, an unknown
    // mode or onNext anywhere). `format` and `version` must be there but are not examined.
    static KeymapDocument decode(const QByteArray& bytes);
};
