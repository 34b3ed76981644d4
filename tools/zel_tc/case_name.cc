#include "case_name.h"

#include <cstdio>
#include <cstring>

#include "interface/zel_ta_ids.h"
#include "tee_names.h"

namespace zel::tc {

namespace {

bool sameUuid(const TEEC_UUID& a, const TEEC_UUID& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

std::string caseName(const Step& step) {
    const CatalogueEntry& entry = *step.entry;
    std::string name = entry.name;
    if (entry.takesArgument()) name += "." + std::to_string(step.input.argument);
    // Each input is named only on the steps that read it; naming it elsewhere would rename a
    // step whenever the option is given for the others. The general scenarios read test data,
    // slot and TA; the firmware update (a secure-processor scenario or entry point) the param.
    const bool scenario = std::strcmp(entry.dataTypes, "-") != 0;
    if (scenario)
        name += ".data" + std::to_string(step.input.dataType) + ".index" +
                std::to_string(step.input.index);
    if (!scenario && !entry.takesArgument() && step.input.param != 0)
        name += ".param" + std::to_string(step.input.param);
    // The vault TA is the scenarios' default, so only another TA is named.
    if (scenario && sameUuid(step.input.uuid, zel_test_a)) {
        name += ".zel_test_a";
    } else if (scenario && !sameUuid(step.input.uuid, zel_test)) {
        char text[40];
        const TEEC_UUID& u = step.input.uuid;
        std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                      u.timeLow, u.timeMid, u.timeHiAndVersion, u.clockSeqAndNode[0],
                      u.clockSeqAndNode[1], u.clockSeqAndNode[2], u.clockSeqAndNode[3],
                      u.clockSeqAndNode[4], u.clockSeqAndNode[5], u.clockSeqAndNode[6],
                      u.clockSeqAndNode[7]);
        name += std::string(".uuid") + text;
    }
    if (step.why) name += ".expect" + resultHex(static_cast<uint32_t>(step.expected));
    return name;
}

}  // namespace zel::tc
