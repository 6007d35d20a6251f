#include "audio/Voice.h"

#include <algorithm>
#include <cmath>

namespace {

std::vector<std::int64_t> column(const RouteList& routes, std::int64_t Route::*field) {
    std::vector<std::int64_t> values;
    values.reserve(routes.size());
    for (const Route& route : routes)
        values.push_back(route.*field);
    return values;
}

} // namespace

Voice::Voice(AudioClipPtr voiceClip, const RouteList& routes)
    : clip(std::move(voiceClip)), channelCount(clip->channelCount),
      src(column(routes, &Route::source)), dst(column(routes, &Route::output)),
      // Value-initialised: every peak starts at zero.
      peaks(std::make_unique<std::atomic<float>[]>(
          static_cast<std::size_t>(std::max<std::int64_t>(channelCount, 1)))) {}

Voice::Voice(AudioStreamPtr voiceStream, const RouteList& routes)
    : stream(std::move(voiceStream)), channelCount(stream->channelCount()),
      src(column(routes, &Route::source)), dst(column(routes, &Route::output)),
      peaks(std::make_unique<std::atomic<float>[]>(
          static_cast<std::size_t>(std::max<std::int64_t>(channelCount, 1)))) {}

void Voice::publish() noexcept {
    // A stream's progress is through the whole sound, of which it may be the latter part, and
    // round which it may go.
    const double progress = stream ? std::fmod(static_cast<double>(stream->startFrame()) + position,
                                               static_cast<double>(stream->totalFrames())) /
                                         static_cast<double>(stream->totalFrames())
                                   : position / static_cast<double>(clip->frameCount);
    shownProgress.store(progress, std::memory_order_relaxed);
    shownDone.store(done, std::memory_order_release);
}
