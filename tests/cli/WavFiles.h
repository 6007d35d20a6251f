#pragma once

#include <cstring>
#include <gtest/gtest.h>
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

// Channels of a float WAV, found by its chunks, whose header must tell the truth: its channels,
// and sizes that match what the file holds.
inline std::vector<std::vector<float>> readWav(const QString& path, int channels) {
    const QByteArray bytes = Files::read(path);
    const qsizetype data = bytes.indexOf("data") + 8;
    const auto frames = (bytes.size() - data) / (4 * channels);
    const auto field = [&](qsizetype at, int size) {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes.constData() + at, static_cast<std::size_t>(size));
        return static_cast<qsizetype>(value);
    };
    EXPECT_TRUE(data > 8 && field(4, 4) == bytes.size() - 8 && field(22, 2) == channels &&
                field(data - 4, 4) == bytes.size() - data && field(data - 12, 4) == frames)
        << path.toStdString() << ": its header does not say what it holds";
    std::vector<std::vector<float>> out(static_cast<std::size_t>(channels),
                                        std::vector<float>(static_cast<std::size_t>(frames)));
    for (qsizetype i = 0; i < frames; ++i)
        for (int c = 0; c < channels; ++c)
            std::memcpy(&out[c][i], bytes.constData() + data + (i * channels + c) * 4, 4);
    return out;
}
