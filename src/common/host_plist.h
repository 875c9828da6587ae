// Reading a property list out of a local database copy.
#pragma once

#include "common/raii.h"
#include "tarn/tarn_device.h"

namespace tarn {

// The whole host file parsed with `parser` (plist_from_xml or
// plist_from_bin), or null when the file is missing, empty, unreadable or
// does not parse.
PlistPtr ParseHostPlist(const char *path, PodPlistParser parser);

}  // namespace tarn
