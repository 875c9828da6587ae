// Synced and streamed pictures: a walk over fixed device folders keeping
// the files with a picture or video extension. The camera roll walks its
// folder with the same code when its database lists nothing.
#include "catalogue/catalogue.h"
#include "catalogue/pictures.h"
#include "common/console.h"
#include "common/helpers.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "catalogue/media_item.h"
#include "common/connection.h"
#include "common/db_entry.h"
#include "common/error.h"
#include "common/number.h"
#include "common/raii.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"
#include "tarn/tarn_tool.h"

namespace {

constexpr const char *kUserPictureDir = "/Photos/Thumbs";
constexpr const char *kUserPicturePhotoStreamsDataDir = "/PhotoStreamsData";
constexpr const char *kUserPictureSyncDir = "/PhotoData/Sync/100SYNCD";
// Matched as a substring, so ".jpe", ".mo" or ".g" count as well: that is
// what applications have always been shown.
constexpr const char *kUserPictureVisible = ".jpg;.jpeg;.gif;.png;.mov;";
constexpr const char *kTimeFormat = "%Y/%m/%d %H:%M:%S";
constexpr size_t kTimeBufferSize = 32;

enum class Entry { kPicture, kSkipped, kOther };

Entry Classify(const char *name) {
  tarn::CString extension(tarn::GetFilePostfix(name));
  // A name ending in '.' has no extension worth testing.
  if (extension && std::strlen(extension.get()) == 1) return Entry::kSkipped;
  TarnToLower(extension.get());
  if (extension && tarn::IsExistInStr(kUserPictureVisible, extension.get())) return Entry::kPicture;
  if (name[0] == '.') return Entry::kSkipped;
  return Entry::kOther;
}

// Every entry that is neither a picture nor hidden is tried as a folder;
// the shared walk descends only into what the device calls a directory and
// bounds the depth and the number of entries, so a device whose links lead
// back up cannot keep the walk going.
struct PictureVisitor {
  plist_t items;
  uint64_t *total;

  bool Enter(const tarn::WalkEntry &entry) {
    switch (Classify(entry.name)) {
      case Entry::kPicture:
        tarn::AppendPictureItem(items, entry.path.c_str(), entry.info, total);
        return false;
      case Entry::kSkipped: return false;
      case Entry::kOther: return true;
    }
    return false;
  }
  void Leave(const tarn::WalkEntry &, bool) {}
};

}  // namespace

namespace tarn {

std::string PictureTime(int32_t seconds) {
  CString time(TarnGetLocalFormatTime(seconds, kTimeFormat, kTimeBufferSize));
  return time ? time.get() : "";
}

void AppendPictureItem(plist_t items, const char *path, char *const *info, uint64_t *total) {
  if (info == nullptr || info[TARN_INFO_SIZE] == nullptr) return;
  const uint64_t size = tarn::DeviceNumber(info[TARN_INFO_SIZE]);
  const int32_t mtime = static_cast<int32_t>(tarn::DeviceNumber(info[TARN_INFO_MTIME]));
  plist_t item = plist_new_dict();
  plist_array_append_item(items, item);
  plist_dict_set_item(item, "size", plist_new_uint(size));
  tarn::InsertPlistDictString(item, "path", path);
  tarn::InsertPlistDictString(item, "time", PictureTime(mtime).c_str());
  *total += size;
}

}  // namespace tarn

namespace tarn {

int GetDirAllPicture(afc_client_t client, plist_t items, const char *folder, uint64_t *total) {
  if (client == nullptr || items == nullptr || folder == nullptr || total == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT,
                   "A picture walk needs a connection, a folder and somewhere to put the items.");
    return 0;
  }
  PictureVisitor visitor{items, total};
  // A folder the device does not have is simply one without pictures.
  tarn::WalkDirectory(client, folder, 0, visitor, tarn::PathJoin::kAlwaysSlash, true);
  return 0;
}

plist_t GetPictureListFromDevice(PodDevice *device, const char **folders, int32_t count) {
  tarn::ConsoleLine("GetUserPictureListFromDevice");
  // One lock for all folders: the device's own sync must not move pictures
  // while they are listed.
  const tarn::DeviceCall call(device, tarn::PolicyOf("GetPictureListFromDevice"));
  tarn::PlistPtr result(tarn::NewTrackListResult());
  plist_t items = tarn::ListItems(result.get());
  uint64_t total = 0;
  for (int32_t i = 0; folders != nullptr && i < count; ++i)
    tarn::GetDirAllPicture(call.afc(), items, folders[i], &total);
  const uint32_t found = plist_array_get_size(items);
  if (found == 0) return nullptr;
  tarn::AddToListCounts(result.get(), found, total);
  return result.release();
}

plist_t ReadUserPictureDbTypeCdb() {
  // Deliberately empty: synced pictures are listed by the folder walk
  // (GetUserPictureListFromDevice); this entry point only keeps its place
  // for applications that call it.
  return nullptr;
}

}  // namespace tarn

extern "C" {

TARN_API int GetDirAllPicture(afc_client_t client, plist_t items, const char *folder, uint64_t *total) {
  const tarn::ApiCall api_call;
  return tarn::GetDirAllPicture(client, items, folder, total);
}

TARN_API plist_t GetPictureListFromDevice(PodDevice *device, const char **folders, int32_t count) {
  const tarn::ApiCall api_call;
  return tarn::GetPictureListFromDevice(device, folders, count);
}

TARN_API plist_t GetUserPictureListFromDevice(PodDevice *device) {
  const tarn::ApiCall api_call;
  const char *folders[] = {kUserPictureDir, kUserPicturePhotoStreamsDataDir, kUserPictureSyncDir};
  return tarn::GetPictureListFromDevice(device, folders, 3);
}

TARN_API plist_t ReadUserPictureDbTypeCdb(const char *) {
  const tarn::ApiCall api_call;
  return tarn::ReadUserPictureDbTypeCdb();
}

TARN_API plist_t GetUserPictureList(PodDevice *device, uint32_t, uint32_t) {
  const tarn::ApiCall api_call;
  plist_t result = nullptr;
  tarn::WalkDbFiles(device, "UserPictureDb", [&](uint64_t type, const char *) {
    if (type != 0) return false;
    result = tarn::ReadUserPictureDbTypeCdb();
    return true;
  });
  return result;
}

}  // extern "C"
