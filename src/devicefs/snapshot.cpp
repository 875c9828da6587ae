// Directory tree snapshots: a device directory read, to a chosen depth, into
// the linked PodDir/PodFile records that the application walks directly.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/connection.h"
#include "common/console.h"
#include "common/error.h"
#include "devicefs/records.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"

namespace {

char *CopyOrNull(const char *text) { return text ? strdup(text) : nullptr; }

// Replaces a record's text, so that filling a record twice does not leak.
void Assign(char *&field, const char *text) {
  std::free(field);
  field = CopyOrNull(text);
}

// Builds the records of one directory and, through the walk, of the
// directories below it. The walk visits depth first, so the directory whose
// entries are being recorded is always the innermost frame.
class SnapshotBuilder {
 public:
  SnapshotBuilder(PodDir *dir, PodDir *root, int32_t level) : root_(root) {
    frames_.push_back(Frame{dir, nullptr, nullptr, level - 1});
  }

  bool Enter(const tarn::WalkEntry &e) {
    Frame &f = frames_.back();
    if (!e.is_dir) {
      PodFile *file = tarn::NewFileRecord(e.name, f.dir->path, e.path, e.info);
      // Out of memory: the tree goes on without the entry.
      if (file == nullptr) return false;
      ++root_->file_count;
      file->parent = f.dir;
      file->prev_file = f.last_file;
      if (f.last_file) {
        f.last_file->next_file = file;
      } else {
        f.dir->first_file = file;
      }
      f.last_file = file;
      return false;
    }
    PodDir *dir = tarn::NewDirRecord(e.name, f.dir->path, e.path, e.info);
    if (dir == nullptr) return false;
    dir->level = e.depth;
    ++root_->dir_count;
    dir->parent = f.dir;
    dir->prev_dir = f.last_dir;
    if (f.last_dir) {
      f.last_dir->next_dir = dir;
    } else {
      f.dir->first_dir = dir;
    }
    f.last_dir = dir;
    // A directory on the last permitted level is recorded with its dates,
    // but its content is not read.
    if (root_->max_level != 0 && root_->max_level < e.depth + 1) return false;
    frames_.push_back(Frame{dir, nullptr, nullptr, e.depth});
    return true;
  }

  void Leave(const tarn::WalkEntry &e, bool) {
    if (frames_.size() > 1 && frames_.back().depth == e.depth) frames_.pop_back();
    tarn::Console("info[0] is %s\n", tarn::NullSafe(e.info[TARN_INFO_KIND]));
    tarn::Console("file_path is %s\n", e.path.c_str());
    tarn::ConsoleText("finish free");
  }

 private:
  struct Frame {
    PodDir *dir;
    PodFile *last_file;
    PodDir *last_dir;
    int depth;  // dir's depth below the snapshot's root
  };
  PodDir *root_;
  std::vector<Frame> frames_;
};

}  // namespace

namespace tarn {

PodFile *NewFileRecord(const char *name, const char *parent_path, const std::string &path, char **info) {
  auto *file = static_cast<PodFile *>(std::calloc(1, sizeof(PodFile)));
  if (file == nullptr) return nullptr;
  file->name = CopyOrNull(name);
  file->parent_path = CopyOrNull(parent_path);
  file->path = CopyOrNull(path.c_str());
  tarn::SetFileInfo(info, file);
  return file;
}

PodDir *NewDirRecord(const char *name, const char *parent_path, const std::string &path, char **info) {
  auto *dir = static_cast<PodDir *>(std::calloc(1, sizeof(PodDir)));
  if (dir == nullptr) return nullptr;
  dir->path = CopyOrNull(path.c_str());
  tarn::SetDirInfo(info, dir);
  dir->name = CopyOrNull(name);
  dir->parent_path = CopyOrNull(parent_path);
  return dir;
}

void FreeFileRecord(PodFile *file) {
  if (file == nullptr) return;
  std::free(file->parent_path);
  std::free(file->name);
  std::free(file->path);
  std::free(file->create_date);
  std::free(file->modify_date);
  std::free(file->size);
  std::free(file);
}

void FreeDirRecord(PodDir *dir) {
  if (dir == nullptr) return;
  std::free(dir->parent_path);
  std::free(dir->name);
  std::free(dir->path);
  std::free(dir->create_date);
  std::free(dir->modify_date);
  std::free(dir);
}


void SetDirInfo(char **info, PodDir *dir) {
  if (dir == nullptr) return;
  Assign(dir->create_date, info ? info[TARN_INFO_BIRTHTIME] : nullptr);
  Assign(dir->modify_date, info ? info[TARN_INFO_MTIME] : nullptr);
  tarn::Console("create_date is %s\n", tarn::NullSafe(dir->create_date));
  tarn::Console("modify_date is %s\n", tarn::NullSafe(dir->modify_date));
}

void SetFileInfo(char **info, PodFile *file) {
  if (file == nullptr) return;
  Assign(file->create_date, info ? info[TARN_INFO_BIRTHTIME] : nullptr);
  Assign(file->modify_date, info ? info[TARN_INFO_MTIME] : nullptr);
  Assign(file->size, info ? info[TARN_INFO_SIZE] : nullptr);
}

void StoreSubFolderAndFilesInfo(afc_client_t client, PodDir *dir, PodDir *root, int32_t level) {
  if (dir == nullptr || root == nullptr || dir->path == nullptr) return;
  if (root->max_level != 0 && root->max_level < level) return;
  SnapshotBuilder builder(dir, root, level);
  tarn::WalkDirectory(client, dir->path, level - 1, builder);
}

void FreePodDir(PodDir *dir, int free_self, PodDir *root) {
  if (dir == nullptr) return;
  for (PodDir *sub = dir->first_dir; sub != nullptr;) {
    tarn::Console("next_dir %s\n", tarn::NullSafe(sub->path));
    PodDir *next = sub->next_dir;
    tarn::FreePodDir(sub, 1, root);
    sub = next;
  }
  for (PodFile *file = dir->first_file; file != nullptr;) {
    tarn::Console("next_file %s\n", tarn::NullSafe(file->path));
    PodFile *next = file->next_file;
    tarn::FreeFileRecord(file);
    if (root) --root->file_count;
    file = next;
  }
  // A directory that survives (free_self 0) must not point at the records
  // just released.
  dir->first_dir = nullptr;
  dir->first_file = nullptr;
  if (free_self) {
    if (root) --root->dir_count;
    tarn::FreeDirRecord(dir);
  }
}

}  // namespace tarn

extern "C" {

TARN_API void SetDirInfo(char **info, PodDir *dir, const char *) {
  const tarn::ApiCall api_call;
  tarn::SetDirInfo(info, dir);
}

TARN_API void SetFileInfo(char **info, PodFile *file, const char *) {
  const tarn::ApiCall api_call;
  tarn::SetFileInfo(info, file);
}

TARN_API void StoreSubFolderAndFilesInfo(afc_client_t client, PodDir *dir, PodDir *root, int32_t level) {
  const tarn::ApiCall api_call;
  tarn::StoreSubFolderAndFilesInfo(client, dir, root, level);
}

TARN_API PodDir *GetPodDir(PodDevice *device, const char *path, uint32_t max_level) {
  const tarn::ApiCall api_call;
  const tarn::DeviceCall call(device, tarn::PolicyOf("GetPodDir"));
  auto *root = static_cast<PodDir *>(std::calloc(1, sizeof(PodDir)));
  if (root == nullptr) {
    tarn::SetHostError(ENOMEM, path);
    return nullptr;
  }
  root->path = CopyOrNull(path);
  tarn::FileInfo info(tarn::GetFileInfo(call.afc(), path));
  tarn::SetDirInfo(info.get(), root);
  // A limit beyond what a signed level can hold is no limit at all (the walk
  // still stops at TARN_MAX_WALK_DEPTH).
  root->max_level = max_level > INT32_MAX ? 0 : static_cast<int32_t>(max_level);
  tarn::StoreSubFolderAndFilesInfo(call.afc(), root, root, 1);
  return root;
}

TARN_API void FreePodDir(PodDir *dir, int free_self, PodDir *root) {
  tarn::FreePodDir(dir, free_self, root);
}

}  // extern "C"
