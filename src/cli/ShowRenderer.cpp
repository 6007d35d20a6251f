#include "cli/ShowRenderer.h"

#include <cmath>

#include <QCoreApplication>
#include <QDir>
#include <QImage>
#include <QPainter>

#include "audio/HostTime.h"
#include "audio/WavWriter.h"
#include "video/CompositedVideoOutput.h"

namespace {

// Simulated time starts here (the renderer's clock before its first block).
constexpr std::uint64_t kStartHost = 1'000'000'000;

} // namespace

ShowRenderer::ShowRenderer(int sampleRate, int channels, std::int64_t blockFrames, double devicePpm)
    : m_rate(sampleRate) {
    auto video = std::make_unique<CompositedVideoOutput>(
        [this] { return m_device ? m_device->hostTime() : kStartHost; }, false);
    m_model = std::make_unique<AppModel>(std::move(video));
    m_model->setOffline(true);
    m_device = std::make_unique<OfflineRenderer>(m_model->mixer(), channels, blockFrames,
                                                 sampleRate, kStartHost, devicePpm);
    m_model->cueEngine().setOutputChannelCount(channels);
    // Seeks and slide timing on the simulated clock; a slide shows the moment it is due.
    m_model->cueEngine().setHostClock([this] { return m_device->hostTime(); });
    m_model->cueEngine().setDecodeInline(true);
}

void ShowRenderer::open(const QString& path) {
    m_model->open(path);
    // Media are decoded at the render rate on the thread pool; the clock starts once all are in.
    while (m_model->media().pending() > 0)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
}

QStringList ShowRenderer::mediaProblems() const {
    QStringList problems;
    for (const auto& [key, info] : m_model->media().table()) {
        const QString name = key.section(QLatin1Char('\n'), 0, 0);
        if (info.error)
            problems << QStringLiteral("メディアを読み込めません: %1: %2").arg(name, *info.error);
        if (info.warning)
            problems << QStringLiteral("メディアに問題があります: %1: %2").arg(name, *info.warning);
        if (info.deck) {
            for (const auto& [file, failure] : info.deck->failures)
                problems << QStringLiteral("メディアを読み込めません: %1: %2")
                                .arg(info.deck->pathOf(file), failure);
            for (const QString& file : info.deck->missing)
                problems << QStringLiteral("メディアを読み込めません: %1: ファイルが見つかりません")
                                .arg(info.deck->pathOf(file));
        }
    }
    return problems;
}

void ShowRenderer::apply(const ScriptEvent& event) {
    switch (event.kind) {
    case ScriptEvent::Kind::key:
        m_model->handleKey(event.code, event.down, event.shift, event.repeat);
        break;
    case ScriptEvent::Kind::page:
        m_model->editor().switchPage(static_cast<std::size_t>(event.page));
        break;
    case ScriptEvent::Kind::mute:
        m_model->setMutedOutputs(event.muted);
        break;
    case ScriptEvent::Kind::master:
        m_model->setMasterVolume(event.gain);
        break;
    case ScriptEvent::Kind::osc:
        if (!event.command.apply(*m_model))
            m_eventProblems << QStringLiteral("%1 秒の osc: %2 がありません")
                                   .arg(event.seconds)
                                   .arg(event.command.target());
        break;
    }
}

bool ShowRenderer::writeFrame(const FrameOptions& frames, std::int64_t index) {
    QImage picture(frames.size, QImage::Format_RGB32);
    QPainter painter(&picture);
    const auto now = kStartHost + HostTime::secondsToTicks(static_cast<double>(index) / frames.fps);
    static_cast<CompositedVideoOutput&>(m_model->video())
        .draw(painter, picture.rect(), now, frames.output);
    painter.end();
    return picture.save(
        QDir(frames.folder)
            .filePath(QStringLiteral("frame_%1.png").arg(index + 1, 6, 10, QLatin1Char('0'))),
        "PNG");
}

bool ShowRenderer::run(const std::vector<ScriptEvent>& events, double seconds, WavWriter& out,
                       const FrameOptions* frames) {
    auto& video = static_cast<CompositedVideoOutput&>(m_model->video());
    const auto total = static_cast<std::int64_t>(std::llround(seconds * m_rate));
    std::size_t nextEvent = 0;
    std::int64_t nextTick = 0;
    std::int64_t nextFrame = 0;
    // Device frames per second of host time: script times, ticks and pictures are host times.
    const double framesPerHostSecond = m_device->framesPerHostSecond();
    const std::int64_t frameCount =
        frames ? static_cast<std::int64_t>(
                     std::ceil(seconds * m_rate / framesPerHostSecond * frames->fps - 1e-9))
               : 0;
    std::vector<const float*> channels(static_cast<std::size_t>(m_device->channelCount()));
    while (m_device->framesRendered() < total) {
        const std::int64_t start = m_device->framesRendered();
        // Exact comparisons in frames: an event at t is due when t × rate ≤ the block's start.
        while (nextEvent < events.size() &&
               events[nextEvent].seconds * framesPerHostSecond <= static_cast<double>(start))
            apply(events[nextEvent++]);
        while (static_cast<double>(nextTick) * framesPerHostSecond / 30.0 <=
               static_cast<double>(start)) {
            video.poll();
            m_model->tick();
            ++nextTick;
        }
        // A picture is drawn with the state of the block it falls in, at its own time.
        const std::int64_t end = start + m_device->blockFrames();
        while (nextFrame < frameCount &&
               static_cast<double>(nextFrame) * framesPerHostSecond / frames->fps <
                   static_cast<double>(end)) {
            if (!writeFrame(*frames, nextFrame++))
                return false;
        }
        m_model->cueEngine().fillStreams();
        m_device->renderBlock();
        for (std::size_t c = 0; c < channels.size(); ++c)
            channels[c] = m_device->channel(static_cast<int>(c));
        if (!out.write(channels.data(), std::min(m_device->blockFrames(), total - start)))
            return false;
    }
    return true;
}
