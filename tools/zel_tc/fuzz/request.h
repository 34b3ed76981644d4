// The requests zel-tc fuzz sends: typed fields as the codec writes them, commands and sequences
// of commands, and the seeded generator that makes them from the command table. The same seed
// and selection give the same sequences on every machine (the generator uses no library
// distribution, whose results differ between standard libraries).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/table.h"

namespace zel::tc::fuzz {

// One field as it goes through the codec.
struct Field {
    enum class Type : uint8_t { kInt, kUint, kBlob };
    Type type = Type::kInt;
    uint32_t value = 0;          // kInt: the bits of the int32_t; kUint: the value
    std::vector<uint8_t> bytes;  // kBlob
    bool fill = false;           // kBlob: grow to the largest size the block still takes when sent

    static Field integer(int32_t v) { return {Type::kInt, static_cast<uint32_t>(v), {}, false}; }
    static Field unsignedInt(uint32_t v) { return {Type::kUint, v, {}, false}; }
    static Field blob(std::vector<uint8_t> b) { return {Type::kBlob, 0, std::move(b), false}; }
    bool operator==(const Field& other) const {
        return type == other.type && value == other.value && bytes == other.bytes;
    }
};

struct Call {
    Ta ta = Ta::kVault;
    uint32_t id = 0;
    std::vector<Field> fields;
    bool operator==(const Call& other) const {
        return ta == other.ta && id == other.id && fields == other.fields;
    }
};

using Sequence = std::vector<Call>;

// True when the fields are exactly those the table declares for the command, in order: only
// then does the TA owe the declared reply shape.
bool wellFormed(const Call& call);

// "zel_put(int 3, uint 4, blob[4])": for progress lines and reports.
std::string describe(const Call& call);

// A small, portable generator: splitmix64.
class Rng {
  public:
    explicit Rng(uint64_t seed) : state_(seed) {}
    uint64_t next();
    uint32_t below(uint32_t bound);  // 0 .. bound-1; bound 0 gives 0
    bool chance(uint32_t percent) { return below(100) < percent; }
    template <typename T>
    const T& pick(const std::vector<T>& items) {
        return items[below(static_cast<uint32_t>(items.size()))];
    }

  private:
    uint64_t state_;
};

// The boundary values the mutations draw from.
const std::vector<int32_t>& intBoundaries();
const std::vector<uint32_t>& sizeBoundaries();

class Generator {
  public:
    // commands: those to send; empty: every command of the table.
    Generator(uint64_t seed, std::vector<const CommandSpec*> commands);

    Sequence next();
    // A well-formed request with the values the TA usually takes.
    Call wellFormedCall(const CommandSpec& spec, int32_t index);
    // The call changed by one mutation: a boundary value, a length that disagrees with its blob,
    // a field of the wrong type, a field dropped or added, an empty request, a block-filling
    // blob, or an id the TA does not know.
    void mutate(Call& call);

  private:
    int32_t indexValue(int32_t focus);
    std::vector<uint8_t> bytesOfSize(uint32_t size);
    uint32_t dataSize();
    void addField(std::vector<Field>& fields, const RequestField& field, int32_t index);

    Rng rng_;
    std::vector<const CommandSpec*> commands_;
};

}  // namespace zel::tc::fuzz
