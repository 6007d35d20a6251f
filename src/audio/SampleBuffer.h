#pragma once

#include <cstddef>

// One channel of decoded samples in one malloc'd block. Growth and the final trim go through
// realloc, which for large blocks remaps pages instead of copying: a clip being decoded never
// needs a second copy of itself, whatever its length estimate was. Pages reserved but never
// written are not resident, so a generous reserve costs address space, not memory.
// Move-only; not thread-safe.
class SampleBuffer {
public:
    SampleBuffer() = default;
    ~SampleBuffer();

    SampleBuffer(SampleBuffer&& other) noexcept;
    SampleBuffer& operator=(SampleBuffer&& other) noexcept;
    SampleBuffer(const SampleBuffer&) = delete;
    SampleBuffer& operator=(const SampleBuffer&) = delete;

    float* data() { return m_data; }
    const float* data() const { return m_data; }
    std::size_t size() const { return m_size; }
    std::size_t capacity() const { return m_capacity; }

    // Each returns false when memory cannot be had; the buffer is then unchanged.
    bool reserve(std::size_t frames);
    // Makes room for `frames` more samples after size() and returns where they go (or null);
    // commit() then counts those that were written.
    float* appendSpace(std::size_t frames);
    void commit(std::size_t frames) { m_size += frames; }
    bool append(const float* samples, std::size_t frames);
    // Removes the first `frames` samples (all of them when there are fewer); keeps the block.
    void dropFront(std::size_t frames);
    // Zero-fills up to `frames` (never shortens).
    bool padTo(std::size_t frames);
    void shrinkToFit();

private:
    float* m_data = nullptr;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
};
