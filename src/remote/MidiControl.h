#pragma once

#include <map>
#include <optional>

#include <QObject>

#include "device/MidiInput.h"
#include "model/MidiBinding.h"

class AppModel;

// MIDI in: each message the show has a binding for (ShowDocument::midiBindings) becomes what the
// keyboard or the window does, through RemoteCommand. A note-on presses its key and the note-off
// releases it; a controller presses when it rises to 64 or above and releases when it falls
// below (so a fader moving within one half does nothing more), or sets the master volume
// (value ÷ 127); a program change presses once. Stop, panic and page act on a press.
//
// Learn: while armed for a key or an operation, the next note-on, controller or program change
// becomes its binding (replacing one for the same message), marks the show changed and says so
// on the status line.
//
// Main thread; the sequencer's thread only queues events to it.
class MidiControl : public QObject {
    Q_OBJECT
public:
    static inline const QString kEnabled = QStringLiteral("pref.midiEnabled");
    static inline const QString kPortName = QStringLiteral("pref.midiPortName");

    explicit MidiControl(AppModel& model, QObject* parent = nullptr);

    // (Re)reads the preferences and opens the sequencer port, or closes it. The reason when it
    // cannot.
    std::optional<QString> configure();
    const MidiInput& input() const { return m_input; }

    // One message, as the sequencer delivers it (tests give them here directly).
    void handle(const MidiEvent& event);

    // The next message binds to `binding`'s action (its message fields are filled in then).
    void learn(const MidiBinding& target);
    void cancelLearning() { m_learning.reset(); }
    // What a binding does, as the status line names it ("A", "ページ 2", "すべて停止").
    static QString actionName(const MidiBinding& binding);
    bool isLearning() const { return m_learning.has_value(); }

signals:
    void learned(const MidiBinding& binding);

private:
    void press(const MidiBinding& binding, bool down);

    AppModel& m_model;
    MidiInput m_input;
    std::optional<MidiBinding> m_learning;
    // Controllers at or above 64, by (channel, controller).
    std::map<std::pair<int, int>, bool> m_high;
};
