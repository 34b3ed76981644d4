// What one TA command costs through the host TEE, against the floor of its transport measured in
// the same run: a whole command (context, session, 8 KiB block, one invocation, release) and one
// invocation over an open session; commands per second with 1 to 32 client processes; the
// daemon's memory and descriptors across 10^5 commands. Prints a table and one JSON line.
#include <CLI/CLI.hpp>

#include <dirent.h>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon_launcher.h"
#include "interface/zel_ta_ids.h"
#include "reference_transport.h"
#include "transport/zel_tee_client.h"

namespace {

using zel::bench::ReferenceClient;

// The library logs a line per connection; keep stdout for the benchmark's own report.
class QuietStdout {
  public:
    QuietStdout() : saved_(std::cout.rdbuf(nullptr)) {}
    ~QuietStdout() { std::cout.rdbuf(saved_); }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

  private:
    std::streambuf* saved_;
};

double nowSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

struct Comparison {
    double floorUs = 0, projectUs = 0;
    double lowRatio = 0, highRatio = 0;  // the spread of the rounds' own ratios: the noise
    bool failed = false;
    double ratio() const { return floorUs > 0 ? projectUs / floorUs : 0; }
};

// Floor and project alternate command by command, so that both see the same noise from the
// machine; each round's own ratio shows how large that noise is.
template <typename Floor, typename Project>
Comparison compare(Floor&& floor, Project&& project, int rounds, int perRound) {
    Comparison result;
    std::vector<double> floorAll, projectAll;
    result.lowRatio = 1e9;
    for (int round = 0; round < rounds; ++round) {
        std::vector<double> floorRound, projectRound;
        for (int i = 0; i < 2 * perRound; ++i) {
            const bool floorTurn = i % 2 == 0;
            const double start = nowSeconds();
            const bool ok = floorTurn ? floor() : project();
            (floorTurn ? floorRound : projectRound).push_back((nowSeconds() - start) * 1e6);
            result.failed |= !ok;
        }
        const double ratio = median(projectRound) / median(floorRound);
        result.lowRatio = std::min(result.lowRatio, ratio);
        result.highRatio = std::max(result.highRatio, ratio);
        floorAll.insert(floorAll.end(), floorRound.begin(), floorRound.end());
        projectAll.insert(projectAll.end(), projectRound.begin(), projectRound.end());
    }
    result.floorUs = median(floorAll);
    result.projectUs = median(projectAll);
    return result;
}

bool projectWholeCommand() {
    ZELTEEClient client;
    return client.Open(zel_test) && client.InvokeCommand(0) == TEEC_SUCCESS;
}

struct ClientRun {
    uint64_t commands = 0;
    uint64_t failures = 0;
    double seconds = 0;
    double clientCpuSeconds = 0;  // user and system time of the client processes
};

double cpuSeconds(const timeval& user, const timeval& system) {
    return static_cast<double>(user.tv_sec + system.tv_sec) +
           static_cast<double>(user.tv_usec + system.tv_usec) * 1e-6;
}

// User and system time of a process so far, from /proc.
double processCpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(text.substr(close + 2));
    std::string skip;
    for (int i = 0; i < 11; ++i) fields >> skip;  // state .. cmajflt
    double user = 0, system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// clients processes run whole commands, all starting together, each for `seconds` or until it
// has made `each` commands (0: no count).
template <typename Command>
ClientRun runClients(int clients, double seconds, uint64_t each, Command&& command) {
    if (seconds <= 0 && each == 0) return {};  // nothing asked for; never an endless run
    int start[2], results[2];
    if (pipe(start) != 0 || pipe(results) != 0) return {};
    std::vector<pid_t> children;
    for (int i = 0; i < clients; ++i) {
        const pid_t child = fork();
        if (child < 0) break;
        if (child == 0) {
            close(start[1]);
            close(results[0]);
            char go;
            if (read(start[0], &go, 1) < 0) _exit(1);
            // The library's lines of the command, kept to say why the first failure failed.
            std::ostringstream log;
            std::streambuf* const saved = std::cout.rdbuf(log.rdbuf());
            const double deadline = nowSeconds() + seconds;
            uint64_t counts[2] = {0, 0};
            while ((each == 0 || counts[0] + counts[1] < each) &&
                   (seconds <= 0 || nowSeconds() < deadline)) {
                log.str({});
                const bool passed = command();
                if (!passed && counts[1] == 0)
                    std::cerr << "transport_bench: a client's command failed:\n" << log.str();
                ++counts[passed ? 0 : 1];
            }
            std::cout.rdbuf(saved);
            _exit(write(results[1], counts, sizeof counts) == sizeof counts ? 0 : 1);
        }
        children.push_back(child);
    }
    close(start[0]);
    close(results[1]);
    const double began = nowSeconds();
    close(start[1]);  // every child reads end-of-file at once: go
    ClientRun run;
    for (pid_t child : children) {
        int status = 0;
        rusage usage{};
        wait4(child, &status, 0, &usage);
        run.clientCpuSeconds += cpuSeconds(usage.ru_utime, usage.ru_stime);
    }
    run.seconds = nowSeconds() - began;
    uint64_t counts[2];
    while (read(results[0], counts, sizeof counts) == sizeof counts) {
        run.commands += counts[0];
        run.failures += counts[1];
    }
    close(results[0]);
    if (static_cast<int>(children.size()) != clients) ++run.failures;
    return run;
}

long residentKib(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    long value = -1;
    while (status >> key) {
        if (key == "VmRSS:") {
            status >> value;
            break;
        }
        status.ignore(4096, '\n');
    }
    return value;
}

int openDescriptors(pid_t pid) {
    DIR* directory = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (!directory) return -1;
    int count = 0;
    while (const dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.') ++count;
    closedir(directory);
    return count;
}

// Every thread of a process (0: this one) on the CPUs of set; threads it starts later inherit them
// from their creator.
bool pin(pid_t pid, const cpu_set_t& set) {
    const std::string tasks =
        "/proc/" + (pid ? std::to_string(pid) : std::string("self")) + "/task";
    DIR* directory = opendir(tasks.c_str());
    if (!directory) return false;
    bool all = true;
    while (const dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.')
            all &= sched_setaffinity(std::atoi(entry->d_name), sizeof set, &set) == 0;
    closedir(directory);
    return all;
}

const char* verdict(bool holds) {
    return holds ? "holds" : "MISSED";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"The host TEE's cost per command against its transport's floor"};
    int rounds = 10;
    int wholePerRound = 200;
    int invokesPerRound = 1000;
    double throughputSeconds = 2;
    uint64_t soakCommands = 100000;
    std::string vaultd = ZEL_BENCH_VAULTD;
    app.add_option("--rounds", rounds, "Rounds of floor then project")->capture_default_str();
    app.add_option("--whole", wholePerRound, "Whole commands per side per round")
        ->capture_default_str();
    app.add_option("--invokes", invokesPerRound, "Invocations per side per round")
        ->capture_default_str();
    app.add_option("--seconds", throughputSeconds, "Seconds per throughput point")
        ->capture_default_str();
    app.add_option("--soak", soakCommands, "Commands between the daemon's two RSS/fd readings")
        ->capture_default_str();
    app.add_option("--vaultd", vaultd, "The zel-vaultd to measure")->capture_default_str();
    int pinnedCpu = -1;
    app.add_option("--pin", pinnedCpu,
                   "Time the per-command latencies with client, floor and daemon on this one CPU "
                   "(the throughput points always use every CPU)");
    CLI11_PARSE(app, argc, argv);

    std::string error;
    auto daemon = zel::vault::VaultDaemon::start({vaultd, {}, false, {}}, error);
    // A lone client's floor is one thread in accept; a second server, with a thread for each of
    // the most clients, is the floor of the throughput points. Its idle threads are kept out
    // of the latencies: unpinned, they change where the scheduler puts everyone's wake-ups.
    zel::bench::ReferenceServer reference;
    if (!daemon || !reference.start(1, error)) {
        std::cerr << "transport_bench: " << error << std::endl;
        return 1;
    }
    setenv("ZEL_TEE_SOCKET", daemon->socketPath().c_str(), 1);
    const std::string& floorSocket = reference.socketPath();

    cpu_set_t everyCpu, oneCpu;
    CPU_ZERO(&oneCpu);
    if (sched_getaffinity(0, sizeof everyCpu, &everyCpu) != 0) CPU_ZERO(&everyCpu);
    const pid_t processes[] = {0, reference.pid(), daemon->pid()};
    if (pinnedCpu >= 0) {
        CPU_SET(pinnedCpu, &oneCpu);
        for (pid_t process : processes) {
            if (!pin(process, oneCpu)) {
                std::cerr << "transport_bench: cannot pin to CPU " << pinnedCpu << std::endl;
                return 1;
            }
        }
    }
    Comparison whole, invoke;
    {
        QuietStdout quiet;
        // Warm both sides up (page cache, the daemon's first threads, the store) before timing.
        compare([&] { return zel::bench::referenceWholeCommand(floorSocket); }, projectWholeCommand,
                1, 200);
        whole = compare([&] { return zel::bench::referenceWholeCommand(floorSocket); },
                        projectWholeCommand, rounds, wholePerRound);
        ReferenceClient floorClient;
        ZELTEEClient client;
        const bool opened = floorClient.open(floorSocket) && client.Open(zel_test);
        invoke = compare([&] { return floorClient.invoke(); },
                         [&] { return client.InvokeCommand(0) == TEEC_SUCCESS; }, rounds,
                         invokesPerRound);
        invoke.failed |= !opened;
    }
    if (pinnedCpu >= 0)
        for (pid_t process : processes) pin(process, everyCpu);
    if (pinnedCpu >= 0) std::printf("latencies with every process on CPU %d\n", pinnedCpu);
    std::printf("%-26s %10s %10s %7s  %s\n", "per command (median)", "floor us", "project us",
                "ratio", "round ratios (noise)");
    for (const auto& [name, row] :
         {std::pair{"whole command", &whole}, {"invoke, open session", &invoke}})
        std::printf("%-26s %10.1f %10.1f %7.2f  %.2f-%.2f%s\n", name, row->floorUs, row->projectUs,
                    row->ratio(), row->lowRatio, row->highRatio, row->failed ? "  FAILURES" : "");

    std::fflush(stdout);
    const int counts[] = {1, 2, 4, 8, 32};
    zel::bench::ReferenceServer concurrentReference;
    if (!concurrentReference.start(counts[std::size(counts) - 1], error)) {
        std::cerr << "transport_bench: " << error << std::endl;
        return 1;
    }
    const std::string& concurrentSocket = concurrentReference.socketPath();
    // The floor's own scaling in the same run: what the machine allows concurrent clients.
    std::vector<double> perSecond, floorPerSecond;
    bool throughputFailed = false;
    std::printf("\n%-8s %11s %6s %8s %13s %6s %8s %6s\n", "clients", "floor cmd/s", "x one",
                "CPU us", "project cmd/s", "x one", "CPU us", "CPUs");
    for (int clients : counts) {
        const auto measure = [&](pid_t server, auto&& command, std::vector<double>& rates) {
            const double serverCpu = processCpuSeconds(server);
            const ClientRun run = runClients(clients, throughputSeconds, 0, command);
            const double cpu = run.clientCpuSeconds + processCpuSeconds(server) - serverCpu;
            rates.push_back(static_cast<double>(run.commands) / run.seconds);
            throughputFailed |= run.failures != 0;
            return std::tuple{run.commands ? cpu / static_cast<double>(run.commands) * 1e6 : 0,
                              cpu / run.seconds, run.failures != 0};
        };
        const auto [floorCpu, floorBusy, floorFailed] = measure(
            concurrentReference.pid(),
            [&] { return zel::bench::referenceWholeCommand(concurrentSocket); }, floorPerSecond);
        const auto [cpu, busy, failed] = measure(daemon->pid(), projectWholeCommand, perSecond);
        // CPU per command (clients and server) shows what a command costs once the clients
        // contend for the CPUs; CPUs shows how busy the project kept the machine.
        std::printf("%-8d %11.0f %6.2f %8.1f %13.0f %6.2f %8.1f %6.2f%s\n", clients,
                    floorPerSecond.back(), floorPerSecond.back() / floorPerSecond.front(), floorCpu,
                    perSecond.back(), perSecond.back() / perSecond.front(), cpu, busy,
                    floorFailed || failed ? "  FAILURES" : "");
    }

    const pid_t pid = daemon->pid();
    // Counted once the throughput points' last connections have ended.
    int fdsBefore = openDescriptors(pid);
    for (int i = 0, last = -1; i < 20 && fdsBefore != last; ++i) {
        usleep(50000);
        last = fdsBefore;
        fdsBefore = openDescriptors(pid);
    }
    const long rssBefore = residentKib(pid);
    const ClientRun soak = runClients(2, 0, soakCommands / 2, projectWholeCommand);
    // The last connections end a moment after their clients do; a leak would outlast this.
    int fdsAfter = openDescriptors(pid);
    for (int i = 0; i < 20 && fdsAfter > fdsBefore; ++i) {
        usleep(50000);
        fdsAfter = openDescriptors(pid);
    }
    const long rssAfter = residentKib(pid);
    std::printf(
        "\ndaemon over %llu commands (%.1f s): RSS %ld -> %ld KiB (%+ld), descriptors %d -> %d%s\n",
        static_cast<unsigned long long>(soak.commands), soak.seconds, rssBefore, rssAfter,
        rssAfter - rssBefore, fdsBefore, fdsAfter, soak.failures ? "  FAILURES" : "");

    // Scaling is judged against one client's rate, and against the floor's own scaling at the
    // same count: where the floor itself does not scale, no server can.
    double worstScaling = 1e9, floorWorstScaling = 1e9, worstToFloor = 1e9;
    for (size_t i = 1; i < perSecond.size(); ++i) {
        const double scaling = perSecond[i] / perSecond.front();
        const double floorScaling = floorPerSecond[i] / floorPerSecond.front();
        worstScaling = std::min(worstScaling, scaling);
        floorWorstScaling = std::min(floorWorstScaling, floorScaling);
        worstToFloor = std::min(worstToFloor, scaling / floorScaling);
    }
    std::printf(
        "\ntargets: whole <= 1.3x floor %s; invoke <= 1.1x floor %s; >=2 clients >= 1.7x one %s"
        " (worst x%.2f; the floor's x%.2f); scales as the floor does (x one >= 0.9 of the "
        "floor's) %s (worst %.2f); RSS growth <= 1 MiB %s; descriptors flat %s\n",
        verdict(whole.ratio() <= 1.3), verdict(invoke.ratio() <= 1.1), verdict(worstScaling >= 1.7),
        worstScaling, floorWorstScaling, verdict(worstToFloor >= 0.9), worstToFloor,
        verdict(rssAfter - rssBefore <= 1024), verdict(fdsAfter <= fdsBefore));

    std::printf(
        "{\"bench\":\"transport\",\"pinned_cpu\":%d,\"whole_us\":{\"floor\":%.1f,\"project\":%.1f,"
        "\"ratio\":%.3f,"
        "\"ratio_low\":%.3f,\"ratio_high\":%.3f},\"invoke_us\":{\"floor\":%.1f,\"project\":%.1f,"
        "\"ratio\":%.3f,\"ratio_low\":%.3f,\"ratio_high\":%.3f},\"commands_per_s\":{",
        pinnedCpu, whole.floorUs, whole.projectUs, whole.ratio(), whole.lowRatio, whole.highRatio,
        invoke.floorUs, invoke.projectUs, invoke.ratio(), invoke.lowRatio, invoke.highRatio);
    for (size_t i = 0; i < perSecond.size(); ++i)
        std::printf("%s\"%d\":%.0f", i ? "," : "", counts[i], perSecond[i]);
    std::printf("},\"floor_commands_per_s\":{");
    for (size_t i = 0; i < floorPerSecond.size(); ++i)
        std::printf("%s\"%d\":%.0f", i ? "," : "", counts[i], floorPerSecond[i]);
    std::printf(
        "},\"daemon\":{\"commands\":%llu,\"rss_kib_before\":%ld,\"rss_kib_after\":%ld,"
        "\"fds_before\":%d,\"fds_after\":%d}}\n",
        static_cast<unsigned long long>(soak.commands), rssBefore, rssAfter, fdsBefore, fdsAfter);
    const bool failed = whole.failed || invoke.failed || throughputFailed || soak.failures != 0;
    if (failed) std::cerr << "transport_bench: some commands failed" << std::endl;
    return failed ? 1 : 0;
}
