// A TA that panics is dead for every session it had, as a real TEE answers (TEEC_ERROR_TARGET_DEAD
// from the TEE), and the next session gets a fresh instance; the daemon and its other TAs go on.
#include <gtest/gtest.h>
#include <tee_client_api.h>

#include <memory>
#include <string>

#include "panic_ta.h"
#include "vault_fixture.h"

namespace {

const TEEC_UUID kPanicTa = PANIC_TA_UUID;

struct Client {
    TEEC_Context context{};
    explicit Client(const std::string& socket) {
        EXPECT_EQ(TEEC_InitializeContext(socket.c_str(), &context), TEEC_SUCCESS);
    }
    ~Client() { TEEC_FinalizeContext(&context); }
};

struct Session {
    TEEC_Session session{};
    explicit Session(Client& client) {
        uint32_t origin = 0;
        EXPECT_EQ(TEEC_OpenSession(&client.context, &session, &kPanicTa, TEEC_LOGIN_PUBLIC, nullptr,
                                   nullptr, &origin),
                  TEEC_SUCCESS);
    }
    ~Session() { TEEC_CloseSession(&session); }
    // The result and origin of a command; count receives what the TA counted.
    std::pair<TEEC_Result, uint32_t> invoke(uint32_t command, uint32_t* count = nullptr) {
        TEEC_Operation operation{};
        operation.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
        uint32_t origin = 0;
        const TEEC_Result result = TEEC_InvokeCommand(&session, command, &operation, &origin);
        if (count) *count = operation.params[0].value.a;
        return {result, origin};
    }
};

// What a dead instance held is freed: under the sanitizers a leak fails the fixture's clean stop.
class TaPanicTest : public VaultFixture {
    void SetUp() override { launch({{}, {}, false, {"--ta-dir", ZEL_TEST_TA_FOLDER}}); }
};

TEST_F(TaPanicTest, APanickedTaIsDeadForItsSessionsAndANewSessionGetsAFreshInstance) {
    Client client(daemon->socketPath());
    uint32_t count = 0;
    {
        Session first(client), second(client);
        ASSERT_EQ(first.invoke(PANIC_TA_COUNT, &count).first, TEEC_SUCCESS);
        ASSERT_EQ(second.invoke(PANIC_TA_COUNT, &count).first, TEEC_SUCCESS);
        EXPECT_EQ(count, 2u) << "one instance serves both sessions";

        const auto panicked = first.invoke(PANIC_TA_PANIC);
        EXPECT_EQ(panicked.first, TEEC_ERROR_TARGET_DEAD);
        EXPECT_EQ(panicked.second, static_cast<uint32_t>(TEEC_ORIGIN_TEE));
        for (Session* session : {&first, &second}) {
            const auto dead = session->invoke(PANIC_TA_COUNT);
            EXPECT_EQ(dead.first, TEEC_ERROR_TARGET_DEAD);
            EXPECT_EQ(dead.second, static_cast<uint32_t>(TEEC_ORIGIN_TEE));
        }
    }
    Session fresh(client);
    ASSERT_EQ(fresh.invoke(PANIC_TA_COUNT, &count).first, TEEC_SUCCESS);
    EXPECT_EQ(count, 1u) << "a new instance, not the dead one's memory";
}

}  // namespace
