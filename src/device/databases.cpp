// Where a device keeps its media databases, which of them it has, and their
// copies in the host working directory that every catalogue reads.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include <glib.h>

#include "common/connection.h"
#include "common/console.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/number.h"
#include "common/raii.h"
#include "device/sqlite_copy.h"
#include "devicefs/transfer.h"
#include "tarn/tarn_device.h"
#include "tarn/tarn_tool.h"

namespace tarn {
int IsPodFileValid(afc_client_t client, const char *path);
}  // namespace tarn

namespace {

// An entry lists the files of its table that the device holds, in table
// order, each as {"Type": index, "Path": path}. A dictionary with repeated
// keys cannot be kept with libplist 2.x, which replaces a repeated key, so
// the pairs are array members; the one walk in db_entry.h reads them.
template <size_t N>
plist_t BuildEntry(afc_client_t client, const char *const (&table)[N]) {
  tarn::PlistPtr entry(plist_new_array());
  // A database the device does not have is an answer, not a failure.
  const tarn::KeepReason quiet;
  for (size_t i = 0; i < N; ++i) {
    if (tarn::IsPodFileValid(client, table[i]) != 1) continue;
    plist_t pair = plist_new_dict();
    plist_dict_set_item(pair, "Type", plist_new_uint(i));
    plist_dict_set_item(pair, "Path", plist_new_string(table[i]));
    plist_array_append_item(entry.get(), pair);
  }
  if (plist_array_get_size(entry.get()) == 0) return nullptr;
  return entry.release();
}

// The SQLite databases among the device's files, by their names.
bool IsSqliteFile(const char *path) {
  const std::string_view p(path);
  for (std::string_view suffix : {".sqlitedb", ".sqlite", ".db"})
    if (p.size() > suffix.size() && p.substr(p.size() - suffix.size()) == suffix) return true;
  return false;
}

}  // namespace

namespace tarn {

int IsPodFileValid(afc_client_t client, const char *path) {
  char **attrs = nullptr;
  if (client == nullptr || path == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT,
                   client ? "No device path was given." : "No file-service connection was given.");
    return 0;
  }
  const afc_error_t err = afc_get_file_info(client, path, &attrs);
  if (err != AFC_E_SUCCESS) {
    if (attrs) g_strfreev(attrs);
    tarn::SetAfcError(err, path);
    return 0;
  }
  // A success that carries no information (an empty answer gives no
  // vector at all) describes nothing that could be copied and read.
  if (attrs == nullptr) return 0;
  tarn::StrVec owned(attrs);
  for (char **kv = attrs; kv[0] != nullptr && kv[1] != nullptr; kv += 2) {
    // An empty database is as good as none: nothing could be read from it.
    if (std::strcmp(kv[0], "st_size") == 0 && tarn::DeviceNumber(kv[1]) == 0) return 0;
  }
  return 1;
}

plist_t GetMusicDBFileInfo(afc_client_t client) {
  return BuildEntry(client, tarn::kTrackDbPath);
}

plist_t GetBookDBFileInfo(afc_client_t client) {
  return BuildEntry(client, tarn::kBookDbPath);
}

plist_t GetCameraDBFileInfo(afc_client_t client) {
  return BuildEntry(client, tarn::kCameraDbPath);
}

plist_t GetRecordingDBFileInfo(afc_client_t client) {
  return BuildEntry(client, tarn::kRecordingDbPath);
}

plist_t GetUserPictureDBFileInfo(afc_client_t client) {
  return BuildEntry(client, tarn::kUserPictureDbPath);
}

int CopyDbFileToNativeDir(PodDevice *device, afc_client_t client, plist_t entry) {
  if (entry == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "No database entry was given.");
    return 1;
  }
  tarn::WalkDbEntry(entry, [&](uint64_t, const char *device_path) {
    const std::string copy = tarn::LocalCopyPath(device, device_path);
    const char *local_path = copy.c_str();
    // A database with a write-ahead log is only whole together with it, and
    // the phone keeps writing it: it is copied as one, and again whenever
    // the phone's files changed since.
    if (IsSqliteFile(device_path) && tarn::HasWriteAheadLog(client, device_path)) {
      tarn::CopyWalDatabase(device, client, device_path, copy);
      return false;
    }
    tarn::ConsoleFlush();
    // Existence is the only test: a copy left by an earlier initialisation
    // is kept as it is, and the music database, which three tables name,
    // is copied once.
    if (!TarnIsFileExists(local_path)) {
      tarn::ConsoleLine("......begin CopyDeviceFile");
      tarn::ConsoleFlush();
      // A copy cut short (the device went away in mid-transfer, the host
      // disk filled up) must not stay: existence is all a later InitDevice
      // looks at, so it would stand in for the database for good.
      if (!tarn::DownloadWhole(device, client, device_path, local_path, nullptr)) std::remove(local_path);
      tarn::ConsoleLine("......end CopyDeviceFile");
      tarn::ConsoleFlush();
    }
    return false;
  });
  return 0;
}

}  // namespace tarn

extern "C" {

TARN_API int IsPodFileValid(afc_client_t client, const char *path) {
  const tarn::ApiCall api_call;
  return tarn::IsPodFileValid(client, path);
}

TARN_API plist_t GetMusicDBFileInfo(afc_client_t client) {
  const tarn::ApiCall api_call;
  return tarn::GetMusicDBFileInfo(client);
}
// Every media kind lives in the one music database; each kind keeps a
// builder of its own name for callers that ask by kind.
TARN_API plist_t GetPodcastDBFileInfo(afc_client_t client) {
  const tarn::ApiCall api_call;
  return tarn::GetMusicDBFileInfo(client);
}
TARN_API plist_t GetTvshowDBFileInfo(afc_client_t client) {
  const tarn::ApiCall api_call;
  return tarn::GetMusicDBFileInfo(client);
}
TARN_API plist_t GetAudioBookDBFileInfo(afc_client_t client) {
  const tarn::ApiCall api_call;
  return tarn::GetMusicDBFileInfo(client);
}
TARN_API plist_t GetMovieDBFileInfo(afc_client_t client) {
  const tarn::ApiCall api_call;
  return tarn::GetMusicDBFileInfo(client);
}
TARN_API plist_t GetBookDBFileInfo(afc_client_t client) {
  const tarn::ApiCall api_call;
  return tarn::GetBookDBFileInfo(client);
}
TARN_API plist_t GetCameraDBFileInfo(afc_client_t client) {
  const tarn::ApiCall api_call;
  return tarn::GetCameraDBFileInfo(client);
}
TARN_API plist_t GetRecordingDBFileInfo(afc_client_t client) {
  const tarn::ApiCall api_call;
  return tarn::GetRecordingDBFileInfo(client);
}
TARN_API plist_t GetUserPictureDBFileInfo(afc_client_t client) {
  const tarn::ApiCall api_call;
  return tarn::GetUserPictureDBFileInfo(client);
}

TARN_API int CopyDbFileToNativeDir(PodDevice *device, afc_client_t client, plist_t entry) {
  const tarn::ApiCall api_call;
  return tarn::CopyDbFileToNativeDir(device, client, entry);
}

TARN_API int InitDevice(PodDevice *device, const char *host_dir) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("InitDevice");
  if (device == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "No device handle was given.");
    return 1;
  }
  // A second initialisation of the same handle replaces the directory and
  // the database information; the old ones are released here rather than
  // lost.
  std::free(device->hostDir);
  device->hostDir = host_dir ? strdup(host_dir) : nullptr;

  tarn::LockdownSession session(device, "iPod");
  if (session.status() != tarn::LockdownSession::Status::kOk) return 1;
  afc_client_t client = session.afc();

  // Looked up in one order and stored in another; readers and
  // applications see the stored order.
  tarn::PlistPtr music(tarn::GetMusicDBFileInfo(client));
  tarn::PlistPtr books(tarn::GetBookDBFileInfo(client));
  tarn::PlistPtr camera(tarn::GetCameraDBFileInfo(client));
  tarn::PlistPtr recordings(tarn::GetRecordingDBFileInfo(client));
  tarn::PlistPtr pictures(tarn::GetUserPictureDBFileInfo(client));

  tarn::PlistPtr info(plist_new_dict());
  const struct {
    const char *key;
    const tarn::PlistPtr &entry;
  } stored[] = {{"TrackDb", music}, {"BookDb", books}, {"UserPictureDb", pictures},
                {"CameraDb", camera}, {"RecordingDb", recordings}};
  for (const auto &s : stored) {
    if (s.entry) plist_dict_set_item(info.get(), s.key, plist_copy(s.entry.get()));
  }
  if (device->dbInfo) plist_free(device->dbInfo);
  device->dbInfo = info.release();

  for (const tarn::PlistPtr *entry : {&music, &books, &camera, &recordings, &pictures}) {
    if (*entry) tarn::CopyDbFileToNativeDir(device, client, entry->get());
  }
  return 0;
}

}  // extern "C"
