// Identity strings of the device, read from the platform's configuration store and
// system-information service.
//
// Both return a copy that the caller owns; the platform's own string is released before they
// return. They never fail outwardly: on an error they print one line and return an empty string,
// which is also what they return, silently, for a value stored as empty.
#pragma once

#include <system_info.h>

#include <string>

#include "zel_export.h"

// The serial number under "db/comss/serialnumber", exactly as stored; "GetSerialNumber from vconf
// error" and empty when the key cannot be read.
ZEL_TC_API std::string GetSerialNumber();

// The string item key, exactly as the platform holds it; "Failed to read string option" and empty
// when the platform fails or hands back no string.
ZEL_TC_API std::string GetSysInfoStringValue(system_info_key_e key);
