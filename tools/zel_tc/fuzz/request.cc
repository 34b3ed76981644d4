#include "fuzz/request.h"

#include <climits>
#include <cstdio>

#include "interface/zel_ta_ids.h"

namespace zel::tc::fuzz {

namespace {

constexpr uint32_t kBlockSize = 8192;  // the library's block, which every command travels in
constexpr int32_t kUsualIndexes = 4;   // a few indexes, so that commands meet each other's state

// Chains that build state and then use it, all on one index.
const std::vector<std::vector<uint32_t>>& chains() {
    using namespace zel::cmd;
    static const std::vector<std::vector<uint32_t>> all = {
        {zel_put, zel_get, zel_getHash, zel_delete, zel_getHash},
        {zel_put, zel_getSlotInfo, zel_delete, zel_get},
        {zel_generateKey, zel_ecdsaCreateSignature, zel_genAuthKey, zel_deleteKey},
        {zel_storeKey, zel_aesEncrypt, zel_aesDecrypt, zel_compareData, zel_decryptByKey},
        {zel_akProvision, zel_checkZelAk, zel_akProvisionRPMB, zel_getPublicKeyStatus,
         zel_removeAkKeys},
        {ze_updateFW, zel_getHackInfo, zel_forceRecoverySP, zel_selfTestAll, zel_getFWInfo},
    };
    return all;
}

std::string hexText(uint32_t size, Rng& rng) {
    static const char digits[] = "0123456789abcdef";
    std::string text(size, '0');
    for (char& c : text) c = digits[rng.below(16)];
    return text;
}

// The hexadecimal text of a DER RSAPublicKey (a random odd 2048-bit modulus, exponent 65537):
// a key the TA accepts, so that a provisioning chain goes on to check, bind and remove it.
std::string akKeyText(Rng& rng) {
    std::vector<uint8_t> der = {0x30, 0x82, 0x01, 0x0a, 0x02, 0x82, 0x01, 0x01, 0x00};
    for (int i = 0; i < 256; ++i) der.push_back(static_cast<uint8_t>(rng.below(256)));
    der[9] |= 0x80;
    der.back() |= 0x01;
    der.insert(der.end(), {0x02, 0x03, 0x01, 0x00, 0x01});
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t byte : der) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0f];
    }
    return text;
}

}  // namespace

bool wellFormed(const Call& call) {
    const CommandSpec* spec = findCommand(call.ta, call.id);
    if (!spec) return false;
    size_t at = 0;
    for (const RequestField& field : spec->request) {
        const auto is = [&](Field::Type type) {
            return at < call.fields.size() && call.fields[at++].type == type;
        };
        if (field.kind == FieldKind::kInt && !is(Field::Type::kInt)) return false;
        if (field.kind == FieldKind::kUint && !is(Field::Type::kUint)) return false;
        if (field.kind == FieldKind::kSized) {
            if (!is(Field::Type::kUint) || !is(Field::Type::kBlob)) return false;
            if (call.fields[at - 2].value != call.fields[at - 1].bytes.size()) return false;
        }
    }
    return at == call.fields.size();
}

std::string describe(const Call& call) {
    const CommandSpec* spec = findCommand(call.ta, call.id);
    char id[16];
    std::snprintf(id, sizeof id, "0x%02x", call.id);
    std::string text = std::string(taName(call.ta)) + " " + (spec ? spec->name : id) + "(";
    for (size_t i = 0; i < call.fields.size(); ++i) {
        const Field& field = call.fields[i];
        if (i) text += ", ";
        if (field.type == Field::Type::kInt)
            text += "int " + std::to_string(static_cast<int32_t>(field.value));
        else if (field.type == Field::Type::kUint)
            text += "uint " + std::to_string(field.value);
        else
            text += "blob[" + std::to_string(field.bytes.size()) + (field.fill ? "+fill]" : "]");
    }
    return text + ")";
}

uint64_t Rng::next() {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

uint32_t Rng::below(uint32_t bound) {
    return bound == 0 ? 0 : static_cast<uint32_t>(next() % bound);
}

const std::vector<int32_t>& intBoundaries() {
    static const std::vector<int32_t> values = {0,           1,       -1,          2,     INT_MIN,
                                                INT_MIN + 1, INT_MAX, INT_MAX - 1, 31,    32,
                                                33,          255,     256,         65535, 65536};
    return values;
}

const std::vector<uint32_t>& sizeBoundaries() {
    static const std::vector<uint32_t> values = {
        0,    1,    2,    3,    4,    7,          8,
        15,   16,   17,   31,   32,   33,         63,
        64,   65,   127,  128,  255,  256,        511,
        512,  539,  540,  541,  1023, 1024,       2047,
        2048, 4095, 4096, 4097, 8191, kBlockSize, kBlockSize + 1};
    return values;
}

Generator::Generator(uint64_t seed, std::vector<const CommandSpec*> commands)
    : rng_(seed), commands_(std::move(commands)) {
    if (commands_.empty())
        for (const CommandSpec& spec : commandTable()) commands_.push_back(&spec);
}

int32_t Generator::indexValue(int32_t focus) {
    if (rng_.chance(70)) return focus;
    if (rng_.chance(80)) return static_cast<int32_t>(rng_.below(32));
    return rng_.chance(50) ? -1 : rng_.pick(intBoundaries());
}

std::vector<uint8_t> Generator::bytesOfSize(uint32_t size) {
    std::vector<uint8_t> bytes(size);
    for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng_.next());
    return bytes;
}

uint32_t Generator::dataSize() {
    const uint32_t roll = rng_.below(10);
    if (roll < 5) return 1 + rng_.below(64);
    if (roll < 8) return rng_.pick(sizeBoundaries());
    return rng_.below(4097);
}

void Generator::addField(std::vector<Field>& fields, const RequestField& field, int32_t index) {
    if (field.kind == FieldKind::kInt) {
        int32_t value = field.usual;
        if (field.role == Role::kIndex)
            value = indexValue(index);
        else if (field.role == Role::kParam || !rng_.chance(75))
            value =
                rng_.chance(50) ? static_cast<int32_t>(rng_.below(8)) : rng_.pick(intBoundaries());
        fields.push_back(Field::integer(value));
        return;
    }
    if (field.kind == FieldKind::kUint) {
        fields.push_back(Field::unsignedInt(static_cast<uint32_t>(rng_.next())));
        return;
    }
    std::vector<uint8_t> bytes;
    switch (field.role) {
        case Role::kIv:
            bytes = bytesOfSize(rng_.chance(85) ? 16 : dataSize());
            break;
        case Role::kAesKey:
            bytes = bytesOfSize(rng_.chance(85) ? 32 : dataSize());
            break;
        case Role::kPublicKey:
            bytes = bytesOfSize(rng_.chance(85) ? 91 : dataSize());
            break;
        case Role::kAkText: {
            // Mostly a real key; else hex of the right size that is no key, or any size.
            const uint32_t roll = rng_.below(100);
            const std::string text = roll < 60   ? akKeyText(rng_)
                                     : roll < 85 ? hexText(540, rng_)
                                                 : hexText(dataSize(), rng_);
            bytes.assign(text.begin(), text.end());
            break;
        }
        default:
            bytes = bytesOfSize(dataSize());
            break;
    }
    fields.push_back(Field::unsignedInt(static_cast<uint32_t>(bytes.size())));
    fields.push_back(Field::blob(std::move(bytes)));
}

Call Generator::wellFormedCall(const CommandSpec& spec, int32_t index) {
    Call call{spec.ta, spec.id, {}};
    for (const RequestField& field : spec.request) addField(call.fields, field, index);
    return call;
}

void Generator::mutate(Call& call) {
    std::vector<Field>& fields = call.fields;
    switch (rng_.below(9)) {
        case 0:  // a boundary value in one integer field
            for (Field& field : fields) {
                if (field.type == Field::Type::kBlob || !rng_.chance(50)) continue;
                field.value = static_cast<uint32_t>(rng_.pick(intBoundaries()));
                return;
            }
            break;
        case 1:  // a length field that disagrees with its blob
            for (size_t i = 0; i + 1 < fields.size(); ++i) {
                if (fields[i].type != Field::Type::kUint ||
                    fields[i + 1].type != Field::Type::kBlob)
                    continue;
                const uint32_t size = static_cast<uint32_t>(fields[i + 1].bytes.size());
                const uint32_t wrong[] = {size + 1,     size - 1,    0,
                                          size * 2 + 1, 0xFFFFFFFFu, kBlockSize};
                fields[i].value = wrong[rng_.below(6)];
                if (fields[i].value == size) fields[i].value = size + 1;
                return;
            }
            break;
        case 2:  // a field of the wrong type
            if (!fields.empty()) {
                Field& field = fields[rng_.below(static_cast<uint32_t>(fields.size()))];
                if (field.type == Field::Type::kInt) {
                    field.type = rng_.chance(50) ? Field::Type::kUint : Field::Type::kBlob;
                    if (field.type == Field::Type::kBlob) field.bytes = bytesOfSize(4);
                } else {
                    field.type = Field::Type::kInt;
                    field.bytes.clear();
                }
                return;
            }
            break;
        case 3:  // a field missing
            if (!fields.empty()) {
                fields.erase(fields.begin() + rng_.below(static_cast<uint32_t>(fields.size())));
                return;
            }
            break;
        case 4: {  // a field added
            const uint32_t at = rng_.below(static_cast<uint32_t>(fields.size()) + 1);
            const uint32_t kind = rng_.below(3);
            Field extra = kind == 0   ? Field::integer(rng_.pick(intBoundaries()))
                          : kind == 1 ? Field::unsignedInt(rng_.pick(sizeBoundaries()))
                                      : Field::blob(bytesOfSize(dataSize()));
            fields.insert(fields.begin() + at, std::move(extra));
            return;
        }
        case 5:  // an empty request
            fields.clear();
            return;
        case 6:  // a blob that fills the block
            for (size_t i = fields.size(); i-- > 0;) {
                if (fields[i].type != Field::Type::kBlob) continue;
                fields[i].fill = true;
                return;
            }
            fields.push_back(Field::blob({}));
            fields.back().fill = true;
            return;
        case 7: {  // an id the TA does not know
            static const std::vector<uint32_t> unknown = {0x01, 0x05, 0x11, 0x14,
                                                          0x2e, 0x7f, 0xff, 0xFFFFFFFFu};
            call.id = rng_.chance(50) ? rng_.pick(unknown) : static_cast<uint32_t>(rng_.next());
            return;
        }
        default:  // a blob of a boundary size, its length field kept in step
            for (size_t i = 0; i + 1 < fields.size(); ++i) {
                if (fields[i].type != Field::Type::kUint ||
                    fields[i + 1].type != Field::Type::kBlob)
                    continue;
                fields[i + 1].bytes = bytesOfSize(rng_.pick(sizeBoundaries()));
                fields[i].value = static_cast<uint32_t>(fields[i + 1].bytes.size());
                return;
            }
            break;
    }
    // Nothing of that kind to change here: an integer boundary on the front instead.
    fields.insert(fields.begin(), Field::integer(rng_.pick(intBoundaries())));
}

Sequence Generator::next() {
    Sequence sequence;
    const int32_t focus = static_cast<int32_t>(rng_.below(kUsualIndexes));
    if (rng_.chance(30)) {
        for (uint32_t id : rng_.pick(chains())) {
            for (const CommandSpec* spec : commands_) {
                if (spec->id != id) continue;
                sequence.push_back(wellFormedCall(*spec, focus));
                break;
            }
        }
    }
    if (sequence.empty()) {
        const uint32_t length = 1 + rng_.below(6);
        for (uint32_t i = 0; i < length; ++i)
            sequence.push_back(wellFormedCall(*rng_.pick(commands_), focus));
    }
    for (Call& call : sequence)
        if (rng_.chance(25)) mutate(call);
    return sequence;
}

}  // namespace zel::tc::fuzz
