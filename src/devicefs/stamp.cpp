#include "devicefs/stamp.h"

#include <cstring>

#include "common/raii.h"

namespace tarn {

DeviceStamp StampOf(afc_client_t client, const std::string &path) {
  DeviceStamp stamp;
  char **pairs = nullptr;
  const afc_error_t err = afc_get_file_info(client, path.c_str(), &pairs);
  const StrVec owned(pairs);
  if (err != AFC_E_SUCCESS || pairs == nullptr) return stamp;
  stamp.exists = true;
  for (char **kv = pairs; kv[0] != nullptr && kv[1] != nullptr; kv += 2) {
    if (std::strcmp(kv[0], "st_size") == 0) stamp.size = kv[1];
    if (std::strcmp(kv[0], "st_mtime") == 0) stamp.mtime = kv[1];
  }
  return stamp;
}

}  // namespace tarn
