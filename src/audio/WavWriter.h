#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

// Writes a WAV file of 32-bit IEEE float samples (no Qt: the audio library's own), interleaved,
// block by block as they are rendered; the header's sizes are filled in by finish(). Not
// thread-safe.
class WavWriter {
public:
    WavWriter() = default;
    ~WavWriter();
    WavWriter(const WavWriter&) = delete;
    WavWriter& operator=(const WavWriter&) = delete;

    // False when the file cannot be created.
    bool open(const std::string& path, int channels, int sampleRate);
    // `channels` pointers, each to `frames` samples.
    bool write(const float* const* channels, std::int64_t frames);
    bool finish();

private:
    bool writeHeader(std::uint64_t dataBytes);

    std::FILE* m_file = nullptr;
    int m_channels = 0;
    int m_rate = 0;
    std::uint64_t m_dataBytes = 0;
};
