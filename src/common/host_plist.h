// Reading a property list out of a local database copy.
#pragma once

#include "common/raii.h"
#include "tarn/tarn_device.h"

namespace tarn {

// The whole host file parsed with `parser` (plist_from_xml or
// plist_from_bin), or null when the file is missing, empty, unreadable or
// does not parse.
PlistPtr ParseHostPlist(const char *path, PodPlistParser parser);

// The text of a string node as a malloc'd copy, up to its first NUL; null
// when the node is not a string. A catalogue may hold a NUL inside a string,
// and libplist's own getters (plist_get_string_val, and plist_get_key_val
// behind plist_dict_next_item's key) abort the process on one.
CString StringOf(plist_t node);

}  // namespace tarn
