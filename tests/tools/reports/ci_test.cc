// zel-tc as a CI system, a device lab and a person at a terminal meet it: interrupted runs that
// still report and leave nothing running, reports read by a real JUnit consumer and checked
// against a JUnit schema, the results stream and the LAVA definition's script that reads it, bad
// input refused before anything runs.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>

#include "control_ids.h"
#include "interface/zel_ta_ids.h"
#include "vault_fixture.h"
#include "zel_tc_run.h"

extern char** environ;

namespace {

using nlohmann::json;

std::vector<std::string> entries(const std::string& directory) {
    std::vector<std::string> names;
    if (DIR* listing = opendir(directory.c_str())) {
        while (const dirent* entry = readdir(listing))
            if (std::string(entry->d_name) != "." && std::string(entry->d_name) != "..")
                names.push_back(entry->d_name);
        closedir(listing);
    }
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

bool waitFor(const std::function<bool()>& condition, int milliseconds = 20000) {
    for (int waited = 0; waited < milliseconds; waited += 20) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return condition();
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

    // zel-tc in a process group of its own, its output in files; returns its process id.
    // environment: "NAME=value ..." for zel-tc alone.
    pid_t start(const std::string& arguments, const std::string& environment = "") {
        const std::string command = "exec env TMPDIR=" + tmp + " " + environment + " " +
                                    zelTcCommand() + " " + arguments + " >" + directory +
                                    "/out 2>" + directory + "/err";
        const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&attributes, 0);
        pid_t pid = -1;
        EXPECT_EQ(
            posix_spawn(&pid, "/bin/sh", nullptr, &attributes, const_cast<char**>(argv), environ),
            0);
        posix_spawnattr_destroy(&attributes);
        return pid;
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
    std::vector<json> records() {
        std::istringstream in(readFile(results()));
        std::vector<json> parsed;
        for (std::string line; std::getline(in, line);) parsed.push_back(json::parse(line));
        return parsed;
    }

    std::string directory, tmp, reports;
};

TEST_F(ZelTcCiTest, InterruptedRunsReportWhatFinishedAndLeaveNothingRunning) {
    const std::string reported = " --junit " + reports + "/r.xml --json " + reports + "/r.json";
    // A stalled step at a daemon of the test's: SIGINT stops it and the run reports.
    ASSERT_EQ(control.stallInvocations(zel_test, 0, 1, 4000), TEEC_SUCCESS);
    pid_t zelTc = start("run test_process_inspection test_lifetime process --socket " +
                        daemon->socketPath() + reported + " --results " + results());
    ASSERT_TRUE(waitFor([&] { return resultLines() >= 2; }));  // the run and the first step
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(zelTc, SIGINT);
    EXPECT_EQ(finish(zelTc), 130) << err();
    EXPECT_TRUE(contains(err(), "INTERRUPTED 505 test_lifetime result interrupted by SIGINT"));
    json report = json::parse(readFile(reports + "/r.json"));
    ASSERT_EQ(report["steps"].size(), 2u) << report;
    EXPECT_EQ(report["steps"][0]["case"], "test_process_inspection");
    EXPECT_EQ(report["steps"][0]["verdict"], "PASS");
    EXPECT_EQ(report["steps"][1]["verdict"], "INTERRUPTED");
    EXPECT_EQ(report["run"]["interrupted"], "SIGINT");
    const std::string xml = readFile(reports + "/r.xml");
    EXPECT_TRUE(contains(xml, "name=\"test_process_inspection\""));
    EXPECT_TRUE(contains(xml, "<error message=\"interrupted by SIGINT\""));
    EXPECT_EQ(entries(reports).size(), 3u);  // no temporary report file left

    // A long run on a private daemon, ended by SIGTERM and SIGHUP: daemon and folder go with it.
    for (const int signal : {SIGTERM, SIGHUP}) {
        unlink(results().c_str());
        zelTc = start("run --all --repeat 100" + reported + " --results " + results());
        ASSERT_TRUE(waitFor([&] { return resultLines() >= 3; }));
        ASSERT_EQ(processesMentioning(tmp).size(), 1u);
        kill(zelTc, signal);
        EXPECT_EQ(finish(zelTc), 128 + signal) << err();
        EXPECT_EQ(processesMentioning(tmp), std::vector<pid_t>{});
        EXPECT_EQ(entries(tmp), std::vector<std::string>{});
        report = json::parse(readFile(reports + "/r.json"));
        EXPECT_GE(report["steps"].size(), 2u);
        EXPECT_EQ(report["steps"][0]["case"], "lifecycle");
    }

    // SIGKILL to the whole group: nothing can clean up, so the daemon dies with its parent and
    // the next run removes the folder left behind.
    unlink(results().c_str());
    zelTc = start("run --all --repeat 100 --results " + results());
    ASSERT_TRUE(waitFor([&] { return resultLines() >= 3; }));
    kill(-zelTc, SIGKILL);
    finish(zelTc);
    EXPECT_TRUE(waitFor([&] { return processesMentioning(tmp).empty(); }, 5000));
    EXPECT_EQ(entries(tmp).size(), 1u);
    // The folder's lock must be older than a folder still being made.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    EXPECT_EQ(run("run test_lifetime"), 0) << err();
    EXPECT_EQ(entries(tmp), std::vector<std::string>{});

    // SIGKILL to zel-tc alone: its daemon notices and ends itself.
    zelTc = start("run --all --repeat 100");
    ASSERT_TRUE(waitFor([&] { return processesMentioning(tmp).size() == 1; }));
    kill(zelTc, SIGKILL);
    finish(zelTc);
    EXPECT_TRUE(waitFor([&] { return processesMentioning(tmp).empty(); }, 5000));
}

// fuzz and bench, stopped by a signal, still say and write what they have, exit 128 + the signal
// and leave no daemon, folder or half-written report behind.
TEST_F(ZelTcCiTest, FuzzAndBenchStopOnASignalAndKeepWhatTheyHave) {
    // Starts zel-tc, signals it once its private daemon is up, and checks what must always hold:
    // the exit status, the line naming the signal, and nothing left running or in $TMPDIR.
    const auto interrupt = [&](const std::string& arguments, int signal, const std::string& says) {
        const pid_t zelTc = start(arguments);
        ASSERT_TRUE(waitFor([&] { return processesMentioning(tmp).size() == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        kill(zelTc, signal);
        EXPECT_EQ(finish(zelTc), 128 + signal) << err();
        EXPECT_TRUE(contains(err(), says));
        EXPECT_TRUE(waitFor([&] { return processesMentioning(tmp).empty(); }, 5000));
        EXPECT_EQ(entries(tmp), std::vector<std::string>{});
    };

    interrupt(
        "fuzz --seconds 120 --quiet --out " + reports + "/findings --json " + reports + "/f.json",
        SIGINT, "(stopped: interrupted by SIGINT)");
    const json fuzzed = json::parse(readFile(reports + "/f.json"), nullptr, false);
    EXPECT_EQ(fuzzed["stopped"], "interrupted by SIGINT") << fuzzed;
    EXPECT_EQ(fuzzed["findings"], json::array()) << fuzzed;
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
        {"run zel_put --data-type 7", "--data-type 7: zel_put takes 0,1"},
        {"run zel_storeKey --data-type -1", "--data-type -1: zel_storeKey takes 0,1,2"},
        {"run zel_get --index -5", "--index -5: slots and keys are 0 to 31"},
        {"run zel_get --index 32", "slots and keys are 0 to 31"},
        {"run process --data-type 1", "--data-type: none of the selected steps takes test data"},
        {"run zel_akProvision --index 3", "--index: none of the selected steps"},
        {"run --all --data-type 2", "zel_put takes 0,1"},
        {"run bist 020", "bist takes a number from 3 to 17, not 020"},  // not octal 16
        {"run zel_get --index 010x", "cannot read --index 010x"},
        {"run zel_get --index 0x", "cannot read --index 0x"},
        {"run process --timeout 1e3", "cannot read --timeout 1e3"},
        {"run process --repeat 0", "cannot read --repeat 0"},
        {"run process --socket /nonexistent/socket", "no TEE answers at /nonexistent/socket"},
        {"run nosuch", "no step is named 'nosuch'"},
        {"run bist 18", "bist takes a number from 3 to 17"},
        {"run 'x*'", "no step matches 'x*'"},
        {"run", "--all for the whole plan"},
        {"run 999", ""},
        {"frobnicate", ""},
        {"run --all process", ""},
        {"run process --junit /no/such/dir/r.xml", ""},
        {"run process --timeout x", "cannot read --timeout x"},
        {"helper zelResultToStr 1", ""},
        {"helper GetSHA256Hash 0g", ""},
    };
    for (const auto& bad : kCases) {
        EXPECT_EQ(run(std::string(bad.arguments) + reported), 2) << bad.arguments;
        EXPECT_TRUE(contains(err(), bad.says)) << bad.arguments;
        EXPECT_EQ(entries(reports), std::vector<std::string>{}) << bad.arguments;
        EXPECT_EQ(out(), "") << bad.arguments;
    }
    // Decimal with a leading zero is decimal: slot 10, and step 10.
    EXPECT_EQ(
        run("run zel_put zel_get --index 010 --data-type 0x1 --socket " + daemon->socketPath()), 0)
        << err();
    EXPECT_TRUE(contains(out(), "index: 10\n"));
    EXPECT_EQ(run("run 010 --socket " + daemon->socketPath()), 1);
    EXPECT_TRUE(contains(err(), " 10 zel_decryptByKey "));
    // A report that cannot be replaced is refused too, and what was there is kept.
    std::ofstream(reports + "/kept.json") << "kept\n";
    ASSERT_EQ(mkdir((reports + "/dir.xml").c_str(), 0700), 0);
    EXPECT_EQ(run("run process --junit " + reports + "/dir.xml --json " + reports + "/kept.json"),
              2);
    EXPECT_EQ(readFile(reports + "/kept.json"), "kept\n");
}

TEST_F(ZelTcCiTest, ReportsAreReadByJunitparserAndMatchTheSchema) {
    // Bytes no report may carry as they are, in what a step prints on stderr.
    ASSERT_EQ(
        control.setSecureProcessor(zel::vault::kAnswerSystemVersion, {'v', 0xFF, 0x01, '<', '&'}),
        TEEC_SUCCESS);
    ASSERT_EQ(run("run --all --socket " + daemon->socketPath() + " --junit " + reports +
                  "/r.xml --json " + reports + "/r.json --results " + results()),
              0)
        << err();
    const auto [valid, said] =
        shell("xmllint --noout --schema " ZEL_JUNIT_XSD " " + reports + "/r.xml");
    EXPECT_EQ(valid, 0) << said;

    // The stream a device lab reads: the run, then every step once, under a name LAVA can take.
    const std::vector<json> lines = records();
    ASSERT_EQ(lines.size(), 62u);
    EXPECT_EQ(lines[0]["record"], "run");
    EXPECT_EQ(lines[0]["platform"], "host");
    EXPECT_TRUE(std::regex_match(lines[0]["zel_tc_version"].get<std::string>(),
                                 std::regex(R"(\d+\.\d+\.\d+)")))
        << lines[0];
    char host[HOST_NAME_MAX + 1] = {};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(lines[0]["hostname"], host);
    EXPECT_TRUE(std::regex_match(lines[0]["started_utc"].get<std::string>(),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")))
        << lines[0];
    std::set<std::string> streamed;
    for (size_t i = 1; i < lines.size(); ++i) {
        const json& step = lines[i];
        const std::string name = step["case"];
        EXPECT_TRUE(streamed.insert(name).second) << "two steps named " << name;
        // LAVA splits its signals on spaces and '='.
        EXPECT_TRUE(std::regex_match(name, std::regex("[A-Za-z0-9_.-]+"))) << name;
        EXPECT_EQ(step["record"], "step");
        EXPECT_EQ(step["round"], 1);
        EXPECT_EQ(step["verdict"], "PASS") << step;
        EXPECT_GE(step["seconds"].get<double>(), 0.0);
    }
    for (const char* name :
         {"lifecycle", "bist.3", "bist.17", "zel_storeKey.data1.index3", "zel_get.data1.index3",
          "zel_checkDataExistence.data1.index3.expect0xFFFF0008", "zel_getPublicKeyStatus",
          "zel_getPublicKeyStatus.expect0xFFFF0008", "zel_checkZelAk.expect0xFFFF0008"})
        EXPECT_EQ(streamed.count(name), 1u) << name;
    // The expected failure passes, and says what it returned.
    const json& expectedFailure = *std::find_if(lines.begin(), lines.end(), [](const json& line) {
        return line.value("case", "") == "zel_get.data1.index3.expect0xFFFF0000";
    });
    EXPECT_EQ(expectedFailure["number"], 2);
    EXPECT_EQ(expectedFailure["result_name"], "TEEC_ERROR_GENERIC");
    EXPECT_EQ(lines[1]["result"], "0x00000000");
    EXPECT_EQ(lines[1]["result_name"], "TEEC_SUCCESS");

    const auto [read, text] = shell(ZEL_JUNIT_READER " " + reports + "/r.xml");
    if (text.find("No module named 'junitparser'") != std::string::npos)
        GTEST_SKIP() << "NOT TESTED: python3-junitparser is not installed "
                        "(bash scripts/install-deps.sh)";
    ASSERT_EQ(read, 0) << text;
    const json junit = json::parse(text);
    EXPECT_EQ(junit["suites"], 1);
    EXPECT_EQ(junit["tests"], 61);
    EXPECT_EQ(junit["failures"], 0);
    EXPECT_EQ(junit["errors"], 0);
    EXPECT_FALSE(junit["hostname"].get<std::string>().empty());
    EXPECT_EQ(junit["properties"]["platform"], "host");
    EXPECT_FALSE(junit["properties"]["zel-tc.version"].get<std::string>().empty());
    EXPECT_EQ(junit["properties"]["tee"], daemon->socketPath());
    std::set<std::pair<std::string, std::string>> names;
    for (const json& testcase : junit["cases"]) {
        EXPECT_TRUE(names.emplace(testcase["classname"], testcase["name"]).second)
            << "two cases named " << testcase["classname"] << " " << testcase["name"];
        EXPECT_EQ(testcase["result"], "passed") << testcase;
    }
    EXPECT_EQ(names.size(), 61u);
    for (const char* name : {"zel_get.data1.index3.expect0xFFFF0000", "zel_storeKey.data2.index2",
                             "zel_getPublicKeyStatus.expect0xFFFF0008"})
        EXPECT_EQ(std::count_if(names.begin(), names.end(),
                                [&](const auto& n) { return n.second == name; }),
                  1)
            << name;
    const auto named = [&junit](const std::string& name) {
        for (const json& testcase : junit["cases"])
            if (testcase["name"] == name) return testcase;
        return json();
    };
    EXPECT_TRUE(
        contains(named("ze_getFWInfo")["err"].get<std::string>(), "zel-tc: firmware words 1 0 2"))
        << named("ze_getFWInfo");
    // The step's stderr, made valid UTF-8 and XML: the bad bytes replaced, the rest kept.
    EXPECT_TRUE(contains(named("ze_updateFW")["err"].get<std::string>(),
                         "zel-tc: system version v\xEF\xBF\xBD\xEF\xBF\xBD<&"))
        << named("ze_updateFW");
    EXPECT_TRUE(contains(named("process")["out"].get<std::string>(), "PROCESS TEST CA RESULT : 0"));

    const json report = json::parse(readFile(reports + "/r.json"));
    EXPECT_EQ(report["passed"], 61);
    EXPECT_EQ(report["run"]["platform"], "host");
    ASSERT_EQ(report["steps"].size(), 61u);
    const auto step = [&report](const std::string& name) {
        for (const json& each : report["steps"])
            if (each["case"] == name) return each;
        return json();
    };
    const json stored = step("zel_storeKey.data2.index2");
    EXPECT_EQ(stored["case"], "zel_storeKey.data2.index2");
    EXPECT_EQ(stored["inputs"], (json{{"data_type", 2}, {"index", 2}, {"uuid", "zel_test"}}));
    EXPECT_EQ(stored["result"], "0x00000000");
    EXPECT_EQ(stored["result_name"], "TEEC_SUCCESS");
    const json deleted = step("zel_get.data1.index3.expect0xFFFF0000");
    EXPECT_EQ(deleted["case"], "zel_get.data1.index3.expect0xFFFF0000");
    EXPECT_EQ(deleted["result"], "0xFFFF0000");
    EXPECT_EQ(deleted["expected"], "0xFFFF0000");
    EXPECT_EQ(report["steps"][3]["inputs"], (json{{"argument", 3}}));
}

// The conventions of test runners: leaving steps out, quiet, colour, what failed last time, the
// steps a step needs, a dry run, the list for scripts, the version.
TEST_F(ZelTcCiTest, TestRunnerConventions) {
    const std::string socket = " --socket " + daemon->socketPath();
    const std::string state = "XDG_STATE_HOME=" + directory + "/state";

    EXPECT_EQ(run("run process heavyload bist 7 --exclude heavyload --exclude 'bist*'" + socket),
              0);
    EXPECT_TRUE(contains(err(), "PASS 503 process"));
    EXPECT_TRUE(contains(err(), "1 passed, 0 failed"));
    EXPECT_EQ(run("run process --exclude nosuch" + socket), 2);
    EXPECT_TRUE(contains(err(), "--exclude 'nosuch' matches none"));
    // Each --exclude takes one pattern: the steps after it are still the steps to run.
    EXPECT_EQ(run("run --exclude nosuch process" + socket), 2);
    EXPECT_TRUE(contains(err(), "--exclude 'nosuch' matches none"));

    // A dry run names what would run, in order, with the steps' inputs, and starts nothing.
    EXPECT_EQ(run("run zel_getHubID zel_get --with-setup --dry-run --junit " + reports + "/r.xml"),
              0);
    // Each step after what it needs, in the plan's order, each once.
    EXPECT_EQ(
        out(),
        "1\t7\tzel_storeKey.data1.index3\t{\"data_type\":1,\"index\":3,\"uuid\":\"zel_test\"}\n"
        "2\t11\tzel_decryptHubToken.data1.index3\t{\"data_type\":1,\"index\":3,\"uuid\":"
        "\"zel_test\"}\n"
        "3\t15\tzel_getHubID.data1.index1\t{\"data_type\":1,\"index\":1,\"uuid\":\"zel_test\"}\n"
        "4\t0\tzel_put.data1.index3\t{\"data_type\":1,\"index\":3,\"uuid\":\"zel_test\"}\n"
        "5\t2\tzel_get.data1.index3\t{\"data_type\":1,\"index\":3,\"uuid\":\"zel_test\"}\n");
    EXPECT_EQ(entries(reports), std::vector<std::string>{});
    EXPECT_EQ(entries(tmp), std::vector<std::string>{});
    // A step named as the verdicts name it, in one argument, is the same step.
    EXPECT_EQ(run("run 'bist 7' bist 8 --dry-run"), 0) << err();
    EXPECT_EQ(out(), "1\t504\tbist.7\t{\"argument\":7}\n2\t504\tbist.8\t{\"argument\":8}\n");

    // On a fresh vault the hash of slot 3 fails alone and passes after the put it needs.
    EXPECT_EQ(run("run zel_getHash" + socket), 1);
    EXPECT_EQ(run("run zel_getHash --with-setup" + socket), 0) << err();
    EXPECT_TRUE(contains(err(), "PASS 0 zel_put"));

    // --last-failed: the steps that did not pass last time, with their inputs, and nothing else.
    ASSERT_EQ(control.reset(), TEEC_SUCCESS);
    ASSERT_EQ(control.failInvocations(zel_test, 0x0c, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    EXPECT_EQ(run("run zel_put zel_getHash test_lifetime --index 9" + socket, state), 1);
    EXPECT_EQ(run("run --last-failed --dry-run", state), 0);
    EXPECT_EQ(
        out(),
        "1\t12\tzel_getHash.data1.index9\t{\"data_type\":1,\"index\":9,\"uuid\":\"zel_test\"}\n");
    EXPECT_EQ(run("run --last-failed" + socket, state), 0) << err();
    EXPECT_TRUE(contains(err(), "PASS 12 zel_getHash"));
    EXPECT_FALSE(contains(err(), "zel_put"));
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
         {"fuzz --seconds nan", "fuzz --seconds 0", "fuzz --seconds -1",
          "fuzz --runs 1 --seconds inf", "fuzz --runs 1 --timeout nan", "replay x --timeout 0",
          "bench --command 0 --seconds nan", "bench --command 0 --seconds 1e99",
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
    const std::string command =
        zelTcCommand() + " run process bist 4 --socket " + daemon->socketPath();
    const std::string script =
        "import os, pty, sys\n"
        "pid, fd = pty.fork()\n"
        "if pid == 0: os.execv('/bin/sh', ['sh', '-c', sys.argv[1]])\n"
        "out = b''\n"
        "while True:\n"
        "    try: data = os.read(fd, 4096)\n"
        "    except OSError: break\n"
        "    if not data: break\n"
        "    out += data\n"
        "os.waitpid(pid, 0)\n"
        "sys.stdout.write(out.decode(errors='replace'))\n";
    std::ofstream(directory + "/at_terminal.py") << script;
    auto [status, said] =
        shell("/usr/bin/python3 " + directory + "/at_terminal.py '" + command + "'");
    ASSERT_EQ(status, 0) << said;
    const size_t first = said.find("zel-tc: [1/2] process ...");
    const size_t verdict = said.find("zel-tc: \033[32mPASS\033[0m 503 process");
    const size_t second = said.find("zel-tc: [2/2] bist 4 ...");
    EXPECT_NE(first, std::string::npos) << said;
    EXPECT_LT(first, verdict) << said;
    EXPECT_NE(second, std::string::npos) << said;
    EXPECT_LT(verdict, second) << said;

    std::tie(status, said) =
        shell("/usr/bin/python3 " + directory + "/at_terminal.py 'NO_COLOR=1 " + command + "'");
    EXPECT_TRUE(contains(said, "zel-tc: [2/2] bist 4 ..."));
    EXPECT_FALSE(contains(said, "\033"));
    // Not at a terminal: neither.
    std::tie(status, said) = shell(command);
    EXPECT_FALSE(contains(said, "[1/2]"));
    EXPECT_FALSE(contains(said, "\033"));
}

TEST_F(ZelTcCiTest, ResultsStreamNamesInputsAndRoundsAndRefusesAnUnwritableFile) {
    const std::string socket = " --socket " + daemon->socketPath();
    ASSERT_EQ(run("run zel_get bist 7 ze_updateFW --data-type 2 --index 4 --param 3 "
                  "--uuid zel_test_a --repeat 2" +
                  socket + " --results " + results()),
              1);
    const std::vector<json> lines = records();
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[1]["case"], "zel_get.data2.index4.zel_test_a");
    EXPECT_EQ(lines[1]["verdict"], "FAIL");  // the vault's commands are not that TA's
    EXPECT_EQ(lines[2]["case"], "bist.7");
    EXPECT_EQ(lines[3]["case"], "ze_updateFW.param3");
    EXPECT_EQ(lines[4]["case"], lines[1]["case"]);
    EXPECT_EQ(lines[4]["round"], 2);
    EXPECT_EQ(lines[6]["round"], 2);

    EXPECT_EQ(run("run process" + socket + " --results " + directory + "/no/such/r.jsonl"), 2);
    EXPECT_TRUE(contains(err(), "cannot write a report to " + directory + "/no/such/r.jsonl"));
}

#ifdef ZEL_LAVA_SCRIPT
// The definition's script on a board without the LAVA helpers: it says what it would report,
// in order, and exits with zel-tc's code.
TEST_F(ZelTcCiTest, LavaScriptReportsEveryStepWithoutTheHelpers) {
    const std::string socket = " --socket " + daemon->socketPath();
    const auto script = [&](const std::string& arguments, std::vector<std::string>& lines) {
        const std::string output = directory + "/script.log";
        const std::string command = std::string("sh ") + ZEL_LAVA_SCRIPT + " -z " + ZEL_TC_PATH +
                                    " -o " + directory + "/lava -e '" + socket + "' " + arguments +
                                    " >" + output + " 2>&1";
        const int status = std::system(command.c_str());
        std::ifstream in(output);
        lines.clear();
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    // Each pattern matches a line after the previous one's.
    const auto inOrder = [](const std::vector<std::string>& lines,
                            const std::vector<std::string>& patterns) {
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
    const std::string absent = R"( \(LAVA helpers absent: not reported\))";
    const std::string seconds = R"( --measurement [0-9.e+-]+ --units seconds)";

    std::vector<std::string> lines;
    ASSERT_EQ(control.failInvocations(zel_test, 0x2D, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    EXPECT_EQ(script("-s 'zel_getSlotInfo test_get_info' -r 2", lines), 1);
    EXPECT_EQ(
        inOrder(lines,
                {"zel-tc device identity: \\{.*\"record\":\"run\".*\\}",
                 "lava-test-set start round-1" + absent,
                 "zel-tc: zel_getSlotInfo.data1.index3 FAIL: result 0xFFFF0000 "
                 "TEEC_ERROR_GENERIC",
                 "lava-test-case zel_getSlotInfo.data1.index3 --result fail" + seconds + absent,
                 "lava-test-case test_get_info --result pass" + seconds + absent,
                 "lava-test-set stop" + absent, "lava-test-set start round-2" + absent,
                 "lava-test-case zel_getSlotInfo.data1.index3 --result pass" + seconds + absent,
                 "lava-test-case test_get_info --result pass" + seconds + absent,
                 "lava-test-set stop" + absent, "===== BEGIN zel-tc JUnit report .*",
                 "<testsuites name=\"zel-tc\" tests=\"4\" .*",
                 "===== END zel-tc JUnit report =====", "===== BEGIN zel-tc JSON report .*",
                 "===== END zel-tc JSON report =====", "zel-tc exit code: 1"}),
        "");
    EXPECT_EQ(std::count_if(
                  lines.begin(), lines.end(),
                  [](const std::string& line) { return line.rfind("lava-test-case ", 0) == 0; }),
              4);

    // One run, no sets; a hung step is a fail whose reason is in the log.
    ASSERT_EQ(control.stallInvocations(zel_test, 0, 1, 5000), TEEC_SUCCESS);
    EXPECT_EQ(script("-s 'test_lifetime test_process_inspection' -t 1", lines), 1);
    EXPECT_EQ(
        inOrder(lines, {"zel-tc: test_lifetime HUNG: hung, killed after 1 s",
                        "lava-test-case test_lifetime --result fail" + seconds + absent,
                        "lava-test-case test_process_inspection --result pass" + seconds + absent}),
        "");
    EXPECT_EQ(
        std::find_if(lines.begin(), lines.end(),
                     [](const std::string& line) { return line.rfind("lava-test-set", 0) == 0; }),
        lines.end());
    EXPECT_EQ(script("-s process", lines), 0);
}
#endif

}  // namespace
