#include "media/RateConverter.h"

#include <algorithm>
#include <cmath>
#include <soxr.h>

#include "media/LoadError.h"

RateConverter::RateConverter(double inputRate, double outputRate, int channels)
    : m_channels(channels), m_ratio(outputRate / inputRate),
      m_inputs(static_cast<std::size_t>(channels)), m_outputs(static_cast<std::size_t>(channels)) {
    if (!(inputRate > 0) || !(outputRate > 0) || channels < 1)
        throw LoadError::failed(LoadError::kNoConverter);
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_S, SOXR_FLOAT32_S);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
    // Parallelism is the loader's business (channels on separate converters), not OpenMP's.
    const soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    soxr_error_t error = nullptr;
    m_soxr = soxr_create(inputRate, outputRate, static_cast<unsigned>(channels), &error, &io,
                         &quality, &runtime);
    if (error || !m_soxr)
        throw LoadError::failed(LoadError::kNoConverter);
}

RateConverter::~RateConverter() {
    soxr_delete(m_soxr);
}

void RateConverter::process(const float* const* input, std::size_t frames, SampleBuffer* out) {
    // soxr copies all input it is given into its own queue first; a whole file at once would
    // make that queue as large as the file. Pieces give the same samples at a fraction of it.
    constexpr std::size_t kPiece = 65536;
    std::vector<const float*> piece(static_cast<std::size_t>(m_channels));
    for (std::size_t done = 0; done < frames; done += kPiece) {
        for (int c = 0; c < m_channels; ++c)
            piece[static_cast<std::size_t>(c)] = input[c] + done;
        run(piece.data(), std::min(kPiece, frames - done), out);
    }
}

void RateConverter::flush(SampleBuffer* out) {
    run(nullptr, 0, out);
}

void RateConverter::run(const float* const* input, std::size_t frames, SampleBuffer* out) {
    // Output room for this piece plus the filter's delay, written straight into the channels.
    const auto room =
        static_cast<std::size_t>(std::ceil(static_cast<double>(frames) * m_ratio)) + 4096;
    std::size_t consumed = 0;
    for (;;) {
        for (int c = 0; c < m_channels; ++c) {
            float* space = out[c].appendSpace(room);
            if (!space)
                throw LoadError::failed(LoadError::kNoBuffer);
            m_outputs[c] = space;
            if (input)
                m_inputs[c] = input[c] + consumed;
        }
        std::size_t used = 0;
        std::size_t produced = 0;
        const soxr_error_t error = soxr_process(
            m_soxr, input ? static_cast<soxr_in_t>(m_inputs.data()) : nullptr, frames - consumed,
            input ? &used : nullptr, static_cast<soxr_out_t>(m_outputs.data()), room, &produced);
        if (error)
            throw LoadError::failed(LoadError::kConversionFailed);
        for (int c = 0; c < m_channels; ++c)
            out[c].commit(produced);
        consumed += used;
        // Done when all input is taken and the converter had nothing more to give.
        if (consumed >= frames && produced < room)
            return;
    }
}
