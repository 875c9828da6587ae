// Album artwork: the cover a current phone's music library names for a
// track, copied from the phone's artwork folder to a host file; on an older
// device, the track's cover in its artwork database, encoded as PNG.
#include <fcntl.h>
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "catalogue/catalogue.h"
#include "common/connection.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/scratch_dir.h"
#include "common/raii.h"
#include "devicefs/stamp.h"
#include "devicefs/transfer.h"
#include "devicefs/walk.h"
#include "musicdb/music_database.h"
#include "tarn/tarn_device.h"

namespace {

// A cover is a JPEG or PNG of a few hundred KiB at most; a file far larger
// than any cover is no cover, and is not copied for one.
constexpr uint64_t kLargestArtwork = 16ull << 20;

// An older device's artwork database and the files of pixels beside it
// hold every cover of the library: hundreds of MiB on a full device, but
// not more than a GiB per file (libgpod starts a new one well before).
constexpr uint64_t kLargestArtworkFile = 1ull << 30;
constexpr const char *kArtworkFolder = "/iTunes_Control/Artwork";
constexpr const char *kSysInfoExtended = "/iTunes_Control/Device/SysInfoExtended";

// Keeps the host copy `local` of the device file `device_path` as the
// device has it: the copy carries the device's size and modification time,
// so that a copy still matching both is used again without reading the
// device file, and a changed file is read whole again (under a scratch name,
// then renamed, so a reader never meets half of one). False, with the
// reason recorded, when the device file could not be copied; `absent` tells
// that the device has no such file.
bool KeepFresh(PodDevice *device, afc_client_t client, const std::string &device_path, const std::string &local,
               bool *absent) {
  const tarn::DeviceStamp stamp = tarn::StampOf(client, device_path);
  const uint64_t size = stamp.bytes();
  const auto mtime_ns = static_cast<int64_t>(stamp.mtime_ns());
  *absent = !stamp.exists;
  if (!stamp.exists) return false;
  struct stat st {};
  if (::stat(local.c_str(), &st) == 0 && static_cast<uint64_t>(st.st_size) == size &&
      int64_t{st.st_mtim.tv_sec} * 1000000000 + st.st_mtim.tv_nsec == mtime_ns)
    return true;
  const tarn::ScratchDir scratch(local);
  if (scratch.path().empty()) return false;
  const std::string part = scratch.path() + "/file";
  if (!tarn::DownloadWhole(device, client, device_path.c_str(), part.c_str(), nullptr, kLargestArtworkFile))
    return false;
  const struct timespec times[2] = {{mtime_ns / 1000000000, mtime_ns % 1000000000},
                                    {mtime_ns / 1000000000, mtime_ns % 1000000000}};
  if (::utimensat(AT_FDCWD, part.c_str(), times, 0) != 0) {
    tarn::SetHostError(errno, part.c_str());
    return false;
  }
  return tarn::ScratchDir::Place(part, local);
}

// Writes `bytes` whole to host_path through a scratch file renamed over it.
bool WriteWhole(const char *host_path, const gchar *bytes, gsize length) {
  const tarn::ScratchDir scratch(host_path);
  if (scratch.path().empty()) return false;
  const std::string part = scratch.path() + "/artwork";
  {
    errno = 0;
    tarn::HostFile out(std::fopen(part.c_str(), "wb"));
    if (!out || std::fwrite(bytes, 1, length, out.get()) != length || std::fflush(out.get()) != 0) {
      tarn::SetHostError(errno ? errno : EIO, part.c_str());
      return false;
    }
  }
  return tarn::ScratchDir::Place(part, host_path);
}

// The host file's size and modification time, with its name.
std::string HostStamp(const std::string &path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return path + " -\n";
  return path + " " + std::to_string(st.st_size) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
         std::to_string(st.st_mtim.tv_nsec) + "\n";
}

// The covers read from the music database `database` and the artwork in
// `files`, read once and kept while none of those host copies changes. A
// window asks for covers an album at a time, a few dozen in sight, and
// every reading parses the whole music database (about 0.4 s for 50,000
// tracks): kept, each cover after the first costs the device's answer that
// its files are as they were, and the PNG. The two most recent are kept,
// for a program that shows two devices.
std::shared_ptr<const tarn::TrackCovers> KeptCovers(const std::string &database, const tarn::DeviceArtwork &artwork,
                                                    const std::vector<std::string> &files) {
  static std::mutex mutex;
  static std::list<std::pair<std::string, std::shared_ptr<const tarn::TrackCovers>>> kept;
  std::string key = HostStamp(database);
  for (const std::string &file : files) key += HostStamp(file);
  {
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto at = kept.begin(); at != kept.end(); ++at) {
      if (at->first != key) continue;
      kept.splice(kept.begin(), kept, at);
      return kept.front().second;
    }
  }
  // Read outside the lock: another device's covers need not wait for it.
  std::shared_ptr<const tarn::TrackCovers> covers = tarn::TrackCovers::Read(database.c_str(), artwork);
  if (!covers) return nullptr;
  const std::lock_guard<std::mutex> lock(mutex);
  kept.emplace_front(std::move(key), covers);
  if (kept.size() > 2) kept.pop_back();
  return covers;
}

// An older device's cover: the track's artwork in the device's artwork
// database, as libgpod reads it with the formats the device's
// SysInfoExtended names, encoded as PNG. The few files this needs are read
// only here, when a cover is asked for, and kept beside the handle's
// database copies (hostDir/Artwork): the covers of a whole library read
// them once, and each later call only asks the device whether they changed.
// The music database is the copy InitDevice made, so that the track ids are
// those of the music list.
bool CopyOlderArtwork(PodDevice *device, uint64_t track_id, const char *host_path, const std::string &database) {
  const tarn::DeviceCall call(device, tarn::PolicyOf("TarnCopyArtwork"));
  if (call.afc() == nullptr) return false;
  const std::string cache = tarn::LocalCopyPath(device, kArtworkFolder);
  std::error_code ec;
  std::filesystem::create_directories(cache, ec);
  if (ec) {
    tarn::SetHostError(ec.value(), cache.c_str());
    return false;
  }
  bool absent = false;
  if (!KeepFresh(device, call.afc(), std::string(kArtworkFolder) + "/ArtworkDB", cache + "/ArtworkDB", &absent)) {
    if (absent)
      tarn::SetError(TARN_E_NOT_FOUND, "The device keeps no artwork database (" + std::string(kArtworkFolder) +
                                           "/ArtworkDB): none of its tracks has a cover.");
    return false;
  }
  std::vector<std::string> artwork_files{cache + "/ArtworkDB"};
  const tarn::StrVec names = tarn::ListDirectory(call.afc(), kArtworkFolder);
  for (char **name = names.get(); name != nullptr && *name != nullptr; ++name) {
    const std::string n = *name;
    if (!tarn::IsWalkableName(*name) || n.size() < 7 || n.compare(n.size() - 6, 6, ".ithmb") != 0) continue;
    if (KeepFresh(device, call.afc(), std::string(kArtworkFolder) + "/" + n, cache + "/" + n, &absent))
      artwork_files.push_back(cache + "/" + n);
    else if (!absent)
      return false;
  }
  tarn::DeviceArtwork artwork{cache, ""};
  if (KeepFresh(device, call.afc(), kSysInfoExtended, cache + "/SysInfoExtended", &absent)) {
    artwork.sysinfo_extended = cache + "/SysInfoExtended";
    artwork_files.push_back(artwork.sysinfo_extended);
  } else if (!absent) {
    return false;
  }

  const std::shared_ptr<const tarn::TrackCovers> covers = KeptCovers(database, artwork, artwork_files);
  if (!covers) return false;
  tarn::GObjectPtr<GdkPixbuf> pixbuf;
  switch (covers->Find(track_id, &pixbuf)) {
    case tarn::TrackCovers::Cover::kNoSuchTrack:
      tarn::SetError(TARN_E_NOT_FOUND, "The music database holds no track " + std::to_string(track_id) + ".");
      return false;
    case tarn::TrackCovers::Cover::kNone:
      tarn::SetError(TARN_E_NOT_FOUND, "The track " + std::to_string(track_id) + " has no cover.");
      return false;
    case tarn::TrackCovers::Cover::kUnreadable:
      tarn::SetError(TARN_E_DATABASE_UNREADABLE,
                     "The track " + std::to_string(track_id) +
                         " has a cover, but the device's artwork database or the formats it names could not be "
                         "read.");
      return false;
    case tarn::TrackCovers::Cover::kPicture:
      break;
  }
  gchar *raw = nullptr;
  gsize length = 0;
  GError *error = nullptr;
  const gboolean saved = gdk_pixbuf_save_to_buffer(pixbuf.get(), &raw, &length, "png", &error, nullptr);
  const tarn::GErrorPtr owned_error(error);
  const std::unique_ptr<gchar, decltype(&g_free)> bytes(raw, &g_free);
  if (!saved) {
    tarn::SetError(TARN_E_HOST_IO, std::string("The cover could not be encoded as PNG: ") +
                                    (error ? error->message : "unknown reason"));
    return false;
  }
  return WriteWhole(host_path, bytes.get(), length);
}

bool CopyArtwork(PodDevice *device, uint64_t track_id, const char *host_path) {
  if (device == nullptr || host_path == nullptr || host_path[0] == '\0') {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "A copy of artwork needs a device handle and a host path.");
    return false;
  }
  const auto library = tarn::MediaLibraryCopy(device);
  if (!library) {
    // An older device: the compressed music database InitDevice copied (the
    // one the music list reads), and the covers of its artwork database.
    if (const auto database = tarn::TrackDbCopy(device, tarn::kTrackDbCdb))
      return CopyOlderArtwork(device, track_id, host_path, *database);
    tarn::SetError(TARN_E_DATABASE_ABSENT,
                   "The device has no music library (MediaLibrary.sqlitedb or iTunesCDB) copied by InitDevice "
                   "that names artwork.");
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
  return tarn::DownloadWhole(device, call.afc(), device_path.c_str(), part.c_str(), nullptr, kLargestArtwork) &&
         tarn::ScratchDir::Place(part, host_path);
}

}  // namespace

extern "C" {

TARN_API int TarnCopyArtwork(PodDevice *device, uint64_t track_id, const char *host_path) {
  const tarn::ApiCall api_call;
  return CopyArtwork(device, track_id, host_path) ? 0 : 1;
}

}  // extern "C"
