#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "audio/AudioClip.h"
#include "media/AudioFormat.h"
#include "media/LoadError.h"
#include "media/MediaProbe.h"
#include "media/PcmBuffer.h"

// Decodes audio files, and the sound of video files, whole into memory at the engine's rate.
//
// Threading: every function is stateless and may run on any thread; decoding is meant for a
// worker thread (it takes as long as the file needs). A load is cancelled by setting the flag
// passed in, from any thread: the call then ends soon with LoadError::cancelled.
// Errors are LoadError, whose message is shown to the operator as it is.
namespace AudioLoader {

using CancelFlag = std::atomic<bool>;

// A clip may not need more than this many bytes.
constexpr double kMaxClipBytes = 1'500'000'000.0;

// What the file holds; never fails (unreadable parts stay 0 / false). A file whose headers
// take more than 10 s to read is not media; `cancel` ends the probe early.
MediaProbe probe(const std::string& path, const CancelFlag* cancel = nullptr);

// Decodes every audio track into one clip at targetRate: the tracks' channels in track order,
// shorter tracks padded with silence. Refuses, before decoding anything, a file whose estimated
// size (from the probe) exceeds kMaxClipBytes.
AudioClipPtr loadClip(const std::string& path, double targetRate, const MediaProbe& probe,
                      const CancelFlag* cancel = nullptr);

// Decodes audio track `track` (0-based, among the audio tracks) of a file. When targetRate
// differs from the track's rate by 0.5 Hz or more, the sound is converted while it decodes, on
// worker threads, so the whole unconverted track is never held; a targetRate of 0 keeps the
// track's own rate. `conversionWorkers` 0 gives the conversion as many threads as the cores
// allow beside the decoder (at most one per channel); tests choose 1 to 4.
PcmBuffer readTrack(const std::string& path, int track, double targetRate,
                    const CancelFlag* cancel = nullptr, int conversionWorkers = 0);

// One buffer whose channels are the inputs' channels in order, each padded with silence to the
// longest input (at least 1 frame). The rate is the first input's.
PcmBuffer combine(std::vector<PcmBuffer> buffers);

// The buffer at `rate`, converted in one pass; returned as it is when already within 0.5 Hz.
PcmBuffer convert(PcmBuffer buffer, double rate);

// The format for `channels` channels at sampleRate: the given layout when it has that many
// channels, else discrete channels in order for more than two, mono or stereo otherwise.
AudioFormat makeFormat(double sampleRate, std::int64_t channels, const std::string& layout);

} // namespace AudioLoader
