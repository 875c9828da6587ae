// Changes to the device's tree: directory creation, rename, and the single
// and recursive deletes, through a call's own connection or over a client
// the caller holds.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/connection.h"
#include "common/console.h"
#include "common/error.h"
#include "common/helpers.h"
#include "devicefs/records.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"

namespace {

// A request's answer as a status, with its reason recorded.
int Answer(afc_error_t err, const char *path) {
  tarn::SetAfcError(err, path);
  return err == AFC_E_SUCCESS ? 0 : 1;
}

}  // namespace

namespace tarn {

void _TarnDeleteDir(afc_client_t client, PodDir *dir, PodDir *root) {
  if (dir == nullptr) return;
  for (PodDir *sub = dir->first_dir; sub != nullptr;) {
    tarn::Console("next_dir %s\n", tarn::NullSafe(sub->path));
    PodDir *next = sub->next_dir;
    tarn::_TarnDeleteDir(client, sub, root);
    sub = next;
  }
  for (PodFile *file = dir->first_file; file != nullptr;) {
    tarn::Console("next_file %s\n", tarn::NullSafe(file->path));
    PodFile *next = file->next_file;
    // A file that cannot be removed does not stop the walk; its directory
    // then stays behind too.
    if (file->path) tarn::SetAfcError(afc_remove_path(client, file->path), file->path);
    tarn::FreeFileRecord(file);
    if (root) --root->file_count;
    file = next;
  }
  if (root) --root->dir_count;
  if (dir->path) tarn::SetAfcError(afc_remove_path(client, dir->path), dir->path);
  tarn::FreeDirRecord(dir);
}

}  // namespace tarn

extern "C" {

TARN_API int MakeDir(PodDevice *device, const char *path) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("MakeDir");
  const tarn::DeviceCall call(device, tarn::PolicyOf("MakeDir"));
  if (!call.ready()) return 1;
  // Whether the directory was made is not reported: the device also answers
  // an existing directory with success, so callers test for it themselves.
  tarn::SetAfcError(afc_make_directory(call.afc(), path), path);
  return 0;
}

TARN_API int RenamePath(PodDevice *device, const char *old_path, const char *new_path) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("RenamePath");
  const tarn::DeviceCall call(device, tarn::PolicyOf("RenamePath"));
  const afc_error_t err = afc_rename_path(call.afc(), old_path, new_path);
  tarn::Console("afc_error_t %d\n", static_cast<int>(err));
  // A failed rename is only printed (and recorded): callers check the
  // outcome with IsFileExist/IsDirExist when they need to.
  if (err != AFC_E_SUCCESS) {
    tarn::Console("afc_error_t %d\n", static_cast<int>(err));
    tarn::SetAfcError(err, old_path);
  }
  return 0;
}

TARN_API int DeleteFile(PodDevice *device, const char *path) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("DeleteFile");
  const tarn::DeviceCall call(device, tarn::PolicyOf("DeleteFile"));
  const afc_error_t err = afc_remove_path(call.afc(), path);
  tarn::Console("afc_error_t %d\n", static_cast<int>(err));
  if (err != AFC_E_SUCCESS) {
    tarn::Console("afc_error_t %d\n", static_cast<int>(err));
    tarn::SetAfcError(err, path);
    return 1;
  }
  return 0;
}

TARN_API void _TarnDeleteDir(afc_client_t client, PodDir *dir, PodDir *root) {
  const tarn::ApiCall api_call;
  tarn::_TarnDeleteDir(client, dir, root);
}

TARN_API int DeleteDir(PodDevice *device, const char *path) {
  const tarn::ApiCall api_call;
  if (path == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "No device path was given.");
    return 0;
  }
  const tarn::DeviceCall call(device, tarn::PolicyOf("DeleteDir"));
  auto *root = static_cast<PodDir *>(std::calloc(1, sizeof(PodDir)));
  if (root == nullptr) {
    tarn::SetHostError(ENOMEM, path);
    return 0;
  }
  root->path = strdup(path);
  root->name = strdup(tarn::GetFileName(path));
  tarn::Console("pd->name: %s\n", root->name);
  root->parent_path = strdup(path);
  tarn::StoreSubFolderAndFilesInfo(call.afc(), root, root, 1);
  tarn::_TarnDeleteDir(call.afc(), root, root);
  return 0;
}

TARN_API int TarnMakeDirectory(afc_client_t client, const char *path) {
  const tarn::ApiCall api_call;
  if (!tarn::UsableRequest(client, path)) return 1;
  return Answer(afc_make_directory(client, path), path);
}

TARN_API int TarnRemovePath(afc_client_t client, const char *path) {
  const tarn::ApiCall api_call;
  if (!tarn::UsableRequest(client, path)) return 1;
  return Answer(afc_remove_path(client, path), path);
}

TARN_API int TarnRenamePath(afc_client_t client, const char *old_path, const char *new_path) {
  const tarn::ApiCall api_call;
  if (!tarn::UsableRequest(client, old_path) || !tarn::UsableRequest(client, new_path)) return 1;
  return Answer(afc_rename_path(client, old_path, new_path), old_path);
}

}  // extern "C"
