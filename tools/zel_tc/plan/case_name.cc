#include "plan/case_name.h"

#include <cstring>

#include "args/tee_names.h"
#include "args/uuid.h"

namespace zel::tc {

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
    const std::string ta = uuidText(step.input.uuid);
    if (scenario && ta == "zel_test_a")
        name += ".zel_test_a";
    else if (scenario && ta != "zel_test")
        name += ".uuid" + ta;
    if (step.why) name += ".expect" + resultHex(static_cast<uint32_t>(step.expected));
    return name;
}

}  // namespace zel::tc
