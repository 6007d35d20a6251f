#include "media/MediaFile.h"

#include "media/LoadError.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/display.h>
}

#include <chrono>
#include <cmath>
#include <cstring>
#include <mutex>
#include <sys/stat.h>

namespace {

// Opening reads headers only: a real file is through in milliseconds. Damaged ones can make a
// demuxer walk gigabytes (a cut WAV header before 4 GB of zeros: half an hour of chunk scanning).
constexpr auto kOpenTimeLimit = std::chrono::seconds(10);

int interruptRequested(void* opaque) {
    const auto* interrupt = static_cast<const MediaFile::Interrupt*>(opaque);
    if (interrupt->cancel && interrupt->cancel->load(std::memory_order_relaxed))
        return 1;
    return interrupt->deadline && std::chrono::steady_clock::now() > *interrupt->deadline ? 1 : 0;
}

// FFmpeg reports every damaged frame on stderr; the loader turns failures into its own messages.
void quietLibraries() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

bool isStillImageFormat(const AVInputFormat* format) {
    if (!format || !format->name)
        return false;
    const std::string name = format->name;
    return name == "image2" || (name.size() > 5 && name.compare(name.size() - 5, 5, "_pipe") == 0);
}

const std::int32_t* displayMatrix(const AVStream* stream) {
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(60, 31, 102)
    const AVPacketSideData* data =
        av_packet_side_data_get(stream->codecpar->coded_side_data,
                                stream->codecpar->nb_coded_side_data, AV_PKT_DATA_DISPLAYMATRIX);
    if (data && data->size >= 9 * sizeof(std::int32_t))
        return reinterpret_cast<const std::int32_t*>(data->data);
#else
    size_t size = 0;
    const std::uint8_t* data = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (data && size >= 9 * sizeof(std::int32_t))
        return reinterpret_cast<const std::int32_t*>(data);
#endif
    return nullptr;
}

} // namespace

MediaFile::MediaFile(const std::string& path, const std::atomic<bool>* cancel) {
    quietLibraries();
    // Regular files only: a FIFO or a device would block the first read for ever.
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        throw LoadError::failed(LoadError::kReadFailed);
    m_context = avformat_alloc_context();
    if (!m_context)
        throw LoadError::failed(LoadError::kNoBuffer);
    m_interrupt.cancel = cancel;
    m_interrupt.deadline = std::chrono::steady_clock::now() + kOpenTimeLimit;
    m_context->interrupt_callback.callback = &interruptRequested;
    m_context->interrupt_callback.opaque = &m_interrupt;
    auto failure = [&] {
        if (cancel && cancel->load())
            return LoadError::cancelled();
        if (std::chrono::steady_clock::now() > *m_interrupt.deadline)
            return LoadError::failed(LoadError::kTooSlow);
        return LoadError::failed(LoadError::kReadFailed);
    };

    // On failure avformat_open_input frees the context and nulls the pointer.
    if (avformat_open_input(&m_context, path.c_str(), nullptr, nullptr) < 0)
        throw failure();
    if (avformat_find_stream_info(m_context, nullptr) < 0) {
        const LoadError error = failure();
        avformat_close_input(&m_context);
        throw error;
    }
    // Decoding a long file takes as long as it takes; only the cancel flag ends it.
    m_interrupt.deadline.reset();

    const bool stillImage = isStillImageFormat(m_context->iformat);
    for (unsigned i = 0; i < m_context->nb_streams; ++i) {
        const AVStream* stream = m_context->streams[i];
        const auto type = stream->codecpar->codec_type;
        if (type == AVMEDIA_TYPE_AUDIO) {
            m_audioStreams.push_back(static_cast<int>(i));
        } else if (type == AVMEDIA_TYPE_VIDEO && m_videoStream < 0 && !stillImage &&
                   !(stream->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
            m_videoStream = static_cast<int>(i);
        }
    }
}

MediaFile::~MediaFile() {
    if (m_context)
        avformat_close_input(&m_context);
}

AVStream* MediaFile::stream(int index) const {
    return m_context->streams[index];
}

double MediaFile::duration() const {
    if (m_context->duration != AV_NOPTS_VALUE && m_context->duration > 0)
        return static_cast<double>(m_context->duration) / AV_TIME_BASE;
    double longest = 0.0;
    for (unsigned i = 0; i < m_context->nb_streams; ++i) {
        const AVStream* stream = m_context->streams[i];
        if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
            longest = std::max(longest, stream->duration * av_q2d(stream->time_base));
    }
    return longest;
}

int MediaFile::rotation(int index) const {
    const std::int32_t* m = displayMatrix(m_context->streams[index]);
    if (!m)
        return 0;
    // The matrix turns the picture counter-clockwise by this much; upright is the other way.
    const double turn = -av_display_rotation_get(m);
    const int quarter = static_cast<int>(std::lround(turn / 90.0));
    return ((quarter % 4) + 4) % 4 * 90;
}

void MediaFile::videoSize(int index, double& width, double& height) const {
    const AVStream* stream = m_context->streams[index];
    double w = stream->codecpar->width;
    const double h = stream->codecpar->height;
    const AVRational aspect = stream->codecpar->sample_aspect_ratio;
    if (aspect.num > 0 && aspect.den > 0)
        w *= av_q2d(aspect);
    width = w;
    height = h;
    if (const std::int32_t* m = displayMatrix(stream)) {
        // The 2×2 part of the matrix is 16.16 fixed point; it maps (x, y) to
        // (a·x + c·y, b·x + d·y).
        const double a = m[0] / 65536.0, b = m[1] / 65536.0;
        const double c = m[3] / 65536.0, d = m[4] / 65536.0;
        width = std::fabs(a * w + c * h);
        height = std::fabs(b * w + d * h);
    }
}
