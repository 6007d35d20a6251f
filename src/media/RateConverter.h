#pragma once

#include <cstddef>
#include <vector>

#include "audio/SampleBuffer.h"

typedef struct soxr* soxr_t;

// Streaming sample-rate conversion of non-interleaved float channels with soxr's very-high-
// quality recipe. Feeding a signal in pieces gives the same samples as feeding it at once.
// Used at load time only; the mixer itself interpolates linearly.
// Threading: one thread at a time.
class RateConverter {
public:
    // Throws LoadError "サンプルレートを変換できません" when soxr refuses the rates.
    RateConverter(double inputRate, double outputRate, int channels);
    ~RateConverter();

    RateConverter(const RateConverter&) = delete;
    RateConverter& operator=(const RateConverter&) = delete;

    // Converts `frames` frames of every channel and appends the result to out[0..channels).
    // Throws LoadError: "変換に失敗しました", or "バッファを確保できません" when out cannot grow.
    void process(const float* const* input, std::size_t frames, SampleBuffer* out);
    // Drains the filter's delay line into out at the end of the signal.
    void flush(SampleBuffer* out);

    double ratio() const { return m_ratio; }

private:
    void run(const float* const* input, std::size_t frames, SampleBuffer* out);

    soxr_t m_soxr = nullptr;
    int m_channels;
    double m_ratio;
    std::vector<const float*> m_inputs;
    std::vector<float*> m_outputs;
};
