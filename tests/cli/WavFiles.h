#pragma once

#include <cstring>
#include <gtest/gtest.h>
#include <map>
#include <vector>

#include <QByteArray>
#include <QString>

#include "Files.h"
#include "audio/WavWriter.h"

// A mono float WAV holding one constant level.
inline void constantWav(const QString& path, float level, double seconds) {
    std::vector<float> samples(static_cast<std::size_t>(seconds * 48000), level);
    const float* channels[] = {samples.data()};
    WavWriter wav;
    ASSERT_TRUE(wav.open(path.toStdString(), 1, 48000));
    ASSERT_TRUE(wav.write(channels, static_cast<std::int64_t>(samples.size())));
    ASSERT_TRUE(wav.finish());
}

// Channels of a float WAV whose header must tell the truth: RIFF/WAVE with the file's size, then
// exactly the chunks "fmt " (32-bit IEEE float, its channels, byte rate and frame size that agree),
// "fact" (its frames) and "data", walked by their sizes to the file's end.
inline std::vector<std::vector<float>> readWav(const QString& path, int channels) {
    const QByteArray bytes = Files::read(path);
    const auto field = [&](qsizetype at, int size) {
        std::uint32_t value = 0;
        if (at >= 0 && at + size <= bytes.size())
            std::memcpy(&value, bytes.constData() + at, static_cast<std::size_t>(size));
        return static_cast<qsizetype>(value);
    };
    std::map<QByteArray, qsizetype> body; // a chunk's id → where its content starts
    qsizetype at = 12;
    for (; at + 8 <= bytes.size(); at += 8 + field(at + 4, 4))
        body[bytes.mid(at, 4)] = at + 8;
    const bool chunks = bytes.startsWith("RIFF") && bytes.mid(8, 4) == "WAVE" &&
                        field(4, 4) == bytes.size() - 8 && at == bytes.size() && body.size() == 3 &&
                        body.count("fmt ") && body.count("fact") && body.count("data");
    const qsizetype data = chunks ? body["data"] : bytes.size();
    const auto frames = (bytes.size() - data) / (4 * channels);
    const qsizetype format = chunks ? body["fmt "] : 0;
    EXPECT_TRUE(chunks && field(format, 2) == 3 && field(format + 2, 2) == channels &&
                field(format + 8, 4) == field(format + 4, 4) * channels * 4 &&
                field(format + 12, 2) == channels * 4 && field(format + 14, 2) == 32 &&
                field(body["fact"], 4) == frames)
        << path.toStdString() << ": its header does not say what it holds";
    std::vector<std::vector<float>> out(static_cast<std::size_t>(channels),
                                        std::vector<float>(static_cast<std::size_t>(frames)));
    for (qsizetype i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            std::memcpy(&out[c][i], bytes.constData() + data + (i * channels + c) * 4, 4);
    return out;
}
