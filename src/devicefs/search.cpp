// Search by name, rename, and the single and recursive deletes.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/connection.h"
#include "common/console.h"
#include "common/error.h"
#include "common/helpers.h"
#include "devicefs/records.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"

namespace {

// Appends the walk's matches to a search state. Every directory is entered,
// matching or not, so the results come in pre-order: a matching directory
// precedes what matches inside it.
class Searcher {
 public:
  explicit Searcher(PodSearchState *state) : state_(state) {}

  bool Enter(const tarn::WalkEntry &e) {
    std::string lowered(e.name);
    TarnToLower(lowered.data());
    // The keyword is deliberately not lowered: callers pass it in lower case
    // to search without regard to case.
    const bool match = lowered.find(state_->keyword) != std::string::npos;
    if (!e.is_dir) {
      if (match) {
        Append(tarn::NewFileRecord(e.name, dir_of(e).c_str(), e.path, e.info), 0);
        tarn::Console("file_path is %s\n", e.path.c_str());
      }
      return false;
    }
    if (match) {
      Append(tarn::NewDirRecord(e.name, nullptr, e.path, e.info), 1);
      tarn::Console("file_path dir is %s\n", e.path.c_str());
    }
    ++state_->depth;
    return true;
  }

  void Leave(const tarn::WalkEntry &e, bool) {
    if (e.is_dir) --state_->depth;
  }

 private:
  // The directory the entry was listed in: its path up to the '/' that the
  // walk inserted before the name.
  static std::string dir_of(const tarn::WalkEntry &e) {
    return e.path.substr(0, e.path.size() - std::strlen(e.name) - 1);
  }

  void Append(void *record, int32_t kind) {
    if (record == nullptr) return;
    auto *item = static_cast<PodSearchItem *>(std::calloc(1, sizeof(PodSearchItem)));
    if (item == nullptr) {
      // Out of memory: the result goes on without this match.
      if (kind == 0) {
        tarn::FreeFileRecord(static_cast<PodFile *>(record));
      } else {
        tarn::FreeDirRecord(static_cast<PodDir *>(record));
      }
      return;
    }
    item->record = record;
    item->kind = kind;
    if (state_->last) {
      state_->last->next = item;
    } else {
      state_->first = item;
    }
    state_->last = item;
  }

  PodSearchState *state_;
};

}  // namespace

namespace tarn {

void InternalSearchFile(afc_client_t client, const char *dir, PodSearchState *state) {
  if (dir == nullptr || state == nullptr || state->keyword == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "A search needs a directory and a keyword.");
    return;
  }
  Searcher searcher(state);
  tarn::WalkDirectory(client, dir, state->depth, searcher);
}

void _TarnDeleteDir(afc_client_t client, PodDir *dir, PodDir *root) {
  if (dir == nullptr) return;
  for (PodDir *sub = dir->first_dir; sub != nullptr;) {
    tarn::Console("next_dir %s\n", tarn::Printable(sub->path));
    PodDir *next = sub->next_dir;
    tarn::_TarnDeleteDir(client, sub, root);
    sub = next;
  }
  for (PodFile *file = dir->first_file; file != nullptr;) {
    tarn::Console("next_file %s\n", tarn::Printable(file->path));
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

TARN_API void InternalSearchFile(afc_client_t client, const char *dir, PodSearchState *state) {
  const tarn::ApiCall api_call;
  tarn::InternalSearchFile(client, dir, state);
}

TARN_API PodSearchItem *SearchFile(PodDevice *device, const char *dir, const char *keyword) {
  const tarn::ApiCall api_call;
  if (keyword == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "A search needs a keyword.");
    return nullptr;
  }
  const tarn::DeviceCall call(device, tarn::PolicyOf("SearchFile"));
  PodSearchState state{keyword, nullptr, nullptr, 0};
  tarn::InternalSearchFile(call.afc(), dir, &state);
  return state.first;
}

TARN_API void FreeSearchResult(PodSearchItem *first) {
  while (first != nullptr) {
    PodSearchItem *next = first->next;
    if (first->kind == 0) {
      tarn::FreeFileRecord(static_cast<PodFile *>(first->record));
    } else {
      tarn::FreeDirRecord(static_cast<PodDir *>(first->record));
    }
    std::free(first);
    first = next;
  }
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

}  // extern "C"
