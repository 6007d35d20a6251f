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
    m_pending.assign(outputs.size(), {});
    m_pendingDest.resize(outputs.size());
    for (auto& channel : m_pending)
        channel.reserve(2 * kPieceFrames);
}

ConversionPipeline::~ConversionPipeline() {
    stop();
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
    for (std::size_t c = 0; c < m_pending.size(); ++c) {
        m_pending[c].resize(m_pendingFrames + frames);
        m_pendingDest[c] = m_pending[c].data() + m_pendingFrames;
    }
    write(m_pendingDest.data());
    m_pendingFrames += frames;
    if (m_pendingFrames >= kPieceFrames)
        pushPending();
}

void ConversionPipeline::pushPending() {
    auto piece = std::make_shared<const Piece>(std::move(m_pending));
    m_pending.assign(m_outputs.size(), {});
    for (auto& channel : m_pending)
        channel.reserve(2 * kPieceFrames);
    m_pendingFrames = 0;

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
    if (m_pendingFrames > 0)
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
                inputs[static_cast<std::size_t>(c)] = (*piece)[worker.firstChannel + c].data();
            worker.converter->process(inputs.data(), (*piece)[0].size(), outputs);
        } catch (...) {
            std::lock_guard lock(m_mutex);
            if (!m_error)
                m_error = std::current_exception();
            m_changed.notify_all();
            return;
        }
    }
}
