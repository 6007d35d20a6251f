#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <QString>

#include "deck/Deck.h"
#include "media/StreamedSound.h"
#include "video/VideoCue.h"

// Where a running deck, list or picture key is: the item shown or played and what plays it.
// Moved from item to item only by CueEngine::deckGo. Main thread.
struct DeckCue {
    explicit DeckCue(DeckPtr loaded) : deck(std::move(loaded)) {}

    const DeckPtr deck;
    std::optional<QString> itemID; // absent before the first item
    std::int64_t index = 0;        // among the enabled items
    std::shared_ptr<ImageCue> image;
    std::shared_ptr<VideoCue> video;
    std::optional<std::int64_t> voiceID;
    std::shared_ptr<StreamedSound> stream; // a movie item's sound too long for memory
    std::uint64_t itemStarted = 0;         // host time
};
