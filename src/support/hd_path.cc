#include "support/hd_path.h"

#include <iterator>

namespace {

constexpr uint32_t hd_path_param::*kLevels[] = {
    &hd_path_param::purpose, &hd_path_param::coinType,     &hd_path_param::account,
    &hd_path_param::change,  &hd_path_param::addressIndex,
};
constexpr unsigned int kLevelCount = std::size(kLevels);
constexpr unsigned int kPathBufferLength = 4 * kLevelCount;

uint32_t bigEndian32(const unsigned char* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 |
           uint32_t{bytes[3]};
}

}  // namespace

int BufferToHdParamS(const void* buffer, unsigned int length, hd_path_param* out) {
    if (length != kPathBufferLength || out == nullptr) return -1;
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    for (unsigned int level = 0; level < kLevelCount; ++level)
        out->*kLevels[level] = bigEndian32(bytes + 4 * level);
    return 0;
}

unsigned int getHDPathIndex(const hd_path_param& path, unsigned int level) {
    return path.*kLevels[level < kLevelCount ? level : kLevelCount - 1];
}
