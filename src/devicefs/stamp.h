// What tells that a device file changed: its size and modification time as
// the device says them. The time is in the device's own resolution
// (nanoseconds), so that a change within one second still shows; both are
// kept as the device wrote them and compared, never computed with, except
// through the checked readers below.
#pragma once

#include <cstdint>
#include <string>

#include "common/number.h"
#include "tarn/tarn_device.h"

namespace tarn {

struct DeviceStamp {
  bool exists = false;
  std::string size, mtime;
  bool operator==(const DeviceStamp &) const = default;
  uint64_t bytes() const { return DeviceNumber(size.c_str()); }
  uint64_t mtime_ns() const { return DeviceNumber(mtime.c_str()); }
};

// The stamp of one device file; `exists` false when the device has none
// there or does not answer. Records no reason: an absent file is an answer.
DeviceStamp StampOf(afc_client_t client, const std::string &path);

}  // namespace tarn
