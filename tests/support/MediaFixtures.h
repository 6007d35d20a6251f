#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Writes real media files with FFmpeg's encoders, so the tests need no binary fixtures.
namespace MediaFixtures {

struct Tone {
    int channels = 2;
    int sampleRate = 48000;
    double seconds = 1.0;
    double frequency = 1000.0; // channel c plays frequency × (c + 1)
    double amplitude = 0.5;
    double noise = 0.0; // amplitude of white noise added (repeatable), for realistic payloads
};

// `fps` pictures a second (25 unless said), each a flat grey that tells its number n: luma
// 16 + 8n (mod 216), so about 9.3 n in RGB.
struct Video {
    int width = 320;
    int height = 240;
    double rotation = 0.0; // degrees, stored as a display matrix
    double seconds = 1.0;
    int fps = 25;
    std::string codec = "mpeg4"; // an FFmpeg encoder name: "mpeg4", "libx264", "ffv1" …
    // Colour pictures: these 8-bit levels (Y, Cb, Cr) in every picture instead of the greys, in
    // `pixelFormat` (deeper formats get the same levels scaled), tagged with the range and the
    // matrix ("bt709", "bt601"; empty: untagged).
    std::optional<std::array<int, 3>> levels = std::nullopt;
    std::string pixelFormat = "yuv420p";
    bool fullRange = false;
    std::string matrix = "";
};

// The container follows the file extension (wav, flac, mp3, m4a, ogg, opus, mp4, mkv, mov …);
// `audioCodec` is an FFmpeg encoder name ("pcm_s16le", "flac", "aac", "libmp3lame", …).
// Returns false (with nothing left behind) when this FFmpeg build cannot write it.
// The RGB grey of picture n of a Video (what luma 16 + 8n, mod 216, decodes to).
inline double pictureGrey(int n) {
    return 8.0 * (n % 27) * 255.0 / 219.0;
}

// A PNG that claims `width` × `height` pixels and holds none of them (a decompression bomb's
// header): signature and header chunk, then the end.
std::string pngClaiming(std::uint32_t width, std::uint32_t height);

bool write(const std::string& path, const std::string& audioCodec, const std::vector<Tone>& tracks,
           const Video* video = nullptr);

} // namespace MediaFixtures
