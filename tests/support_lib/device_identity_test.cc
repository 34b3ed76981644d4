// The identity queries against the host stand-ins of the configuration store and the
// system-information service: values come back exactly as stored, failures print their one line,
// and every string the platform hands out is freed exactly once (counted by the stand-ins' ledger
// through the free() wrapper this program is linked with).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "output_capture.h"
#include "stand_in_store.h"
#include "support/device_identity.h"
#include "system_info_stand_in.h"
#include "vconf_stand_in.h"

namespace zel::stand_in {
std::ostream& operator<<(std::ostream& out, const Ledger& ledger) {
    return out << ledger.handedOut << " handed out, " << ledger.freed << " freed";
}
}  // namespace zel::stand_in

namespace {

using zel::stand_in::Ledger;
using zel::stand_in::Service;

constexpr char kSerialKey[] = "db/comss/serialnumber";
constexpr char kSerialError[] = "GetSerialNumber from vconf error";
constexpr char kSysInfoError[] = "Failed to read string option";

class DeviceIdentity : public testing::Test {
  protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        zel::stand_in::clearValues(Service::kConfig);
        zel::stand_in::clearValues(Service::kSystemInfo);
        zel::stand_in::resetLedger();
        unsetenv(zel::stand_in::fileVariable(Service::kConfig));
        unsetenv(zel::stand_in::fileVariable(Service::kSystemInfo));
    }
};

TEST_F(DeviceIdentity, ValuesComeBackExactlyAsStoredPerKeyAndAreFreedOnce) {
    zel::stand_in::setConfigValue(kSerialKey, " R58M=12 ");
    zel::stand_in::setSystemInfoValue(SYSTEM_INFO_KEY_MODEL, "ZX-100");
    zel::stand_in::setSystemInfoValue(SYSTEM_INFO_KEY_BUILD_STRING, "");
    OutputCapture out;
    EXPECT_EQ(GetSerialNumber(), " R58M=12 ");
    EXPECT_EQ(GetSysInfoStringValue(SYSTEM_INFO_KEY_MODEL), "ZX-100");
    EXPECT_EQ(GetSysInfoStringValue(SYSTEM_INFO_KEY_BUILD_STRING), "");
    EXPECT_EQ(out.lines(), Lines{});
    EXPECT_EQ(zel::stand_in::ledger(), (Ledger{3, 3}));
}

TEST_F(DeviceIdentity, UnreadableSerialNumberIsEmptyAndSaysSo) {
    zel::stand_in::setConfigValue("db/comss/serialnumber2", "not this one");
    {
        OutputCapture out;
        EXPECT_EQ(GetSerialNumber(), "");
        EXPECT_EQ(out.lines(), Lines{kSerialError});
    }
    EXPECT_EQ(zel::stand_in::ledger(), (Ledger{0, 0}));  // nothing handed out, nothing freed
}

TEST_F(DeviceIdentity, SerialNumberFromTheStandInsFileUnlessATestSetsOne) {
    std::string file = testing::TempDir() + "zel_vconf_XXXXXX";
    close(mkstemp(file.data()));
    std::ofstream(file) << "# the device's store\n\n"
                        << "db/comss/serialnumber2=wrong\n"
                        << "db/comss/serialnumber=FILE-0042 x\n";
    setenv(zel::stand_in::fileVariable(Service::kConfig), file.c_str(), 1);
    EXPECT_EQ(GetSerialNumber(), "FILE-0042 x");
    zel::stand_in::setConfigValue(kSerialKey, "TABLE-1");
    EXPECT_EQ(GetSerialNumber(), "TABLE-1");
    EXPECT_EQ(zel::stand_in::ledger(), (Ledger{2, 2}));
    std::remove(file.c_str());
}

TEST_F(DeviceIdentity, SystemInfoFailuresSayOneLineEachAndFreeNothing) {
    zel::stand_in::setSystemInfoValue(SYSTEM_INFO_KEY_MODEL, "ZX-100");
    OutputCapture out;
    // A key outside the platform's enumeration, and one it knows but holds nothing for.
    EXPECT_EQ(GetSysInfoStringValue(static_cast<system_info_key_e>(999)), "");
    EXPECT_EQ(GetSysInfoStringValue(SYSTEM_INFO_KEY_MANUFACTURER), "");
    // A platform error, and a platform that reports success without a string.
    zel::stand_in::answerNextSystemInfoCall(SYSTEM_INFO_ERROR_IO_ERROR);
    EXPECT_EQ(GetSysInfoStringValue(SYSTEM_INFO_KEY_MODEL), "");
    zel::stand_in::answerNextSystemInfoCall(SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(GetSysInfoStringValue(SYSTEM_INFO_KEY_MODEL), "");
    EXPECT_EQ(out.lines(), Lines(4, kSysInfoError));
    EXPECT_EQ(zel::stand_in::ledger(), (Ledger{0, 0}));
    // The scripted answers were used up: the stored value is back.
    EXPECT_EQ(GetSysInfoStringValue(SYSTEM_INFO_KEY_MODEL), "ZX-100");
    EXPECT_EQ(zel::stand_in::ledger(), (Ledger{1, 1}));
}

}  // namespace
