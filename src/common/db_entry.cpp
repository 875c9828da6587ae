#include "common/db_entry.h"

#include <cstring>

#include "common/error.h"
#include "common/host_plist.h"

namespace tarn {

bool WalkDbEntry(plist_t entry, const DbFileVisitor &visit) {
  if (entry == nullptr || plist_get_node_type(entry) != PLIST_ARRAY) return false;
  const uint32_t n = plist_array_get_size(entry);
  for (uint32_t i = 0; i < n; ++i) {
    plist_t pair = plist_array_get_item(entry, i);
    if (plist_get_node_type(pair) != PLIST_DICT) continue;
    plist_t type_node = plist_dict_get_item(pair, "Type");
    plist_t path_node = plist_dict_get_item(pair, "Path");
    if (plist_get_node_type(type_node) != PLIST_UINT || plist_get_node_type(path_node) != PLIST_STRING)
      continue;
    uint64_t type = 0;
    plist_get_uint_val(type_node, &type);
    const CString path = StringOf(path_node);
    const bool stop = visit(type, path ? path.get() : "");
    if (stop) return true;
  }
  return false;
}

bool WalkDbFiles(const PodDevice *device, const char *kind, const DbFileVisitor &visit, bool required) {
  plist_t entry = device && device->dbInfo ? plist_dict_get_item(device->dbInfo, kind) : nullptr;
  if (entry == nullptr) {
    if (required)
      SetError(TARN_E_DATABASE_ABSENT,
               std::string("The device has no database of this kind (") + kind +
                   "), or the handle was not initialised with InitDevice.");
    return false;
  }
  WalkDbEntry(entry, visit);
  return true;
}

std::optional<std::string> TrackDbCopy(const PodDevice *device, uint64_t type) {
  std::optional<std::string> copy;
  WalkDbFiles(device, "TrackDb", [&](uint64_t listed, const char *device_path) {
    if (listed != type) return false;
    copy = LocalCopyPath(device, device_path);
    return true;
  }, false);
  return copy;
}

std::optional<std::string> MediaLibraryCopy(const PodDevice *device) { return TrackDbCopy(device, kTrackDbMediaLibrary); }

std::string LocalCopyPath(const PodDevice *device, const char *device_path) {
  std::string local = device && device->hostDir ? device->hostDir : "";
  if (!local.empty() && local.back() != '/') local += '/';
  const char *slash = std::strrchr(device_path, '/');
  local += slash ? slash + 1 : device_path;
  return local;
}

SqliteDb OpenDatabaseCopy(const char *path) {
  sqlite3 *raw = nullptr;
  const int rc = sqlite3_open_v2(path ? path : "", &raw, SQLITE_OPEN_READONLY, nullptr);
  SqliteDb db(raw);
  if (rc != SQLITE_OK) {
    SetDatabaseError(path, raw ? sqlite3_errmsg(raw) : "");
    db.reset();
  }
  return db;
}

}  // namespace tarn
