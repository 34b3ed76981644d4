// The store under a daemon killed at random moments and under storage faults: every acknowledged
// write reads back, a write in flight is all there or not at all, and a full filesystem is a
// clear error and a clean refusal, never a crash or a silently lost write.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <random>
#include <thread>

#include "object_store.h"
#include "output_capture.h"
#include "store_fixture.h"

namespace {

// The store in a folder of its own, where a small filesystem can be mounted under it.
class DurabilityTest : public StoreFixture {
  protected:
    void SetUp() override {
        StoreFixture::SetUp();
        mkdir(storeDirectory().c_str(), 0700);
        storage_ = storeDirectory() + "/vault.db";
    }
    void TearDown() override {
        daemon_.reset();
        if (mounted_) umount2(storeDirectory().c_str(), MNT_DETACH);
        std::system(("rm -rf " + directory_).c_str());
        StoreFixture::TearDown();
    }
    std::string storeDirectory() const { return directory_ + "/store"; }
    // A small tmpfs for the store; false (the test is then skipped) where mounting is not allowed.
    bool mountSmallFilesystem(const char* options) {
        if (geteuid() != 0 || mount("tmpfs", storeDirectory().c_str(), "tmpfs", 0, options) != 0)
            return false;
        mounted_ = true;
        return chmod(storeDirectory().c_str(), 0700) == 0;
    }
    bool mounted_ = false;
};

Bytes dataFor(int slot, int version) {
    Bytes data(1 + (slot * 131 + version * 17) % 3000);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(slot + version + i);
    return data;
}

TEST_F(DurabilityTest, EveryAcknowledgedWriteSurvivesFiftyKills) {
    std::mt19937 random(20261123);
    // What the store must hold: per slot, the acknowledged content (nullopt: deleted or never).
    std::map<int, std::optional<Bytes>> acknowledged;
    OutputCapture output;
    CaZelInterface vault(zel_test);
    int writes = 0;
    for (int kill = 0; kill < 50; ++kill) {
        ASSERT_TRUE(startDaemon());
        // Check what the previous rounds left (lost, changed or back after its delete), then
        // write until the daemon dies under us.
        for (const auto& [slot, content] : acknowledged)
            EXPECT_EQ(slotContent(vault, slot), content) << "slot " << slot << ", kill " << kill;
        // The kill lands after this round's first acknowledged write, however slow the machine
        // (an emulator), so that every round has writes to lose.
        std::atomic<bool> wrote{false};
        std::thread killer([&, delay = random() % 40] {
            while (!wrote) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
            daemon_->kill();
        });
        // Deletes only of slots that hold data, so that any failure is the daemon's death.
        int inFlight = -1;
        std::optional<Bytes> inFlightContent;
        for (int op = 0;; ++op) {
            const int slot = static_cast<int>(random() % 8);
            const bool erase = random() % 4 == 0 && acknowledged[slot].has_value();
            inFlightContent =
                erase ? std::nullopt : std::optional<Bytes>(dataFor(slot, op + 1000 * kill));
            const int32_t result =
                erase ? vault.zel_delete(slot)
                      : vault.zel_put(slot, inFlightContent->data(),
                                      static_cast<unsigned int>(inFlightContent->size()));
            if (result != 0) {
                inFlight = slot;
                break;
            }
            acknowledged[slot] = inFlightContent;
            ++writes;
            wrote = true;
        }
        wrote = true;  // a round that could not write at all still ends
        killer.join();
        {
            // Unacknowledged: either all of it landed or none; the next round learns which.
            ASSERT_TRUE(startDaemon());
            const std::optional<Bytes> now = slotContent(vault, inFlight);
            EXPECT_TRUE(now == inFlightContent || now == acknowledged[inFlight])
                << "slot " << inFlight << " half-written";
            acknowledged[inFlight] = now;
            daemon_->kill();
        }
    }
    EXPECT_GE(writes, 50);
    std::cerr << "acknowledged writes across 50 kills: " << writes << std::endl;
}

// The store's code for a full filesystem reaches the client through the TA, the daemon serves
// on, and writes go through once there is room again; a new store cannot be made there.
TEST_F(DurabilityTest, AFullFilesystemFailsWritesAndNewStoresWithTheirReasonAndTheDaemonServesOn) {
    if (!mountSmallFilesystem("size=512k,mode=0700"))
        GTEST_SKIP() << "NOT TESTED: this machine does not let the test mount a tmpfs (needs root)";
    ASSERT_TRUE(startDaemon());
    OutputCapture output;
    CaZelInterface vault(zel_test);
    {
        std::ofstream filler(storeDirectory() + "/filler", std::ios::binary);
        const std::string chunk(4096, 'x');
        while (filler.write(chunk.data(), chunk.size()) && filler.flush()) {
        }
    }
    // A new store is refused with its reason, and nothing half-made is left behind.
    const std::string other = storeDirectory() + "/other.db";
    std::string error;
    EXPECT_FALSE(zel::tee::ObjectStore::open(other, error));
    EXPECT_TRUE(contains(error, "cannot open the vault store " + other + ": "));
    EXPECT_TRUE(error.find("database or disk is full") != std::string::npos ||
                error.find("No space left on device") != std::string::npos)
        << error;
    EXPECT_FALSE(contains(error, "not an error"));
    EXPECT_NE(access(other.c_str(), F_OK), 0);

    int refused = 0;
    for (int slot = 0; slot < 32; ++slot) {
        const Bytes data = dataFor(slot, 3);
        refused += vault.zel_put(slot, data.data(), static_cast<unsigned int>(data.size())) != 0;
    }
    EXPECT_GT(refused, 0) << "the filesystem never filled";
    std::string said;
    for (const std::string& line : output.lines()) said += line + "\n";
    EXPECT_TRUE(contains(said, "result = 4294914113")) << "no write refused as full (0xFFFF3041)";

    unlink((storeDirectory() + "/filler").c_str());
    const Bytes again = dataFor(31, 4);
    EXPECT_EQ(vault.zel_put(31, again.data(), static_cast<unsigned int>(again.size())), 0);
}

}  // namespace
