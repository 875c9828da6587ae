// Album artwork: the cover a current phone's music library names for a
// track, copied from the phone's artwork folder to a host file.
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>

#include "catalogue/catalogue.h"
#include "common/connection.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/scratch_dir.h"
#include "devicefs/transfer.h"
#include "tarn/tarn_device.h"

namespace {

// A cover is a JPEG or PNG of a few hundred KiB at most; a file far larger
// than any cover is no cover, and is not copied for one.
constexpr uint64_t kLargestArtwork = 16ull << 20;

bool CopyArtwork(PodDevice *device, uint64_t track_id, const char *host_path) {
  if (device == nullptr || host_path == nullptr || host_path[0] == '\0') {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "A copy of artwork needs a device handle and a host path.");
    return false;
  }
  const auto library = tarn::MediaLibraryCopy(device);
  if (!library) {
    // An older device's covers live in its ArtworkDB, which is not read.
    tarn::SetError(TARN_E_DATABASE_ABSENT,
                   "The device has no music library (MediaLibrary.sqlitedb) copied by InitDevice that names "
                   "artwork.");
    return false;
  }
  std::string relative;
  if (!tarn::ReadLibraryArtwork(library->c_str(), track_id, &relative)) return false;
  if (relative.empty()) {
    tarn::SetError(TARN_E_NOT_FOUND, "The music library names no artwork for the track " + std::to_string(track_id) + ".");
    return false;
  }
  const std::string device_path = tarn::ArtworkDevicePath(relative);
  if (device_path.empty()) {
    tarn::SetError(TARN_E_DATABASE_UNREADABLE, "The music library names the artwork of the track " +
                                                   std::to_string(track_id) + " \"" + relative +
                                                   "\", which lies outside its artwork folder; it is not read.");
    return false;
  }
  const tarn::DeviceCall call(device, tarn::PolicyOf("TarnCopyArtwork"));
  if (call.afc() == nullptr) return false;
  // Written whole beside the target, then renamed over it: an earlier copy
  // stays as it was until the new one is complete.
  const tarn::ScratchDir scratch(host_path);
  if (scratch.path().empty()) return false;
  const std::string part = scratch.path() + "/artwork";
  if (!tarn::DownloadWhole(device, call.afc(), device_path.c_str(), part.c_str(), nullptr, kLargestArtwork))
    return false;
  if (std::rename(part.c_str(), host_path) != 0) {
    tarn::SetHostError(errno, host_path);
    return false;
  }
  return true;
}

}  // namespace

extern "C" {

TARN_API int TarnCopyArtwork(PodDevice *device, uint64_t track_id, const char *host_path) {
  const tarn::ApiCall api_call;
  return CopyArtwork(device, track_id, host_path) ? 0 : 1;
}

}  // extern "C"
