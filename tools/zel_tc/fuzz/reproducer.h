// A finding of zel-tc fuzz as a small text file that zel-tc replay sends again, and the delta
// debugging that shrinks its command sequence before it is saved.
//
//   zel-tc-reproducer 1
//   kind hang
//   result 0x00000000
//   origin 0x00000000
//   seed 42
//   detail no answer within 2000 ms
//   call zel_test 0x0c int:3 uint:0
//   call zel_test 0x00 int:1 uint:4 blob:0a0b0c0d
//
// One call per line in sending order, its fields in the codec's order: int (signed decimal),
// uint (decimal), blob (hexadecimal, possibly empty). The finding shows at the last call, or when
// a session is opened after it (session-lost).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fuzz/executor.h"
#include "fuzz/request.h"

namespace zel::tc::fuzz {

struct Reproducer {
    FindingKind kind = FindingKind::kNone;
    uint32_t result = 0;
    uint32_t origin = 0;
    uint64_t seed = 0;
    std::string detail;
    Sequence calls;
};

// "int:-1 uint:16 blob:00ff": fields as the reproducer writes them.
std::string formatFields(const std::vector<Field>& fields);
// "zel_test 0x0c int:3 uint:0": a call as the reproducer writes it.
std::string formatCall(const Call& call);

std::string formatReproducer(const Reproducer& reproducer);
// False with the line and what is wrong with it in error.
bool parseReproducer(const std::string& text, Reproducer& reproducer, std::string& error);
bool writeReproducer(const std::string& path, const Reproducer& reproducer, std::string& error);
bool readReproducer(const std::string& path, Reproducer& reproducer, std::string& error);

// Whether a verdict on these calls is the finding recorded: the same kind at the same command
// (and the same result, for a result that is no GlobalPlatform code).
bool sameFinding(const Reproducer& expected, const Sequence& calls, const Verdict& seen);

// Delta debugging (ddmin): a 1-minimal subsequence of calls for which fails() still holds, found
// with at most maxTests calls of fails(). The last call (where the finding shows) is always kept.
Sequence minimize(const Sequence& calls, const std::function<bool(const Sequence&)>& fails,
                  size_t maxTests);

}  // namespace zel::tc::fuzz
