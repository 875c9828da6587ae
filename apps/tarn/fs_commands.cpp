// Commands on the device's file system: ls, stat, find, mkdir, mv, rm,
// pull and push. The library's status results say little (a rename always
// reports success), so each command checks the device before and after.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include <tarn/tarn_tool.h>

#include "common/device_path.h"
#include "common/naming.h"
#include "common/text.h"
#include "common/transfer.h"
#include "console.h"
#include "progress.h"

namespace tarn::cli {
namespace fs = std::filesystem;
namespace {

uint64_t ParseUint(const char *text) { return text != nullptr ? std::strtoull(text, nullptr, 10) : 0; }
int64_t ParseInt(const char *text) { return text != nullptr ? std::strtoll(text, nullptr, 10) : 0; }

struct SnapshotDeleter {
  void operator()(PodDir *root) const { FreePodDir(root, 1, root); }
};
using Snapshot = std::unique_ptr<PodDir, SnapshotDeleter>;

// A snapshot of a device tree; `cut` tells whether the walk stopped at its
// bounds, so that a command can say the result is not whole.
Snapshot TakeSnapshot(Session &session, const std::string &path, uint32_t max_level, bool *cut) {
  Snapshot root(GetPodDir(session.device(), path.c_str(), max_level));
  if (!root) FailWithReason(kExitFailed, "cannot read " + path + " on the device");
  *cut = TarnLastError()->code == TARN_E_WALK_CUT;
  return root;
}

[[noreturn]] void FailCut(const std::string &path, const char *what) {
  Fail(kExitFailed, std::string(what) + " of " + path + " is incomplete: the tree is deeper than " +
                        std::to_string(TARN_MAX_WALK_DEPTH) + " levels or has more than " +
                        std::to_string(TARN_MAX_WALK_ENTRIES) + " entries");
}

// Fails unless the nearest existing ancestor of `path` is a directory:
// "mkdir /a/file/b" is about a file in the way, not a missing parent.
void RequireDirectoryAbove(Session &session, const std::string &path) {
  for (std::string up = DeviceParent(path);; up = DeviceParent(up)) {
    const PathInfo info = session.Stat(up);
    if (info.exists) {
      if (!info.is_dir) Fail(kExitNotOnDevice, up + ": not a directory");
      return;
    }
    if (IsDeviceRoot(up)) return;
  }
}

// A name the device listed that cannot become a host file name as it is.
bool UnsafeHostName(const char *name) {
  if (name == nullptr) return true;
  const std::string text(name);
  return text.empty() || text == "." || text == ".." || text.find('/') != std::string::npos;
}

// ---------------------------------------------------------------- ls

struct Entry {
  std::string name;
  bool is_dir;
  const PodDir *dir;
  const PodFile *file;
};

std::vector<Entry> EntriesOf(const PodDir *dir) {
  std::vector<Entry> entries;
  for (const PodDir *d = dir->first_dir; d != nullptr; d = d->next_dir)
    entries.push_back({d->name != nullptr ? d->name : "", true, d, nullptr});
  for (const PodFile *f = dir->first_file; f != nullptr; f = f->next_file)
    entries.push_back({f->name != nullptr ? f->name : "", false, nullptr, f});
  std::stable_sort(entries.begin(), entries.end(), [](const Entry &a, const Entry &b) { return a.name < b.name; });
  return entries;
}

// One line of ls -l: type, size, time, name; a link shows where it points.
void PrintLong(std::FILE *out, bool is_dir, uint64_t size, int64_t mtime, const std::string &name,
               const std::string &link) {
  const char type = is_dir ? 'd' : link.empty() ? '-' : 'l';
  std::fprintf(out, "%c %12s  %s  %s%s%s\n", type, is_dir ? "-" : HumanSize(size).c_str(), LocalTime(mtime).c_str(),
               Printable(name).c_str(), is_dir ? "/" : "", link.empty() ? "" : (" -> " + Printable(link)).c_str());
}

void PrintTree(Session &session, std::FILE *out, const PodDir *dir, const std::string &prefix, bool long_format) {
  for (const Entry &e : EntriesOf(dir)) {
    const std::string shown = prefix + e.name;
    if (long_format) {
      if (e.is_dir) PrintLong(out, true, 0, ParseInt(e.dir->modify_date), shown, "");
      else
        PrintLong(out, false, ParseUint(e.file->size), ParseInt(e.file->modify_date), shown,
                  session.LinkTarget(e.file->path != nullptr ? e.file->path : ""));
    } else {
      std::fprintf(out, "%s%s\n", Printable(shown).c_str(), e.is_dir ? "/" : "");
    }
    if (e.is_dir) PrintTree(session, out, e.dir, shown + "/", long_format);
  }
}

uint32_t DepthOption(const Args &args) {
  if (args.has("-R")) return 0;
  if (!args.has("--depth")) return 1;
  char *end = nullptr;
  const std::string &text = args.flags.at("--depth");
  const unsigned long depth = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || depth == 0 || depth > TARN_MAX_WALK_DEPTH)
    Fail(kExitUsage, "--depth takes a number from 1 to " + std::to_string(TARN_MAX_WALK_DEPTH));
  return static_cast<uint32_t>(depth);
}

// ---------------------------------------------------------------- pull

// The files of a device tree as downloads below host_root, and the host
// directories to create, parents first.
void PlanTree(const PodDir *dir, const fs::path &host_dir, std::vector<fs::path> &dirs,
              std::vector<DownloadJob> &jobs) {
  dirs.push_back(host_dir);
  for (const Entry &e : EntriesOf(dir)) {
    if (UnsafeHostName(e.name.c_str())) {
      PrintWarning("skipped an entry named \"" + e.name + "\" in " + (dir->path ? dir->path : "?") +
                   ": it cannot be a host file name");
      continue;
    }
    if (e.is_dir) {
      PlanTree(e.dir, host_dir / e.name, dirs, jobs);
    } else {
      jobs.push_back({e.file->path != nullptr ? e.file->path : "", (host_dir / e.name).string(),
                      ParseUint(e.file->size), ParseInt(e.file->modify_date)});
    }
  }
}

int ReportBatch(const char *what, const std::vector<std::string> &failed, bool cancelled) {
  for (const auto &line : failed) PrintError("could not copy " + line);
  if (cancelled) Fail(kExitCancelled, std::string(what) + " cancelled; nothing partial was kept");
  if (!failed.empty()) Fail(kExitFailed, std::to_string(failed.size()) + " file(s) could not be copied");
  return kExitOk;
}

}  // namespace

int CmdLs(Session &session, const Args &args) {
  const std::string path = args.positional.empty() ? "/" : args.positional[0];
  const uint32_t depth = DepthOption(args);
  const bool long_format = args.has("-l");
  const PathInfo info = session.Require(path);
  if (!info.is_dir) {
    if (long_format) PrintLong(Out(), false, info.size, info.mtime, path, session.LinkTarget(path));
    else std::fprintf(Out(), "%s\n", Printable(path).c_str());
    return kExitOk;
  }
  bool cut = false;
  Snapshot root = TakeSnapshot(session, path, depth, &cut);
  PrintTree(session, Out(), root.get(), "", long_format);
  if (cut && depth == 0) FailCut(path, "the listing");
  return kExitOk;
}

int CmdStat(Session &session, const Args &args) {
  const std::string &path = args.positional[0];
  const PathInfo info = session.Require(path);
  std::FILE *out = Out();
  std::fprintf(out, "Path:      %s\n", Printable(path).c_str());
  std::fprintf(out, "Type:      %s\n",
               info.is_dir                ? "directory"
               : info.kind == "S_IFREG"   ? "file"
               : info.kind == "S_IFLNK"   ? "symbolic link"
                                          : Printable(info.kind).c_str());
  if (info.kind == "S_IFLNK") std::fprintf(out, "Target:    %s\n", Printable(session.LinkTarget(path)).c_str());
  std::fprintf(out, "Size:      %llu bytes (%s)\n", static_cast<unsigned long long>(info.size),
               HumanSize(info.size).c_str());
  std::fprintf(out, "Blocks:    %llu\n", static_cast<unsigned long long>(info.blocks));
  std::fprintf(out, "Modified:  %s (%lld)\n", LocalTime(info.mtime).c_str(), static_cast<long long>(info.mtime));
  std::fprintf(out, "Created:   %s (%lld)\n", LocalTime(info.birthtime).c_str(),
               static_cast<long long>(info.birthtime));
  return kExitOk;
}

int CmdFind(Session &session, const Args &args) {
  const std::string &dir = args.positional[0];
  const std::string &keyword = args.positional[1];
  if (!session.Require(dir).is_dir) Fail(kExitNotOnDevice, dir + ": not a directory on the device");
  // The library compares against names lowered by TarnToLower, so it is
  // given the keyword lowered; --case-sensitive then keeps only the names
  // that contain the keyword as typed.
  std::string lowered = keyword;
  TarnToLower(lowered.data());
  const bool exact = args.has("--case-sensitive");
  std::unique_ptr<PodSearchItem, decltype(&FreeSearchResult)> results(
      SearchFile(session.device(), dir.c_str(), lowered.c_str()), FreeSearchResult);
  const bool cut = TarnLastError()->code == TARN_E_WALK_CUT;
  for (const PodSearchItem *item = results.get(); item != nullptr; item = item->next) {
    const bool is_dir = item->kind == 1;
    const char *found = is_dir ? static_cast<const PodDir *>(item->record)->path
                               : static_cast<const PodFile *>(item->record)->path;
    // The library joins DIR and a name with a separator, so a search from
    // "/" reports "//name"; the path is shown as a person would type it.
    std::string shown = found != nullptr ? found : "";
    for (size_t at; (at = shown.find("//")) != std::string::npos;) shown.erase(at, 1);
    if (exact && BaseName(shown).find(keyword) == std::string::npos) continue;
    std::fprintf(Out(), "%s%s\n", Printable(shown).c_str(), is_dir ? "/" : "");
  }
  if (cut) FailCut(dir, "the search");
  return kExitOk;
}

int CmdMkdir(Session &session, const Args &args) {
  const std::string &path = args.positional[0];
  const bool parents = args.has("-p");
  const PathInfo info = session.Stat(path);
  if (info.exists) {
    if (info.is_dir && parents) return kExitOk;
    Fail(kExitExists, path + " already exists on the device");
  }
  RequireDirectoryAbove(session, path);
  if (!parents && !session.Stat(DeviceParent(path)).is_dir)
    Fail(kExitNotOnDevice, DeviceParent(path) + ": no such directory on the device (use mkdir -p)");
  session.RefuseWhileSyncing();
  if (MakeDir(session.device(), path.c_str()) != 0) FailWithReason(kExitUnreachable, "cannot create " + path);
  if (!session.Stat(path).is_dir) FailWithReason(kExitFailed, "could not create " + path);
  return kExitOk;
}

int CmdMv(Session &session, const Args &args) {
  const std::string &from = args.positional[0];
  std::string to = args.positional[1];
  if (IsDeviceRoot(from)) Fail(kExitUsage, "cannot move the root of the device");
  session.Require(from);
  if (session.Stat(to).is_dir) to = JoinDevicePath(to, BaseName(from));
  if ((to + "/").rfind(from + "/", 0) == 0) Fail(kExitUsage, "cannot move " + from + " into itself");
  if (session.Stat(to).exists) Fail(kExitExists, to + " already exists on the device");
  RequireDirectoryAbove(session, to);
  if (!session.Stat(DeviceParent(to)).is_dir)
    Fail(kExitNotOnDevice, DeviceParent(to) + ": no such directory on the device");
  session.RefuseWhileSyncing();
  RenamePath(session.device(), from.c_str(), to.c_str());
  if (session.Stat(from).exists || !session.Stat(to).exists)
    FailWithReason(kExitFailed, "could not move " + from + " to " + to);
  return kExitOk;
}

int CmdRm(Session &session, const Args &args) {
  const std::string &path = args.positional[0];
  // Checked on the normalised path, before anything else: no spelling of
  // the root ("/.", "/DCIM/..", "//") is ever removed.
  if (IsDeviceRoot(path)) Fail(kExitUsage, "refusing to remove the root of the device");
  const PathInfo info = session.Require(path);
  session.RefuseWhileSyncing();
  if (info.is_dir && args.has("-r")) DeleteDir(session.device(), path.c_str());
  else DeleteFile(session.device(), path.c_str());
  if (session.Stat(path).exists) {
    if (info.is_dir && !args.has("-r")) Fail(kExitFailed, path + " is a directory that is not empty (use rm -r)");
    FailWithReason(kExitFailed, "could not remove " + path);
  }
  return kExitOk;
}

// Whether a host path names a directory to copy into rather than the copy
// itself: "h/", "." and "..". A rerun of "pull /Books h/Books2" then merges
// into h/Books2 instead of nesting a second copy inside the first.
static bool MeansInto(const std::string &host) {
  const std::string name = fs::path(host).filename().string();
  return host.back() == '/' || name == "." || name == "..";
}

int CmdPull(Session &session, const Args &args) {
  const std::string &from = args.positional[0];
  const std::string &host = args.positional[1];
  const bool no_clobber = args.has("-n");
  fs::path to = host;
  const PathInfo info = session.Require(from);
  std::error_code ec;
  const bool host_is_dir = fs::is_directory(to, ec);
  if (host_is_dir && (!info.is_dir || MeansInto(host))) {
    const std::string base = BaseName(from);
    to /= UnsafeHostName(base.c_str()) ? "device" : base;
  } else if (!host_is_dir && to.has_parent_path() && !fs::is_directory(to.parent_path(), ec)) {
    Fail(kExitHostPath, to.parent_path().string() + ": no such directory");
  }
  if (!info.is_dir) {
    TransferUi ui;
    Transfers transfers(session, info.size, 1, ui.hooks(), false);
    const Outcome outcome = transfers.Download({from, to.string(), info.size, info.mtime}, no_clobber);
    transfers.Finish();
    if (outcome == Outcome::kCancelled) Fail(kExitCancelled, "pull of " + from + " cancelled; nothing was kept");
    if (outcome == Outcome::kFailed) Fail(kExitFailed, "could not copy " + from + ": " + transfers.last_failure());
    if (outcome == Outcome::kSkipped) PrintWarning(to.string() + " exists; not replaced (-n)");
    return kExitOk;
  }
  if (fs::exists(fs::symlink_status(to, ec)) && !fs::is_directory(fs::symlink_status(to, ec)))
    Fail(kExitExists, to.string() + " exists and is not a directory");
  bool cut = false;
  Snapshot root = TakeSnapshot(session, from, 0, &cut);
  if (cut) FailCut(from, "the walk");
  std::vector<fs::path> dirs;
  std::vector<DownloadJob> jobs;
  PlanTree(root.get(), to, dirs, jobs);
  for (const auto &dir : dirs) {
    fs::create_directories(dir, ec);
    if (ec) Fail(kExitHostPath, "cannot create " + dir.string() + ": " + ec.message());
  }
  uint64_t total = 0;
  for (const auto &job : jobs) total += job.size;
  TransferUi ui;
  Transfers transfers(session, total, jobs.size(), ui.hooks(), false);
  std::vector<std::string> failed;
  bool cancelled = false;
  for (const auto &job : jobs) {
    const Outcome outcome = transfers.Download(job, no_clobber);
    // A link's listed size is its target's name, never its content: it is
    // left out rather than copied as whatever it points at.
    if (outcome == Outcome::kFailed && !session.LinkTarget(job.device_path).empty())
      PrintWarning("skipped the symbolic link " + job.device_path + " -> " + session.LinkTarget(job.device_path));
    else if (outcome == Outcome::kFailed)
      failed.push_back(Printable(job.device_path) + ": " + transfers.last_failure());
    if (outcome == Outcome::kCancelled || Interrupted()) {
      cancelled = true;
      break;
    }
  }
  transfers.Finish();
  return ReportBatch("pull", failed, cancelled);
}

int CmdPush(Session &session, const Args &args) {
  const fs::path from = args.positional[0];
  std::string to = args.positional[1];
  std::error_code ec;
  if (!fs::exists(from, ec)) Fail(kExitHostPath, from.string() + ": no such file or directory");
  const bool from_dir = fs::is_directory(from, ec);
  const PathInfo target = session.Stat(to);
  if (target.is_dir) {
    to = JoinDevicePath(to, from.filename().empty() ? from.parent_path().filename().string() : from.filename().string());
  } else if (args.dir_only.size() > 1 && args.dir_only[1]) {
    Fail(kExitNotOnDevice, to + ": no such directory on the device");
  } else {
    RequireDirectoryAbove(session, to);
    if (!session.Stat(DeviceParent(to)).is_dir)
      Fail(kExitNotOnDevice, DeviceParent(to) + ": no such directory on the device");
  }
  const PathInfo final_target = session.Stat(to);
  if (final_target.is_dir && !from_dir) Fail(kExitExists, to + " is a directory on the device");
  if (final_target.exists && !final_target.is_dir && from_dir)
    Fail(kExitExists, to + " is a file on the device; a directory cannot be pushed onto it");

  // Host files in a stable order, with the device directories they need.
  std::vector<std::pair<fs::path, std::string>> files;
  std::vector<std::string> dirs;
  std::vector<std::string> skipped;
  if (from_dir) {
    dirs.push_back(to);
    std::vector<fs::path> entries;
    for (auto it = fs::recursive_directory_iterator(from, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec))
      entries.push_back(it->path());
    if (ec) Fail(kExitHostPath, "cannot read " + from.string() + ": " + ec.message());
    std::sort(entries.begin(), entries.end());
    for (const auto &entry : entries) {
      const std::string device_path = JoinDevicePath(to, fs::relative(entry, from).generic_string());
      if (fs::is_symlink(fs::symlink_status(entry, ec))) skipped.push_back(entry.string());
      else if (fs::is_directory(entry, ec)) dirs.push_back(device_path);
      else if (fs::is_regular_file(entry, ec)) files.emplace_back(entry, device_path);
    }
  } else {
    files.emplace_back(from, to);
  }
  for (const auto &path : skipped)
    PrintWarning("skipped the symbolic link " + path + ": links are not copied to the device");
  uint64_t total = 0;
  for (const auto &[host, device] : files) total += fs::file_size(host, ec);
  TransferUi ui;
  Transfers transfers(session, total, files.size(), ui.hooks(), true);
  for (const auto &dir : dirs) {
    TarnMakeDirectory(session.client(), dir.c_str());
    if (!session.Stat(dir).is_dir) FailWithReason(kExitFailed, "could not create " + dir + " on the device");
  }
  std::vector<std::string> failed;
  bool cancelled = false;
  for (const auto &[host, device] : files) {
    const Outcome outcome = transfers.Upload(host.string(), device, fs::file_size(host, ec));
    if (outcome == Outcome::kFailed) failed.push_back(host.string() + ": " + transfers.last_failure());
    if (outcome == Outcome::kCancelled || Interrupted()) {
      cancelled = true;
      break;
    }
  }
  transfers.Finish();
  return ReportBatch("push", failed, cancelled);
}

}  // namespace tarn::cli
