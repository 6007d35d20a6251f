#include "cue/CueEngine.h"

#include <algorithm>
#include <array>

#include <QPointer>

#include "audio/HostTime.h"
#include "audio/Mixer.h"
#include "audio/Routing.h"
#include "model/KeyboardLayout.h"
#include "video/VideoOutput.h"

namespace {

const QString kLoading = QStringLiteral("読み込み中です");
const QString kNoRoute = QStringLiteral(": 出力先のチャンネルがありません（ルーティングを確認）");
const QString kVideoFailed = QStringLiteral(": 映像を再生できません");
const QString kDeletedPage = QStringLiteral("削除したページ");
const QString kAllDisabled =
    QStringLiteral(": 流す素材がありません（一覧ですべて無効になっています）");
const QString kDisabledItem = QStringLiteral("無効にした素材は流せません");
const QString kNoSound = QStringLiteral(": 音声を読み込めませんでした");
const QString kStreamFailed = QStringLiteral(": 音声を再生できません（%1）");
// A streamed sound without a picture starts this long after its press: its decoder's first fill.
constexpr double kStreamLead = 0.08;

// The streamed sounds a cue may hold: its movie's, and its deck's current movie item's.
std::array<StreamedSound*, 2> streamsOf(const ActiveCue& cue) {
    return {cue.stream.get(), cue.deck ? cue.deck->stream.get() : nullptr};
}
// An image never advances by itself sooner than this after it was shown.
constexpr double kShortestSlide = 0.3;

void raiseTo(std::vector<float>& into, const std::vector<float>& levels) {
    if (into.size() < levels.size())
        into.resize(levels.size(), 0.0f);
    for (std::size_t i = 0; i < levels.size(); ++i)
        into[i] = std::max(into[i], levels[i]);
}

} // namespace

CueEngine::CueEngine(ShowDocument& document, const MediaTable& media, Mixer& mixer,
                     VideoOutput& video, LiveState& live, StatusLine& status, QObject* parent)
    : QObject(parent), m_document(document), m_media(media), m_mixer(mixer), m_video(video),
      m_live(live), m_status(status), m_isLayoutKey([](KeyCode) { return true; }), m_beep([] {}) {}

void CueEngine::select(KeyCode code) {
    if (m_document.selectedKey == code)
        return;
    m_document.selectedKey = code;
    emit selectedKeyChanged();
}

bool CueEngine::runsFor(const ActiveCue& cue, KeyCode code) const {
    return cue.key == code && !cue.stopping && cue.page == m_document.currentPageID();
}

ActiveCuePtr CueEngine::newestRunning(KeyCode code) const {
    for (auto it = m_cues.rbegin(); it != m_cues.rend(); ++it) {
        if (runsFor(**it, code))
            return *it;
    }
    return nullptr;
}

bool CueEngine::isIdle() const {
    return m_cues.empty() && m_displayedSourceMeters.empty() &&
           std::all_of(m_displayedMeters.begin(), m_displayedMeters.end(),
                       [](float level) { return level < 1e-4f; });
}

bool CueEngine::isRunning(KeyCode code) const {
    return newestRunning(code) != nullptr;
}

void CueEngine::handleKey(KeyCode code, bool down, bool shift, bool isRepeat) {
    if (code == KeyboardLayout::kEscape) {
        // Escape stops everything, on every page, before any assignment is looked at.
        if (down && !isRepeat)
            stopAll(shift);
        return;
    }
    if (isRepeat)
        return;
    const auto found = m_document.assignments.find(code);
    if (found == m_document.assignments.end()) {
        if (down && m_isLayoutKey(code))
            select(code);
        return;
    }
    const KeyAssignment a = found->second;
    if (!down) {
        if (a.mode == KeyMode::hold && !a.isDeck())
            stopKey(code, a.fadeOut);
        return;
    }
    select(code);
    if (shift) {
        stopKey(code, 0.0); // Shift+key only ever stops
        return;
    }
    if (a.isDeck()) {
        // Whatever the mode: a running deck steps on (past its last item it ends, or with
        // slideLoop comes round to the first), else the key starts at its first item.
        const ActiveCuePtr running = newestRunning(code);
        if (running && running->deck)
            deckStep(running, 1);
        else
            startKey(code, 0);
        return;
    }
    switch (a.mode) {
    case KeyMode::toggle:
        if (isRunning(code))
            stopKey(code, a.fadeOut);
        else
            startKey(code, 0);
        break;
    case KeyMode::retrigger:
        stopKey(code, std::min(a.fadeOut, kRetriggerCut));
        startKey(code, 0);
        break;
    case KeyMode::hold:
        if (!isRunning(code))
            startKey(code, 0);
        break;
    }
}

void CueEngine::applyNextMaterialRule(KeyCode code, const KeyAssignment& starting) {
    // The running cue's own settings decide what it does; the starting key's group only picks
    // which cues are concerned. Group 0 yields to every start. Spans all pages.
    const auto cues = m_cues;
    for (const auto& cue : cues) {
        if (cue->stopping || cue->key == code)
            continue;
        const KeyAssignment& b = cue->assignment;
        if (b.onNext == NextBehavior::keep)
            continue;
        if (b.group == 0 || b.group == starting.group)
            stop(*cue, b.onNext == NextBehavior::cut ? 0.0 : b.fadeOut);
    }
}

void CueEngine::startKey(KeyCode code, std::int64_t deckIndex) {
    const auto found = m_document.assignments.find(code);
    if (found == m_document.assignments.end())
        return;
    const KeyAssignment a = found->second;
    const MediaInfo* info = mediaFor(m_media, a);
    if (!info || info->loading) {
        m_status.show(a.displayName() + QStringLiteral(" は") +
                      (info ? info->progressText : kLoading));
        return;
    }
    if (info->error) {
        m_status.show(a.displayName() + QStringLiteral(": ") + *info->error);
        m_beep();
        return;
    }
    // Runs before the cue is built, also when the start then yields nothing.
    applyNextMaterialRule(code, a);
    auto cue = std::make_shared<ActiveCue>(m_nextCueID++, code, a.displayName(),
                                           m_document.currentPageID(), a);
    if (info->deck) {
        cue->deck = std::make_shared<DeckCue>(info->deck);
        if (enabledItems(*cue).empty()) {
            m_status.show(a.displayName() + kAllDisabled);
            return;
        }
        cue->deck->itemStarted = now();
        m_cues.push_back(cue);
        deckGo(cue, deckIndex, a.fadeIn);
        return;
    }
    startMedia(cue, a, *info);
    if (cue->voiceID || cue->video)
        m_cues.push_back(cue);
}

std::uint64_t CueEngine::now() const {
    return m_hostClock ? m_hostClock() : HostTime::now();
}

// Where a picture of key `a` goes and at what depth; each picture started is above the ones
// before it on its layer.
CueEngine::Placement CueEngine::place(const KeyAssignment& a) {
    m_visualSequence += 1.0;
    if (!m_video.isShowing())
        m_video.show();
    Placement placement;
    if (a.screens)
        placement.outputs = QSet<QString>(a.screens->begin(), a.screens->end());
    placement.z = static_cast<double>(a.layer) * 1'000'000.0 + m_visualSequence;
    return placement;
}

void CueEngine::startMedia(const ActiveCuePtr& cue, const KeyAssignment& a, const MediaInfo& info) {
    const bool wantVideo = info.probe.hasVideo && a.showVideo;
    // A movie's sound waits, armed, for the host time at which its picture starts.
    if (info.clip) {
        cue->voiceID = playClip(info.clip, a, a.volume, a.fadeIn, a.loop, wantVideo);
    } else if (info.audioViaPlayer) {
        playStream(*cue, {a.path, info.probe, a.volume, a.loop}, 0.0, a.fadeIn);
        // Without its picture the sound starts after the decoder's first fill, as a movie would.
        if (cue->voiceID && !wantVideo)
            m_mixer.setStart(*cue->voiceID, now() + HostTime::secondsToTicks(kStreamLead));
    }
    if (!wantVideo)
        return;
    const Placement placement = place(a);
    QPointer<CueEngine> self(this);
    const std::optional<std::int64_t> voice = cue->voiceID;
    const QString name = a.displayName();
    auto onStart = [self, voice](std::uint64_t hostTime) {
        if (self && voice)
            self->m_mixer.setStart(*voice, hostTime);
    };
    auto onFail = [self, voice, name] {
        if (!self)
            return;
        if (voice)
            self->m_mixer.setStart(*voice, 0); // the sound plays without the picture
        self->m_status.show(name + kVideoFailed);
    };
    MovieStart movie;
    movie.path = a.path;
    movie.duration = info.probe.hasVideo ? info.probe.duration : -1.0;
    movie.fadeIn = a.fadeIn;
    movie.loop = a.loop;
    movie.volume = static_cast<float>(a.volume);
    movie.z = placement.z;
    movie.outputs = placement.outputs;
    movie.onStart = onStart;
    movie.onFail = onFail;
    cue->video = m_video.play(std::move(movie));
}

RouteList CueEngine::routesFor(const KeyAssignment& a, std::int64_t channels) {
    const RouteList routes =
        Routing::routes(a.matrix, a.outputMap.toStdString(), channels, m_outputChannels);
    if (routes.empty())
        m_status.show(a.displayName() + kNoRoute);
    return routes;
}

std::optional<std::int64_t> CueEngine::playClip(const AudioClipPtr& clip, const KeyAssignment& a,
                                                double volume, double fadeIn, bool loop,
                                                bool deferred) {
    const RouteList routes = routesFor(a, clip->channelCount);
    if (clip->frameCount < 2 || routes.empty())
        return std::nullopt;
    const std::int64_t voice =
        m_mixer.play(clip, routes, static_cast<float>(volume), fadeIn, loop, deferred);
    return voice > 0 ? std::optional<std::int64_t>(voice) : std::nullopt;
}

std::optional<std::int64_t> CueEngine::playStream(ActiveCue& cue, const StreamSource& source,
                                                  double from, double fadeIn) {
    const KeyAssignment& a = cue.assignment;
    std::optional<std::int64_t>& voice = cue.deck ? cue.deck->voiceID : cue.voiceID;
    std::shared_ptr<StreamedSound>& stream = cue.deck ? cue.deck->stream : cue.stream;
    if (voice)
        m_mixer.stop(*voice, 0.0);
    voice.reset();
    stream.reset();
    const std::int64_t channels = std::max<std::int64_t>(source.probe.sourceChannels, 1);
    const RouteList routes = routesFor(a, channels);
    if (routes.empty())
        return std::nullopt;
    StreamedSound::Options options;
    options.rate = m_mixer.sampleRate();
    options.channels = channels;
    options.from = from;
    options.duration = source.probe.duration;
    options.loop = source.loop;
    options.inlineDecoding = m_decodeInline;
    stream = std::make_shared<StreamedSound>(source.path.toStdString(), options);
    const std::int64_t id = m_mixer.playStream(stream->stream(), routes,
                                               static_cast<float>(source.volume), fadeIn, true);
    if (id > 0)
        voice = id;
    return voice;
}

std::optional<CueEngine::StreamSource> CueEngine::streamSource(const ActiveCue& cue) const {
    if (!cue.deck) {
        const MediaInfo* info = mediaFor(m_media, cue.assignment);
        if (!cue.stream || !info)
            return std::nullopt;
        return StreamSource{cue.assignment.path, info->probe, cue.assignment.volume,
                            cue.assignment.loop};
    }
    const DeckCue& deck = *cue.deck;
    const auto items = deck.deck->itemsFor(cue.assignment);
    const auto found = DeckItem::indexOf(items, deck.itemID);
    const auto probe = found ? deck.deck->probes.find(items[*found].file) : deck.deck->probes.end();
    if (!deck.stream || probe == deck.deck->probes.end())
        return std::nullopt;
    const DeckItem& item = items[*found];
    return StreamSource{deck.deck->pathOf(item.file), probe->second,
                        cue.assignment.volume * item.volume,
                        item.endAction == DeckItem::EndAction::loop};
}

void CueEngine::fillStreams() {
    for (const ActiveCuePtr& cue : m_cues) {
        for (StreamedSound* stream : streamsOf(*cue)) {
            if (stream)
                stream->fill();
        }
    }
}

std::vector<DeckItem> CueEngine::enabledItems(const ActiveCue& cue) {
    return Deck::enabledOnly(cue.deck->deck->itemsFor(cue.assignment));
}

std::vector<DeckItem> CueEngine::deckItems(KeyCode code) const {
    const auto found = m_document.assignments.find(code);
    if (found == m_document.assignments.end())
        return {};
    const MediaInfo* info = mediaFor(m_media, found->second);
    return info && info->deck ? info->deck->itemsFor(found->second) : std::vector<DeckItem>{};
}

std::vector<DeckItem> CueEngine::enabledDeckItems(KeyCode code) const {
    return Deck::enabledOnly(deckItems(code));
}

void CueEngine::deckStep(const ActiveCuePtr& cue, std::int64_t delta) {
    if (!cue->deck)
        return;
    const std::vector<DeckItem> items = enabledItems(*cue);
    // The shown item's place among the enabled items; the stored index when it is not there.
    const auto shown = DeckItem::indexOf(items, cue->deck->itemID);
    const std::int64_t current = shown ? static_cast<std::int64_t>(*shown) : cue->deck->index;
    const std::int64_t target = std::max<std::int64_t>(current + delta, 0);
    const double fade = target < static_cast<std::int64_t>(items.size())
                            ? items[static_cast<std::size_t>(target)].transition.value_or(
                                  cue->assignment.slideTransition)
                            : cue->assignment.fadeOut;
    deckGo(cue, target, fade);
}

void CueEngine::deckJump(KeyCode code, const QString& itemID) {
    const std::vector<DeckItem> items = enabledDeckItems(code);
    const auto found = DeckItem::indexOf(items, itemID);
    if (!found) {
        m_status.show(kDisabledItem);
        return;
    }
    const DeckItem& item = items[*found];
    const auto index = static_cast<std::int64_t>(*found);
    const ActiveCuePtr running = newestRunning(code);
    if (running && running->deck)
        deckGo(running, index, item.transition.value_or(running->assignment.slideTransition));
    else
        startKey(code, index);
}

void CueEngine::deckGo(const ActiveCuePtr& cue, std::int64_t index, double fade) {
    DeckCue* deck = cue->deck.get();
    if (!deck || cue->stopping)
        return;
    const KeyAssignment& a = cue->assignment;
    const std::vector<DeckItem> items = enabledItems(*cue);
    const auto count = static_cast<std::int64_t>(items.size());
    index = std::max<std::int64_t>(index, 0);
    if (index >= count) {
        // Past the last item the cue ends, unless the deck goes round.
        if (count == 0 || !a.slideLoop) {
            stop(*cue, a.fadeOut);
            return;
        }
        index = 0;
    }
    const DeckItem& item = items[static_cast<std::size_t>(index)];
    if (deck->voiceID) {
        m_mixer.stop(*deck->voiceID, fade);
        deck->voiceID.reset();
    }
    // What it has decoded ahead (up to a second) carries its fade-out.
    deck->stream.reset();
    const auto failure = deck->deck->failures.find(item.file);
    if (item.kind == DeckItem::Kind::audio) {
        // Whatever picture stands stays up under the sound.
        const auto clip = deck->deck->clips.find(item.file);
        if (clip == deck->deck->clips.end())
            m_status.show(item.title + kNoSound);
        else
            deck->voiceID = playClip(clip->second, a, a.volume * item.volume, fade,
                                     item.endAction == DeckItem::EndAction::loop, false);
    } else {
        // The new picture cross-fades with the one it replaces.
        if (deck->image)
            m_video.stop(*deck->image, fade);
        if (deck->video)
            m_video.stop(*deck->video, fade);
        deck->image.reset();
        deck->video.reset();
        const Placement placement = place(a);
        if (failure != deck->deck->failures.end())
            m_status.show(item.title + QStringLiteral(": ") + failure->second);
        else if (deck->deck->missing.contains(item.file)) {
            // Named when the deck loaded: it shows nothing.
        } else if (item.kind == DeckItem::Kind::image)
            deckShowPicture(cue, item, fade, placement);
        else
            deckPlayMovie(cue, item, fade, placement);
    }
    deck->index = index;
    deck->itemID = item.id;
    deck->itemStarted = now();
    // The next picture is decoded ahead, so stepping to it shows it at once.
    if (!m_decodeInline && index + 1 < count) {
        const DeckItem& next = items[static_cast<std::size_t>(index + 1)];
        if (next.kind == DeckItem::Kind::image && !deck->deck->failures.count(next.file))
            deck->deck->fetchPicture(next.file, this, [](const QImage&) {});
    }
}

void CueEngine::deckShowPicture(const ActiveCuePtr& cue, const DeckItem& item, double fade,
                                const Placement& placement) {
    DeckCue& deck = *cue->deck;
    QImage picture =
        m_decodeInline ? deck.deck->picture(item.file) : deck.deck->cachedPicture(item.file);
    if (!picture.isNull() || m_decodeInline) {
        if (!picture.isNull()) // inline, a picture gone from the deck's folder shows nothing
            deck.image = m_video.showImage([picture] { return picture; }, fade, placement.z,
                                           placement.outputs);
        return;
    }
    // Decoded off the main thread, then faded in, unless the deck has moved on meanwhile.
    std::weak_ptr<ActiveCue> weak = cue;
    deck.deck->fetchPicture(
        item.file, this, [this, weak, id = item.id, fade, placement](const QImage& decoded) {
            const ActiveCuePtr shown = weak.lock();
            if (!shown || shown->stopping || !shown->deck || shown->deck->itemID != id ||
                decoded.isNull())
                return;
            shown->deck->image = m_video.showImage([decoded] { return decoded; }, fade, placement.z,
                                                   placement.outputs);
        });
}

void CueEngine::deckPlayMovie(const ActiveCuePtr& cue, const DeckItem& item, double fade,
                              const Placement& placement) {
    DeckCue& deck = *cue->deck;
    const KeyAssignment& a = cue->assignment;
    const double volume = a.volume * item.volume;
    const bool loop = item.endAction == DeckItem::EndAction::loop;
    const auto probe = deck.deck->probes.find(item.file);
    if (const auto clip = deck.deck->clips.find(item.file); clip != deck.deck->clips.end())
        deck.voiceID = playClip(clip->second, a, volume, fade, loop, true);
    else if (probe != deck.deck->probes.end() && probe->second.hasAudio)
        playStream(*cue, {deck.deck->pathOf(item.file), probe->second, volume, loop}, 0.0, fade);
    QPointer<CueEngine> self(this);
    std::weak_ptr<ActiveCue> weak = cue;
    const std::optional<std::int64_t> voice = deck.voiceID;
    const QString title = item.title;
    MovieStart movie;
    movie.path = deck.deck->pathOf(item.file);
    movie.duration =
        probe != deck.deck->probes.end() && probe->second.hasVideo ? probe->second.duration : -1.0;
    movie.fadeIn = fade;
    movie.loop = loop;
    movie.volume = static_cast<float>(volume);
    movie.z = placement.z;
    movie.outputs = placement.outputs;
    // The last picture stays until the next item cross-fades over it, or for good with "hold".
    movie.holdAtEnd = !loop;
    movie.onStart = [self, voice](std::uint64_t hostTime) {
        if (self && voice)
            self->m_mixer.setStart(*voice, hostTime);
    };
    movie.onFail = [self, voice, title] {
        if (!self)
            return;
        if (voice)
            self->m_mixer.setStart(*voice, 0);
        self->m_status.show(title + kVideoFailed);
    };
    movie.onEnd = [self, weak, id = item.id, next = item.endAction == DeckItem::EndAction::next] {
        const ActiveCuePtr ended = weak.lock();
        // Only if the deck still shows that item: a press may have moved it on meanwhile.
        if (self && ended && next && ended->deck && ended->deck->itemID == id)
            self->deckStep(ended, 1);
    };
    deck.video = m_video.play(std::move(movie));
}

void CueEngine::stop(ActiveCue& cue, double fade) {
    cue.stopping = true;
    if (cue.voiceID)
        m_mixer.stop(*cue.voiceID, fade);
    if (cue.video)
        m_video.stop(*cue.video, fade);
    if (cue.deck) {
        if (cue.deck->voiceID)
            m_mixer.stop(*cue.deck->voiceID, fade);
        if (cue.deck->image)
            m_video.stop(*cue.deck->image, fade);
        if (cue.deck->video)
            m_video.stop(*cue.deck->video, fade);
    }
}

void CueEngine::stopKey(KeyCode code, double fade) {
    const auto cues = m_cues;
    for (const auto& cue : cues) {
        if (runsFor(*cue, code))
            stop(*cue, fade);
    }
}

bool CueEngine::stopCue(std::int64_t id) {
    for (const auto& cue : m_cues) {
        if (cue->id == id) {
            stop(*cue, cue->assignment.fadeOut);
            return true;
        }
    }
    return false;
}

void CueEngine::stopAll(bool immediate) {
    const auto cues = m_cues;
    for (const auto& cue : cues) {
        if (cue->stopping) {
            if (immediate)
                stop(*cue, 0.0); // cut a running fade short
            continue;
        }
        stop(*cue, immediate ? 0.0 : m_stopAllFade);
    }
}

void CueEngine::togglePlayback(KeyCode code) {
    const auto found = m_document.assignments.find(code);
    if (found == m_document.assignments.end())
        return;
    if (isRunning(code))
        stopKey(code, found->second.fadeOut);
    else
        startKey(code, 0);
}

std::optional<CueEngine::SeekTarget> CueEngine::seekTarget(const ActiveCue& cue) const {
    if (cue.deck) {
        // The current sound or movie of a deck; a picture has no position.
        const DeckCue& deck = *cue.deck;
        const auto items = deck.deck->itemsFor(cue.assignment);
        const auto found = DeckItem::indexOf(items, deck.itemID);
        if (!found || items[*found].kind == DeckItem::Kind::image)
            return std::nullopt;
        const DeckItem* item = &items[*found];
        SeekTarget target{deck.voiceID, deck.video, 0.0};
        const auto clip = deck.deck->clips.find(item->file);
        const auto probe = deck.deck->probes.find(item->file);
        if (item->kind == DeckItem::Kind::audio) {
            if (!deck.voiceID || clip == deck.deck->clips.end())
                return std::nullopt;
            target.video.reset();
            target.duration =
                static_cast<double>(clip->second->frameCount) / clip->second->sampleRate;
        } else {
            if (!deck.video)
                return std::nullopt;
            target.duration = probe != deck.deck->probes.end() && probe->second.duration > 0.0
                                  ? probe->second.duration
                                  : deck.video->duration();
        }
        return target;
    }
    if (!cue.voiceID && !cue.video)
        return std::nullopt;
    SeekTarget target{cue.voiceID, cue.video, 0.0};
    const MediaInfo* info = mediaFor(m_media, cue.assignment);
    if (info && info->probe.duration > 0.0)
        target.duration = info->probe.duration;
    else if (cue.video)
        target.duration = cue.video->duration();
    return target;
}

bool CueEngine::seek(std::int64_t cueID, double fraction) {
    const auto found = std::find_if(m_cues.begin(), m_cues.end(), [cueID](const auto& cue) {
        return cue->id == cueID && !cue->stopping;
    });
    if (found == m_cues.end())
        return false;
    const auto target = seekTarget(**found);
    if (!target || target->duration <= 0.0)
        return true; // there, but nothing in it moves
    // Never exactly the end, which would finish the cue on the spot.
    const double seconds =
        std::clamp(std::isnan(fraction) ? 0.0 : fraction, 0.0, 0.999) * target->duration;
    if (!target->video) {
        if (target->voiceID)
            m_mixer.seek(*target->voiceID, seconds, 0);
        return true;
    }
    const std::uint64_t resume = now() + HostTime::secondsToTicks(0.1);
    if (!m_video.seek(*target->video, seconds, resume) || !target->voiceID)
        return true;
    const auto streamed = streamSource(**found);
    if (!streamed) {
        m_mixer.seek(*target->voiceID, seconds, resume);
        return true;
    }
    // A streamed sound starts again from there, decoded ahead while the picture gets ready.
    if (const auto voice = playStream(**found, *streamed, seconds, 0.0))
        m_mixer.setStart(*voice, resume);
    return true;
}

void CueEngine::deckTiming(const std::map<std::int64_t, VoiceStatus>& snapshot) {
    const std::uint64_t time = now();
    // A step may stop a cue but never adds or removes one (the walk after this does).
    for (const ActiveCuePtr& cue : m_cues) {
        if (cue->stopping || !cue->deck || !cue->deck->itemID)
            continue;
        const DeckCue& deck = *cue->deck;
        const auto items = deck.deck->itemsFor(cue->assignment);
        const auto found = DeckItem::indexOf(items, deck.itemID);
        if (!found)
            continue;
        const DeckItem* item = &items[*found];
        const KeyAssignment& a = cue->assignment;
        if (item->kind == DeckItem::Kind::image) {
            const double interval =
                item->advanceAfter.value_or(a.slideAuto ? a.slideInterval : 0.0);
            const double elapsed =
                time > deck.itemStarted
                    ? static_cast<double>(time - deck.itemStarted) * HostTime::ticksToSeconds()
                    : 0.0;
            if (interval > 0.0 && elapsed >= std::max(interval, kShortestSlide))
                deckStep(cue, 1);
        } else if (item->kind == DeckItem::Kind::audio &&
                   item->endAction == DeckItem::EndAction::next && deck.voiceID) {
            const auto voice = snapshot.find(*deck.voiceID);
            if (voice != snapshot.end() && voice->second.done)
                deckStep(cue, 1);
        }
        // A movie's end comes from the video output (deckPlayMovie).
    }
}

void CueEngine::tick() {
    m_live.countTick();
    const auto snapshot = m_mixer.snapshot();
    const QUuid currentPage = m_document.currentPageID();
    deckTiming(snapshot);

    std::map<KeyCode, double> progress;
    std::map<KeyCode, QString> slidePosition;
    std::map<KeyCode, QString> deckCurrent;
    LiveState::KeyLevels levels;
    std::set<QUuid> playingPages;
    std::vector<CueRow> rows;
    rows.reserve(m_cues.size());

    const auto statusOf = [&](const std::optional<std::int64_t>& id) -> const VoiceStatus* {
        if (!id)
            return nullptr;
        const auto found = snapshot.find(*id);
        return found == snapshot.end() ? nullptr : &found->second;
    };
    std::vector<ActiveCuePtr> kept;
    kept.reserve(m_cues.size());
    for (const auto& cue : m_cues) {
        for (StreamedSound* stream : streamsOf(*cue)) {
            if (const auto failure = stream ? stream->takeFailure() : std::nullopt)
                m_status.show(cue->name + kStreamFailed.arg(QString::fromStdString(*failure)));
        }
        const DeckCue* deck = cue->deck.get();
        const VoiceStatus* voice = statusOf(deck ? deck->voiceID : cue->voiceID);
        const bool voiceDone = !voice || voice->done;
        const auto finished = [](const auto& picture) { return !picture || picture->finished; };
        if (deck) {
            // A deck waits on its last item until it is stopped.
            if (cue->stopping && voiceDone && finished(deck->image) && finished(deck->video))
                continue;
        } else if (voiceDone && finished(cue->video)) {
            continue;
        }
        kept.push_back(cue);

        const bool onPage = cue->page == currentPage;
        CueRow row;
        double cueProgress = 0.0;
        if (deck) {
            const auto items = deck->deck->itemsFor(cue->assignment);
            const auto enabled = Deck::enabledOnly(items);
            const auto count = static_cast<std::int64_t>(enabled.size());
            cueProgress = static_cast<double>(deck->index + 1) /
                          static_cast<double>(std::max<std::int64_t>(count, 1));
            row.slideText = QString::number(deck->index + 1) + '/' + QString::number(count);
            if (const auto shown = DeckItem::indexOf(items, deck->itemID))
                row.itemName = items[*shown].title;
            if (onPage) {
                slidePosition[cue->key] = *row.slideText;
                if (!cue->stopping && deck->itemID)
                    deckCurrent[cue->key] = *deck->itemID;
            }
            row.hasVideo = !finished(deck->video) || !finished(deck->image);
        } else {
            cueProgress = cue->video ? cue->video->progress() : voice ? voice->progress : 0.0;
            row.hasVideo = !finished(cue->video);
        }
        if (!cue->stopping)
            playingPages.insert(cue->page);
        if (onPage) {
            double& shown = progress[cue->key];
            shown = std::max(shown, cueProgress);
            if (voice)
                raiseTo(levels[cue->key], voice->levels);
        }
        row.id = cue->id;
        row.key = cue->key;
        row.name = cue->name;
        row.progress = cueProgress;
        row.stopping = cue->stopping;
        if (!onPage)
            row.pageName = m_document.pageName(cue->page).value_or(kDeletedPage);
        if (const auto target = seekTarget(*cue)) {
            row.duration = target->duration;
            if (const VoiceStatus* sought = statusOf(target->voiceID))
                row.position = sought->progress;
            else if (target->video && !target->video->finished)
                row.position = target->video->progress();
        }
        rows.push_back(std::move(row));
    }
    m_cues.swap(kept);

    m_live.setPlayingPages(std::move(playingPages));

    LiveState::KeyLevels displayed;
    for (auto& [key, keyLevels] : levels) {
        std::vector<float> shown = keyLevels;
        const auto previous = m_displayedSourceMeters.find(key);
        if (previous != m_displayedSourceMeters.end()) {
            for (std::size_t i = 0; i < shown.size() && i < previous->second.size(); ++i)
                shown[i] = std::max(shown[i], previous->second[i] * kMeterRelease);
        }
        displayed.emplace(key, std::move(shown));
    }
    m_displayedSourceMeters = displayed;
    m_live.setSourceMeters(std::move(displayed));

    // After the snapshot, so every voice's final `done` has been seen once.
    m_mixer.removeDone();

    m_live.setProgress(std::move(progress));
    m_live.setSlidePosition(std::move(slidePosition));
    m_live.setDeckCurrent(std::move(deckCurrent));
    m_live.setCues(std::move(rows));

    const auto count = std::min<std::int64_t>(std::max<std::int64_t>(m_outputChannels, 8), 64);
    std::vector<float> peaks = m_mixer.takeMeters(count);
    if (m_displayedMeters.size() != peaks.size()) {
        m_displayedMeters = std::move(peaks);
    } else {
        for (std::size_t i = 0; i < peaks.size(); ++i)
            m_displayedMeters[i] = std::max(peaks[i], m_displayedMeters[i] * kMeterRelease);
    }
    m_live.setMeters(m_displayedMeters);
}
