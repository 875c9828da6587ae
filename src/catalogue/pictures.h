// The item shared by the camera roll and the picture-folder walk.
#pragma once

#include <cstdint>
#include <string>

#include <plist/plist.h>

namespace tarn {

// A picture's time as every picture item gives it: local time,
// "%Y/%m/%d %H:%M:%S".
std::string PictureTime(int32_t seconds);

// Appends {"size", "path", "time"} for a device file with the given
// file-information vector (GetFileInfo), and adds its size to *total. The
// time is the modification time as local time. A file whose size the
// device did not report is left out: it was removed since it was listed,
// or the device does not know it.
void AppendPictureItem(plist_t items, const char *path, char *const *info, uint64_t *total);

}  // namespace tarn
