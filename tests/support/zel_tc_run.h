// zel-tc run from a test as a user runs it: its exit code, its stdout as lines, its stderr.
#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "daemon_launcher.h"
#include "output_capture.h"

inline std::string readFile(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// zel-tc, under the build's emulator when there is one.
inline std::string zelTcCommand() {
    const std::string emulator = zel::vault::programEmulator();
    return (emulator.empty() ? "" : emulator + " ") + ZEL_TC_PATH;
}

// A command through the shell: its exit code and what it printed on stdout and stderr.
inline std::pair<int, std::string> shell(const std::string& command) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::string out;
    char buffer[4096];
    for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, got);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

struct CliRun {
    int exitCode;
    Lines out;
    std::string err;
};

// environment: "NAME=value ..." for zel-tc alone.
inline CliRun zelTc(const std::string& arguments, const std::string& environment = "") {
    // Tests run in parallel processes: each call gets a file of its own.
    std::string errFile = testing::TempDir() + "zel_tc_stderr_XXXXXX";
    close(mkstemp(errFile.data()));
    const auto [status, out] = shell("{ " + environment + " " + zelTcCommand() + " " + arguments +
                                     " 2>" + errFile + "; }");
    const std::string err = readFile(errFile);
    unlink(errFile.c_str());
    std::istringstream text(out);
    Lines lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return {status, lines, err};
}
