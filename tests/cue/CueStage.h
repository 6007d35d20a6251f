#pragma once

#include <cmath>
#include <functional>
#include <memory>

#include "MediaFixtures.h"
#include "SignalMeasure.h"
#include "audio/AudioClip.h"
#include "audio/OfflineRenderer.h"
#include "cue/AppModel.h"
#include "media/AudioLoader.h"
#include "video/CompositedVideoOutput.h"

// A show on a simulated clock: the real model, cue engine and mixer, a device rendered
// offline, the headless video output on the device's clock, and the 30 Hz tick run between
// blocks exactly when it is due.
class CueStage {
public:
    explicit CueStage(int channels = 8, std::int64_t block = 256)
        : model(std::make_unique<CompositedVideoOutput>(
              [this] { return device ? device->hostTime() : 0; }, false)),
          device(std::make_unique<OfflineRenderer>(model.mixer(), channels, block, 48000.0)) {
        model.cueEngine().setOutputChannelCount(channels);
        model.cueEngine().setBeep([this] { ++beeps; });
        // Seeks and slide timing on the simulated clock, as in a headless render.
        model.cueEngine().setHostClock([this] { return device->hostTime(); });
    }

    CompositedVideoOutput& video() { return static_cast<CompositedVideoOutput&>(model.video()); }
    CueEngine& engine() { return model.cueEngine(); }
    ShowDocument& doc() { return model.document(); }

    // A key playing a constant `level` mono clip of 10 s, routed by `outputMap`.
    KeyAssignment& addKey(KeyCode code, const QString& name, float level, const QString& outputMap,
                          double seconds = 10.0) {
        KeyAssignment a("/show/" + name + ".wav", 0);
        a.outputMap = outputMap;
        MediaInfo info;
        info.probe.hasAudio = true;
        info.probe.duration = seconds;
        info.clip = std::make_shared<const AudioClip>(
            std::vector<std::vector<float>>{
                std::vector<float>(static_cast<std::size_t>(seconds * 48000), level)},
            48000.0);
        model.media().table()[a.mediaKey()] = info;
        return doc().assignments[code] = a;
    }

    // A key playing a generated 1 s movie (160×120) whose mono 1 kHz sound lasts `soundSeconds`,
    // probed and decoded as the media loader would. Returns false when the file cannot be made.
    bool addVideoKey(KeyCode code, const std::string& path, double soundSeconds,
                     const QString& outputMap) {
        const MediaFixtures::Video picture{160, 120, 0.0, 1.0};
        if (!MediaFixtures::write(path, "aac", {{1, 48000, soundSeconds, 1000.0, 0.5}}, &picture))
            return false;
        KeyAssignment a(QString::fromStdString(path), 0);
        a.outputMap = outputMap;
        MediaInfo info;
        info.probe = AudioLoader::probe(path);
        info.clip = AudioLoader::loadClip(path, 48000.0, info.probe);
        model.media().table()[a.path] = info;
        doc().assignments[code] = a;
        return true;
    }

    // A key playing a generated movie of `seconds` whose 16-bit mono 1 kHz sound the loader
    // found too long to decode into memory: it is streamed while it plays. Returns false when
    // the file cannot be made.
    bool addStreamedMovieKey(KeyCode code, const std::string& path, double seconds) {
        const MediaFixtures::Video picture{160, 120, 0.0, seconds};
        if (!MediaFixtures::write(path, "pcm_s16le", {{1, 48000, seconds, 1000.0, 0.5}}, &picture))
            return false;
        KeyAssignment a(QString::fromStdString(path), 0);
        a.outputMap = "1";
        MediaInfo info;
        info.probe = AudioLoader::probe(path);
        info.audioViaPlayer = true;
        model.media().table()[a.path] = info;
        doc().assignments[code] = a;
        return true;
    }

    // A list key of `count` items put straight into the media table as the loader would: sounds
    // (item i at the constant level 0.1 × (i + 1), `seconds` long, routed to output 1) or, with
    // `pictures`, pictures whose files are not there (they show nothing, and still step). The
    // key keeps its items as its own list, to be changed by the test.
    KeyAssignment& addListKey(KeyCode code, int count, double seconds, bool pictures = false) {
        DeckManifest manifest;
        manifest.engine = Deck::kListEngine;
        QStringList files;
        for (int i = 0; i < count; ++i) {
            DeckItem item;
            item.id = QString::number(i);
            item.kind = pictures ? DeckItem::Kind::image : DeckItem::Kind::audio;
            item.file = QString("/show/%1.%2").arg(i).arg(pictures ? "png" : "wav");
            item.title = QString("項目 %1").arg(i);
            manifest.items.push_back(item);
            files << item.file;
        }
        auto deck = std::make_shared<Deck>(QString(), manifest);
        for (int i = 0; !pictures && i < count; ++i)
            deck->clips[files[i]] = std::make_shared<const AudioClip>(
                std::vector<std::vector<float>>{std::vector<float>(
                    static_cast<std::size_t>(seconds * 48000), 0.1f * static_cast<float>(i + 1))},
                48000.0);
        KeyAssignment a(files.first(), 0);
        a.sources = files;
        a.deckItems = manifest.items;
        a.outputMap = "1";
        a.slideTransition = 0.0;
        MediaInfo info;
        info.deck = deck;
        model.media().table()[a.mediaKey()] = info;
        return doc().assignments[code] = a;
    }

    void press(KeyCode code, bool shift = false) { model.handleKey(code, true, shift, false); }
    void release(KeyCode code) { model.handleKey(code, false, false, false); }

    // Renders `seconds` more, polling the video output and ticking whenever due, and returns
    // every channel of what was rendered.
    std::vector<std::vector<float>> run(double seconds) {
        const auto frames = static_cast<std::int64_t>(std::llround(seconds * 48000.0));
        std::vector<std::vector<float>> out(static_cast<std::size_t>(device->channelCount()));
        std::int64_t done = 0;
        while (done < frames) {
            const std::int64_t now = device->framesRendered();
            while (m_nextTick * 1600 <= now) { // 1600 frames = 1/30 s at 48 kHz
                video().poll();
                model.tick();
                ++m_nextTick;
            }
            engine().fillStreams();
            device->renderBlock();
            const std::int64_t take = std::min(device->blockFrames(), frames - done);
            for (int c = 0; c < device->channelCount(); ++c)
                out[c].insert(out[c].end(), device->channel(c), device->channel(c) + take);
            done += take;
        }
        return out;
    }

    AppModel model;
    std::unique_ptr<OfflineRenderer> device;
    int beeps = 0;

private:
    std::int64_t m_nextTick = 0;
};

using SignalMeasure::firstNonZero;

inline bool silentFrom(const std::vector<float>& x, std::size_t from) {
    for (std::size_t i = from; i < x.size(); ++i) {
        if (x[i] != 0.0f)
            return false;
    }
    return true;
}
