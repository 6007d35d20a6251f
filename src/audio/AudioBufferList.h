#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// What an audio back end hands the mixer for one block: one non-interleaved 32-bit float
// buffer per device channel. A buffer's data may be null (a channel the device does not want
// filled this block); byteSize is the whole buffer, which may be larger than the block.
struct AudioChannelBuffer {
    float* data = nullptr;
    std::size_t byteSize = 0;
};

using AudioBufferList = std::span<const AudioChannelBuffer>;

// The device time stamp of a block: the host time (HostTime ticks) at which the block's first
// frame is handed to the device, and whether the back end could supply it.
struct AudioTimeStamp {
    std::uint64_t hostTime = 0;
    bool hostTimeValid = false;
};
