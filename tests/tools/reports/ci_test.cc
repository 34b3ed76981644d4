// zel-tc as a CI system and a person at a terminal meet it: interrupted runs that still report
// and leave nothing running, reports read by a real JUnit consumer and checked against a JUnit
// schema, bad input refused before anything runs, and a vault started from a pipe.
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
#include <cstdio>
#include <fstream>
#include <functional>
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
        std::istringstream lines(readFile(reports + "/results.jsonl"));
        size_t count = 0;
        for (std::string line; std::getline(lines, line);) ++count;
        return count;
    }
    int run(const std::string& arguments, const std::string& environment = "") {
        return finish(start(arguments, environment));
    }

    std::string directory, tmp, reports;
};

TEST_F(ZelTcCiTest, InterruptedRunsReportWhatFinishedAndLeaveNothingRunning) {
    const std::string out = " --junit " + reports + "/r.xml --json " + reports + "/r.json";
    // A stalled step at a daemon of the test's: SIGINT stops it and the run reports.
    ASSERT_EQ(control.stallInvocations(zel_test, 0, 1, 4000), TEEC_SUCCESS);
    pid_t zelTc = start("run test_process_inspection test_lifetime process --socket " +
                        daemon->socketPath() + out + " --results " + reports + "/results.jsonl");
    ASSERT_TRUE(waitFor([&] { return resultLines() >= 2; }));  // the run and the first step
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    kill(zelTc, SIGINT);
    EXPECT_EQ(finish(zelTc), 130) << readFile(directory + "/err");
    EXPECT_NE(readFile(directory + "/err")
                  .find("INTERRUPTED 505 test_lifetime result interrupted "
                        "by SIGINT"),
              std::string::npos)
        << readFile(directory + "/err");
    json report = json::parse(readFile(reports + "/r.json"));
    ASSERT_EQ(report["steps"].size(), 2u) << report;
    EXPECT_EQ(report["steps"][0]["case"], "test_process_inspection");
    EXPECT_EQ(report["steps"][0]["verdict"], "PASS");
    EXPECT_EQ(report["steps"][1]["verdict"], "INTERRUPTED");
    EXPECT_EQ(report["run"]["interrupted"], "SIGINT");
    const std::string xml = readFile(reports + "/r.xml");
    EXPECT_NE(xml.find("name=\"test_process_inspection\""), std::string::npos) << xml;
    EXPECT_NE(xml.find("<error message=\"interrupted by SIGINT\""), std::string::npos) << xml;
    EXPECT_EQ(entries(reports).size(), 3u);  // no temporary report file left

    // A long run on a private daemon, ended by SIGTERM and SIGHUP: daemon and folder go with it.
    for (const int signal : {SIGTERM, SIGHUP}) {
        unlink((reports + "/results.jsonl").c_str());
        zelTc = start("run --all --repeat 100" + out + " --results " + reports + "/results.jsonl");
        ASSERT_TRUE(waitFor([&] { return resultLines() >= 3; }));
        ASSERT_EQ(processesMentioning(tmp).size(), 1u);
        kill(zelTc, signal);
        EXPECT_EQ(finish(zelTc), 128 + signal) << readFile(directory + "/err");
        EXPECT_EQ(processesMentioning(tmp), std::vector<pid_t>{});
        EXPECT_EQ(entries(tmp), std::vector<std::string>{});
        report = json::parse(readFile(reports + "/r.json"));
        EXPECT_GE(report["steps"].size(), 2u);
        EXPECT_EQ(report["steps"][0]["case"], "lifecycle");
    }

    // SIGKILL to the whole group: nothing can clean up, so the daemon dies with its parent and
    // the next run removes the folder left behind.
    unlink((reports + "/results.jsonl").c_str());
    zelTc = start("run --all --repeat 100 --results " + reports + "/results.jsonl");
    ASSERT_TRUE(waitFor([&] { return resultLines() >= 3; }));
    kill(-zelTc, SIGKILL);
    finish(zelTc);
    EXPECT_TRUE(waitFor([&] { return processesMentioning(tmp).empty(); }, 5000));
    EXPECT_EQ(entries(tmp).size(), 1u);
    // The folder's lock must be older than a folder still being made.
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    EXPECT_EQ(run("run test_lifetime"), 0) << readFile(directory + "/err");
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
    const std::string err = directory + "/err";
    // Starts zel-tc, signals it once its private daemon is up, and checks what must always hold:
    // the exit status, the line naming the signal, and nothing left running or in $TMPDIR.
    const auto interrupt = [&](const std::string& arguments, int signal, const std::string& says) {
        const pid_t zelTc = start(arguments);
        ASSERT_TRUE(waitFor([&] { return processesMentioning(tmp).size() == 1; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        kill(zelTc, signal);
        EXPECT_EQ(finish(zelTc), 128 + signal) << readFile(err);
        EXPECT_NE(readFile(err).find(says), std::string::npos) << readFile(err);
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
    const std::string out = " --junit " + reports + "/r.xml --json " + reports + "/r.json" +
                            " --results " + reports + "/results.jsonl";
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
        EXPECT_EQ(run(std::string(bad.arguments) + out), 2) << bad.arguments;
        EXPECT_NE(readFile(directory + "/err").find(bad.says), std::string::npos)
            << bad.arguments << "\n"
            << readFile(directory + "/err");
        EXPECT_EQ(entries(reports), std::vector<std::string>{}) << bad.arguments;
        EXPECT_EQ(readFile(directory + "/out"), "") << bad.arguments;
    }
    // Decimal with a leading zero is decimal: slot 10, and step 10.
    EXPECT_EQ(
        run("run zel_put zel_get --index 010 --data-type 0x1 --socket " + daemon->socketPath()), 0)
        << readFile(directory + "/err");
    EXPECT_NE(readFile(directory + "/out").find("index: 10\n"), std::string::npos);
    EXPECT_EQ(run("run 010 --socket " + daemon->socketPath()), 1);
    EXPECT_NE(readFile(directory + "/err").find(" 10 zel_decryptByKey "), std::string::npos)
        << readFile(directory + "/err");
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
                  "/r.xml --json " + reports + "/r.json"),
              0)
        << readFile(directory + "/err");
    const auto [valid, said] =
        shell("xmllint --noout --schema " ZEL_JUNIT_XSD " " + reports + "/r.xml");
    EXPECT_EQ(valid, 0) << said;

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
    EXPECT_NE(named("ze_getFWInfo")["err"].get<std::string>().find("zel-tc: firmware words 1 0 2"),
              std::string::npos)
        << named("ze_getFWInfo");
    // The step's stderr, made valid UTF-8 and XML: the bad bytes replaced, the rest kept.
    EXPECT_NE(named("ze_updateFW")["err"].get<std::string>().find(
                  "zel-tc: system version v\xEF\xBF\xBD\xEF\xBF\xBD<&"),
              std::string::npos)
        << named("ze_updateFW");
    EXPECT_NE(named("process")["out"].get<std::string>().find("PROCESS TEST CA RESULT : 0"),
              std::string::npos);

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
    const auto err = [this] { return readFile(directory + "/err"); };
    const auto out = [this] { return readFile(directory + "/out"); };

    EXPECT_EQ(run("run process heavyload bist 7 --exclude heavyload --exclude 'bist*'" + socket),
              0);
    EXPECT_NE(err().find("PASS 503 process"), std::string::npos) << err();
    EXPECT_NE(err().find("1 passed, 0 failed"), std::string::npos) << err();
    EXPECT_EQ(run("run process --exclude nosuch" + socket), 2);
    EXPECT_NE(err().find("--exclude 'nosuch' matches none"), std::string::npos) << err();
    // Each --exclude takes one pattern: the steps after it are still the steps to run.
    EXPECT_EQ(run("run --exclude nosuch process" + socket), 2);
    EXPECT_NE(err().find("--exclude 'nosuch' matches none"), std::string::npos) << err();

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
    EXPECT_NE(err().find("PASS 0 zel_put"), std::string::npos) << err();

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
    EXPECT_NE(err().find("PASS 12 zel_getHash"), std::string::npos) << err();
    EXPECT_EQ(err().find("zel_put"), std::string::npos) << err();
    EXPECT_EQ(run("run --last-failed" + socket, state), 0);
    EXPECT_NE(err().find("nothing to run"), std::string::npos) << err();
    EXPECT_EQ(run("run --last-failed --index 3" + socket, state), 2);

    // Quiet: the library's lines kept for the report, not shown. A failure mask decoded; colour
    // on request.
    ASSERT_EQ(control.failInvocations(zel_test, 0x07, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    ASSERT_EQ(control.failInvocations(zel_test, 0x11, 1, TEEC_ERROR_BUSY, TEEC_ORIGIN_TEE),
              TEEC_SUCCESS);
    EXPECT_EQ(run("run process -q --color always --json " + reports + "/r.json" + socket), 1);
    EXPECT_EQ(out(), "");
    EXPECT_NE(err().find("\033[1;31mFAIL\033[0m 503 process result 0x00000104 (failed: 0x07, "
                         "0x11)"),
              std::string::npos)
        << err();
    EXPECT_EQ(json::parse(readFile(reports + "/r.json"))["steps"][0]["output"].back(),
              "Tessaril PROCESS TEST CA RESULT : 260");
    EXPECT_EQ(run("run process --color never" + socket), 0);
    EXPECT_EQ(err().find('\033'), std::string::npos);
    EXPECT_EQ(run("run process --color sometimes" + socket), 2);
    // The vault's verbs read numbers alike: 013 is thirteen, not octal eleven.
    EXPECT_EQ(run("vault fail --cmd 013 --count 01" + socket), 0) << err();
    EXPECT_EQ(run("run process" + socket), 1);
    EXPECT_NE(err().find("FAIL 503 process result 0x00000010 (failed: 0x0D)"), std::string::npos)
        << err();
    EXPECT_EQ(run("vault fail --cmd 1e1" + socket), 2);
    EXPECT_EQ(run("fuzz --runs 010 --seed 3 --quiet --cmd put" + socket), 0) << err();
    EXPECT_NE(err().find("seed 3, 10 executions"), std::string::npos) << err();
    EXPECT_EQ(run("bench --command 0x2D --count 010 --json " + reports + "/b.json" + socket), 0)
        << err();
    EXPECT_EQ(json::parse(readFile(reports + "/b.json"))["steps"][0]["runs"], 10);
    // Seconds and percentages are finite numbers in range, refused plainly otherwise.
    for (const char* arguments :
         {"fuzz --seconds nan", "fuzz --seconds 0", "fuzz --seconds -1",
          "fuzz --runs 1 --seconds inf", "fuzz --runs 1 --timeout nan", "replay x --timeout 0",
          "bench --command 0 --seconds nan", "bench --command 0 --seconds 1e99",
          "bench --command 0 --threshold nan"}) {
        EXPECT_EQ(run(std::string(arguments) + socket), 2) << arguments;
        EXPECT_NE(err().find("must be a number "), std::string::npos) << arguments << ": " << err();
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
    EXPECT_NE(out().find(" (host)\n"), std::string::npos) << out();
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
    EXPECT_NE(said.find("zel-tc: [2/2] bist 4 ..."), std::string::npos) << said;
    EXPECT_EQ(said.find('\033'), std::string::npos) << said;
    // Not at a terminal: neither.
    std::tie(status, said) = shell(command);
    EXPECT_EQ(said.find("[1/2]"), std::string::npos) << said;
    EXPECT_EQ(said.find('\033'), std::string::npos) << said;
}

TEST(ZelTcVaultStartTest, StartReturnsThroughAPipeAndStopSaysSo) {
    std::string directory = testing::TempDir() + "zel_tc_detach_XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const std::string socket = " --socket " + directory + "/socket";
    // Command substitution waits for every writer of the pipe: the daemon must hold none.
    const auto [started, said] = shell("out=$(timeout 20 " + zelTcCommand() + " vault start" +
                                       socket + " 2>&1); echo \"$? $out\"");
    EXPECT_EQ(said.rfind("0 zel-vaultd ", 0), 0u) << said;
    const pid_t pid = std::stoi(readFile(directory + "/socket.pid"));
    // Its standard streams are its own, and nothing else of the caller's is open in it.
    const auto descriptor = [pid](int fd) {
        char target[256] = {};
        const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
        return readlink(link.c_str(), target, sizeof target - 1) > 0 ? std::string(target) : "";
    };
    EXPECT_EQ(descriptor(0), "/dev/null");
    EXPECT_EQ(descriptor(1), "/dev/null");
    EXPECT_EQ(descriptor(2), directory + "/socket.log");
    for (const std::string& fd : entries("/proc/" + std::to_string(pid) + "/fd"))
        EXPECT_EQ(descriptor(std::stoi(fd)).find("pipe:"), std::string::npos) << fd;
    EXPECT_EQ(getsid(pid), pid);
    const auto [stopped, stopSaid] = shell(zelTcCommand() + " vault stop" + socket);
    EXPECT_EQ(stopped, 0);
    EXPECT_EQ(stopSaid, "zel-vaultd " + std::to_string(pid) + " stopped\n");
    std::system(("rm -rf " + directory).c_str());
}

}  // namespace
