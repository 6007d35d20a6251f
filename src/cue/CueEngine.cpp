#include "cue/CueEngine.h"

#include <algorithm>

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
        // A running deck steps to its next item. A single picture has none after it: the press
        // steps past the end and ends it, or, with slideLoop, comes round to the same picture.
        if (a.isImage() && isRunning(code)) {
            if (!a.slideLoop)
                stopKey(code, a.fadeOut);
            return;
        }
        // Other decks: nothing to step yet.
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
    Q_UNUSED(deckIndex);
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
    startMedia(cue, a, *info);
    if (cue->voiceID || cue->video || cue->image)
        m_cues.push_back(cue);
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
    if (!info.picture.isNull()) {
        const Placement placement = place(a);
        cue->image = m_video.showImage([picture = info.picture] { return picture; }, a.fadeIn,
                                       placement.z, placement.outputs);
        return;
    }
    const bool wantVideo = info.probe.hasVideo && a.showVideo;
    if (info.clip) {
        const RouteList routes = Routing::routes(a.matrix, a.outputMap.toStdString(),
                                                 info.clip->channelCount, m_outputChannels);
        if (routes.empty())
            m_status.show(a.displayName() + kNoRoute);
        if (info.clip->frameCount >= 2 && !routes.empty()) {
            // A movie's sound waits, armed, for the host time at which its picture starts.
            const std::int64_t voice = m_mixer.play(info.clip, routes, static_cast<float>(a.volume),
                                                    a.fadeIn, a.loop, wantVideo);
            if (voice > 0)
                cue->voiceID = voice;
        }
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
    movie.playerAudio = info.audioViaPlayer;
    movie.volume = static_cast<float>(a.volume);
    movie.z = placement.z;
    movie.outputs = placement.outputs;
    movie.onStart = onStart;
    movie.onFail = onFail;
    cue->video = m_video.play(std::move(movie));
}

void CueEngine::stop(ActiveCue& cue, double fade) {
    cue.stopping = true;
    if (cue.voiceID)
        m_mixer.stop(*cue.voiceID, fade);
    if (cue.video)
        m_video.stop(*cue.video, fade);
    if (cue.image)
        m_video.stop(*cue.image, fade);
}

void CueEngine::stopKey(KeyCode code, double fade) {
    const auto cues = m_cues;
    for (const auto& cue : cues) {
        if (runsFor(*cue, code))
            stop(*cue, fade);
    }
}

void CueEngine::stopCue(std::int64_t id) {
    for (const auto& cue : m_cues) {
        if (cue->id == id) {
            stop(*cue, cue->assignment.fadeOut);
            return;
        }
    }
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

void CueEngine::seek(std::int64_t cueID, double fraction) {
    const auto found = std::find_if(m_cues.begin(), m_cues.end(), [cueID](const auto& cue) {
        return cue->id == cueID && !cue->stopping;
    });
    if (found == m_cues.end())
        return;
    const auto target = seekTarget(**found);
    if (!target || target->duration <= 0.0)
        return;
    // Never exactly the end, which would finish the cue on the spot.
    const double seconds =
        std::clamp(std::isnan(fraction) ? 0.0 : fraction, 0.0, 0.999) * target->duration;
    if (!target->video) {
        if (target->voiceID)
            m_mixer.seek(*target->voiceID, seconds, 0);
        return;
    }
    const std::uint64_t now = m_hostClock ? m_hostClock() : HostTime::now();
    const std::uint64_t resume = now + HostTime::secondsToTicks(0.1);
    if (m_video.seek(*target->video, seconds, resume) && target->voiceID)
        m_mixer.seek(*target->voiceID, seconds, resume);
}

void CueEngine::tick() {
    m_live.countTick();
    const auto snapshot = m_mixer.snapshot();
    const QUuid currentPage = m_document.currentPageID();

    std::map<KeyCode, double> progress;
    LiveState::KeyLevels levels;
    std::set<QUuid> playingPages;
    std::vector<CueRow> rows;
    rows.reserve(m_cues.size());

    std::vector<ActiveCuePtr> kept;
    kept.reserve(m_cues.size());
    for (const auto& cue : m_cues) {
        const VoiceStatus* voice = nullptr;
        if (cue->voiceID) {
            const auto found = snapshot.find(*cue->voiceID);
            if (found != snapshot.end())
                voice = &found->second;
        }
        const bool voiceDone = !voice || voice->done;
        if (voiceDone && (!cue->video || cue->video->finished) &&
            (!cue->image || cue->image->finished))
            continue;
        kept.push_back(cue);

        const double cueProgress = cue->video ? cue->video->progress()
                                   : voice    ? voice->progress
                                              : 0.0; // a picture stands until it is stopped
        const bool onPage = cue->page == currentPage;
        if (!cue->stopping)
            playingPages.insert(cue->page);
        if (onPage) {
            double& shown = progress[cue->key];
            shown = std::max(shown, cueProgress);
            if (voice)
                raiseTo(levels[cue->key], voice->levels);
        }
        CueRow row;
        row.id = cue->id;
        row.key = cue->key;
        row.name = cue->name;
        row.progress = cueProgress;
        row.stopping = cue->stopping;
        row.hasVideo =
            (cue->video && !cue->video->finished) || (cue->image && !cue->image->finished);
        if (!onPage)
            row.pageName = m_document.pageName(cue->page).value_or(kDeletedPage);
        if (const auto target = seekTarget(*cue)) {
            row.duration = target->duration;
            if (voice && target->voiceID)
                row.position = voice->progress;
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
