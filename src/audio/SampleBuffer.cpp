#include "audio/SampleBuffer.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

// Clips live on plain pages. Asking for transparent huge pages made a show of 60 files load 1.5
// times slower (two loads at once: each fault clears a whole 2 MB page).

SampleBuffer::~SampleBuffer() {
    std::free(m_data);
}

SampleBuffer::SampleBuffer(SampleBuffer&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0)),
      m_capacity(std::exchange(other.m_capacity, 0)) {}

SampleBuffer& SampleBuffer::operator=(SampleBuffer&& other) noexcept {
    if (this != &other) {
        std::free(m_data);
        m_data = std::exchange(other.m_data, nullptr);
        m_size = std::exchange(other.m_size, 0);
        m_capacity = std::exchange(other.m_capacity, 0);
    }
    return *this;
}

bool SampleBuffer::reserve(std::size_t frames) {
    if (frames <= m_capacity)
        return true;
    if (frames > static_cast<std::size_t>(-1) / sizeof(float))
        return false;
    auto* grown = static_cast<float*>(std::realloc(m_data, frames * sizeof(float)));
    if (!grown)
        return false;
    m_data = grown;
    m_capacity = frames;
    return true;
}

float* SampleBuffer::appendSpace(std::size_t frames) {
    const std::size_t needed = m_size + frames;
    if (needed > m_capacity && !reserve(std::max(needed, m_capacity + m_capacity / 2)))
        return nullptr;
    return m_data + m_size;
}

bool SampleBuffer::append(const float* samples, std::size_t frames) {
    if (frames == 0)
        return true;
    float* dest = appendSpace(frames);
    if (!dest)
        return false;
    std::memcpy(dest, samples, frames * sizeof(float));
    m_size += frames;
    return true;
}

void SampleBuffer::dropFront(std::size_t frames) {
    const std::size_t dropped = std::min(frames, m_size);
    if (dropped < m_size)
        std::memmove(m_data, m_data + dropped, (m_size - dropped) * sizeof(float));
    m_size -= dropped;
}

bool SampleBuffer::padTo(std::size_t frames) {
    if (frames <= m_size)
        return true;
    float* dest = appendSpace(frames - m_size);
    if (!dest)
        return false;
    std::memset(dest, 0, (frames - m_size) * sizeof(float));
    m_size = frames;
    return true;
}

void SampleBuffer::shrinkToFit() {
    if (m_capacity == m_size)
        return;
    if (m_size == 0) {
        std::free(m_data);
        m_data = nullptr;
        m_capacity = 0;
        return;
    }
    if (auto* shrunk = static_cast<float*>(std::realloc(m_data, m_size * sizeof(float)))) {
        m_data = shrunk;
        m_capacity = m_size;
    }
}
