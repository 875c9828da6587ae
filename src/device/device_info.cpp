// What a device is and how its storage is used.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "catalogue/catalogue.h"
#include "common/db_entry.h"
#include "common/connection.h"
#include "common/console.h"
#include "common/error.h"
#include "common/helpers.h"
#include "common/number.h"
#include "common/raii.h"
#include "musicdb/music_database.h"
#include "tarn/tarn_device.h"

namespace {

// The byte total of a list result; a list that cannot be built counts as 0.
uint64_t ListTotal(plist_t list) {
  tarn::PlistPtr owned(list);
  uint64_t total = 0;
  if (list) plist_get_uint_val(plist_dict_get_item(list, "total"), &total);
  return total;
}

}  // namespace

namespace tarn {

void SetDeviceUsage(PodDevice *device, afc_client_t client, plist_t info) {
  if (info == nullptr) return;
  int64_t capacity = 0, available = 0;
  char **attrs = nullptr;
  if (client) tarn::SetAfcError(afc_get_device_info(client, &attrs), nullptr);
  tarn::StrVec owned(attrs);
  // The keys come in the order the device sends them, and only when it
  // sends them.
  for (char **kv = attrs; kv != nullptr && kv[0] != nullptr && kv[1] != nullptr; kv += 2) {
    if (std::strcmp(kv[0], "FSTotalBytes") == 0) {
      capacity = static_cast<int64_t>(tarn::DeviceNumber(kv[1]));
      // "Catacity" is the key applications have always read.
      plist_dict_set_item(info, "Catacity", plist_new_uint(static_cast<uint64_t>(capacity)));
    } else if (std::strcmp(kv[0], "FSFreeBytes") == 0) {
      available = static_cast<int64_t>(tarn::DeviceNumber(kv[1]));
      plist_dict_set_item(info, "Available", plist_new_uint(static_cast<uint64_t>(available)));
    }
  }
  // The music and movie totals come out of the same database: it is parsed
  // once for both, and freed before this returns.
  const tarn::SharedMusicDatabase one_parse;
  // A list that cannot be built counts as 0 and is no failure here.
  const tarn::KeepReason quiet;
  uint64_t audio = 0, video = 0;
  if (const auto library = tarn::MediaLibraryCopy(device)) {
    // A phone's music library is read once for both totals.
    auto totals = tarn::ReadLibraryTotalsSQLITE(library->c_str());
    audio = totals[tarn::kMusicKind];
    video = totals[tarn::kMovieKind];
  } else {
    audio = ListTotal(tarn::GetMusicList(device));
    video = ListTotal(tarn::GetMovieList(device));
  }
  const uint64_t photos = ListTotal(tarn::GetCameraPVList(device));
  plist_dict_set_item(info, "Audio", plist_new_uint(audio));
  plist_dict_set_item(info, "Video", plist_new_uint(video));
  plist_dict_set_item(info, "Photos", plist_new_uint(photos));
  // Not clamped: when the media totals exceed the used space (databases
  // newer than the device's counters, or no counters at all) the value
  // wraps around, and applications have always been shown that value.
  const uint64_t others =
      static_cast<uint64_t>(capacity) - static_cast<uint64_t>(available) - audio - video - photos;
  plist_dict_set_item(info, "Others", plist_new_uint(others));
}

}  // namespace tarn

extern "C" {

TARN_API void SetDeviceUsage(PodDevice *device, afc_client_t client, plist_t info) {
  const tarn::ApiCall api_call;
  tarn::SetDeviceUsage(device, client, info);
}

TARN_API plist_t GetDeviceInfo(PodDevice *device) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("GetDeviceInfo");
  if (device == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "No device handle was given.");
    return nullptr;
  }
  // The music totals below parse the host copy of an older device's music
  // database, which needs nothing of the device: the parse runs while the
  // device is asked for its identity and storage, behind a secure session
  // whose handshake libimobiledevice spends mostly asleep.
  tarn::SharedMusicDatabase one_parse;
  if (!tarn::MediaLibraryCopy(device)) {
    if (const auto database = tarn::TrackDbCopy(device, tarn::kTrackDbCdb)) one_parse.ParseAhead(*database);
  }
  tarn::LockdownSession session(device, "iPod");
  if (session.status() != tarn::LockdownSession::Status::kOk) return nullptr;

  tarn::PlistPtr info(plist_new_dict());
  tarn::InsertPlistDictString(info.get(), "UniqueDeviceID", device->deviceId);
  char *name = nullptr;
  lockdownd_get_device_name(session.lockdown(), &name);
  tarn::CString owned_name(name);
  // A value the device does not give leaves its key out rather than
  // inventing one.
  if (name) tarn::InsertPlistDictString(info.get(), "DeviceName", name);
  static constexpr struct {
    const char *lockdown_key;
    const char *key;
  } kIdentity[] = {{"ProductType", "Type"}, {"ProductVersion", "Version"}, {"SerialNumber", "SerialNumber"}};
  for (const auto &value : kIdentity) {
    plist_t node = nullptr;
    lockdownd_get_value(session.lockdown(), nullptr, value.lockdown_key, &node);
    if (node) plist_dict_set_item(info.get(), value.key, node);
  }
  tarn::SetDeviceUsage(device, session.afc(), info.get());
  tarn::ConsoleLine("GetDeviceInfo end..");
  tarn::PrintPlist(info.get());
  return info.release();
}

}  // extern "C"
