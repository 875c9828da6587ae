// Device paths as every command uses them: normalised once, before any use,
// so that no spelling of a path ("/.", "/DCIM/./..", "//") can reach the
// root of the media partition by accident.
#pragma once

#include <string>
#include <string_view>

namespace tarn::app {

struct DevicePath {
  std::string path;       // absolute, no ".", "..", repeated or trailing '/' ("/" for the root)
  bool dir_only = false;  // the text ended in '/', "/." or "/..": it must name a directory
};

// Relative paths count from `base` (the root, as the device has no working
// directory; an app's Documents for a session on an app). Fails with kUsage
// for an empty path or one that climbs above the root.
DevicePath NormaliseDevicePath(std::string_view text, std::string_view base = "/");

inline bool IsDeviceRoot(const std::string &normalised) { return normalised == "/"; }
std::string JoinDevicePath(const std::string &dir, const std::string &name);
std::string DeviceParent(const std::string &normalised);

}  // namespace tarn::app
