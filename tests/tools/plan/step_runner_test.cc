#include "plan/step_runner.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

// A step's stdout reaches zel-tc's in whole lines even when it arrives in pieces that end inside
// one (a burst larger than a read), and a last line without its end is ended. zel-tc's stdout is
// a packet socket here, so each write it makes is seen apart.
TEST(StepRunnerTest, AStepsOutputIsPassedOnInWholeLines) {
    std::string burst;
    for (int i = 0; i < 60; ++i) burst += std::string(99, static_cast<char>('a' + i % 26)) + "\n";
    const std::string tail = "a last line the step never ended";

    int console[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, console), 0);
    std::vector<std::string> writes;
    std::thread reader([&] {
        char packet[65536];
        for (ssize_t got; (got = recv(console[0], packet, sizeof packet, 0)) > 0;)
            writes.emplace_back(packet, static_cast<size_t>(got));
    });
    std::fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(console[1], STDOUT_FILENO);
    const zel::tc::StepOutcome outcome = zel::tc::runIsolated(
        [&] {
            const std::string all = burst + tail;
            return write(STDOUT_FILENO, all.data(), all.size()) == static_cast<ssize_t>(all.size())
                       ? 0
                       : 1;
        },
        10, zel::tc::Echo::kOn);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(console[1]);
    reader.join();
    close(console[0]);

    EXPECT_EQ(outcome.end, zel::tc::StepOutcome::End::kReturned);
    EXPECT_EQ(outcome.result, 0);
    ASSERT_EQ(outcome.lines.size(), 61u);
    EXPECT_EQ(outcome.lines.back(), tail);
    std::string shown;
    for (const std::string& write : writes) {
        shown += write;
        EXPECT_EQ(write.back(), '\n') << write;
    }
    EXPECT_EQ(shown, burst + tail + "\n");
}

}  // namespace
