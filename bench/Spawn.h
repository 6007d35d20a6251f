#pragma once

#include <chrono>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>

extern char** environ;

// Starts a program found on PATH with `args` (args[0] is its name): its pid, or -1.
inline pid_t startProgram(const std::vector<const char*>& args) {
    std::vector<char*> argv;
    for (const char* arg : args)
        argv.push_back(const_cast<char*>(arg));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    return pid;
}

// Runs it and waits for it: whether it exited with status 0. The benchmarks' references
// (ffmpeg, pdftoppm, mpv) and fixture makers.
inline bool spawn(const std::vector<const char*>& args) {
    const pid_t pid = startProgram(args);
    if (pid < 0)
        return false;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The same, for its CPU seconds (user and system, its children's included), or -1 when it
// failed.
inline double spawnCpu(const std::vector<const char*>& args) {
    const pid_t pid = startProgram(args);
    if (pid < 0)
        return -1.0;
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return -1.0;
    const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec * 1e-6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Runs it and waits for it, timed: seconds from start to exit, or -1 when it failed.
inline double timedSpawn(const std::vector<const char*>& args) {
    const auto start = std::chrono::steady_clock::now();
    if (!spawn(args))
        return -1.0;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
