#pragma once

#include <memory>

#include <QApplication>

#include "app/InstanceLock.h"

class AppModel;
class KeyInput;
class WheelGuard;
class MainWindow;
class MidiControl;
class RemoteControl;
class Updater;
class UpdaterDialogs;

// The application with its window: preferences, instance number, model, window, audio and tick,
// and the key input, set up on construction; exec() then opens the show named on the command
// line (or the last one, or the demo show on a first start), shows the window and runs the event
// loop. The end-to-end checks of the test tree build one the same way and drive it instead of
// calling exec(). Main thread; one per process.
class Application {
public:
    // `argc` must outlive the application (Qt keeps a reference to it).
    Application(int& argc, char** argv);
    ~Application();

    AppModel& model() { return *m_model; }
    MainWindow& window() { return *m_window; }

    // Returns the exit status.
    int exec();

private:
    // The show named on the command line, else the last one, else the demo show.
    void openStartShow(const QString& named);

    QApplication m_app;
    InstanceLock m_instance;
    std::unique_ptr<AppModel> m_model;
    std::unique_ptr<MainWindow> m_window;
    std::unique_ptr<KeyInput> m_keys;
    std::unique_ptr<WheelGuard> m_wheel;
    std::unique_ptr<UpdaterDialogs> m_updaterDialogs;
    std::unique_ptr<Updater> m_updater;
    std::unique_ptr<RemoteControl> m_remote;
    std::unique_ptr<MidiControl> m_midi;
};

int runApplication(int& argc, char** argv);
