// The one walk over the handle's database information. dbInfo maps a
// database kind ("TrackDb", ...) to an array of {"Type", "Path"}
// dictionaries in path-table order; every reader goes through here.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <plist/plist.h>

#include "tarn/tarn_device.h"

namespace tarn {

// Receives (type, device path); returns true to stop the walk.
using DbFileVisitor = std::function<bool(uint64_t type, const char *device_path)>;

// Walks one entry in order. Malformed members (not a dictionary, missing or
// mistyped "Type"/"Path") are skipped. Returns true when the visitor stopped
// the walk.
bool WalkDbEntry(plist_t entry, const DbFileVisitor &visit);

// Looks up kind in the handle's dbInfo and walks it. Returns false when the
// handle has no entry of that kind (nothing is visited).
bool WalkDbFiles(const PodDevice *device, const char *kind, const DbFileVisitor &visit);

// The host path of the local copy of a device database: hostDir followed by
// the device path's last '/' and base name.
std::string LocalCopyPath(const PodDevice *device, const char *device_path);

}  // namespace tarn
