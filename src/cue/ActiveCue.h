#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <QString>
#include <QUuid>

#include "cue/DeckCue.h"
#include "media/StreamedSound.h"
#include "model/KeyAssignment.h"
#include "video/VideoCue.h"

// One running (or fading-out) cue. Shared by the cue list and the callbacks of its media;
// main thread only.
struct ActiveCue {
    ActiveCue(std::int64_t cueID, KeyCode code, QString cueName, QUuid pageID,
              KeyAssignment settings)
        : id(cueID), key(code), name(std::move(cueName)), page(pageID),
          assignment(std::move(settings)) {}

    const std::int64_t id;
    const KeyCode key;
    const QString name; // the key's display name at start
    const QUuid page;   // the page that was current at start
    // The key's settings at start: later edits of the key never change a running cue.
    const KeyAssignment assignment;
    std::optional<std::int64_t> voiceID;
    // The sound of a movie too long to decode into memory, played by voiceID.
    std::shared_ptr<StreamedSound> stream;
    std::shared_ptr<VideoCue> video;
    std::shared_ptr<DeckCue> deck; // a deck, list or picture key
    // Set by any stop; a stopping cue no longer counts as running. There is no way back.
    bool stopping = false;
};

using ActiveCuePtr = std::shared_ptr<ActiveCue>;
