#include "media/MovieFrame.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <atomic>
#include <new>

namespace {

std::atomic<std::uint64_t> nextSerial{1};

// The 8-bit planar layout with `desc`'s colour subsampling, if there is one.
std::optional<AVPixelFormat> planarOf(const AVPixFmtDescriptor& desc) {
    if (desc.flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_ALPHA | AV_PIX_FMT_FLAG_PAL) ||
        desc.nb_components < 3)
        return std::nullopt;
    if (desc.log2_chroma_w == 1 && desc.log2_chroma_h == 1)
        return AV_PIX_FMT_YUV420P;
    if (desc.log2_chroma_w == 1 && desc.log2_chroma_h == 0)
        return AV_PIX_FMT_YUV422P;
    if (desc.log2_chroma_w == 0 && desc.log2_chroma_h == 0)
        return AV_PIX_FMT_YUV444P;
    return std::nullopt;
}

bool isFullRangeFormat(AVPixelFormat format) {
    return format == AV_PIX_FMT_YUVJ420P || format == AV_PIX_FMT_YUVJ422P ||
           format == AV_PIX_FMT_YUVJ444P;
}

// The YUV layouts a surface takes as they are: planar 8-bit, the full-range ones included.
bool takenAsItIs(AVPixelFormat format) {
    return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUV422P ||
           format == AV_PIX_FMT_YUV444P || isFullRangeFormat(format);
}

// The matrix the stream names; one it does not name is BT.709 for HD and BT.601 below.
int swsSpaceOf(const AVFrame& frame) {
    switch (frame.colorspace) {
    case AVCOL_SPC_BT709:
        return SWS_CS_ITU709;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL:
        return SWS_CS_BT2020;
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M:
    case AVCOL_SPC_FCC:
        return SWS_CS_ITU601;
    default:
        return frame.width >= 1280 || frame.height > 576 ? SWS_CS_ITU709 : SWS_CS_ITU601;
    }
}

MovieColour colourOf(int swsSpace, bool fullRange) {
    switch (swsSpace) {
    case SWS_CS_ITU709:
        return {fullRange, 0.2126, 0.0722};
    case SWS_CS_BT2020:
        return {fullRange, 0.2627, 0.0593};
    default:
        return {fullRange, 0.299, 0.114};
    }
}

// Converts with the stream's matrix and range; false when swscale cannot.
bool scale(const std::uint8_t* const source[4], const int sourceStrides[4], int width, int height,
           AVPixelFormat from, std::uint8_t* const target[4], const int targetStrides[4],
           int targetWidth, int targetHeight, AVPixelFormat to, int swsSpace, bool fullRange) {
    const bool same = width == targetWidth && height == targetHeight;
    SwsContext* context =
        sws_getContext(width, height, from, targetWidth, targetHeight, to,
                       same ? SWS_FAST_BILINEAR : SWS_AREA, nullptr, nullptr, nullptr);
    if (!context)
        return false;
    // RGB in, or RGB out of YUV kept in its range: swscale ignores what does not apply.
    const bool toYuv = !(av_pix_fmt_desc_get(to)->flags & AV_PIX_FMT_FLAG_RGB);
    sws_setColorspaceDetails(context, sws_getCoefficients(swsSpace), fullRange ? 1 : 0,
                             sws_getCoefficients(toYuv ? swsSpace : SWS_CS_DEFAULT),
                             toYuv ? (fullRange ? 1 : 0) : 1, 0, 1 << 16, 1 << 16);
    const int rows = sws_scale(context, source, sourceStrides, 0, height, target, targetStrides);
    sws_freeContext(context);
    return rows > 0;
}

// 4:4:4 levels to RGBA, by the same sums as a surface's shader.
void toRgb(std::uint8_t* const planes[4], int stride, int width, int height,
           const MovieColour& colour, std::uint8_t* out, int outStride) {
    const std::array<double, 9> m = colour.toRgb();
    const std::array<double, 3> offset = colour.offsets();
    const auto level = [](double v) {
        return static_cast<std::uint8_t>(std::clamp(v, 0.0, 255.0) + 0.5);
    };
    for (int row = 0; row < height; ++row) {
        const std::uint8_t* y = planes[0] + row * stride;
        const std::uint8_t* cb = planes[1] + row * stride;
        const std::uint8_t* cr = planes[2] + row * stride;
        std::uint8_t* rgba = out + row * outStride;
        for (int x = 0; x < width; ++x, rgba += 4) {
            const double l = y[x] - offset[0], b = cb[x] - offset[1], r = cr[x] - offset[2];
            rgba[0] = level(m[0] * l + m[1] * b + m[2] * r);
            rgba[1] = level(m[3] * l + m[4] * b + m[5] * r);
            rgba[2] = level(m[6] * l + m[7] * b + m[8] * r);
            rgba[3] = 255;
        }
    }
}

} // namespace

std::array<double, 9> MovieColour::toRgb() const {
    const double kg = 1.0 - kr - kb;
    const double luma = fullRange ? 1.0 : 255.0 / 219.0;
    const double chroma = fullRange ? 1.0 : 255.0 / 224.0;
    return {luma,
            0.0,
            2.0 * (1.0 - kr) * chroma,
            luma,
            -2.0 * kb * (1.0 - kb) / kg * chroma,
            -2.0 * kr * (1.0 - kr) / kg * chroma,
            luma,
            2.0 * (1.0 - kb) * chroma,
            0.0};
}

std::array<double, 3> MovieColour::offsets() const {
    return {fullRange ? 0.0 : 16.0, 128.0, 128.0};
}

struct MovieFrame::Pixels {
    AVFrame* source = nullptr; // a reference to the decoder's picture (yuv only)
    std::shared_ptr<std::uint8_t[]> converted;
    Layout layout = Layout::yuv;
    int width = 0;
    int height = 0;
    std::array<Plane, 3> planes;
    MovieColour colour;
    int swsSpace = SWS_CS_ITU601;
    std::uint64_t serial = 0;

    Pixels() = default;
    Pixels(const Pixels&) = delete;
    Pixels& operator=(const Pixels&) = delete;
    ~Pixels() { av_frame_free(&source); }
};

int MovieFrame::strideFor(int bytesPerRow) {
    const auto row = static_cast<std::size_t>(bytesPerRow);
    return static_cast<int>((row + kAlignment - 1) / kAlignment * kAlignment);
}

std::size_t MovieFrame::bytesFor(int bytesPerRow, int height) {
    return static_cast<std::size_t>(strideFor(bytesPerRow)) * static_cast<std::size_t>(height) +
           kAlignment;
}

std::uint8_t* MovieFrame::allocatePixels(std::size_t bytes) {
    return static_cast<std::uint8_t*>(::operator new[](bytes, std::align_val_t(kAlignment)));
}

void MovieFrame::freePixels(std::uint8_t* pixels) {
    ::operator delete[](pixels, std::align_val_t(kAlignment));
}

MovieFrame::Layout MovieFrame::layout() const {
    return m_pixels->layout;
}

int MovieFrame::width() const {
    return m_pixels->width;
}

int MovieFrame::height() const {
    return m_pixels->height;
}

const MovieFrame::Plane& MovieFrame::plane(std::size_t n) const {
    return m_pixels->planes.at(n);
}

const MovieColour& MovieFrame::colour() const {
    return m_pixels->colour;
}

std::uint64_t MovieFrame::serial() const {
    return m_pixels->serial;
}

std::optional<MovieFrame> MovieFrame::of(const AVFrame* frame, const Allocate& allocate) {
    const auto format = static_cast<AVPixelFormat>(frame->format);
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    if (!desc || frame->width <= 0 || frame->height <= 0)
        return std::nullopt;
    auto pixels = std::make_shared<Pixels>();
    pixels->width = frame->width;
    pixels->height = frame->height;
    pixels->serial = nextSerial.fetch_add(1, std::memory_order_relaxed);
    pixels->swsSpace = swsSpaceOf(*frame);
    const bool fullRange = frame->color_range == AVCOL_RANGE_JPEG || isFullRangeFormat(format);
    pixels->colour = colourOf(pixels->swsSpace, fullRange);
    const std::optional<AVPixelFormat> planar = planarOf(*desc);

    if (planar) {
        pixels->source = av_frame_clone(frame);
        if (!pixels->source)
            return std::nullopt;
        pixels->layout = Layout::yuv;
        const AVPixFmtDescriptor* target = av_pix_fmt_desc_get(*planar);
        int widths[3], heights[3];
        for (int n = 0; n < 3; ++n) {
            const int shiftW = n == 0 ? 0 : target->log2_chroma_w;
            const int shiftH = n == 0 ? 0 : target->log2_chroma_h;
            widths[n] = -((-frame->width) >> shiftW); // rounded up, as the planes are
            heights[n] = -((-frame->height) >> shiftH);
        }
        if (takenAsItIs(format)) {
            for (int n = 0; n < 3; ++n)
                pixels->planes[n] = {frame->data[n], frame->linesize[n], widths[n], heights[n]};
        } else {
            // Deeper or packed YUV: to 8-bit planes of the same subsampling, once, here.
            std::size_t offsets[4] = {0, 0, 0, 0};
            for (int n = 0; n < 3; ++n)
                offsets[n + 1] = offsets[n] + bytesFor(widths[n], heights[n]);
            pixels->converted = allocate(offsets[3]);
            std::uint8_t* targets[4] = {nullptr, nullptr, nullptr, nullptr};
            int strides[4] = {0, 0, 0, 0};
            for (int n = 0; n < 3; ++n) {
                targets[n] = pixels->converted.get() + offsets[n];
                strides[n] = strideFor(widths[n]);
                pixels->planes[n] = {targets[n], strides[n], widths[n], heights[n]};
            }
            if (!scale(frame->data, frame->linesize, frame->width, frame->height, format, targets,
                       strides, frame->width, frame->height, *planar, pixels->swsSpace, fullRange))
                return std::nullopt;
        }
    } else {
        pixels->layout = Layout::rgba;
        const int stride = strideFor(frame->width * 4);
        pixels->converted = allocate(bytesFor(frame->width * 4, frame->height));
        std::uint8_t* targets[4] = {pixels->converted.get(), nullptr, nullptr, nullptr};
        const int strides[4] = {stride, 0, 0, 0};
        if (!scale(frame->data, frame->linesize, frame->width, frame->height, format, targets,
                   strides, frame->width, frame->height, AV_PIX_FMT_RGBA, pixels->swsSpace,
                   fullRange))
            return std::nullopt;
        pixels->planes[0] = {targets[0], stride, frame->width, frame->height};
    }
    MovieFrame picture;
    picture.m_pixels = std::move(pixels);
    return picture;
}

std::optional<RgbaPixels> MovieFrame::toRgba(int width, int height) const {
    const Pixels& pixels = *m_pixels;
    if (width <= 0 || height <= 0)
        return std::nullopt;
    if (pixels.layout == Layout::rgba && width == pixels.width && height == pixels.height)
        return RgbaPixels{pixels.converted, width, height, pixels.planes[0].stride};
    RgbaPixels out{
        std::shared_ptr<std::uint8_t[]>(allocatePixels(bytesFor(width * 4, height)), freePixels),
        width, height, strideFor(width * 4)};
    std::uint8_t* targets[4] = {out.data.get(), nullptr, nullptr, nullptr};
    const int strides[4] = {out.stride, 0, 0, 0};
    bool converted = false;
    const auto format =
        pixels.source ? static_cast<AVPixelFormat>(pixels.source->format) : AV_PIX_FMT_NONE;
    if (pixels.source && width == pixels.width && height == pixels.height) {
        converted = scale(pixels.source->data, pixels.source->linesize, pixels.width, pixels.height,
                          format, targets, strides, width, height, AV_PIX_FMT_RGBA, pixels.swsSpace,
                          pixels.colour.fullRange);
    } else if (pixels.source) {
        // Reduced in YUV first, then converted here at the small size: swscale's conversions
        // that scale, or start from 4:4:4, are off by up to 3 levels.
        const int stride = strideFor(width);
        const std::size_t bytes = bytesFor(width, height);
        const std::shared_ptr<std::uint8_t[]> small(allocatePixels(bytes * 3), freePixels);
        std::uint8_t* planes[4] = {small.get(), small.get() + bytes, small.get() + 2 * bytes,
                                   nullptr};
        const int planeStrides[4] = {stride, stride, stride, 0};
        converted = scale(pixels.source->data, pixels.source->linesize, pixels.width, pixels.height,
                          format, planes, planeStrides, width, height, AV_PIX_FMT_YUV444P,
                          pixels.swsSpace, pixels.colour.fullRange);
        if (converted)
            toRgb(planes, stride, width, height, pixels.colour, out.data.get(), out.stride);
    } else {
        const std::uint8_t* sources[4] = {pixels.planes[0].data, nullptr, nullptr, nullptr};
        const int sourceStrides[4] = {pixels.planes[0].stride, 0, 0, 0};
        converted = scale(sources, sourceStrides, pixels.width, pixels.height, AV_PIX_FMT_RGBA,
                          targets, strides, width, height, AV_PIX_FMT_RGBA, pixels.swsSpace, true);
    }
    if (!converted)
        return std::nullopt;
    return out;
}
