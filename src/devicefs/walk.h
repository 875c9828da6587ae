// The one recursive walk over a device directory tree. The snapshot, the
// search, the recursive delete (through the snapshot) and the directory copy
// all descend through WalkDirectory, so the rules that keep a walk safe on an
// untrusted device live here and nowhere else:
//  - a listed name that is empty, "." or "..", or that contains '/', is
//    skipped: such a name would make a joined path point somewhere other
//    than below the directory being walked;
//  - no directory deeper than TARN_MAX_WALK_DEPTH below the start is
//    listed. A device that presents a cycle (a symbolic link to an ancestor
//    that it reports as a directory) or an absurdly deep tree therefore ends
//    the walk with a bounded stack;
//  - no more than TARN_MAX_WALK_ENTRIES entries are visited by one walk. The
//    depth bound alone does not bound the requests: two links back up in
//    one directory make a tree of 2^64 directories above the depth bound.
// The walk keeps no record of the directories it has seen: paths are all a
// device gives us, and a cycle produces ever longer ones, so the two bounds
// are the guards that cost nothing per entry.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include <libimobiledevice/afc.h>

#include "common/error.h"
#include "common/raii.h"
#include "tarn/tarn_device.h"

namespace tarn {

// Slot 0 of a file-information vector for a directory. Every directory test
// of the device file system compares against this, exactly and with case.
inline constexpr const char *kAfcDirFlag = "S_IFDIR";

inline bool IsDirInfo(char *const *info) {
  return info != nullptr && info[TARN_INFO_KIND] != nullptr && std::strcmp(info[TARN_INFO_KIND], kAfcDirFlag) == 0;
}

// False for the names a walk must never turn into a path (see above).
bool IsWalkableName(const char *name);

// glibc prints "(null)" for a null %s; saying so explicitly keeps the console
// lines the same without leaning on undefined behaviour.
inline const char *NullSafe(const char *text) { return text ? text : "(null)"; }

// The file-information vector of a device path, in TARN_INFO_* slots; never
// null (all slots null when the path cannot be read, with the reason set).
char **GetFileInfo(afc_client_t client, const char *path);
// Whether a request over an open client has both; records why not.
bool UsableRequest(afc_client_t client, const char *path);

// The listing of a device directory, or null when it cannot be listed.
StrVec ListDirectory(afc_client_t client, const char *path);

// How a walk joins a directory and a listed name. The snapshot and the
// search always insert a '/' (a walk of "/" yields "//name", as callers of
// those functions have always seen); the directory copy uses
// ConcatFilePath, whose start directory already ends in '/'.
enum class PathJoin { kAlwaysSlash, kConcatFilePath };

std::string ChildPath(const std::string &dir, const char *name, PathJoin join);

// The start directory of a directory copy (device or host side): the
// ConcatFilePath join, which glues a name straight onto a path without any
// '/'; such a path gets its separator here, so that what is copied below it
// lands inside it and not beside it.
std::string StartDirectory(const char *dir, const char *name);

// One entry met by WalkDirectory. Everything in it lives until Leave returns.
struct WalkEntry {
  const char *name;         // as listed
  const std::string &path;  // the joined device path
  char **info;              // its file-information vector (never null)
  int depth;                // 1 for the entries of the starting directory
  bool is_dir;              // IsDirInfo(info)
};

// The entries a walk may still visit, shared by all its directories, and
// whether a bound left anything out.
struct WalkBudget {
  long left = TARN_MAX_WALK_ENTRIES;
  bool cut = false;
  uint64_t visited() const { return static_cast<uint64_t>(TARN_MAX_WALK_ENTRIES - left); }
};

// Records what a finished walk of dir met: TARN_E_WALK_CUT when a bound left
// entries out, or the entries visited when its connection was lost.
void ReportWalk(const std::string &dir, const WalkBudget &budget);

template <class Visitor>
bool WalkTree(afc_client_t client, const std::string &dir, int depth, Visitor &visitor, PathJoin join,
              WalkBudget &budget, bool report_listing) {
  if (depth >= TARN_MAX_WALK_DEPTH) {
    budget.cut = true;
    return false;
  }
  StrVec names;
  {
    // Only the start directory's listing is the caller's business: a
    // subdirectory that cannot be listed is passed over like an empty one.
    std::optional<KeepReason> quiet;
    if (!report_listing) quiet.emplace();
    names = ListDirectory(client, dir.c_str());
  }
  if (!names) return false;
  char **name = names.get();
  for (; *name != nullptr && budget.left > 0; ++name) {
    if (!IsWalkableName(*name)) continue;
    --budget.left;
    const std::string path = ChildPath(dir, *name, join);
    FileInfo info;
    {
      // An entry gone since the listing is no failure of the walk.
      const KeepReason quiet;
      info.reset(tarn::GetFileInfo(client, path.c_str()));
    }
    const WalkEntry entry{*name, path, info.get(), depth + 1, IsDirInfo(info.get())};
    bool listed = false;
    if (visitor.Enter(entry) && entry.is_dir)
      listed = WalkTree(client, path, depth + 1, visitor, join, budget, false);
    visitor.Leave(entry, listed);
  }
  for (; *name != nullptr && !budget.cut; ++name) budget.cut = IsWalkableName(*name);
  return true;
}

// Walks the entries of dir in the device's listing order, depth first.
// depth is dir's own depth (0 for the start of a walk). For each walkable
// entry the walk takes its file-information vector (one request) and calls
//   bool visitor.Enter(const WalkEntry &)  - true to descend into a directory
// then, after the descent if there was one,
//   void visitor.Leave(const WalkEntry &, bool listed)
// where listed says whether the directory could be listed. Returns whether
// dir itself was listed; directories at TARN_MAX_WALK_DEPTH are not. Once
// the walk's TARN_MAX_WALK_ENTRIES are spent, the remaining entries are
// skipped. Records a cut or a lost connection (ReportWalk), and why dir
// could not be listed unless the caller expects that it may be absent.
template <class Visitor>
bool WalkDirectory(afc_client_t client, const std::string &dir, int depth, Visitor &visitor,
                   PathJoin join = PathJoin::kAlwaysSlash, bool may_be_absent = false) {
  WalkBudget budget;
  const bool listed = WalkTree(client, dir, depth, visitor, join, budget, !may_be_absent);
  ReportWalk(dir, budget);
  return listed;
}

}  // namespace tarn
