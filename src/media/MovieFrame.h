#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

struct AVFrame;

// Which RGB a picture's luma and colour levels stand for.
struct MovieColour {
    bool fullRange = false; // levels 0…255, rather than 16…235 for luma and 16…240 for colour
    // The matrix's weights of red and blue in luma (BT.709's here; BT.601: 0.299 and 0.114).
    double kr = 0.2126;
    double kb = 0.0722;

    // RGB = toRgb · (levels − offsets), row by row; in levels (0…255) or in fractions of 255
    // alike. Luma and colour are scaled from their range, then R = Y + 2(1−Kr)·Cr,
    // B = Y + 2(1−Kb)·Cb, and G takes what remains.
    std::array<double, 9> toRgb() const;
    std::array<double, 3> offsets() const;
};

// 8-bit RGBA rows `stride` bytes apart, in a buffer that swscale may write whole aligned blocks
// into (see MovieFrame::bytesFor).
struct RgbaPixels {
    std::shared_ptr<std::uint8_t[]> data;
    int width = 0;
    int height = 0;
    int stride = 0;
};

// One decoded picture of a movie. Most movies come as planes of luma and subsampled colour
// (Y, Cb, Cr) and are kept so: a surface uploads the planes as they are and a shader turns them
// into RGB, which costs a quarter of the bytes of RGBA and no pass over the pixels on the CPU.
// Pictures with transparency, in RGB or in a layout without an 8-bit planar form become RGBA
// when decoded.
//
// A copy shares the pixels; they go with the last copy (on whatever thread that is).
class MovieFrame {
public:
    enum class Layout { yuv, rgba };
    struct Plane {
        const std::uint8_t* data = nullptr;
        int stride = 0; // bytes from one row to the next
        int width = 0;  // in samples
        int height = 0;
    };

    double time = 0.0; // seconds from the movie's start
    int rotation = 0;  // degrees clockwise to stand it upright (the file's display matrix)

    Layout layout() const;
    int width() const;
    int height() const;
    // Y, Cb, Cr for yuv; the one RGBA plane for rgba.
    const Plane& plane(std::size_t n) const;
    const MovieColour& colour() const;
    // A number no other picture of this process has: what a surface's upload is known by.
    std::uint64_t serial() const;

    // The picture as RGBA at `width` × `height`: its own size converted exactly as a render
    // draws it, or reduced (averaged) for a small view. Empty on failure. Any thread.
    std::optional<RgbaPixels> toRgba(int width, int height) const;

    // swscale's vector code stores whole aligned blocks, past a row's last pixel and past the
    // last row: every buffer it writes starts on kAlignment, its rows are padded to a multiple of
    // it and kAlignment more bytes follow the last row.
    static constexpr std::size_t kAlignment = 64;
    static int strideFor(int bytesPerRow);
    static std::size_t bytesFor(int bytesPerRow, int height);
    // Memory of that alignment; release it with freePixels (a plain delete[] would not match).
    static std::uint8_t* allocatePixels(std::size_t bytes);
    static void freePixels(std::uint8_t* pixels);
    // Where converted pixels go (`bytes` long, aligned, contents undefined).
    using Allocate = std::function<std::shared_ptr<std::uint8_t[]>(std::size_t bytes)>;

    // Holds `frame`'s pixels (a new reference to them), converting what has no 8-bit planar
    // form into buffers from `allocate`. None when it cannot be converted.
    static std::optional<MovieFrame> of(const AVFrame* frame, const Allocate& allocate);

private:
    struct Pixels;
    std::shared_ptr<const Pixels> m_pixels;
};
