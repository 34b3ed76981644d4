#include "fuzz/reproducer.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "interface/zel_ta_ids.h"

namespace zel::tc::fuzz {

namespace {

constexpr const char* kMagic = "zel-tc-reproducer 1";

std::string hex32(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

std::string hexBytes(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        text += digits[b >> 4];
        text += digits[b & 15];
    }
    return text;
}

bool parseNumber(const std::string& text, int base, bool isSigned, uint64_t& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    if (isSigned) {
        const long long v = std::strtoll(text.c_str(), &end, base);
        if (v < INT32_MIN || v > INT32_MAX) return false;
        value = static_cast<uint32_t>(static_cast<int32_t>(v));
    } else {
        if (text[0] == '-') return false;
        value = std::strtoull(text.c_str(), &end, base);
    }
    return errno == 0 && *end == '\0';
}

bool parseBytes(const std::string& text, std::vector<uint8_t>& bytes) {
    if (text.size() % 2) return false;
    bytes.clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        uint64_t b = 0;
        if (!std::isxdigit(static_cast<unsigned char>(text[i])) ||
            !parseNumber(text.substr(i, 2), 16, false, b))
            return false;
        bytes.push_back(static_cast<uint8_t>(b));
    }
    return true;
}

bool parseField(const std::string& word, Field& field) {
    const size_t colon = word.find(':');
    if (colon == std::string::npos) return false;
    const std::string type = word.substr(0, colon), value = word.substr(colon + 1);
    uint64_t number = 0;
    if (type == "int" && parseNumber(value, 10, true, number)) {
        field = Field::unsignedInt(static_cast<uint32_t>(number));
        field.type = Field::Type::kInt;
        return true;
    }
    if (type == "uint" && parseNumber(value, 10, false, number) && number <= UINT32_MAX) {
        field = Field::unsignedInt(static_cast<uint32_t>(number));
        return true;
    }
    field = Field::blob({});
    return type == "blob" && parseBytes(value, field.bytes);
}

}  // namespace

std::string formatFields(const std::vector<Field>& fields) {
    std::string text;
    for (const Field& field : fields) {
        if (!text.empty()) text += ' ';
        if (field.type == Field::Type::kInt)
            text += "int:" + std::to_string(static_cast<int32_t>(field.value));
        else if (field.type == Field::Type::kUint)
            text += "uint:" + std::to_string(field.value);
        else
            text += "blob:" + hexBytes(field.bytes);
    }
    return text;
}

std::string formatCall(const Call& call) {
    char id[16];
    std::snprintf(id, sizeof id, "0x%02x", call.id);
    std::string text = std::string(taName(call.ta)) + " " + id;
    return call.fields.empty() ? text : text + " " + formatFields(call.fields);
}

std::string formatReproducer(const Reproducer& r) {
    std::string text = std::string(kMagic) + "\nkind " + kindName(r.kind) + "\nresult " +
                       hex32(r.result) + "\norigin " + hex32(r.origin) + "\nseed " +
                       std::to_string(r.seed) + "\ndetail " + r.detail + "\n";
    for (const Call& call : r.calls) text += "call " + formatCall(call) + "\n";
    return text;
}

bool parseReproducer(const std::string& text, Reproducer& r, std::string& error) {
    r = Reproducer{};
    std::istringstream in(text);
    std::string line;
    size_t number = 0;
    const auto fail = [&](const std::string& why) {
        error = "line " + std::to_string(number) + ": " + why;
        return false;
    };
    bool haveKind = false;
    while (std::getline(in, line)) {
        ++number;
        if (number == 1) {
            if (line != kMagic)
                return fail("not a zel-tc reproducer (expected \"" + std::string(kMagic) + "\")");
            continue;
        }
        if (line.empty()) continue;
        const size_t space = line.find(' ');
        const std::string key = line.substr(0, space);
        const std::string rest = space == std::string::npos ? "" : line.substr(space + 1);
        uint64_t value = 0;
        if (key == "kind") {
            if (!parseKind(rest, r.kind) || r.kind == FindingKind::kNone)
                return fail("unknown finding kind \"" + rest + "\"");
            haveKind = true;
        } else if (key == "result" || key == "origin") {
            if (!parseNumber(rest, 16, false, value) || value > UINT32_MAX)
                return fail("bad " + key + " \"" + rest + "\"");
            (key == "result" ? r.result : r.origin) = static_cast<uint32_t>(value);
        } else if (key == "seed") {
            if (!parseNumber(rest, 10, false, value)) return fail("bad seed \"" + rest + "\"");
            r.seed = value;
        } else if (key == "detail") {
            r.detail = rest;
        } else if (key == "call") {
            std::istringstream words(rest);
            std::string ta, id;
            Call call;
            if (!(words >> ta >> id) || !parseTa(ta, call.ta))
                return fail("a call needs a TA (zel_test or zel_test_a) and a command id");
            if (!parseNumber(id, 16, false, value) || value > UINT32_MAX)
                return fail("bad command id \"" + id + "\"");
            call.id = static_cast<uint32_t>(value);
            for (std::string word; words >> word;) {
                Field field;
                if (!parseField(word, field))
                    return fail("bad field \"" + word.substr(0, 40) + "\"");
                call.fields.push_back(std::move(field));
            }
            r.calls.push_back(std::move(call));
        } else {
            return fail("unknown line \"" + key + "\"");
        }
    }
    if (number == 0) return fail("empty file");
    if (!haveKind) return fail("no kind line");
    if (r.calls.empty()) return fail("no call line");
    return true;
}

bool writeReproducer(const std::string& path, const Reproducer& reproducer, std::string& error) {
    std::ofstream out(path, std::ios::trunc);
    out << formatReproducer(reproducer);
    out.close();
    if (out) return true;
    error = "cannot write " + path;
    return false;
}

bool readReproducer(const std::string& path, Reproducer& reproducer, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    // Six calls of block-sized blobs in hex stay far below this; /dev/zero does not.
    constexpr size_t kMaxBytes = 4 << 20;
    std::string text;
    char chunk[65536];
    while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
        text.append(chunk, static_cast<size_t>(in.gcount()));
        if (text.size() > kMaxBytes) {
            error = path + ": larger than 4 MiB, not a reproducer";
            return false;
        }
    }
    if (parseReproducer(text, reproducer, error)) return true;
    error = path + ": " + error;
    return false;
}

bool sameFinding(const Reproducer& expected, const Sequence& calls, const Verdict& seen) {
    if (seen.kind != expected.kind || calls.empty()) return false;
    if (seen.kind == FindingKind::kNonGpResult && seen.result != expected.result) return false;
    if (seen.kind == FindingKind::kSessionLost) return true;
    const Call& at = calls[std::min(seen.call, calls.size() - 1)];
    const Call& last = expected.calls.back();
    return at.ta == last.ta && at.id == last.id;
}

Sequence minimize(const Sequence& calls, const std::function<bool(const Sequence&)>& fails,
                  size_t maxTests) {
    if (calls.size() < 2) return calls;
    const Call last = calls.back();
    std::vector<Call> items(calls.begin(), calls.end() - 1);
    size_t tests = 0;
    const auto test = [&](const std::vector<Call>& subset) {
        if (tests >= maxTests) return false;
        ++tests;
        Sequence candidate = subset;
        candidate.push_back(last);
        return fails(candidate);
    };
    size_t parts = 2;
    while (!items.empty() && tests < maxTests) {
        if (items.size() == 1) {
            if (test({})) items.clear();
            break;
        }
        parts = std::min(parts, items.size());
        const size_t chunk = (items.size() + parts - 1) / parts;
        bool reduced = false;
        // A chunk alone, then everything but a chunk.
        for (size_t start = 0; start < items.size() && !reduced; start += chunk) {
            const std::vector<Call> alone(items.begin() + start,
                                          items.begin() + std::min(items.size(), start + chunk));
            if (test(alone)) {
                items = alone;
                parts = 2;
                reduced = true;
            }
        }
        for (size_t start = 0; start < items.size() && !reduced && parts > 2; start += chunk) {
            std::vector<Call> rest(items.begin(), items.begin() + start);
            rest.insert(rest.end(), items.begin() + std::min(items.size(), start + chunk),
                        items.end());
            if (test(rest)) {
                items = rest;
                parts = std::max<size_t>(parts - 1, 2);
                reduced = true;
            }
        }
        if (reduced) continue;
        if (parts >= items.size()) break;  // 1-minimal: no single call can go
        parts = std::min(items.size(), parts * 2);
    }
    Sequence result = items;
    result.push_back(last);
    return result;
}

}  // namespace zel::tc::fuzz
