// The vault's store file holds private keys and is read back as untrusted input: it is created
// private, a file that is not this user's own vault store is refused untouched, and a damaged or
// malformed row is TEEC_ERROR_BAD_STATE for the command that reads it while the daemon serves on.
#include <gtest/gtest.h>

#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "object_store.h"
#include "output_capture.h"
#include "store_fixture.h"

namespace {

// The library answers a failed command with its own code; the TA's result is in its log line.
constexpr int32_t kFailed = static_cast<int32_t>(TEEC_ERROR_GENERIC);

std::string badStateLine(int command) {
    return "TEEC_InvokeCommand() failed for cmd = " + std::to_string(command) +
           ", result = " + std::to_string(TEEC_ERROR_BAD_STATE) + ", retOrigin = 4";
}

Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class StoreSafetyTest : public StoreFixture {
  protected:
    // Runs the daemon over the store and returns what it printed when it refused to start; empty
    // when it started after all (it is then stopped).
    std::string refusal() {
        // The shell prints its pid, then becomes the daemon.
        // A cross build's daemon cannot be exec'd directly, only through its emulator.
        const std::string emulator = zel::vault::programEmulator();
        const std::string command = "echo $$; exec " + (emulator.empty() ? "" : emulator + " ") +
                                    zel::vault::defaultVaultdPath() + " --socket " + directory_ +
                                    "/socket --storage " + storage_ + " --ready-fd 1 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        if (!pipe) return "popen failed";
        char line[512] = {};
        const pid_t pid = fgets(line, sizeof line, pipe) ? std::atoi(line) : -1;
        std::string text;
        while (fgets(line, sizeof line, pipe)) {
            text += line;
            if (text.find("ready") != std::string::npos) {
                kill(pid, SIGTERM);
                pclose(pipe);
                return {};
            }
        }
        const int status = pclose(pipe);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << text;
        return text;
    }
};

TEST_F(StoreSafetyTest, StoreIsMadeForItsOwnerAloneAndRefusedOpenToOthersOrOfAnotherUser) {
    umask(022);  // what a login shell usually has: the daemon must not rely on it
    ASSERT_TRUE(startDaemon());
    {
        OutputCapture output;
        CaZelInterface vault(zel_test);
        const unsigned char data[] = {1, 2, 3};
        ASSERT_EQ(vault.zel_put(0, data, 3), 0);
    }
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat info {};
        ASSERT_EQ(stat((storage_ + suffix).c_str(), &info), 0) << suffix;
        EXPECT_EQ(info.st_mode & 0777, 0600u) << storage_ << suffix;
    }
    ASSERT_TRUE(daemon_->stop());
    ASSERT_EQ(chmod(storage_.c_str(), 0644), 0);
    EXPECT_TRUE(contains(refusal(), "is open to other users (mode 0644)"));
    ASSERT_EQ(chmod(storage_.c_str(), 0600), 0);
    if (geteuid() != 0) GTEST_SKIP() << "NOT TESTED: a store of another user needs root to make";
    ASSERT_EQ(chown(storage_.c_str(), 54012, 54012), 0);
    EXPECT_TRUE(contains(refusal(), "belongs to another user (uid 54012)"));
}

TEST_F(StoreSafetyTest, AnotherProgramsDatabaseAnotherLayoutOrNoDatabaseIsRefusedUntouched) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(storage_.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE notes (text TEXT); INSERT INTO notes VALUES ('mine');",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    ASSERT_EQ(chmod(storage_.c_str(), 0600), 0);
    const Bytes before = readFile(storage_);

    EXPECT_TRUE(contains(refusal(), "is not a vault store"));
    EXPECT_EQ(readFile(storage_), before);
    struct stat info {};
    EXPECT_NE(stat((storage_ + "-wal").c_str(), &info), 0) << "switched to WAL";

    // Nor is a vault store of another layout, a file that is no database at all, or no file.
    ASSERT_EQ(sqlite3_open(storage_.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "PRAGMA application_id = 1514490966; PRAGMA user_version = 1;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    std::string error;
    EXPECT_FALSE(zel::tee::ObjectStore::open(storage_, error));
    EXPECT_TRUE(contains(error, "is a vault store of another layout (1, this daemon reads 2)"));
    std::ofstream(storage_, std::ios::trunc) << std::string(4096, '\x5a');
    EXPECT_TRUE(contains(refusal(), "cannot open the vault store"));
    EXPECT_EQ(readFile(storage_), Bytes(4096, 0x5a));
    unlink(storage_.c_str());
    ASSERT_EQ(symlink("/dev/null", storage_.c_str()), 0);
    EXPECT_FALSE(zel::tee::ObjectStore::open(storage_, error));
    EXPECT_TRUE(contains(error, "cannot open the vault store"));
}

// A flipped byte in a stored row is BAD_STATE, not other data; the rows beside it read on.
TEST_F(StoreSafetyTest, MalformedOrDamagedRowsAreBadStateAndTheDaemonServesOn) {
    const Bytes marked(64, 0xA5);
    {
        // Objects with good checksums but values no command would have stored: the vault TA's
        // objects by their ids, a key as its type byte and its material.
        std::string error;
        auto store = zel::tee::ObjectStore::open(storage_, error);
        ASSERT_TRUE(store) << error;
        const TEE_UUID vault = ZEL_TEST_UUID;
        const auto put = [&](const std::string& id, Bytes value) {
            return store->write(vault, Bytes(id.begin(), id.end()), value, true);
        };
        Bytes aes = {6}, ec = {5};
        aes.resize(6, 1);                                       // AES needs 32
        ec.resize(41, 2);                                       // not a DER key
        ASSERT_EQ(put("hub.1", Bytes(15, 0x41)), TEE_SUCCESS);  // needs 48 bytes
        ASSERT_EQ(put("key.2", aes), TEE_SUCCESS);
        ASSERT_EQ(put("key.3", ec), TEE_SUCCESS);
        ASSERT_EQ(put("slot.4", Bytes(5000, 3)), TEE_SUCCESS);  // slots hold 4096
        ASSERT_EQ(put("slot.5", marked), TEE_SUCCESS);
        ASSERT_EQ(put("slot.6", Bytes(32, 0x11)), TEE_SUCCESS);
    }  // closed: the WAL is folded into the file
    Bytes file = readFile(storage_);
    const auto at = std::search(file.begin(), file.end(), marked.begin(), marked.end());
    ASSERT_NE(at, file.end());
    at[17] ^= 0x04;
    std::ofstream(storage_, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(file.data()),
               static_cast<std::streamsize>(file.size()));

    ASSERT_TRUE(startDaemon());
    OutputCapture output;
    CaZelInterface vault(zel_test);
    unsigned char* read = nullptr;
    unsigned int size = 0;
    EXPECT_EQ(vault.zel_getHubID(1, &read, &size), kFailed);
    EXPECT_EQ(read, nullptr);
    unsigned char iv[16] = {}, data[16] = {};
    unsigned char* out = nullptr;
    unsigned int outSize = 0;
    EXPECT_EQ(vault.zel_aesEncrypt(2, 1, 32, 1, iv, 16, data, 16, &out, &outSize), kFailed);
    std::free(out);
    const unsigned char digest[32] = {};
    EXPECT_EQ(vault.zel_ecdsaCreateSignature(3, 2, const_cast<unsigned char*>(digest), 32, &out,
                                             &outSize),
              kFailed);
    std::free(out);
    EXPECT_EQ(slotContent(vault, 4), std::nullopt);
    EXPECT_EQ(slotContent(vault, 5), std::nullopt);
    EXPECT_EQ(slotContent(vault, 6), Bytes(32, 0x11));
    const auto lines = output.lines();
    for (int command : {0x0f, 0x23, 0x09, 0x02}) {
        const int times = command == 0x02 ? 2 : 1;  // slots 4 and 5 both fail a get
        EXPECT_EQ(std::count(lines.begin(), lines.end(), badStateLine(command)), times) << command;
    }
}

}  // namespace
