#include "helper/commands.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "args/hex.h"
#include "args/number.h"
#include "zel_tc_lib.h"

namespace zel::tc {

namespace {

using Arguments = std::vector<std::string>;

bool int32Of(const std::string& text, int32_t& value) {
    long long number = 0;
    if (!parseNumber(text, INT32_MIN, INT32_MAX, number)) return false;
    value = static_cast<int32_t>(number);
    return true;
}

int resultText(const Arguments& args) {
    ZelResult result{};
    if (!int32Of(args[0], result.zelCode) || !int32Of(args[1], result.firmwareCode)) return 2;
    std::cout << zelResultToStr(result) << std::endl;
    return 0;
}

int sha256(const Arguments& args) {
    std::vector<uint8_t> data;
    if (!parseHex(args[0], data)) return 2;
    unsigned char digest[32];
    unsigned int size = sizeof digest;
    if (GetSHA256Hash(data.data(), static_cast<unsigned int>(data.size()), digest, &size) != 1)
        return 1;
    std::cout << uint8_to_hex_string(digest, size) << std::endl;
    return 0;
}

int base64(const Arguments& args) {
    std::vector<uint8_t> data;
    if (!parseHex(args[0], data)) return 2;
    std::cout << base64_encode(reinterpret_cast<const char*>(data.data()),
                               static_cast<unsigned int>(data.size()))
              << std::endl;
    return 0;
}

struct Helper {
    const char* name;
    const char* usage;
    const char* title;
    size_t arguments;
    int (*run)(const Arguments&);
};

const Helper kHelpers[] = {
    {"zelResultToStr", "ZEL_CODE FIRMWARE_CODE", "the text of a firmware update's result record", 2,
     resultText},
    {"GetSHA256Hash", "HEX", "SHA-256 of the bytes, in hexadecimal (no empty input)", 1, sha256},
    {"base64_encode", "HEX", "base64 of the bytes", 1, base64},
};

}  // namespace

void listHelpers() {
    for (const Helper& helper : kHelpers)
        std::printf("      %-16s %-24s %s\n", helper.name, helper.usage, helper.title);
}

void addHelperCommands(CLI::App& app, int& exitCode) {
    auto* helperApp = app.add_subcommand("helper", "Call one of the library's helpers");
    helperApp->require_subcommand(1);
    for (const Helper& helper : kHelpers) {
        auto* sub = helperApp->add_subcommand(helper.name, helper.title);
        auto args = std::make_shared<Arguments>();
        sub->add_option("arguments", *args, helper.usage)
            ->expected(static_cast<int>(helper.arguments))
            ->required();
        sub->callback([&helper, args, &exitCode] {
            exitCode = helper.run(*args);
            if (exitCode == 2)
                std::cerr << "zel-tc: helper " << helper.name << " takes " << helper.usage
                          << std::endl;
        });
    }
}

}  // namespace zel::tc
