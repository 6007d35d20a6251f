#include "audio/Voice.h"

#include <algorithm>

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
    : clip(std::move(voiceClip)), src(column(routes, &Route::source)),
      dst(column(routes, &Route::output)),
      // Value-initialised: every peak starts at zero.
      peaks(std::make_unique<std::atomic<float>[]>(
          static_cast<std::size_t>(std::max<std::int64_t>(clip->channelCount, 1)))) {}

void Voice::publish() noexcept {
    shownProgress.store(position / static_cast<double>(clip->frameCount),
                        std::memory_order_relaxed);
    shownDone.store(done, std::memory_order_release);
}
