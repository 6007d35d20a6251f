#include "app/DemoShow.h"

#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "app/InstanceLock.h"
#include "audio/WavWriter.h"
#include "cue/AppModel.h"
#include "model/DocumentError.h"

namespace DemoShow {
namespace {

constexpr int kRate = 48000;
constexpr double kTwoPi = 6.283185307179586;

// Writes `seconds` of a stereo sound given as a function of time.
void writeSound(const QString& path, double seconds, const std::function<double(double)>& sound) {
    std::vector<float> samples(static_cast<std::size_t>(seconds * kRate));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(sound(static_cast<double>(i) / kRate));
    const float* channels[] = {samples.data(), samples.data()};
    WavWriter wav;
    if (!wav.open(QFile::encodeName(path).toStdString(), 2, kRate) ||
        !wav.write(channels, static_cast<std::int64_t>(samples.size())) || !wav.finish())
        throw DocumentError(QStringLiteral("デモの音を書き出せません: ") + path);
}

// A short note with a soft attack and an exponential decay.
double note(double t, double frequency, double decay) {
    const double attack = std::min(t / 0.005, 1.0);
    return attack * std::exp(-t / decay) * std::sin(kTwoPi * frequency * t);
}

struct Sound {
    const char* file;
    double seconds;
    std::function<double(double)> wave;
};

std::vector<Sound> sounds() {
    std::uint64_t noise = 0x9E3779B97F4A7C15ull;
    auto white = [noise]() mutable {
        noise = noise * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<double>(noise >> 11) / 4503599627370496.0 - 1.0;
    };
    return {
        {"ベル.wav", 2.5,
         [](double t) {
             return 0.4 *
                    (note(t, 880, 0.6) + 0.5 * note(t, 1760, 0.4) + 0.25 * note(t, 2640, 0.25));
         }},
        // Whole cycles of every partial in 8 s, so the loop has no seam.
        {"ドローン.wav", 8.0,
         [](double t) {
             return 0.15 * (std::sin(kTwoPi * 110 * t) + std::sin(kTwoPi * 165 * t) +
                            std::sin(kTwoPi * 220 * t));
         }},
        {"拍手.wav", 1.2,
         [white](double t) mutable {
             const double sinceClap = std::fmod(t, 0.3);
             return 0.5 * white() * std::exp(-sinceClap / 0.03);
         }},
        {"キュー1.wav", 0.6, [](double t) { return 0.4 * note(t, 523.25, 0.2); }},
        {"キュー2.wav", 0.6, [](double t) { return 0.4 * note(t, 659.25, 0.2); }},
        {"キュー3.wav", 0.6, [](double t) { return 0.4 * note(t, 783.99, 0.2); }},
        {"ファンファーレ.wav", 1.8,
         [](double t) {
             const double notes[] = {523.25, 659.25, 783.99, 1046.5};
             const int i = std::min(static_cast<int>(t / 0.25), 3);
             return 0.35 * note(t - i * 0.25, notes[i], i == 3 ? 0.6 : 0.15);
         }},
        {"スイープ.wav", 2.0,
         [](double t) {
             // 200 Hz to 2 kHz, exponentially: the phase is the integral of the frequency.
             const double k = std::log(10.0) / 2.0;
             return 0.3 * std::sin(kTwoPi * 200.0 * (std::exp(k * t) - 1.0) / k);
         }},
    };
}

} // namespace

QString defaultFolder() {
    return InstanceLock::defaultFolder() + QStringLiteral("/Demo");
}

QString create(const QString& folder) {
    const QString show = folder + QStringLiteral("/デモ.vorlin");
    if (QFileInfo::exists(show))
        return show;
    if (!QDir().mkpath(folder))
        throw DocumentError(QStringLiteral("デモのフォルダを作れません: ") + folder);
    for (const Sound& sound : sounds())
        writeSound(folder + "/" + QString::fromUtf8(sound.file), sound.seconds, sound.wave);

    const auto key = [&](const char* file, std::int64_t color, const char* title) {
        KeyAssignment a(folder + "/" + QString::fromUtf8(file), color);
        a.title = QString::fromUtf8(title);
        return a;
    };
    AppModel model;
    model.setOffline(true);
    ShowDocument& doc = model.document();
    KeyAssignment drone = key("ドローン.wav", 1, "ドローン（ループ）");
    drone.loop = true;
    drone.fadeIn = 1.0;
    drone.fadeOut = 2.0;
    KeyAssignment claps = key("拍手.wav", 2, "拍手（押すたび頭から）");
    claps.mode = KeyMode::retrigger;
    KeyAssignment cues = key("キュー1.wav", 3, "キュー 1–3（押すたび次へ）");
    cues.sources =
        QStringList{folder + "/キュー1.wav", folder + "/キュー2.wav", folder + "/キュー3.wav"};
    doc.assignments = {{0, key("ベル.wav", 0, "ベル")}, {1, drone}, {2, claps}, {3, cues}};
    doc.pages[0].name = QStringLiteral("第一部");
    KeyPage second;
    second.name = QStringLiteral("第二部");
    KeyAssignment sweep = key("スイープ.wav", 5, "スイープ（押している間）");
    sweep.mode = KeyMode::hold;
    second.keys = {{0, key("ファンファーレ.wav", 4, "ファンファーレ")}, {1, sweep}};
    doc.pages.push_back(second);
    model.save(show);
    return show;
}

} // namespace DemoShow
