#include "RenderFuzzer.h"

#include <cmath>
#include <cstring>
#include <fstream>

#include <QFile>
#include <QTextStream>

#include "Files.h"
#include "MediaFixtures.h"
#include "audio/AudioClip.h"
#include "audio/WavWriter.h"
#include "cli/Commands.h"
#include "model/ValueRanges.h"

namespace {

// Values for the show's numbers: what an editor allows and its edges, and (less often, so
// that most shows still play) what no editor could set.
const char* const kVolumes[] = {"1", "0.5", "3.98", "0", "1e-300"};
const char* const kBadVolumes[] = {"4", "1e18", "1e39", "-1"};
const char* const kFades[] = {"0", "0.01", "1", "60"};
const char* const kBadFades[] = {"61", "-1", "1e300"};
const char* const kMasters[] = {"1", "0.5", "0", "-0"};
const char* const kBadMasters[] = {"1.0001", "1e39", "nan"};
const char* const kModes[] = {"toggle", "retrigger", "hold"};
const char* const kBadModes[] = {"bogus"};
const char* const kMaps[] = {"", "1", "1-2", "5-5", "0 65 4-2", "1,1,1,1", "abc", "2-1"};
const char* const kSmallInts[] = {"0", "5", "99"};
const char* const kBadSmallInts[] = {"100", "-1", "1.5"};
const char* const kKeys[] = {"0", "1", "2", "3", "+1", "-0", "65535", "65536", "abc"};
const char* const kJunk[] = {"null", "[]", "{}", "1e400", "\"x\"", ":", ",", "}", "\"keys\": {}"};

template <typename T, std::size_t N> const T& pick(std::mt19937& random, const T (&list)[N]) {
    return list[random() % N];
}

bool chance(std::mt19937& random, double p) {
    return std::uniform_real_distribution<double>(0.0, 1.0)(random) < p;
}

// Mostly a good value, now and then a bad one.
template <std::size_t N, std::size_t M>
const char* value(std::mt19937& random, const char* const (&good)[N], const char* const (&bad)[M]) {
    return chance(random, 0.04) ? pick(random, bad) : pick(random, good);
}

QByteArray readAll(const std::string& path) {
    return Files::read(QString::fromStdString(path));
}

void writeAll(const std::string& path, const QByteArray& bytes) {
    Files::write(QString::fromStdString(path), bytes);
}

} // namespace

RenderFuzzer::RenderFuzzer(const std::string& folder, unsigned seed)
    : m_folder(folder), m_random(seed) {
    const std::string tone = folder + "/tone.wav";
    MediaFixtures::write(tone, "pcm_s16le", {{2, 48000, 0.5}});
    m_media << QString::fromStdString(tone);

    // A float WAV whose samples are random bytes: NaN, infinities, 1e38s.
    const std::string noise = folder + "/noise.wav";
    {
        std::vector<float> left(12000), right(12000);
        const float* channels[] = {left.data(), right.data()};
        WavWriter wav;
        wav.open(noise, 2, 48000);
        wav.write(channels, 12000);
        wav.finish();
    }
    QByteArray bytes = readAll(noise);
    const qsizetype data = bytes.indexOf("data") + 8;
    for (qsizetype i = data; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(m_random());
    writeAll(noise, bytes);
    m_media << QString::fromStdString(noise);

    const std::string mp3 = folder + "/damaged.mp3";
    if (MediaFixtures::write(mp3, "libmp3lame", {{2, 44100, 1.0}})) {
        QByteArray damaged = readAll(mp3);
        for (int n = 0; n < damaged.size() / 50; ++n)
            damaged[static_cast<qsizetype>(512 + m_random() % (damaged.size() - 512))] =
                static_cast<char>(m_random());
        writeAll(mp3, damaged);
        m_media << QString::fromStdString(mp3);
    }

    const std::string flac = folder + "/cut.flac";
    MediaFixtures::write(flac, "flac", {{1, 44100, 1.0}});
    const QByteArray whole = readAll(flac);
    writeAll(flac, whole.left(whole.size() * 2 / 5));
    m_media << QString::fromStdString(flac);

    writeAll(folder + "/notes.txt", "not media\n");
    m_media << QString::fromStdString(folder + "/notes.txt")
            << QString::fromStdString(folder + "/missing.wav");
}

QString RenderFuzzer::show() {
    QByteArray keys;
    const int count = 1 + static_cast<int>(m_random() % 4);
    for (int k = 0; k < count; ++k) {
        if (k > 0)
            keys += ",";
        keys += QStringLiteral(R"("%1": {"path": "%2", "volume": %3, "fadeIn": %4, "fadeOut": %5,
            "mode": "%6", "outputMap": "%7", "group": %8, "layer": %9, "loop": %10})")
                    .arg(chance(m_random, 0.1) ? pick(m_random, kKeys) : QString::number(k),
                         m_media[m_random() % m_media.size()],
                         value(m_random, kVolumes, kBadVolumes), value(m_random, kFades, kBadFades),
                         value(m_random, kFades, kBadFades), value(m_random, kModes, kBadModes),
                         pick(m_random, kMaps), value(m_random, kSmallInts, kBadSmallInts),
                         value(m_random, kSmallInts, kBadSmallInts))
                    .arg(chance(m_random, 0.3) ? "true" : "false")
                    .toUtf8();
    }
    QByteArray text =
        QStringLiteral(R"({"format": "vorlin", "version": 1, "keys": {%1},
        "pages": [{"name": "A", "keys": {%1}}, {"name": "B", "keys": {}}],
        "masterVolume": %2, "stopAllFade": %3, "videoTarget": "window", "mutedOutputs": [%4]})")
            .arg(QString::fromUtf8(keys), value(m_random, kMasters, kBadMasters),
                 value(m_random, kFades, kBadFades), chance(m_random, 0.04) ? "65" : "2")
            .toUtf8();
    if (chance(m_random, 0.1)) {
        for (int e = 1 + static_cast<int>(m_random() % 3); e > 0; --e) {
            const auto at = static_cast<qsizetype>(m_random() % text.size());
            if (chance(m_random, 0.5))
                text.insert(at, pick(m_random, kJunk));
            else
                text[at] = static_cast<char>(m_random());
        }
    }
    const QString path = QString::fromStdString(m_folder + "/show.vorlin");
    writeAll(path.toStdString(), text);
    return path;
}

QString RenderFuzzer::events(int& keyDowns) {
    QString text;
    double t = 0.0;
    keyDowns = 0;
    const int lines = static_cast<int>(m_random() % 12);
    for (int n = 0; n < lines; ++n) {
        t += std::uniform_real_distribution<double>(0.0, 0.15)(m_random);
        QString time = QString::number(t);
        if (chance(m_random, 0.01))
            time = pick(m_random, {"1e15", "86400", "nan", "-1", "0x10"});
        else if (chance(m_random, 0.01))
            time = QString::number(t / 2); // back in time
        switch (m_random() % 6) {
        case 0:
        case 1:
            ++keyDowns;
            text += QStringLiteral("%1 down %2%3\n")
                        .arg(time,
                             chance(m_random, 0.02) ? "70000"
                                                    : pick(m_random, {"0", "1", "2", "3", "53"}),
                             chance(m_random, 0.2) ? " shift" : "");
            break;
        case 2:
            text += QStringLiteral("%1 up %2%3\n")
                        .arg(time, pick(m_random, {"0", "1", "2", "3"}),
                             chance(m_random, 0.1) ? " repeat" : "");
            break;
        case 3:
            text += QStringLiteral("%1 page %2\n").arg(time, pick(m_random, {"0", "1", "2"}));
            break;
        case 4:
            text += QStringLiteral("%1 mute %2\n").arg(time, pick(m_random, {"1", "1-2", "", "2"}));
            break;
        default:
            text +=
                QStringLiteral("%1 master %2\n").arg(time, value(m_random, kMasters, kBadMasters));
            break;
        }
    }
    const QString path = QString::fromStdString(m_folder + "/events.txt");
    writeAll(path.toStdString(), text.toUtf8());
    return path;
}

void RenderFuzzer::check(const QString& wav, int keyDowns, Outcome& outcome) {
    const QByteArray bytes = readAll(wav.toStdString());
    for (const char byte : bytes)
        outcome.digest = (outcome.digest ^ static_cast<unsigned char>(byte)) * 1099511628211ull;
    const qsizetype data = bytes.indexOf("data");
    if (data < 0) {
        outcome.failures.push_back("exit 0 without a WAV");
        return;
    }
    // Each voice at most: the loudest sample a clip may hold × the loudest key × the master;
    // a stereo clip may route both channels to one output.
    const double bound = AudioClip::kDamagedLevel * ValueRanges::kMaxVolume *
                         ValueRanges::kMaxMasterVolume * 2.0 * (keyDowns + 1);
    for (qsizetype at = data + 8; at + 4 <= bytes.size(); at += 4) {
        float v = 0.0f;
        std::memcpy(&v, bytes.constData() + at, 4);
        if (!std::isfinite(v) || std::fabs(v) > bound) {
            outcome.failures.push_back("sample " + std::to_string(v) + " beyond " +
                                       std::to_string(bound));
            return;
        }
    }
}

RenderFuzzer::Outcome RenderFuzzer::run(int cases) {
    Outcome outcome;
    const QString wav = QString::fromStdString(m_folder + "/out.wav");
    for (int c = 0; c < cases; ++c) {
        QFile::remove(wav);
        const QString showPath = show();
        int keyDowns = 0;
        const QString eventPath = events(keyDowns);
        QStringList args{"render", showPath, "--events", eventPath,    "--out",
                         wav,      "--rate", "8000",     "--channels", "2"};
        if (!chance(m_random, 0.2))
            args << "--seconds"
                 << "0.6";
        QString out, err;
        QTextStream outStream(&out), errStream(&err);
        const int status = Commands::run(args, outStream, errStream);
        errStream.flush();
        ++outcome.cases;
        outcome.digest = (outcome.digest ^ static_cast<unsigned>(status)) * 1099511628211ull;
        if (status == 0) {
            ++outcome.rendered;
            check(wav, keyDowns, outcome);
        } else if (status == 1 || status == 2) {
            ++outcome.refused;
            if (err.trimmed().isEmpty())
                outcome.failures.push_back("exit " + std::to_string(status) + " without a message");
        } else {
            outcome.failures.push_back("exit status " + std::to_string(status));
        }
    }
    return outcome;
}
