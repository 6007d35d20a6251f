#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <sys/types.h>
#include <unistd.h>

// What the kernel says of a process (the benchmarks and the tests of the running program).

// Seconds of CPU (user + system) a process has used so far.
inline double cpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skip;
    for (int i = 3; i < 14; ++i)
        fields >> skip;
    double user = 0, system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// A process's resident memory now, in MB (0 when it is gone).
inline double residentMB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stod(line.substr(6)) / 1024.0;
    return 0.0;
}
