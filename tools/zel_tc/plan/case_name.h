// The name a step is reported under to CI and to a device lab: stable from run to run and unique
// within the whole plan, because a lab compares a case's results across runs by its name.
#pragma once

#include <string>

#include "plan/catalogue.h"

namespace zel::tc {

// The step's name and its inputs, and the result the plan expects when that is a failure:
// "process", "bist.7", "zel_storeKey.data2.index3", "zel_get.data1.index3.expect0xFFFF0008".
// Only letters, digits, '_', '.' and '-': LAVA splits its signals on spaces and '=', and lab
// front ends take no other characters in a case name.
std::string caseName(const Step& step);

}  // namespace zel::tc
