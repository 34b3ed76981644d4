// Everything a harness may use from libzel-tc-lib.
#pragma once

#include "interface/ca_zel_interface.h"
#include "interface/ca_zel_interface_sp.h"
#include "interface/zel_result.h"
#include "interface/zel_ta_ids.h"
#include "managers/ca_manager.h"
#include "managers/ca_manager_sp.h"
#include "suites/entry_points.h"
#include "suites/ze_test.h"
#include "support/byte_helpers.h"
#include "support/data_place_holder.h"
#include "support/device_identity.h"
#include "support/ec_signature.h"
#include "support/hd_path.h"
#include "transport/zel_tee_client.h"
