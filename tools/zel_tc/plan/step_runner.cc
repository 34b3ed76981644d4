#include "plan/step_runner.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <iterator>

#include "plan/interruption.h"

namespace zel::tc {

namespace {

// A pipe's two ends, closed on every path.
struct Pipe {
    int fds[2] = {-1, -1};
    bool open() { return pipe2(fds, O_CLOEXEC) == 0; }
    void closeEnd(int i) {
        if (fds[i] >= 0) close(fds[i]);
        fds[i] = -1;
    }
    ~Pipe() {
        closeEnd(0);
        closeEnd(1);
    }
};

bool writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

// Splits what arrives into lines, and passes each on whole when it is to be shown: a lab script
// that shares the console must never find its own line inside one of the step's.
struct Stream {
    int fd;
    int echoTo;  // -1: kept only
    std::vector<std::string>& lines;
    std::string pending;
    bool open = true;

    void take(const char* data, size_t size) {
        pending.append(data, size);
        for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
            keep(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
    }
    // A child that ended inside a line still has that line shown, ended.
    void finish() {
        if (!pending.empty()) keep(pending);
        pending.clear();
    }
    void keep(std::string line) {
        lines.push_back(line);
        line += '\n';
        if (echoTo >= 0) writeAll(echoTo, line.data(), line.size());
    }
};

[[noreturn]] void runChild(const std::function<int32_t(std::string&)>& work, Pipe& out, Pipe& err,
                           Pipe& result) {
    interruption::inChild();
    dup2(out.fds[1], STDOUT_FILENO);
    dup2(err.fds[1], STDERR_FILENO);
    std::string payload;
    const int32_t value = work(payload);
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    payload.insert(0, reinterpret_cast<const char*>(&value), sizeof value);
    const bool sent = writeAll(result.fds[1], payload.data(), payload.size());
    // _exit: the parent's objects (its daemon among them) are not the child's to destroy.
    _exit(sent ? 0 : 1);
}

}  // namespace

StepOutcome runIsolated(const std::function<int32_t()>& step, unsigned timeoutSeconds, Echo echo) {
    return runIsolated([&step](std::string&) { return step(); }, timeoutSeconds, echo);
}

StepOutcome runIsolated(const std::function<int32_t(std::string& payload)>& work,
                        unsigned timeoutSeconds, Echo echo) {
    StepOutcome outcome;
    const auto started = std::chrono::steady_clock::now();
    Pipe out, err, result;
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    if (!out.open() || !err.open() || !result.open()) {
        std::perror("zel-tc: pipe");
        outcome.end = StepOutcome::End::kCrashed;
        return outcome;
    }
    const pid_t child = fork();
    if (child < 0) {
        std::perror("zel-tc: fork");
        outcome.end = StepOutcome::End::kCrashed;
        return outcome;
    }
    if (child == 0) runChild(work, out, err, result);
    out.closeEnd(1);
    err.closeEnd(1);
    result.closeEnd(1);

    Stream streams[] = {
        {out.fds[0], echo == Echo::kOn ? STDOUT_FILENO : -1, outcome.lines, {}, true},
        {err.fds[0], echo == Echo::kOff ? -1 : STDERR_FILENO, outcome.errLines, {}, true},
    };
    const auto deadline = started + std::chrono::seconds(timeoutSeconds);
    char buffer[4096];
    while (streams[0].open || streams[1].open) {
        if (interruption::caught()) {
            kill(child, SIGKILL);
            outcome.end = StepOutcome::End::kInterrupted;
            outcome.signal = interruption::caught();
            break;
        }
        int waitMs = -1;
        if (timeoutSeconds > 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                kill(child, SIGKILL);
                outcome.end = StepOutcome::End::kTimedOut;
                break;
            }
            waitMs = static_cast<int>(left.count());
        }
        pollfd fds[] = {{streams[0].open ? streams[0].fd : -1, POLLIN, 0},
                        {streams[1].open ? streams[1].fd : -1, POLLIN, 0},
                        {interruption::wakeFd(), POLLIN, 0}};
        const int ready = poll(fds, std::size(fds), waitMs);
        if (ready <= 0) continue;  // EINTR, the deadline and a signal are checked at the top
        for (size_t i = 0; i < std::size(streams); ++i) {
            if (fds[i].revents == 0) continue;
            const ssize_t got = read(streams[i].fd, buffer, sizeof buffer);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0)
                streams[i].open = false;  // the child closed it: done, or gone
            else
                streams[i].take(buffer, static_cast<size_t>(got));
        }
    }
    for (Stream& stream : streams) stream.finish();

    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    std::string reply;
    for (ssize_t got; (got = read(result.fds[0], buffer, sizeof buffer)) != 0;) {
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) break;
        reply.append(buffer, static_cast<size_t>(got));
    }
    int32_t value = 0;
    const bool returned = reply.size() >= sizeof value;
    if (returned) {
        std::memcpy(&value, reply.data(), sizeof value);
        outcome.payload = reply.substr(sizeof value);
    }
    // A child that a terminal's ^C reached before zel-tc noticed counts as interrupted, not
    // crashed.
    if (outcome.end == StepOutcome::End::kReturned && interruption::caught() &&
        !(returned && WIFEXITED(status))) {
        outcome.end = StepOutcome::End::kInterrupted;
        outcome.signal = interruption::caught();
    }
    if (outcome.end == StepOutcome::End::kReturned) {
        if (returned && WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            outcome.result = value;
        } else {
            outcome.end = StepOutcome::End::kCrashed;
            outcome.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        }
    }
    outcome.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return outcome;
}

}  // namespace zel::tc
