// What a test reads of another process through /proc: its open descriptors, its threads and the
// CPU time it has used. The values tests compare before and after a fault.
#pragma once

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace zel::test {

inline int openDescriptors(pid_t pid) {
    DIR* directory = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (!directory) return -1;
    int count = 0;
    while (const dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.') ++count;
    closedir(directory);
    return count;
}

inline int threadCount(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Threads:", 0) == 0) return std::stoi(line.substr(8));
    return -1;
}

// User plus system time, in clock ticks.
inline long cpuTicks(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    long ticks = 0;
    for (int i = 3; fields >> field; ++i)
        if (i == 14 || i == 15) ticks += std::stol(field);
    return ticks;
}

// Polls until the condition holds or the time is up; whether it held.
inline bool eventually(const std::function<bool()>& condition, int milliseconds = 5000) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Whether the process gets down to at most threads threads and descriptors open descriptors
// within a few seconds; a failure gives the counts it stayed at.
inline testing::AssertionResult settlesTo(pid_t pid, int threads, int descriptors) {
    if (eventually(
            [&] { return threadCount(pid) <= threads && openDescriptors(pid) <= descriptors; }))
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "threads " << threadCount(pid) << " (at most " << threads << "), descriptors "
           << openDescriptors(pid) << " (at most " << descriptors << ")";
}

}  // namespace zel::test
