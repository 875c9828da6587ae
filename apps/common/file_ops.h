// The operations on the device's files that both programs offer: plans of
// what a copy will do, the copies themselves as batches over the session's
// one connection, and directory creation, moves and removals. The library's
// status results say little (a rename always reports success), so each
// operation checks the device before and after; each that changes the device
// is refused while it syncs with another computer.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "apps/common/failure.h"
#include "apps/common/session.h"
#include "apps/common/transfer.h"

namespace tarn::app {

// A name the device listed that cannot become a host file name as it is.
bool UnsafeHostName(const std::string &name);

struct SnapshotFree {
  void operator()(PodDir *root) const { FreePodDir(root, 1, root); }
};
using Snapshot = std::unique_ptr<PodDir, SnapshotFree>;

// A snapshot of a device tree to `max_level` levels (0: whole); `cut` tells
// whether the walk stopped at its bounds. Fails with the library's reason
// when the tree cannot be read.
Snapshot TakeSnapshot(Session &session, const std::string &path, uint32_t max_level, bool *cut);
// The failure of a walk cut at its bounds: `what` ("the listing") of path is incomplete.
[[noreturn]] void FailCut(const std::string &path, const char *what);

// One entry of a snapshot directory.
struct DirEntry {
  std::string name;
  bool is_dir;
  const PodDir *dir;
  const PodFile *file;
};
// The entries of a snapshot directory, sorted by name.
std::vector<DirEntry> EntriesOf(const PodDir *dir);

struct DownloadPlan {
  std::vector<std::filesystem::path> dirs;  // host directories to create, parents first
  std::vector<DownloadJob> jobs;            // each keeps the device's modification time
  std::vector<std::string> notes;           // entries left out, and why
  uint64_t bytes() const;
  void Add(DownloadPlan other);
};

// A device file, or a device tree walked whole, as downloads to `host` (the
// file's host path, or the directory the tree becomes). Entries whose names
// cannot be host names are left out with a note. Fails with kFailed when the
// tree cannot be read, or is cut at the walk's bounds.
DownloadPlan PlanDownload(Session &session, const std::string &device_path, const PathInfo &info,
                          const std::filesystem::path &host);

struct UploadPlan {
  std::vector<std::string> dirs;                                     // device directories, parents first
  std::vector<std::pair<std::filesystem::path, std::string>> files;  // host file -> device path
  std::vector<std::string> notes;                                    // symbolic links left out
  uint64_t bytes() const;
  void Add(UploadPlan other);
};

// A host file, or a host tree in name order, as uploads to `device_path`.
// Symbolic links are never followed: each is left out with a note. Fails
// with kHostPath when the host side cannot be read.
UploadPlan PlanUpload(const std::filesystem::path &host, const std::string &device_path);

// The copies of a plan over the session's one connection and one hold of the
// sync lock (uploads are refused with kBusy while another computer syncs).
// A file that fails is reported and the batch goes on; a connection that is
// lost ends it with kDisconnected, whatever reason said so. With
// `no_clobber` an existing host file is left as it is.
BatchReport RunDownloads(Session &session, const DownloadPlan &plan, const TransferHooks &hooks,
                         bool no_clobber = false);
BatchReport RunUploads(Session &session, const UploadPlan &plan, const TransferHooks &hooks);

// Fails with kNotOnDevice unless the parent of `path` is a directory on the device.
void RequireParentDirectory(Session &session, const std::string &path);

// Creates a device directory; with `parents` also the missing ones above it,
// and an existing directory is no failure.
void MakeDirectory(Session &session, const std::string &path, bool parents);
// Moves or renames a device path; with `into` a `to` that is a directory
// receives it under its own name. Gives the path it now has.
std::string Move(Session &session, const std::string &from, std::string to, bool into);
// Removes a device file or empty directory; with `recursive` also a
// directory and everything below it. The root is never removed.
void Remove(Session &session, const std::string &path, bool recursive);

}  // namespace tarn::app
