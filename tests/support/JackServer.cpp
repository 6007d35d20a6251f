#include "JackServer.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <jack/jack.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Slots of server names. JACK keeps a registry of at most eight servers and frees a crashed
// server's entry only when a server of the same name starts again, so tests reuse a few fixed
// names instead of inventing new ones (which would fill the registry after a few crashes).
constexpr int kNameSlots = 4;

bool connects() {
    if (jack_client_t* probe = jack_client_open("probe", JackNoStartServer, nullptr)) {
        jack_client_close(probe);
        return true;
    }
    return false;
}

} // namespace

JackServer::JackServer(int playbackPorts, int rate, int period, bool realtime) {
    setenv("JACK_NO_AUDIO_RESERVATION", "1", 1);
    jack_set_error_function([](const char*) {});
    jack_set_info_function([](const char*) {});
    const std::string ports = std::to_string(playbackPorts);
    const std::string rateText = std::to_string(rate);
    const std::string periodText = std::to_string(period);

    // JACK servers share one registry; servers starting at the same moment in tests running side
    // by side can spoil each other's start. Start-ups are taken one at a time.
    const int startLock = open("/tmp/vorlin-jack-start.lock", O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (startLock >= 0)
        flock(startLock, LOCK_EX);
    for (int slot = 0; slot < kNameSlots && !m_ready; ++slot) {
        // Tests running side by side each hold the lock of the slot they use; it goes with
        // the process however that ends.
        if (m_slotLock >= 0)
            close(m_slotLock);
        const std::string lock = "/tmp/vorlin-jack-slot-" + std::to_string(slot) + ".lock";
        m_slotLock = open(lock.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (m_slotLock < 0 || flock(m_slotLock, LOCK_EX | LOCK_NB) != 0)
            continue;
        m_name = "vorlin-test-" + std::to_string(slot);
        setenv("JACK_DEFAULT_SERVER", m_name.c_str(), 1);
        if (connects())
            continue; // a server of that name that is not a test's: leave it alone
        std::vector<const char*> argv{"jackd",        "-n",
                                      m_name.c_str(), realtime ? "--realtime" : "--no-realtime",
                                      "-d",           "dummy",
                                      "-P",           ports.c_str(),
                                      "-C",           "0",
                                      "-r",           rateText.c_str(),
                                      "-p",           periodText.c_str(),
                                      nullptr};
        m_pid = fork();
        if (m_pid == 0) {
            // The server ends with the test, however the test ends.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const int devNull = open("/dev/null", O_WRONLY);
            dup2(devNull, 1);
            dup2(devNull, 2);
            execvp("jackd", const_cast<char* const*>(argv.data()));
            _exit(127);
        }
        if (m_pid < 0)
            break;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
                m_pid = -1; // the name was taken after all: next slot
                break;
            }
            // Ready when it still takes clients a moment after the first one, with its process up.
            if (connects()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
                    m_pid = -1; // it died after all: next slot
                    break;
                }
                m_ready = connects();
                if (m_ready)
                    break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    if (startLock >= 0)
        close(startLock);
}

JackServer::~JackServer() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_slotLock >= 0)
        close(m_slotLock);
}

void JackServer::kill() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
}
