#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include <QObject>
#include <QString>

#include "audio/Route.h"
#include "audio/VoiceStatus.h"
#include "cue/ActiveCue.h"
#include "cue/LiveState.h"
#include "cue/MediaInfo.h"
#include "cue/StatusLine.h"
#include "model/ShowDocument.h"

class Mixer;
class VideoOutput;

// Turns key events into running cues and keeps them: the key modes, the next-material rule,
// starting audio as mixer voices routed to the outputs and pictures on the video output, and the
// 30 Hz tick that finishes cues and publishes the live state.
//
// Deck keys (slide decks, pictures, lists) play one item at a time: a press steps to the next
// enabled item (deckStep), the tick advances pictures by their timing and sounds at their end,
// a movie's end steps on, and the deck panel jumps (deckJump); deckGo shows the item.
//
// Threading: main thread only. The only cross-thread state is inside the Mixer, whose every
// call takes its own lock; the engine never holds that lock across two calls. Media callbacks
// arrive later on the main thread and do nothing once the engine is gone.
class CueEngine : public QObject {
    Q_OBJECT
public:
    // Retrigger cuts the previous instance within this time, whatever the key's fade-out.
    static constexpr double kRetriggerCut = 0.03;
    static constexpr float kMeterRelease = 0.86f; // per tick

    CueEngine(ShowDocument& document, const MediaTable& media, Mixer& mixer, VideoOutput& video,
              LiveState& live, StatusLine& status, QObject* parent = nullptr);

    // The device's output channel count (routing and the number of meters).
    void setOutputChannelCount(std::int64_t channels) { m_outputChannels = channels; }
    std::int64_t outputChannelCount() const { return m_outputChannels; }
    // Which key codes the on-screen keyboard shows (a press on an empty one selects it).
    void setLayoutKeys(std::function<bool(KeyCode)> isLayoutKey) {
        m_isLayoutKey = std::move(isLayoutKey);
    }
    // The alert sound for a key whose media failed.
    void setBeep(std::function<void()> beep) { m_beep = std::move(beep); }

    void handleKey(KeyCode code, bool down, bool shift, bool isRepeat);
    void startKey(KeyCode code, std::int64_t deckIndex);
    void stopKey(KeyCode code, double fade);
    void stop(ActiveCue& cue, double fade);
    // False when no cue has that id.
    bool stopCue(std::int64_t id);
    void stopAll(bool immediate);
    bool isRunning(KeyCode code) const;
    void togglePlayback(KeyCode code);
    void tick();

    // Moves a running cue to `fraction` (0…0.999) of its duration. A movie and its sound
    // resume together 0.1 s from now; a stopping cue, or one with nothing to seek, is left.
    // False when no running cue has that id.
    bool seek(std::int64_t cueID, double fraction);
    // Host clock for seeks and deck timing (the device's simulated clock in offline runs).
    void setHostClock(std::function<std::uint64_t()> clock) { m_hostClock = std::move(clock); }
    // Offline runs decode on the calling thread, so that every render of a show is the same: a
    // slide picture the moment it is shown, a streamed sound in fillStreams before each block.
    // Live, pictures are decoded on a pool thread and shown when ready, and each streamed sound
    // has a decoding thread of its own.
    void setDecodeInline(bool inlineDecode) { m_decodeInline = inlineDecode; }
    // Offline runs, before each block: tops up every streamed sound (a movie whose sound is too
    // long to decode into memory).
    void fillStreams();

    // The deck panel's "play from here": the item of the key's running deck, or the key started
    // there. A disabled item is refused with a message.
    void deckJump(KeyCode code, const QString& itemID);
    // The key's items as it defines them, and those that play (current page; none: not loaded).
    std::vector<DeckItem> deckItems(KeyCode code) const;
    std::vector<DeckItem> enabledDeckItems(KeyCode code) const;

    const std::vector<ActiveCuePtr>& cues() const { return m_cues; }
    std::int64_t nextCueID() const { return m_nextCueID; }
    double stopAllFade() const { return m_stopAllFade; }
    void setStopAllFade(double seconds) { m_stopAllFade = seconds; }

    // No cue runs and the meters have come to rest (below -80 dB): a tick changes nothing.
    bool isIdle() const;
    // Whether the cue is `code`'s on the current page and has not been told to stop.
    bool runsFor(const ActiveCue& cue, KeyCode code) const;
    // The newest such cue of the key (what a seek or a toggle of the key acts on), or none.
    ActiveCuePtr newestRunning(KeyCode code) const;

signals:
    void selectedKeyChanged();

private:
    void select(KeyCode code);
    void applyNextMaterialRule(KeyCode code, const KeyAssignment& starting);
    struct Placement {
        double z = 0.0;
        OutputSet outputs;
    };
    Placement place(const KeyAssignment& a);
    void startMedia(const ActiveCuePtr& cue, const KeyAssignment& a, const MediaInfo& info);
    std::uint64_t now() const;

    // Decks: the items a running cue plays, stepping and showing one.
    static std::vector<DeckItem> enabledItems(const ActiveCue& cue);
    void deckStep(const ActiveCuePtr& cue, std::int64_t delta);
    void deckGo(const ActiveCuePtr& cue, std::int64_t index, double fade);
    void deckShowPicture(const ActiveCuePtr& cue, const DeckItem& item, double fade,
                         const Placement& placement);
    void deckPlayMovie(const ActiveCuePtr& cue, const DeckItem& item, double fade,
                       const Placement& placement);
    // The key's routes for a source of `channels` channels; says so when there are none.
    RouteList routesFor(const KeyAssignment& a, std::int64_t channels);
    std::optional<std::int64_t> playClip(const AudioClipPtr& clip, const KeyAssignment& a,
                                         double volume, double fadeIn, bool loop, bool deferred);
    // A movie whose sound is streamed: the file, what it holds, and how its sound plays.
    struct StreamSource {
        QString path;
        MediaProbe probe;
        double volume = 1.0;
        bool loop = false;
    };
    // The movie a cue (or its deck's current item) streams the sound of, if it does.
    std::optional<StreamSource> streamSource(const ActiveCue& cue) const;
    // Plays the source's sound streamed from `from` seconds, armed, as the sound of the cue or
    // of its deck's item; the stream and voice that had that place stop.
    std::optional<std::int64_t> playStream(ActiveCue& cue, const StreamSource& source, double from,
                                           double fadeIn);
    void deckTiming(const std::map<std::int64_t, VoiceStatus>& snapshot);

    // What a seek of the cue acts on: its voice and/or movie, and the length in seconds.
    struct SeekTarget {
        std::optional<std::int64_t> voiceID;
        std::shared_ptr<VideoCue> video;
        double duration = 0.0;
    };
    std::optional<SeekTarget> seekTarget(const ActiveCue& cue) const;

    ShowDocument& m_document;
    const MediaTable& m_media;
    Mixer& m_mixer;
    VideoOutput& m_video;
    LiveState& m_live;
    StatusLine& m_status;
    std::function<bool(KeyCode)> m_isLayoutKey;
    std::function<void()> m_beep;
    std::function<std::uint64_t()> m_hostClock;
    bool m_decodeInline = false;

    std::vector<ActiveCuePtr> m_cues; // start order
    std::int64_t m_nextCueID = 1;
    double m_visualSequence = 0.0;
    double m_stopAllFade = 1.0;
    std::int64_t m_outputChannels = 2;

    std::vector<float> m_displayedMeters;
    LiveState::KeyLevels m_displayedSourceMeters;
};
