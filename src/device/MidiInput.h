#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>

// One MIDI message as the show sees it.
struct MidiEvent {
    enum class Type { noteOn, noteOff, control, program };
    Type type = Type::noteOn;
    int channel = 1; // 1…16
    int number = 0;  // note, controller or program
    int value = 0;   // velocity or controller value
};

// MIDI in through the ALSA sequencer: a client with one input port, both named as given
// ("Vorlin"), that any MIDI device or program can be connected to (aconnect, a patchbay, or the
// JACK MIDI bridge of PipeWire / a2jmidid). A note-on of velocity 0 arrives as a note-off.
//
// Threads: a thread of its own waits on the sequencer and calls the handler for each message;
// the caller passes them on to the main thread. open and close are for one control thread.
class MidiInput {
public:
    using Handler = std::function<void(const MidiEvent&)>;

    MidiInput() = default;
    ~MidiInput();
    MidiInput(const MidiInput&) = delete;
    MidiInput& operator=(const MidiInput&) = delete;

    // The reason when the sequencer cannot be opened (no /dev/snd/seq, for one).
    std::optional<std::string> open(const std::string& name, Handler handler);
    void close();
    bool isOpen() const { return m_seq != nullptr; }
    // The sequencer address of the port, for connecting to it.
    int client() const { return m_client; }
    int port() const { return m_port; }

private:
    void run();

    void* m_seq = nullptr; // snd_seq_t
    int m_client = -1;
    int m_port = -1;
    int m_wake[2] = {-1, -1}; // a pipe that ends the thread's wait
    Handler m_handler;
    std::thread m_thread;
};
