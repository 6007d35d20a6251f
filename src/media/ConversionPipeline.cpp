#include "media/ConversionPipeline.h"

#include <algorithm>

#include "media/LoadError.h"
#include "media/RateConverter.h"

struct ConversionPipeline::Worker {
    int firstChannel = 0;
    int channelCount = 0;
    std::unique_ptr<RateConverter> converter;
    // Null piece = end of signal.
    std::deque<std::shared_ptr<const Piece>> queue;
    std::thread thread;
};

ConversionPipeline::ConversionPipeline(double inputRate, double outputRate,
                                       std::vector<SampleBuffer>& outputs, int workers)
    : m_outputs(outputs) {
    const int channels = static_cast<int>(outputs.size());
    const int count = std::clamp(workers, 1, std::max(channels, 1));
    for (int w = 0; w < count; ++w) {
        auto worker = std::make_unique<Worker>();
        worker->firstChannel = channels * w / count;
        worker->channelCount = channels * (w + 1) / count - worker->firstChannel;
        worker->converter =
            std::make_unique<RateConverter>(inputRate, outputRate, worker->channelCount);
        m_workers.push_back(std::move(worker));
    }
    for (auto& worker : m_workers)
        worker->thread = std::thread([this, w = worker.get()] { work(*w); });
    m_pending = takePiece();
    m_pendingDest.resize(outputs.size());
}

ConversionPipeline::~ConversionPipeline() {
    stop();
    // Pieces still queued go back to the pool through the mutex: drop them while it exists.
    m_workers.clear();
}

std::unique_ptr<ConversionPipeline::Piece> ConversionPipeline::takePiece() {
    constexpr std::size_t capacity = 2 * kPieceFrames;
    std::unique_ptr<Piece> piece;
    {
        std::lock_guard lock(m_mutex);
        if (!m_free.empty()) {
            piece = std::move(m_free.back());
            m_free.pop_back();
        }
    }
    if (!piece) {
        piece = std::make_unique<Piece>();
        piece->channels.resize(m_outputs.size());
    }
    piece->frames = 0;
    if (piece->capacity < capacity) {
        for (auto& channel : piece->channels)
            channel = std::make_unique_for_overwrite<float[]>(capacity);
        piece->capacity = capacity;
    }
    return piece;
}

void ConversionPipeline::stop() {
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    for (auto& worker : m_workers) {
        if (worker->thread.joinable())
            worker->thread.join();
    }
}

void ConversionPipeline::push(std::size_t frames, const Writer& write) {
    // Decoders deliver a few hundred to a few thousand frames at a time; the workers get
    // pieces of at least kPieceFrames so each hand-over is worth its synchronisation.
    Piece& pending = *m_pending;
    if (pending.frames + frames > pending.capacity) {
        // A codec with very long frames: grow this piece, keeping what it holds.
        const std::size_t capacity = 2 * (pending.frames + frames);
        for (auto& channel : pending.channels) {
            auto grown = std::make_unique_for_overwrite<float[]>(capacity);
            std::copy_n(channel.get(), pending.frames, grown.get());
            channel = std::move(grown);
        }
        pending.capacity = capacity;
    }
    for (std::size_t c = 0; c < pending.channels.size(); ++c)
        m_pendingDest[c] = pending.channels[c].get() + pending.frames;
    write(m_pendingDest.data());
    pending.frames += frames;
    if (pending.frames >= kPieceFrames)
        pushPending();
}

void ConversionPipeline::pushPending() {
    // The last worker done with a piece hands it back for the decoder to fill again.
    std::shared_ptr<const Piece> piece(m_pending.release(), [this](Piece* done) {
        std::lock_guard lock(m_mutex);
        m_free.emplace_back(done);
    });
    m_pending = takePiece();

    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] {
        if (m_error)
            return true;
        for (const auto& worker : m_workers) {
            if (worker->queue.size() >= kQueueDepth)
                return false;
        }
        return true;
    });
    if (m_error)
        std::rethrow_exception(m_error);
    for (auto& worker : m_workers)
        worker->queue.push_back(piece);
    lock.unlock();
    m_changed.notify_all();
}

void ConversionPipeline::finish() {
    if (m_pending->frames > 0)
        pushPending();
    {
        std::lock_guard lock(m_mutex);
        for (auto& worker : m_workers)
            worker->queue.push_back(nullptr);
    }
    m_changed.notify_all();
    for (auto& worker : m_workers) {
        if (worker->thread.joinable())
            worker->thread.join();
    }
    if (m_error)
        std::rethrow_exception(m_error);
}

void ConversionPipeline::work(Worker& worker) {
    std::vector<const float*> inputs(static_cast<std::size_t>(worker.channelCount));
    SampleBuffer* outputs = m_outputs.data() + worker.firstChannel;
    for (;;) {
        std::shared_ptr<const Piece> piece;
        {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock, [&] { return m_stopping || !worker.queue.empty(); });
            if (m_stopping)
                return;
            piece = std::move(worker.queue.front());
            worker.queue.pop_front();
        }
        m_changed.notify_all();
        try {
            if (!piece) {
                worker.converter->flush(outputs);
                return;
            }
            for (int c = 0; c < worker.channelCount; ++c)
                inputs[static_cast<std::size_t>(c)] =
                    piece->channels[worker.firstChannel + c].get();
            worker.converter->process(inputs.data(), piece->frames, outputs);
        } catch (...) {
            std::lock_guard lock(m_mutex);
            if (!m_error)
                m_error = std::current_exception();
            m_changed.notify_all();
            return;
        }
    }
}
