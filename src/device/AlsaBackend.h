#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "audio/AudioBufferList.h"
#include "device/AudioBackend.h"
#include "device/AudioOutputDevice.h"

typedef struct _snd_pcm snd_pcm_t;

// An ALSA playback PCM ("default", "hw:…", "plughw:…", plugin devices). Its own thread renders
// a period at a time and writes it, in float when the device takes it, else converted to S32 or
// S16; it runs with SCHED_FIFO when the system allows, at normal priority otherwise. A device
// that disappears or fails for good is reported through the notice. The user's sound
// configuration is only read, never written.
class AlsaBackend : public AudioBackend {
public:
    explicit AlsaBackend(std::string pcmName);
    ~AlsaBackend() override;

    void open() override;
    void start(Mixer& mixer, Notice notice) override;
    void stop() override;
    std::int64_t channelCount() const override { return m_channels; }
    double sampleRate() const override { return m_rate; }
    double latency() const override { return m_latency; }

    std::int64_t xruns() const { return m_xruns.load(); }

    // Whether a PCM is a sound server's (default, sysdefault…, pulse…, pipewire…): those accept
    // any channel count and fold it down, so a show on them plays stereo. The one rule for the
    // back end and the device list.
    static bool isSoundServer(const std::string& pcmName);
    // The channels a sound server's PCM is worth sending: those of PipeWire's default output
    // when PipeWire runs, else stereo. Any thread; asks the server.
    static std::int64_t serverChannels();
    // Whether the PCM opens now (non-blocking; closed again at once). Any thread.
    static bool canOpen(const std::string& pcmName);

    // alsa-lib prints its errors to stderr; the back end reports failures itself.
    static void silenceLibraryMessages();
    // The playback PCMs worth offering (cards, HDMI, the sound servers), uid and name being the
    // PCM's name and description. Opens each briefly, without blocking. Any thread.
    static void addDevices(std::vector<AudioOutputDevice>& devices);

private:
    enum class SampleFormat { float32, int32, int16 };
    void run();
    bool writePeriod();

    std::string m_name;
    snd_pcm_t* m_pcm = nullptr;
    Mixer* m_mixer = nullptr;
    Notice m_notice;
    SampleFormat m_format = SampleFormat::float32;
    std::int64_t m_channels = 0;
    double m_rate = 0.0;
    double m_latency = 0.0;
    std::int64_t m_period = 0;
    std::vector<std::vector<float>> m_planar;
    std::vector<AudioChannelBuffer> m_buffers;
    std::vector<unsigned char> m_interleaved;
    std::atomic<bool> m_running{false};
    std::atomic<std::int64_t> m_xruns{0};
    std::thread m_thread;
};
