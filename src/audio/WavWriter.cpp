#include "audio/WavWriter.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace {

void put16(unsigned char* p, std::uint16_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

void put32(unsigned char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<unsigned char>(v >> (8 * i));
}

} // namespace

WavWriter::~WavWriter() {
    if (m_file)
        std::fclose(m_file);
}

bool WavWriter::open(const std::string& path, int channels, int sampleRate) {
    m_file = std::fopen(path.c_str(), "wb");
    m_channels = channels;
    m_rate = sampleRate;
    return m_file && writeHeader(0);
}

bool WavWriter::writeHeader(std::uint64_t dataBytes) {
    // RIFF, a WAVE_FORMAT_IEEE_FLOAT fmt chunk (18 bytes), a fact chunk, then data.
    unsigned char h[58] = {};
    const auto data =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(dataBytes, 0xFFFFFFFFu - 50));
    const std::uint32_t frames = data / (4u * static_cast<std::uint32_t>(m_channels));
    std::memcpy(h, "RIFF", 4);
    put32(h + 4, 50 + data);
    std::memcpy(h + 8, "WAVEfmt ", 8);
    put32(h + 16, 18);
    put16(h + 20, 3); // IEEE float
    put16(h + 22, static_cast<std::uint16_t>(m_channels));
    put32(h + 24, static_cast<std::uint32_t>(m_rate));
    put32(h + 28, static_cast<std::uint32_t>(m_rate * m_channels * 4));
    put16(h + 32, static_cast<std::uint16_t>(m_channels * 4));
    put16(h + 34, 32);
    put16(h + 36, 0);
    std::memcpy(h + 38, "fact", 4);
    put32(h + 42, 4);
    put32(h + 46, frames);
    std::memcpy(h + 50, "data", 4);
    put32(h + 54, data);
    return std::fseek(m_file, 0, SEEK_SET) == 0 &&
           std::fwrite(h, 1, sizeof h, m_file) == sizeof h && std::fseek(m_file, 0, SEEK_END) == 0;
}

bool WavWriter::write(const float* const* channels, std::int64_t frames) {
    std::vector<float> interleaved(static_cast<std::size_t>(frames * m_channels));
    for (std::int64_t i = 0; i < frames; ++i)
        for (int c = 0; c < m_channels; ++c)
            interleaved[static_cast<std::size_t>(i * m_channels + c)] = channels[c][i];
    const std::size_t bytes = interleaved.size() * sizeof(float);
    m_dataBytes += bytes;
    return std::fwrite(interleaved.data(), 1, bytes, m_file) == bytes;
}

bool WavWriter::finish() {
    const bool ok = writeHeader(m_dataBytes) && std::fflush(m_file) == 0;
    return std::fclose(std::exchange(m_file, nullptr)) == 0 && ok;
}
