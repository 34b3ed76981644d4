// zel-tc as a CI system, a device lab and a person at a terminal meet it: interrupted runs that
// still report and leave nothing running, reports read by a real JUnit consumer and checked
// against a JUnit schema, the results stream and the LAVA definition's script that reads it, bad
// input refused before anything runs.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "control_ids.h"
#include "interface/zel_ta_ids.h"
#include "process_probe.h"
#include "vault_fixture.h"
#include "zel_tc_run.h"

extern char** environ;

namespace {

using nlohmann::json;
using zel::test::eventually;

std::vector<std::string> entries(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// Processes whose command line mentions text: the daemons a zel-tc started in a folder.
std::vector<pid_t> processesMentioning(const std::string& text) {
    std::vector<pid_t> found;
    for (const std::string& name : entries("/proc")) {
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string commandLine = readFile("/proc/" + name + "/cmdline");
        for (char& c : commandLine)
            if (c == '\0') c = ' ';
        const pid_t pid = std::stoi(name);
        if (pid != getpid() && commandLine.find(text) != std::string::npos &&
            commandLine.find("zel-vaultd") != std::string::npos)
            found.push_back(pid);
    }
    return found;
}

// A folder of its own per test, as $TMPDIR of the zel-tc it runs, so that what a private daemon
// leaves behind is seen.
class ZelTcCiTest : public VaultFixture {
  protected:
    void SetUp() override {
        VaultFixture::SetUp();
        directory = testing::TempDir() + "zel_tc_ci_XXXXXX";
        ASSERT_NE(mkdtemp(directory.data()), nullptr);
        tmp = directory + "/tmp";
        reports = directory + "/reports";
        ASSERT_EQ(mkdir(tmp.c_str(), 0700), 0);
        ASSERT_EQ(mkdir(reports.c_str(), 0700), 0);
    }
    void TearDown() override {
        std::system(("rm -rf " + directory).c_str());
        VaultFixture::TearDown();
    }

    // A shell command in a process group of its own; its stdout and stderr on console if given.
    pid_t spawn(const std::string& command, int console = -1) {
        const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
        posix_spawnattr_t group;  // the group's id is the child's own
        posix_spawnattr_init(&group);
        posix_spawnattr_setflags(&group, POSIX_SPAWN_SETPGROUP);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int stream : {STDOUT_FILENO, STDERR_FILENO})
            if (console >= 0) posix_spawn_file_actions_adddup2(&actions, console, stream);
        pid_t pid = -1;
        EXPECT_EQ(posix_spawn(&pid, "/bin/sh", &actions, &group, const_cast<char**>(argv), environ),
                  0);
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&group);
        return pid;
    }
    // zel-tc, its output in files. environment: "NAME=value ..." for zel-tc alone.
    pid_t start(const std::string& arguments, const std::string& environment = "") {
        return spawn("exec env TMPDIR=" + tmp + " " + environment + " " + zelTcCommand() + " " +
                     arguments + " >" + directory + "/out 2>" + directory + "/err");
    }
    int finish(pid_t pid) {
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    size_t resultLines() {
        const std::string text = readFile(results());
        return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
    }
    int run(const std::string& arguments, const std::string& environment = "") {
        return finish(start(arguments, environment));
    }
    std::string results() const { return reports + "/results.jsonl"; }
    std::string err() const { return readFile(directory + "/err"); }
    std::string out() const { return readFile(directory + "/out"); }

    std::string directory, tmp, reports;
};

TEST_F(ZelTcCiTest, InterruptedRunsReportWhatFinishedAndLeaveNothingRunning) {
    const std::string reported = " --junit " + reports + "/r.xml --json " + reports + "/r.json";
    // A stalled step at a daemon of the test's: SIGINT stops it and the run reports.
    ASSERT_EQ(control.stallInvocations(zel_test, 0, 1, 4000), TEEC_SUCCESS);
    pid_t zelTc = start("run test_process_inspection test_lifetime process --socket " +
                        daemon->socketPath() + reported + " --results " + results());
    ASSERT_TRUE(eventually([&] { return resultLines() >= 2; }, 20000));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(zelTc, SIGINT);
    EXPECT_EQ(finish(zelTc), 130) << err();
    EXPECT_TRUE(contains(err(), "INTERRUPTED 505 test_lifetime result interrupted by SIGINT"));
    const json report = json::parse(readFile(reports + "/r.json"));
    ASSERT_EQ(report["steps"].size(), 2u) << report;
    EXPECT_EQ(report["steps"][0]["verdict"], "PASS");
    EXPECT_EQ(report["steps"][1]["verdict"], "INTERRUPTED");
    EXPECT_EQ(report["steps"][1]["reason"], "interrupted by SIGINT");
    EXPECT_TRUE(report["steps"][1]["result"].is_null());
    EXPECT_FALSE(report["steps"][0].contains("reason"));
    EXPECT_EQ(report["run"]["interrupted"], "SIGINT");
    EXPECT_TRUE(contains(readFile(reports + "/r.xml"), "<error message=\"interrupted by SIGINT\""));
    EXPECT_EQ(entries(reports).size(), 3u);  // no temporary report file left

    // A long run on a private daemon, ended by SIGHUP (bench takes SIGTERM below): daemon and
    // folder go with it.
    unlink(results().c_str());
    zelTc = start("run --all --repeat 100 --results " + results());
    ASSERT_TRUE(eventually([&] { return resultLines() >= 3; }, 20000));
    ASSERT_EQ(processesMentioning(tmp).size(), 1u);
    kill(zelTc, SIGHUP);
    EXPECT_EQ(finish(zelTc), 128 + SIGHUP) << err();
    EXPECT_EQ(processesMentioning(tmp), std::vector<pid_t>{});
    EXPECT_EQ(entries(tmp), std::vector<std::string>{});

    // SIGKILL to the whole group: nothing can clean up, so the daemon dies with its parent and
    // the next run removes the folder left behind.
    unlink(results().c_str());
    zelTc = start("run --all --repeat 100 --results " + results());
    ASSERT_TRUE(eventually([&] { return resultLines() >= 3; }, 20000));
    kill(-zelTc, SIGKILL);
    finish(zelTc);
    EXPECT_TRUE(eventually([&] { return processesMentioning(tmp).empty(); }));
    EXPECT_EQ(entries(tmp).size(), 1u);
    // The folder's lock must be older than a folder still being made.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    EXPECT_EQ(run("run test_lifetime"), 0) << err();
    EXPECT_EQ(entries(tmp), std::vector<std::string>{});

    // SIGKILL to zel-tc alone: its daemon notices and ends itself.
    zelTc = start("run --all --repeat 100");
    ASSERT_TRUE(eventually([&] { return processesMentioning(tmp).size() == 1; }, 20000));
    kill(zelTc, SIGKILL);
    finish(zelTc);
    EXPECT_TRUE(eventually([&] { return processesMentioning(tmp).empty(); }));
}

// fuzz and bench, stopped by a signal, still say and write what they have, exit 128 + the signal
// and leave no daemon, folder or half-written report behind.
TEST_F(ZelTcCiTest, FuzzAndBenchStopOnASignalAndKeepWhatTheyHave) {
    // Starts zel-tc, signals it once its private daemon is up, and checks what must always hold:
    // the exit status, the line naming the signal, and nothing left running or in $TMPDIR.
    const auto interrupt = [&](const std::string& arguments, int signal, const std::string& says) {
        const pid_t zelTc = start(arguments);
        ASSERT_TRUE(eventually([&] { return processesMentioning(tmp).size() == 1; }, 20000));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        kill(zelTc, signal);
        EXPECT_EQ(finish(zelTc), 128 + signal) << err();
        EXPECT_TRUE(contains(err(), says));
        EXPECT_TRUE(eventually([&] { return processesMentioning(tmp).empty(); }));
        EXPECT_EQ(entries(tmp), std::vector<std::string>{});
    };

    interrupt(
        "fuzz --seconds 120 --quiet --out " + reports + "/findings --json " + reports + "/f.json",
        SIGINT, "(stopped: interrupted by SIGINT)");
    const json fuzzed = json::parse(readFile(reports + "/f.json"), nullptr, false);
    EXPECT_EQ(fuzzed["stopped"], "interrupted by SIGINT") << fuzzed;
    EXPECT_EQ(entries(reports), std::vector<std::string>{"f.json"});

    interrupt("bench --command 0x2D --seconds 120 --json " + reports + "/b.json", SIGTERM,
              "command 0x2D: interrupted by SIGTERM");
    const json benched = json::parse(readFile(reports + "/b.json"), nullptr, false);
    EXPECT_EQ(benched["steps"], json::array()) << benched;
    EXPECT_EQ(entries(reports), (std::vector<std::string>{"b.json", "f.json"}));

    // Refused before anything runs: no report file appears, empty or not.
    EXPECT_EQ(run("fuzz --runs 1 --json " + reports + "/g.json --socket " + directory + "/none"),
              2);
    EXPECT_EQ(
        run("bench --command 0 --json " + reports + "/c.json --socket " + directory + "/none"), 2);
    EXPECT_EQ(entries(reports), (std::vector<std::string>{"b.json", "f.json"}));
}

TEST_F(ZelTcCiTest, BadInputExitsTwoAndWritesNothing) {
    const std::string reported =
        " --junit " + reports + "/r.xml --json " + reports + "/r.json" + " --results " + results();
    const struct {
        const char* arguments;
        const char* says;
    } kCases[] = {
        {"run zel_put --data-type 2", "--data-type 2: zel_put takes 0,1"},
        {"run zel_get --data-type 3", "--data-type 3: zel_get takes 0 to 2"},
        {"run zel_get --data-type -1", "zel_get takes 0 to 2"},
        {"run zel_get --index -1", "--index -1: slots and keys are 0 to 31"},
        {"run zel_get --index 32", "slots and keys are 0 to 31"},
        {"run process --data-type 1", "--data-type: none of the selected steps takes test data"},
        {"run zel_akProvision --index 3", "--index: none of the selected steps"},
        {"run bist 18", "bist takes a number from 3 to 17, not 18"},
        {"run zel_get --index 0x", "cannot read --index 0x"},
        {"run process --repeat 0", "cannot read --repeat 0"},
        {"run zel_get --uuid not-a-uuid", "cannot read --uuid not-a-uuid"},
        {"run process --socket /nonexistent/socket", "no TEE answers at /nonexistent/socket"},
        {"run nosuch", "no step is named 'nosuch'"},
        {"run 'x*'", "no step matches 'x*'"},
        {"run", "--all for the whole plan"},
        {"run --all process", "give step names, --all or --last-failed, one of them"},
        {"frobnicate", ""},
    };
    for (const auto& bad : kCases) {
        EXPECT_EQ(run(std::string(bad.arguments) + reported), 2) << bad.arguments;
        EXPECT_TRUE(contains(err(), bad.says)) << bad.arguments;
        EXPECT_EQ(entries(reports), std::vector<std::string>{}) << bad.arguments;
        EXPECT_EQ(out(), "") << bad.arguments;
    }
    EXPECT_EQ(run("helper zelResultToStr 1"), 2);
    EXPECT_TRUE(contains(err(), "2 required but received 1"));
    EXPECT_EQ(run("helper GetSHA256Hash 0g"), 2);
    EXPECT_TRUE(contains(err(), "helper GetSHA256Hash takes HEX"));
    EXPECT_EQ(run("replay " + directory + "/none.repro"), 2);
    EXPECT_TRUE(contains(err(), "cannot read " + directory + "/none.repro"));
    // A report that cannot be replaced is refused too, and what was there is kept.
    EXPECT_EQ(run("run process --results " + directory + "/no/such/r.jsonl"), 2);
    EXPECT_TRUE(contains(err(), "cannot write a report to " + directory + "/no/such/r.jsonl"));
    std::ofstream(reports + "/kept.json") << "kept\n";
    ASSERT_EQ(mkdir((reports + "/dir.xml").c_str(), 0700), 0);
    EXPECT_EQ(run("run process --junit " + reports + "/dir.xml --json " + reports + "/kept.json"),
              2);
    EXPECT_EQ(readFile(reports + "/kept.json"), "kept\n");
}

// The whole plan with one injected failure: the verdicts, the stream, and reports that match the
// JUnit schema and that junitparser reads.
TEST_F(ZelTcCiTest, ReportsAreReadByJunitparserAndMatchTheSchema) {
    // Bytes no report may carry as they are, in what a step prints on stderr.
    ASSERT_EQ(
        control.setSecureProcessor(zel::vault::kAnswerSystemVersion, {'v', 0xFF, 0x01, '<', '&'}),
        TEEC_SUCCESS);
    ASSERT_EQ(control.failInvocations(zel_test, 0x23, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    ASSERT_EQ(run("run --all --socket " + daemon->socketPath() + " --junit " + reports +
                  "/r.xml --json " + reports + "/r.json --results " + results()),
              1)
        << err();
    EXPECT_TRUE(contains(err(),
                         "PASS 2 zel_get result 0xFFFF0000 TEEC_ERROR_GENERIC (expected: the "
                         "slot was deleted)"));
    const auto [valid, said] =
        shell("xmllint --noout --schema " ZEL_JUNIT_XSD " " + reports + "/r.xml");
    EXPECT_EQ(valid, 0) << said;

    // The stream a device lab reads: the run, then every step. That each step is there once
    // under a name LAVA takes is scripts/lava-proof.sh's check.
    std::istringstream stream(readFile(results()));
    std::vector<json> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(json::parse(line));
    ASSERT_EQ(lines.size(), 62u);
    EXPECT_TRUE(std::regex_match(lines[0]["zel_tc_version"].get<std::string>(),
                                 std::regex(R"(\d+\.\d+\.\d+)")))
        << lines[0];
    char host[HOST_NAME_MAX + 1] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(lines[0]["hostname"], host);
    EXPECT_TRUE(std::regex_match(lines[0]["started_utc"].get<std::string>(),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")))
        << lines[0];
    const json report = json::parse(readFile(reports + "/r.json"));
    EXPECT_EQ(report["passed"], 60);
    EXPECT_EQ(report["failed"], 1);
    const auto step = [&report](const std::string& name) {
        for (const json& each : report["steps"])
            if (each["case"] == name) return each;
        return json();
    };
    // The expected failure passes, and says what it returned.
    const json deleted = step("zel_get.data1.index3.expect0xFFFF0000");
    EXPECT_EQ(deleted["result"], "0xFFFF0000");
    EXPECT_EQ(deleted["result_name"], "TEEC_ERROR_GENERIC");
    EXPECT_EQ(deleted["expected"], "0xFFFF0000");
    EXPECT_TRUE(contains(step("ze_getFWInfo")["stderr"].dump(), "zel-tc: firmware words 1 0 2"));

    const auto [read, text] = shell(ZEL_JUNIT_READER " " + reports + "/r.xml");
    if (text.find("No module named 'junitparser'") != std::string::npos)
        GTEST_SKIP() << "NOT TESTED: python3-junitparser is not installed "
                        "(bash scripts/install-deps.sh)";
    ASSERT_EQ(read, 0) << text;
    const json junit = json::parse(text);
    EXPECT_EQ(junit["failures"], 1);
    EXPECT_EQ(junit["errors"], 0);
    EXPECT_EQ(junit["hostname"], host);
    EXPECT_FALSE(junit["properties"]["zel-tc.version"].get<std::string>().empty());
    EXPECT_EQ(junit["properties"]["tee"], daemon->socketPath());
    std::map<std::string, json> cases;
    for (const json& testcase : junit["cases"]) cases[testcase["name"]] = testcase;
    EXPECT_EQ(cases.size(), 61u);
    for (const auto& [name, testcase] : cases)
        EXPECT_EQ(testcase["result"], name == "zel_aesEncrypt.data2.index2" ? "failure" : "passed")
            << testcase;
    // The step's stderr, made valid UTF-8 and XML: the bad bytes replaced, the rest kept.
    EXPECT_TRUE(contains(cases["ze_updateFW"]["err"].get<std::string>(),
                         "zel-tc: system version v\xEF\xBF\xBD\xEF\xBF\xBD<&"));
    EXPECT_TRUE(contains(cases["process"]["out"].get<std::string>(), "PROCESS TEST CA RESULT : 0"));
}

// The conventions of test runners: leaving steps out, quiet, colour, what failed last time, the
// steps a step needs, a dry run, the list for scripts, the version.
TEST_F(ZelTcCiTest, TestRunnerConventions) {
    const std::string socket = " --socket " + daemon->socketPath();
    const std::string state = "XDG_STATE_HOME=" + directory + "/state";

    // A dry run names what would run, in order, with the steps' inputs, and starts nothing.
    EXPECT_EQ(run("run process heavyload bist 7 --exclude heavyload --exclude 'bist*' --dry-run"),
              0);
    EXPECT_EQ(out(), "1\t503\tprocess\t{}\n");
    // Each --exclude takes one pattern: the steps after it are still the steps to run.
    EXPECT_EQ(run("run --exclude nosuch process"), 2);
    EXPECT_TRUE(contains(err(), "--exclude 'nosuch' matches none"));
    // Each step after what it needs, in the plan's order, each once.
    EXPECT_EQ(run("run zel_getHubID zel_get --with-setup --dry-run"), 0);
    EXPECT_EQ(
        out(),
        "1\t7\tzel_storeKey.data1.index3\t{\"data_type\":1,\"index\":3,\"uuid\":\"zel_test\"}\n"
        "2\t11\tzel_decryptHubToken.data1.index3\t{\"data_type\":1,\"index\":3,\"uuid\":"
        "\"zel_test\"}\n"
        "3\t15\tzel_getHubID.data1.index1\t{\"data_type\":1,\"index\":1,\"uuid\":\"zel_test\"}\n"
        "4\t0\tzel_put.data1.index3\t{\"data_type\":1,\"index\":3,\"uuid\":\"zel_test\"}\n"
        "5\t2\tzel_get.data1.index3\t{\"data_type\":1,\"index\":3,\"uuid\":\"zel_test\"}\n");
    // A step named as the verdicts name it, in one argument, is the same step; a leading zero is
    // decimal in a step's number, its argument and an option; each input is named on the steps
    // that read it.
    EXPECT_EQ(run("run 'bist 010' 010 ze_updateFW --index 010 --uuid zel_test_a --param 3 "
                  "--repeat 2 --dry-run"),
              0)
        << err();
    EXPECT_EQ(out(),
              "1\t504\tbist.10\t{\"argument\":10}\n"
              "2\t10\tzel_decryptByKey.data1.index10.zel_test_a\t{\"data_type\":1,\"index\":10,"
              "\"uuid\":\"zel_test_a\"}\n"
              "3\t18\tze_updateFW.param3\t{\"param\":3}\n"
              "1\t504\tbist.10.round2\t{\"argument\":10}\n"
              "2\t10\tzel_decryptByKey.data1.index10.zel_test_a.round2\t{\"data_type\":1,"
              "\"index\":10,\"uuid\":\"zel_test_a\"}\n"
              "3\t18\tze_updateFW.param3.round2\t{\"param\":3}\n");

    // --last-failed: the steps that did not pass last time, with their inputs, and nothing else.
    ASSERT_EQ(control.failInvocations(zel_test, 0x0c, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    EXPECT_EQ(run("run zel_put zel_getHash test_lifetime --index 9" + socket, state), 1);
    EXPECT_EQ(run("run --last-failed --dry-run", state), 0);
    EXPECT_EQ(
        out(),
        "1\t12\tzel_getHash.data1.index9\t{\"data_type\":1,\"index\":9,\"uuid\":\"zel_test\"}\n");
    EXPECT_EQ(run("run --last-failed" + socket, state), 0) << err();
    EXPECT_EQ(run("run --last-failed" + socket, state), 0);
    EXPECT_TRUE(contains(err(), "nothing to run"));
    EXPECT_EQ(run("run --last-failed --index 3" + socket, state), 2);

    // Quiet: the library's lines kept for the report, not shown. A failure mask decoded; colour
    // on request.
    for (uint32_t command : {0x07, 0x11})
        ASSERT_EQ(control.failInvocations(zel_test, command, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
                  TEEC_SUCCESS);
    EXPECT_EQ(run("run process -q --color always --json " + reports + "/r.json" + socket), 1);
    EXPECT_EQ(out(), "");
    EXPECT_TRUE(contains(err(),
                         "\033[1;31mFAIL\033[0m 503 process result 0x00000104 (failed: 0x07, "
                         "0x11)"));
    EXPECT_EQ(json::parse(readFile(reports + "/r.json"))["steps"][0]["output"].back(),
              "Tessaril PROCESS TEST CA RESULT : 260");
    EXPECT_EQ(run("run process --color never" + socket), 0);
    EXPECT_FALSE(contains(err(), "\033"));
    EXPECT_EQ(run("run process --color sometimes" + socket), 2);
    // The vault's verbs read numbers alike: 013 is thirteen, not octal eleven.
    EXPECT_EQ(run("vault fail --cmd 013 --count 01" + socket), 0) << err();
    EXPECT_EQ(run("run process" + socket), 1);
    EXPECT_TRUE(contains(err(), "FAIL 503 process result 0x00000010 (failed: 0x0D)"));
    EXPECT_EQ(run("vault fail --cmd 1e1" + socket), 2);
    // Seconds and percentages are finite numbers in range, refused plainly otherwise.
    for (const char* arguments :
         {"fuzz --seconds nan", "fuzz --seconds 0", "fuzz --runs 1 --timeout nan",
          "replay x --timeout 0", "bench --command 0 --seconds 1e99",
          "bench --command 0 --threshold nan"}) {
        EXPECT_EQ(run(std::string(arguments) + socket), 2) << arguments;
        EXPECT_TRUE(contains(err(), "must be a number ")) << arguments;
    }

    EXPECT_EQ(run("list --json"), 0);
    const json list = json::parse(out());
    EXPECT_EQ(list.size(), 42u);
    const auto bist = std::find_if(list.begin(), list.end(),
                                   [](const json& step) { return step["name"] == "bist"; });
    ASSERT_NE(bist, list.end());
    EXPECT_EQ((*bist)["arguments"], (json{3, 17}));
    EXPECT_EQ((*bist)["number"], 504);
    EXPECT_EQ(run("--version"), 0);
    EXPECT_EQ(out().rfind("zel-tc ", 0), 0u) << out();
    EXPECT_TRUE(contains(out(), " (host)\n"));
}

// At a terminal: each step is named as it starts, verdicts in colour unless NO_COLOR is set.
TEST_F(ZelTcCiTest, ProgressAndColourAtATerminal) {
    const auto atTerminal = [&](const std::string& environment) {
        return shell("/usr/bin/python3 -c 'import pty, sys; pty.spawn(sys.argv[1:])' env " +
                     environment + " " + zelTcCommand() + " run process bist 4 --socket " +
                     daemon->socketPath() + " </dev/null")
            .second;
    };
    std::string said = atTerminal("");
    const size_t first = said.find("zel-tc: [1/2] process ...");
    const size_t verdict = said.find("zel-tc: \033[32mPASS\033[0m 503 process");
    const size_t second = said.find("zel-tc: [2/2] bist 4 ...");
    EXPECT_LT(first, verdict) << said;  // npos for a line not there
    EXPECT_NE(second, std::string::npos) << said;
    EXPECT_LT(verdict, second) << said;

    said = atTerminal("NO_COLOR=1");
    EXPECT_TRUE(contains(said, "zel-tc: [2/2] bist 4 ..."));
    EXPECT_FALSE(contains(said, "\033"));
}

#ifdef ZEL_LAVA_SCRIPT
// The definition's script on a board without the LAVA helpers: it says what it would report,
// in order, and exits with zel-tc's code. Its console is a packet socket, which keeps every write
// apart: a line of zel-tc's in two writes could have the script's own line land inside it.
TEST_F(ZelTcCiTest, LavaScriptReportsEveryStepWithoutTheHelpers) {
    const std::string socket = " --socket " + daemon->socketPath();
    std::vector<std::string> lines;
    const auto script = [&](const std::string& arguments) {
        const std::string command = std::string("sh ") + ZEL_LAVA_SCRIPT + " -z " + ZEL_TC_PATH +
                                    " -o " + directory + "/lava -e '" + socket + "' " + arguments;
        int console[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, console), 0);
        const pid_t pid = spawn(command, console[1]);
        close(console[1]);
        lines.clear();
        char packet[65536];
        for (ssize_t got; (got = recv(console[0], packet, sizeof packet, 0)) > 0;) {
            std::istringstream write(std::string(packet, static_cast<size_t>(got)));
            EXPECT_EQ(packet[got - 1], '\n') << "a write that ends inside a line: " << write.str();
            for (std::string line; std::getline(write, line);) lines.push_back(line);
        }
        close(console[0]);
        return finish(pid);
    };
    // Each pattern matches a line after the previous one's.
    const auto inOrder = [&lines](const std::vector<std::string>& patterns) {
        auto at = lines.begin();
        for (const std::string& pattern : patterns) {
            at = std::find_if(at, lines.end(), [&](const std::string& line) {
                return std::regex_match(line, std::regex(pattern));
            });
            if (at == lines.end()) return "no line matches " + pattern + " in its place";
            ++at;
        }
        return std::string();
    };
    const auto starting = [&lines](const std::string& prefix) {
        return std::count_if(lines.begin(), lines.end(),
                             [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
    };
    const std::string absent = R"( \(LAVA helpers absent: not reported\))";
    const std::string seconds = R"( --measurement [0-9.e+-]+ --units seconds)";

    // Rounds as sets, pass verdicts and times are what scripts/lava-proof.sh checks through LAVA.
    // Here, without the helpers: a failed step says its result; a hung one is killed, an error in
    // the JUnit report and a fail whose reason is in the log, and the run goes on.
    ASSERT_EQ(control.stallInvocations(zel_test, 0, 1, 5000), TEEC_SUCCESS);
    ASSERT_EQ(control.failInvocations(zel_test, 0x2D, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    EXPECT_EQ(script("-s 'zel_getSlotInfo test_lifetime test_process_inspection' -t 1"), 1);
    EXPECT_EQ(
        inOrder({"zel-tc device identity: \\{.*\"record\":\"run\".*\\}",
                 "zel-tc: zel_getSlotInfo.data1.index3 FAIL: result 0xFFFF0000 "
                 "TEEC_ERROR_GENERIC",
                 "lava-test-case zel_getSlotInfo.data1.index3 --result fail" + seconds + absent,
                 "zel-tc: test_lifetime HUNG: hung, killed after 1 s",
                 "lava-test-case test_lifetime --result fail" + seconds + absent,
                 "lava-test-case test_process_inspection --result pass" + seconds + absent,
                 "===== BEGIN zel-tc JUnit report .*",
                 "<testsuites name=\"zel-tc\" tests=\"3\" failures=\"1\" errors=\"1\" .*",
                 " *<error message=\"hung, killed after 1 s\" type=\"HUNG\" />",
                 "===== END zel-tc JUnit report =====", "===== BEGIN zel-tc JSON report .*",
                 "===== END zel-tc JSON report =====", "zel-tc exit code: 1"}),
        "");
    EXPECT_EQ(starting("lava-test-case "), 3);
    EXPECT_EQ(starting("lava-test-set"), 0);
    EXPECT_EQ(script("-s process"), 0);
}
#endif

}  // namespace
