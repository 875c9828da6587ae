// Downloads for callers inside the library that need to know how one ended.
#pragma once

#include <cstdint>

#include "tarn/tarn_device.h"

namespace tarn {

// _CopyFileFromDeviceToNative, telling whether the device file was read to
// its end and all of it reached the host file. False after a read error, a
// full host disk, a cancel, or when either file could not be opened. A file
// of more than `most` bytes, by its size or by what the device sends, is
// refused with TARN_E_DEVICE, for files whose size the device is not
// trusted with.
bool DownloadWhole(PodDevice *device, afc_client_t client, const char *device_path, const char *host_path,
                   PodProgressCallback progress, uint64_t most = UINT64_MAX);

}  // namespace tarn
