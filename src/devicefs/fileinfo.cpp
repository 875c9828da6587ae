// File and directory information and the existence tests.
#include <cstdio>
#include <cstring>

#include <glib.h>

#include "common/connection.h"
#include "common/console.h"
#include "common/error.h"
#include "common/raii.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"

namespace {

// Devices report times in nanoseconds; callers want whole seconds. A text of
// nine digits or fewer is already below one second's worth of nanoseconds
// and is left alone rather than cut to nothing.
void CutNanoseconds(char *text) {
  const size_t n = std::strlen(text);
  if (n > 9) text[n - 9] = '\0';
}

int SlotOfKey(const char *key) {
  static constexpr struct {
    const char *key;
    int slot;
  } kSlots[] = {
      {"st_ifmt", TARN_INFO_KIND},   {"st_size", TARN_INFO_SIZE},
      {"st_mtime", TARN_INFO_MTIME}, {"st_blocks", TARN_INFO_BLOCKS},
      {"st_birthtime", TARN_INFO_BIRTHTIME},
  };
  for (const auto &s : kSlots) {
    if (std::strcmp(key, s.key) == 0) return s.slot;
  }
  return -1;
}

}  // namespace

namespace tarn {

bool UsableRequest(afc_client_t client, const char *path) {
  if (client != nullptr && path != nullptr) return true;
  SetError(TARN_E_INVALID_ARGUMENT, client ? "No device path was given." : "No file-service connection was given.");
  return false;
}

char **GetFileInfo(afc_client_t client, const char *path) {
  // g_malloc0/g_strdup, because the vector is released with g_strfreev.
  char **info = static_cast<char **>(g_malloc0(TARN_INFO_SLOTS * sizeof(char *)));
  char **attrs = nullptr;
  if (client == nullptr || path == nullptr) {
    SetError(TARN_E_INVALID_ARGUMENT,
                   client ? "No device path was given." : "No file-service connection was given.");
    return info;
  }
  const afc_error_t err = afc_get_file_info(client, path, &attrs);
  if (err != AFC_E_SUCCESS) {
    if (attrs) g_strfreev(attrs);
    SetAfcError(err, path);
    return info;
  }
  StrVec owned(attrs);
  for (char **kv = attrs; kv != nullptr && kv[0] != nullptr && kv[1] != nullptr; kv += 2) {
    const int slot = SlotOfKey(kv[0]);
    if (slot < 0) continue;
    g_free(info[slot]);  // a repeated key: the last one wins
    info[slot] = g_strdup(kv[1]);
    if (slot == TARN_INFO_MTIME || slot == TARN_INFO_BIRTHTIME) CutNanoseconds(info[slot]);
  }
  return info;
}

}  // namespace tarn

extern "C" {

TARN_API char **GetFileInfo(afc_client_t client, const char *path) {
  const tarn::ApiCall api_call;
  return tarn::GetFileInfo(client, path);
}

TARN_API char **GetDirOrFileInfo(PodDevice *device, const char *path) {
  const tarn::ApiCall api_call;
  const tarn::DeviceCall call(device, tarn::PolicyOf("GetDirOrFileInfo"));
  return tarn::GetFileInfo(call.afc(), path);
}

TARN_API int IsDirExist(PodDevice *device, const char *path) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("IsDirExist");
  const tarn::DeviceCall call(device, tarn::PolicyOf("IsDirExist"));
  char **names = nullptr;
  // A failed connection is not special: the listing then fails and its
  // error is what gets printed.
  const afc_error_t err = afc_read_directory(call.afc(), path, &names);
  tarn::StrVec owned(names);
  tarn::Console("1afc_error_t %d\n", static_cast<int>(err));
  if (err != AFC_E_SUCCESS) {
    tarn::Console("afc_error_t %d\n", static_cast<int>(err));
    tarn::SetAfcError(err, path);
    return 0;
  }
  return 1;
}

TARN_API int IsFileExist(PodDevice *device, const char *path) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("IsFileExist");
  const tarn::DeviceCall call(device, tarn::PolicyOf("IsFileExist"));
  const tarn::AfcFile file(call.afc(), path, AFC_FOPEN_RDONLY);
  tarn::Console("1afc_error_t %d\n", static_cast<int>(file.error()));
  if (file.error() != AFC_E_SUCCESS) {
    tarn::Console("afc_error_t %d\n", static_cast<int>(file.error()));
    return 0;
  }
  return 1;
}


TARN_API void FreeFileInfo(char **info) { tarn::FileInfoDeleter{}(info); }



TARN_API char *TarnLinkTarget(afc_client_t client, const char *path) {
  const tarn::ApiCall api_call;
  if (!tarn::UsableRequest(client, path)) return nullptr;
  char **attrs = nullptr;
  const afc_error_t err = afc_get_file_info(client, path, &attrs);
  const tarn::StrVec owned(attrs);
  if (err != AFC_E_SUCCESS) {
    tarn::SetAfcError(err, path);
    return nullptr;
  }
  const char *kind = nullptr, *target = nullptr;
  for (char **kv = attrs; kv != nullptr && kv[0] != nullptr && kv[1] != nullptr; kv += 2) {
    if (std::strcmp(kv[0], "st_ifmt") == 0) kind = kv[1];
    else if (std::strcmp(kv[0], "LinkTarget") == 0) target = kv[1];
  }
  if (kind == nullptr || target == nullptr || std::strcmp(kind, "S_IFLNK") != 0) return nullptr;
  return strdup(target);
}

}  // extern "C"
