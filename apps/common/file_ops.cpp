#include "apps/common/file_ops.h"

#include <algorithm>
#include <cstdlib>
#include <system_error>

#include "apps/common/app_list.h"
#include "apps/common/device_path.h"
#include "apps/common/naming.h"
#include "apps/common/text.h"

namespace tarn::app {
namespace fs = std::filesystem;
namespace {

// An app's shared files hang below its Documents folder: like the root of
// the media partition, it is what holds everything else, and a phone gives
// no way to make it again.
bool IsAppDocuments(const Session &session, const std::string &path) {
  return !session.options().app.empty() && path == kAppDocuments;
}

uint64_t ParseUint(const char *text) { return text != nullptr ? std::strtoull(text, nullptr, 10) : 0; }
int64_t ParseInt(const char *text) { return text != nullptr ? std::strtoll(text, nullptr, 10) : 0; }

// Fails unless the nearest existing ancestor of `path` is a directory:
// "mkdir /a/file/b" is about a file in the way, not a missing parent.
void RequireDirectoryAbove(Session &session, const std::string &path) {
  for (std::string up = DeviceParent(path);; up = DeviceParent(up)) {
    const PathInfo info = session.Stat(up);
    if (info.exists) {
      if (!info.is_dir) Fail(kNotOnDevice, up + ": not a directory");
      return;
    }
    if (IsDeviceRoot(up)) return;
  }
}

void PlanTree(const PodDir *dir, const fs::path &host_dir, DownloadPlan &plan) {
  plan.dirs.push_back(host_dir);
  for (const DirEntry &e : EntriesOf(dir)) {
    if (UnsafeHostName(e.name)) {
      plan.notes.push_back("skipped an entry named \"" + e.name + "\" in " + (dir->path ? dir->path : "?") +
                           ": it cannot be a host file name");
      continue;
    }
    if (e.is_dir) {
      PlanTree(e.dir, host_dir / e.name, plan);
    } else {
      plan.jobs.push_back({e.file->path != nullptr ? e.file->path : "", (host_dir / e.name).string(),
                           ParseUint(e.file->size), ParseInt(e.file->modify_date)});
    }
  }
}

// How one file of a batch went; a lost connection has already ended it.

}  // namespace

void RequireParentDirectory(Session &session, const std::string &path) {
  RequireDirectoryAbove(session, path);
  if (!session.Stat(DeviceParent(path)).is_dir)
    Fail(kNotOnDevice, DeviceParent(path) + ": no such directory on the device");
}

bool UnsafeHostName(const std::string &name) {
  return name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos;
}

Snapshot TakeSnapshot(Session &session, const std::string &path, uint32_t max_level, bool *cut) {
  Snapshot root(GetPodDir(session.device(), path.c_str(), max_level));
  if (!root) FailWithReason(kFailed, "cannot read " + path + " on the device");
  *cut = TarnLastError()->code == TARN_E_WALK_CUT;
  return root;
}

[[noreturn]] void FailCut(const std::string &path, const char *what) {
  Fail(kFailed, std::string(what) + " of " + path + " is incomplete: the tree is deeper than " +
                    std::to_string(TARN_MAX_WALK_DEPTH) + " levels or has more than " +
                    std::to_string(TARN_MAX_WALK_ENTRIES) + " entries");
}

std::vector<DirEntry> EntriesOf(const PodDir *dir) {
  std::vector<DirEntry> entries;
  for (const PodDir *d = dir->first_dir; d != nullptr; d = d->next_dir)
    entries.push_back({d->name != nullptr ? d->name : "", true, d, nullptr});
  for (const PodFile *f = dir->first_file; f != nullptr; f = f->next_file)
    entries.push_back({f->name != nullptr ? f->name : "", false, nullptr, f});
  std::stable_sort(entries.begin(), entries.end(), [](const DirEntry &a, const DirEntry &b) { return a.name < b.name; });
  return entries;
}

uint64_t DownloadPlan::bytes() const {
  uint64_t total = 0;
  for (const auto &job : jobs) total += job.size;
  return total;
}

void DownloadPlan::Add(DownloadPlan other) {
  dirs.insert(dirs.end(), other.dirs.begin(), other.dirs.end());
  jobs.insert(jobs.end(), other.jobs.begin(), other.jobs.end());
  notes.insert(notes.end(), other.notes.begin(), other.notes.end());
}

DownloadPlan PlanDownload(Session &session, const std::string &device_path, const PathInfo &info, const fs::path &host) {
  DownloadPlan plan;
  if (!info.is_dir) {
    plan.jobs.push_back({device_path, host.string(), info.size, info.mtime});
    return plan;
  }
  bool cut = false;
  Snapshot root = TakeSnapshot(session, device_path, 0, &cut);
  if (cut) FailCut(device_path, "the walk");
  PlanTree(root.get(), host, plan);
  return plan;
}

uint64_t UploadPlan::bytes() const {
  uint64_t total = 0;
  std::error_code ec;
  for (const auto &[host, device] : files) {
    const uintmax_t size = fs::file_size(host, ec);
    if (!ec) total += size;
  }
  return total;
}

void UploadPlan::Add(UploadPlan other) {
  dirs.insert(dirs.end(), other.dirs.begin(), other.dirs.end());
  files.insert(files.end(), other.files.begin(), other.files.end());
  notes.insert(notes.end(), other.notes.begin(), other.notes.end());
}

UploadPlan PlanUpload(const fs::path &host, const std::string &device_path) {
  UploadPlan plan;
  std::error_code ec;
  const fs::file_status status = fs::symlink_status(host, ec);
  if (!fs::exists(status)) Fail(kHostPath, host.string() + ": no such file or directory");
  auto link = [&](const fs::path &path) {
    plan.notes.push_back("skipped the symbolic link " + path.string() + ": links are not copied to the device");
  };
  if (fs::is_symlink(status)) {
    link(host);
    return plan;
  }
  if (!fs::is_directory(status)) {
    plan.files.emplace_back(host, device_path);
    return plan;
  }
  plan.dirs.push_back(device_path);
  std::vector<fs::path> entries;
  for (auto it = fs::recursive_directory_iterator(host, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    entries.push_back(it->path());
  if (ec) Fail(kHostPath, "cannot read " + host.string() + ": " + ec.message());
  std::sort(entries.begin(), entries.end());
  for (const auto &entry : entries) {
    const std::string target = JoinDevicePath(device_path, fs::relative(entry, host).generic_string());
    const fs::file_status kind = fs::symlink_status(entry, ec);
    if (fs::is_symlink(kind)) link(entry);
    else if (fs::is_directory(kind)) plan.dirs.push_back(target);
    else if (fs::is_regular_file(kind)) plan.files.emplace_back(entry, target);
  }
  return plan;
}

BatchReport RunDownloads(Session &session, const DownloadPlan &plan, const TransferHooks &hooks, bool no_clobber) {
  BatchReport report;
  report.notes = plan.notes;
  std::error_code ec;
  for (const auto &dir : plan.dirs) {
    fs::create_directories(dir, ec);
    if (ec) Fail(kHostPath, "cannot create " + dir.string() + ": " + ec.message());
  }
  Transfers transfers(session, plan.bytes(), plan.jobs.size(), hooks, false);
  for (const auto &job : plan.jobs) {
    const Outcome outcome = transfers.Download(job, no_clobber);
    // A link's listed size is its target's name, never its content: it is
    // left out rather than copied as whatever it points at.
    const std::string target = outcome == Outcome::kFailed ? session.LinkTarget(job.device_path) : "";
    if (!target.empty()) report.notes.push_back("skipped the symbolic link " + job.device_path + " -> " + target);
    else CountOutcome(outcome, transfers, job.device_path, report);
    if (outcome == Outcome::kSkipped && no_clobber) report.notes.push_back(job.host_path + " exists; not replaced");
    if (StopsBatch(report, hooks)) break;
  }
  transfers.Finish();
  report.bytes = transfers.bytes_copied();
  return report;
}

BatchReport RunUploads(Session &session, const UploadPlan &plan, const TransferHooks &hooks) {
  BatchReport report;
  report.notes = plan.notes;
  Transfers transfers(session, plan.bytes(), plan.files.size(), hooks, true);
  for (const auto &dir : plan.dirs) {
    if (session.Stat(dir).is_dir) continue;
    TarnMakeDirectory(session.client(), dir.c_str());
    if (!session.Stat(dir).is_dir) FailWithReason(kFailed, "could not create " + dir + " on the device");
  }
  std::error_code ec;
  for (const auto &[host, device] : plan.files) {
    const uintmax_t size = fs::file_size(host, ec);
    CountOutcome(transfers.Upload(host.string(), device, ec ? 0 : size), transfers, host.string(), report);
    if (StopsBatch(report, hooks)) break;
  }
  transfers.Finish();
  report.bytes = transfers.bytes_copied();
  return report;
}

void MakeDirectory(Session &session, const std::string &path, bool parents) {
  if (IsDeviceRoot(path)) Fail(kExists, "the root of the device exists already");
  const PathInfo info = session.Stat(path);
  if (info.exists) {
    if (info.is_dir && parents) return;
    Fail(kExists, path + " already exists on the device");
  }
  RequireDirectoryAbove(session, path);
  if (!parents && !session.Stat(DeviceParent(path)).is_dir)
    Fail(kNotOnDevice, DeviceParent(path) + ": no such directory on the device (use mkdir -p)");
  session.RefuseWhileSyncing();
  if (MakeDir(session.device(), path.c_str()) != 0) FailWithReason(kUnreachable, "cannot create " + path);
  if (!session.Stat(path).is_dir) FailWithReason(kFailed, "could not create " + path);
}

std::string Move(Session &session, const std::string &from, std::string to, bool into) {
  if (IsDeviceRoot(from)) Fail(kUsage, "cannot move the root of the device");
  if (IsAppDocuments(session, from)) Fail(kUsage, "cannot move the app's Documents folder");
  session.Require(from);
  if (into && session.Stat(to).is_dir) to = JoinDevicePath(to, BaseName(from));
  if ((to + "/").rfind(from + "/", 0) == 0) Fail(kUsage, "cannot move " + from + " into itself");
  if (session.Stat(to).exists) Fail(kExists, to + " already exists on the device");
  RequireParentDirectory(session, to);
  session.RefuseWhileSyncing();
  RenamePath(session.device(), from.c_str(), to.c_str());
  if (session.Stat(from).exists || !session.Stat(to).exists)
    FailWithReason(kFailed, "could not move " + from + " to " + to);
  return to;
}

void Remove(Session &session, const std::string &path, bool recursive) {
  // Checked on the normalised path, before anything else: no spelling of
  // the root ("/.", "/DCIM/..", "//") is ever removed.
  if (IsDeviceRoot(path)) Fail(kUsage, "refusing to remove the root of the device");
  if (IsAppDocuments(session, path)) Fail(kUsage, "refusing to remove the app's Documents folder");
  const PathInfo info = session.Require(path);
  session.RefuseWhileSyncing();
  if (info.is_dir && recursive) DeleteDir(session.device(), path.c_str());
  else DeleteFile(session.device(), path.c_str());
  if (session.Stat(path).exists) {
    if (info.is_dir && !recursive) Fail(kFailed, path + " is a directory that is not empty (use rm -r)");
    FailWithReason(kFailed, "could not remove " + path);
  }
}

}  // namespace tarn::app
