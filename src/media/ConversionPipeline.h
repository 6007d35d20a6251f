#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "audio/SampleBuffer.h"

// Sample-rate conversion running beside the decoder: the decoding thread hands over pieces of
// the signal, and worker threads, each with its own RateConverter for a share of the channels,
// convert them straight into the output channels. So decoding and conversion overlap, and
// channels convert in parallel, while only a few pieces are ever held in memory.
//
// Threading: push/finish from the decoding thread only. The output buffers must stay put and
// untouched by anyone else until finish() returns or the pipeline is destroyed.
class ConversionPipeline {
public:
    // Throws LoadError when a converter cannot be made.
    ConversionPipeline(double inputRate, double outputRate, std::vector<SampleBuffer>& outputs,
                       int workers);
    // Stops the workers (discarding what is queued) if finish() was not reached.
    ~ConversionPipeline();

    ConversionPipeline(const ConversionPipeline&) = delete;
    ConversionPipeline& operator=(const ConversionPipeline&) = delete;

    // Writes `frames` frames of every channel: `write` fills dest[0..channels) in place. Blocks
    // while the workers are several pieces behind; rethrows a worker's LoadError.
    using Writer = std::function<void(float* const* dest)>;
    void push(std::size_t frames, const Writer& write);
    // Converts what is queued, drains the converters and joins the workers; rethrows the first
    // worker error.
    void finish();

private:
    // A stretch of every channel. Pieces are recycled, so the decoding thread neither maps and
    // faults in a fresh block nor zero-fills it for every piece.
    struct Piece {
        std::vector<std::unique_ptr<float[]>> channels;
        std::size_t frames = 0;
        std::size_t capacity = 0;
    };
    struct Worker;

    // A piece from the pool, or a new one, empty and with room for two pieces' frames.
    std::unique_ptr<Piece> takePiece();
    void pushPending();
    void work(Worker& worker);
    void stop();

    static constexpr std::size_t kPieceFrames = 32768;
    static constexpr std::size_t kQueueDepth = 8;

    std::vector<SampleBuffer>& m_outputs;
    std::vector<std::unique_ptr<Worker>> m_workers;
    std::unique_ptr<Piece> m_pending;
    std::vector<float*> m_pendingDest;

    std::mutex m_mutex;
    // Pieces every worker has finished with, guarded by m_mutex.
    std::vector<std::unique_ptr<Piece>> m_free;
    std::condition_variable m_changed;
    std::exception_ptr m_error;
    bool m_stopping = false;
};
