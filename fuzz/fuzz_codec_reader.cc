// The codec's reader over an arbitrary block: whatever the block holds, every read stays inside it
// and a field is returned only when its header says it fits; what a writer writes reads back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "wsm_encoding.h"

using namespace zel::wsm;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A block of its own, so that ASan sees any read past it.
    std::vector<uint8_t> block(data, data + size);
    Reader reader(block.data(), static_cast<uint32_t>(block.size()));
    for (int step = 0; step < 256; ++step) {
        const Tag tag = reader.peek();
        if (tag == kEnd) break;
        int32_t integer;
        uint32_t unsignedValue;
        if (tag == kInt && reader.getInt(integer)) continue;
        if (tag == kUint && reader.getUint(unsignedValue)) continue;
        // A blob of the length its header claims, when that fits.
        if (block.size() < 8) break;
        uint32_t claimed = 0;
        std::memcpy(&claimed, block.data() + 4, sizeof claimed);
        const uint8_t* payload = reader.get(tag, claimed);
        if (payload) {
            if (payload < block.data() || payload + claimed > block.data() + block.size()) abort();
            volatile uint8_t sink = claimed ? payload[claimed - 1] : 0;
            (void)sink;
        } else if (!reader.get(tag, 4)) {
            break;
        }
    }

    // The input as one blob: written into a block of the input's size, it reads back or the
    // writer refused it.
    std::vector<uint8_t> out(size);
    Writer writer(out.data(), static_cast<uint32_t>(out.size()));
    const bool written = writer.put(kBlob, data, static_cast<uint32_t>(size));
    if (written) {
        Reader back(out.data(), static_cast<uint32_t>(out.size()));
        const uint8_t* payload = back.get(kBlob, static_cast<uint32_t>(size));
        if (!payload || std::memcmp(payload, data, size) != 0 || back.peek() != kEnd) abort();
    }
    return 0;
}
