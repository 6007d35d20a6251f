#include "PipeWireSession.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace {

using namespace std::chrono_literals;

bool onPath(const char* program) {
    return std::system((std::string("command -v ") + program + " >/dev/null 2>&1").c_str()) == 0;
}

// PipeWire's ALSA plugin: the machine's own, else the one scripts/setup unpacked.
std::string alsaPlugin() {
    namespace fs = std::filesystem;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator("/usr/lib", ignored)) {
        const fs::path plugin = entry.path() / "alsa-lib/libasound_module_pcm_pipewire.so";
        if (fs::exists(plugin, ignored))
            return plugin;
    }
    return fs::exists(VORLIN_PIPEWIRE_ALSA_PLUGIN, ignored) ? VORLIN_PIPEWIRE_ALSA_PLUGIN : "";
}

void end(pid_t& pid, int signal) {
    if (pid <= 0)
        return;
    ::kill(pid, signal);
    waitpid(pid, nullptr, 0);
    pid = -1;
}

} // namespace

PipeWireSession::PipeWireSession() {
    if (!onPath("pipewire") || !onPath("wireplumber") || !onPath("dbus-daemon"))
        return;
    char folder[] = "/tmp/vorlin-pipewire-XXXXXX";
    if (!mkdtemp(folder))
        return;
    m_dir = folder;
    namespace fs = std::filesystem;
    fs::create_directories(m_dir + "/run");
    fs::permissions(m_dir + "/run", fs::perms::owner_all);
    fs::create_directories(m_dir + "/config/pipewire/pipewire.conf.d");
    fs::create_directories(m_dir + "/state");
    fs::copy_file(VORLIN_PIPEWIRE_SINKS,
                  m_dir + "/config/pipewire/pipewire.conf.d/vorlin-sinks.conf");
    if (const std::string plugin = alsaPlugin();
        !plugin.empty() && fs::exists("/usr/share/alsa/alsa.conf")) {
        m_alsaConfig = m_dir + "/asound.conf";
        std::ofstream(m_alsaConfig)
            << "</usr/share/alsa/alsa.conf>\n"
            << "pcm_type.pipewire { lib \"" << plugin << "\" }\n"
            << "pcm.vorlin_pipewire { type pipewire playback_node \"vorlin-test-8ch\" }\n"
            << "pcm.vorlin_pipewire_stereo { type pipewire playback_node "
               "\"vorlin-test-stereo\" }\n";
    }
    m_bus = spawn({"dbus-daemon", "--session", "--nofork", "--nopidfile",
                   "--address=unix:path=" + m_dir + "/run/bus"});
    for (int i = 0; i < 50 && !fs::exists(m_dir + "/run/bus"); ++i)
        std::this_thread::sleep_for(20ms);
    m_ready = restart();
}

PipeWireSession::~PipeWireSession() {
    end(m_manager, SIGTERM);
    end(m_pipewire, SIGTERM);
    end(m_bus, SIGTERM);
    if (!m_dir.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }
}

std::vector<std::pair<std::string, std::string>> PipeWireSession::environment() const {
    std::vector<std::pair<std::string, std::string>> env{
        {"XDG_RUNTIME_DIR", m_dir + "/run"},
        {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + m_dir + "/run/bus"},
        {"PIPEWIRE_REMOTE", "pipewire-0"}};
    if (!m_alsaConfig.empty())
        env.emplace_back("ALSA_CONFIG_PATH", m_alsaConfig);
    return env;
}

void PipeWireSession::use() const {
    for (const auto& [name, value] : environment())
        setenv(name.c_str(), value.c_str(), 1);
}

pid_t PipeWireSession::spawn(const std::vector<std::string>& args) const {
    std::vector<std::pair<std::string, std::string>> own = environment();
    own.emplace_back("XDG_CONFIG_HOME", m_dir + "/config");
    own.emplace_back("XDG_STATE_HOME", m_dir + "/state");
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        const std::string entry(*e);
        const std::string name = entry.substr(0, entry.find('='));
        if (std::none_of(own.begin(), own.end(), [&](const auto& o) { return o.first == name; }))
            env.push_back(entry);
    }
    for (const auto& [name, value] : own)
        env.push_back(name + "=" + value);
    std::vector<char*> argv, envp;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    for (const std::string& e : env)
        envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    // The session ends with the test, however the test ends (a crash, a time limit): each child
    // is killed when this process goes.
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(1);
        const int quiet = open("/dev/null", O_WRONLY);
        dup2(quiet, 1);
        dup2(quiet, 2);
        execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    return pid;
}

bool PipeWireSession::waitForSinks() const {
    // The default sink is set once the session manager has seen both sinks.
    const std::string look = "env XDG_RUNTIME_DIR=" + m_dir +
                             "/run pw-metadata 0 default.audio.sink 2>/dev/null" +
                             " | grep -q vorlin-test-stereo && env XDG_RUNTIME_DIR=" + m_dir +
                             "/run pw-cli ls Node 2>/dev/null | grep -q vorlin-test-8ch";
    for (int i = 0; i < 100; ++i) {
        if (std::system(look.c_str()) == 0)
            return true;
        std::this_thread::sleep_for(100ms);
    }
    return false;
}

void PipeWireSession::kill() {
    end(m_pipewire, SIGKILL);
    end(m_manager, SIGKILL);
}

bool PipeWireSession::restart() {
    kill();
    // A killed server leaves its socket behind: waiting for the file means the new one's.
    std::error_code ignored;
    std::filesystem::remove(m_dir + "/run/pipewire-0", ignored);
    m_pipewire = spawn({"pipewire"});
    for (int i = 0; i < 50 && !std::filesystem::exists(m_dir + "/run/pipewire-0"); ++i)
        std::this_thread::sleep_for(20ms);
    m_manager = spawn({"wireplumber"});
    return m_pipewire > 0 && m_manager > 0 && waitForSinks();
}
