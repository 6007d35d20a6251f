#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "CueStage.h"
#include "TempDir.h"
#include "Wait.h"
#include "model/Prefs.h"
#include "remote/MidiControl.h"

namespace {

constexpr KeyCode kA = 0, kS = 1;

MidiEvent note(int number, int velocity) {
    return {velocity > 0 ? MidiEvent::Type::noteOn : MidiEvent::Type::noteOff, 1, number, velocity};
}
MidiEvent control(int number, int value, int channel = 1) {
    return {MidiEvent::Type::control, channel, number, value};
}

MidiBinding forKey(KeyCode key) {
    MidiBinding binding;
    binding.key = key;
    return binding;
}

class Midi : public ::testing::Test {
protected:
    void SetUp() override {
        Prefs::registerDefaults();
        stage.addKey(kA, "a", 0.5f, "1");
        stage.addKey(kS, "s", 0.25f, "2").mode = KeyMode::hold;
    }
    CueStage stage;
    MidiControl midi{stage.model};
};

// Learned bindings play keys as the keyboard does, are saved with the show, and the next
// message while learning replaces what that message did before.
TEST_F(Midi, LearnedNotesAndControllersPlayKeysAndAreSavedWithTheShow) {
    midi.learn(forKey(kA));
    midi.handle(note(60, 0)); // a note-off teaches nothing
    EXPECT_TRUE(midi.isLearning());
    midi.handle(note(60, 100));
    EXPECT_FALSE(midi.isLearning());
    EXPECT_FALSE(stage.model.isRunning(kA)); // learning does not play
    EXPECT_EQ(stage.model.status().text(), "MIDI を割り当てました: ♪C4 → A");
    EXPECT_TRUE(stage.model.session().isDirty());
    midi.learn(forKey(kS));
    midi.handle(control(20, 127, 2));

    midi.handle(note(60, 90));
    EXPECT_TRUE(stage.model.isRunning(kA));
    midi.handle(note(60, 0));  // velocity 0 is a note-off: a toggle key keeps playing
    midi.handle(note(61, 90)); // nothing bound
    EXPECT_TRUE(stage.model.isRunning(kA));
    midi.handle(note(60, 90));
    EXPECT_FALSE(stage.model.isRunning(kA));

    // The controller holds the hold key while it is up; moving within a half does nothing.
    midi.handle(control(20, 100, 2));
    EXPECT_TRUE(stage.model.isRunning(kS));
    const auto cues = stage.engine().cues().size();
    midi.handle(control(20, 120, 2));
    EXPECT_EQ(stage.engine().cues().size(), cues);
    midi.handle(control(20, 10, 2));
    EXPECT_FALSE(stage.model.isRunning(kS));
    midi.handle(control(20, 100, 1)); // another channel
    EXPECT_FALSE(stage.model.isRunning(kS));
    // A note on the hold key holds it until its note-off.
    midi.learn(forKey(kS));
    midi.handle(note(62, 100));
    midi.handle(note(62, 90));
    EXPECT_TRUE(stage.model.isRunning(kS));
    midi.handle(note(62, 0));
    EXPECT_FALSE(stage.model.isRunning(kS));
    // A fader rising through its upper half presses a toggle key once, not at every step.
    midi.learn(forKey(kA));
    midi.handle(control(21, 0));
    stage.run(0.05);
    for (int value : {70, 127})
        midi.handle(control(21, value));
    EXPECT_TRUE(stage.model.isRunning(kA));

    TempDir dir;
    const QString path = QString::fromStdString(dir.file("midi.vorlin"));
    stage.model.save(path);
    const auto saved = stage.doc().midiBindings;
    ASSERT_EQ(saved.size(), 4u);
    EXPECT_EQ(saved[1].label(), "CC20/2");
    stage.model.newDocument();
    EXPECT_TRUE(stage.doc().midiBindings.empty());
    stage.model.open(path);
    EXPECT_EQ(stage.doc().midiBindings, saved);
}

TEST_F(Midi, ProgramChangesAndControllersWorkThePagesStopsAndMaster) {
    stage.model.editor().newPage(false);
    stage.model.editor().switchPage(0);
    MidiBinding page;
    page.action = MidiBinding::Action::page;
    page.page = 1;
    midi.learn(page);
    midi.handle({MidiEvent::Type::program, 1, 5, 0});
    MidiBinding master;
    master.action = MidiBinding::Action::master;
    midi.learn(master);
    midi.handle(control(7, 0));
    MidiBinding stop;
    stop.action = MidiBinding::Action::panic;
    midi.learn(stop);
    midi.handle(note(36, 1));

    midi.handle({MidiEvent::Type::program, 1, 5, 0});
    EXPECT_EQ(stage.doc().currentPage, 1u);
    midi.handle(control(7, 127));
    EXPECT_EQ(stage.model.masterVolume(), 1.0);
    midi.handle(control(7, 0));
    EXPECT_EQ(stage.model.masterVolume(), 0.0);
    stage.model.editor().switchPage(0);
    stage.press(kA);
    midi.handle(note(36, 127));
    stage.run(0.05);
    EXPECT_TRUE(stage.engine().cues().empty());

    // On a key, a program change is a tap, pressed and let go: a hold key starts and stops.
    midi.learn(forKey(kS));
    midi.handle({MidiEvent::Type::program, 1, 9, 0});
    const auto cues = stage.engine().nextCueID();
    midi.handle({MidiEvent::Type::program, 1, 9, 0});
    EXPECT_EQ(stage.engine().nextCueID(), cues + 1);
    EXPECT_FALSE(stage.model.isRunning(kS));
}

// A real sequencer client sends to the "Vorlin" port. Without a sequencer device there is
// nothing to connect to: switched on, MIDI says why it cannot listen.
TEST_F(Midi, ARealSequencerClientPlaysAKeyThroughTheVorlinPort) {
    EXPECT_FALSE(midi.configure()); // switched off: nothing to say
    Prefs::setValue(MidiControl::kEnabled, true);
    const auto said = midi.configure();
    Prefs::setValue(MidiControl::kEnabled, false);
    if (access("/dev/snd/seq", R_OK | W_OK) != 0) {
        ASSERT_TRUE(said);
        EXPECT_TRUE(said->startsWith("MIDI 入力を開けません（")) << said->toStdString();
        return;
    }
    ASSERT_FALSE(said);
    stage.doc().midiBindings.push_back([] {
        MidiBinding binding;
        binding.number = 64;
        return binding;
    }());
    snd_seq_t* sender = nullptr;
    ASSERT_GE(snd_seq_open(&sender, "default", SND_SEQ_OPEN_OUTPUT, 0), 0);
    const int port = snd_seq_create_simple_port(sender, "test", SND_SEQ_PORT_CAP_READ,
                                                SND_SEQ_PORT_TYPE_MIDI_GENERIC);
    ASSERT_GE(snd_seq_connect_to(sender, port, midi.input().client(), midi.input().port()), 0);
    snd_seq_event_t event;
    snd_seq_ev_clear(&event);
    snd_seq_ev_set_source(&event, port);
    snd_seq_ev_set_subs(&event);
    snd_seq_ev_set_direct(&event);
    snd_seq_ev_set_noteon(&event, 0, 64, 100);
    snd_seq_event_output_direct(sender, &event);
    EXPECT_TRUE(Wait::until([&] { return stage.model.isRunning(kA); }, 2000));
    snd_seq_close(sender);
    EXPECT_FALSE(midi.configure()); // switched off since: the port goes
    EXPECT_FALSE(midi.input().isOpen());
}

} // namespace
