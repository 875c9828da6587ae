// Commands on the device's file system: ls, stat, find, mkdir, mv, rm,
// pull and push. The library's status results say little (a rename always
// reports success), so each command checks the device before and after.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include <tarn/tarn_tool.h>

#include "common/naming.h"
#include "common/text.h"
#include "common/transfer.h"
#include "console.h"
#include "progress.h"

namespace tarn::cli {
namespace fs = std::filesystem;
namespace {

std::string JoinDevicePath(const std::string &dir, const std::string &name) {
  return !dir.empty() && dir.back() == '/' ? dir + name : dir + "/" + name;
}

std::string DeviceParent(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool IsDeviceRoot(const std::string &path) {
  return path.find_first_not_of('/') == std::string::npos;
}

uint64_t ParseUint(const char *text) { return text != nullptr ? std::strtoull(text, nullptr, 10) : 0; }
int64_t ParseInt(const char *text) { return text != nullptr ? std::strtoll(text, nullptr, 10) : 0; }

struct SnapshotDeleter {
  void operator()(PodDir *root) const { FreePodDir(root, 1, root); }
};
using Snapshot = std::unique_ptr<PodDir, SnapshotDeleter>;

Snapshot TakeSnapshot(Session &session, const std::string &path, uint32_t max_level) {
  Snapshot root(GetPodDir(session.device(), path.c_str(), max_level));
  if (!root) Fail(kExitFailed, "cannot read " + path + " on the device");
  return root;
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

void PrintLong(std::FILE *out, bool is_dir, uint64_t size, int64_t mtime, const std::string &name) {
  std::fprintf(out, "%c %12s  %s  %s%s\n", is_dir ? 'd' : '-', is_dir ? "-" : std::to_string(size).c_str(),
               LocalTime(mtime).c_str(), name.c_str(), is_dir ? "/" : "");
}

void PrintTree(std::FILE *out, const PodDir *dir, const std::string &prefix, bool long_format) {
  for (const Entry &e : EntriesOf(dir)) {
    const std::string shown = prefix + e.name;
    if (long_format) {
      if (e.is_dir) PrintLong(out, true, 0, ParseInt(e.dir->modify_date), shown);
      else PrintLong(out, false, ParseUint(e.file->size), ParseInt(e.file->modify_date), shown);
    } else {
      std::fprintf(out, "%s%s\n", shown.c_str(), e.is_dir ? "/" : "");
    }
    if (e.is_dir) PrintTree(out, e.dir, shown + "/", long_format);
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
      PrintWarning("skipped an entry named \"" + e.name + "\" in " + (dir->path ? dir->path : "?"));
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
  for (const auto &path : failed) PrintError("could not copy " + path);
  if (cancelled) Fail(kExitCancelled, std::string(what) + " cancelled");
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
    if (long_format) PrintLong(Out(), false, info.size, info.mtime, path);
    else std::fprintf(Out(), "%s\n", path.c_str());
    return kExitOk;
  }
  Snapshot root = TakeSnapshot(session, path, depth);
  PrintTree(Out(), root.get(), "", long_format);
  return kExitOk;
}

int CmdStat(Session &session, const Args &args) {
  const std::string &path = args.positional[0];
  const PathInfo info = session.Require(path);
  std::FILE *out = Out();
  std::fprintf(out, "Path:      %s\n", path.c_str());
  std::fprintf(out, "Type:      %s\n",
               info.is_dir                ? "directory"
               : info.kind == "S_IFREG"   ? "file"
               : info.kind == "S_IFLNK"   ? "symbolic link"
                                          : info.kind.c_str());
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
  std::string keyword = args.positional[1];
  if (!session.Require(dir).is_dir) Fail(kExitNotOnDevice, dir + ": not a directory on the device");
  // The library compares against names lowered by TarnToLower; the keyword
  // is lowered the same way, or an upper-case letter would never match.
  if (!args.has("--case-sensitive")) TarnToLower(keyword.data());
  std::unique_ptr<PodSearchItem, decltype(&FreeSearchResult)> results(
      SearchFile(session.device(), dir.c_str(), keyword.c_str()), FreeSearchResult);
  for (const PodSearchItem *item = results.get(); item != nullptr; item = item->next) {
    const bool is_dir = item->kind == 1;
    const char *found = is_dir ? static_cast<const PodDir *>(item->record)->path
                               : static_cast<const PodFile *>(item->record)->path;
    // The library joins DIR and a name with a separator, so a search from
    // "/" reports "//name"; the path is shown as a person would type it.
    std::string shown = found != nullptr ? found : "";
    for (size_t at; (at = shown.find("//")) != std::string::npos;) shown.erase(at, 1);
    std::fprintf(Out(), "%s%s\n", shown.c_str(), is_dir ? "/" : "");
  }
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
  if (!parents && !session.Stat(DeviceParent(path)).is_dir)
    Fail(kExitNotOnDevice, DeviceParent(path) + ": no such directory on the device (use mkdir -p)");
  if (MakeDir(session.device(), path.c_str()) != 0)
    Fail(kExitUnreachable, "cannot reach device " + session.udid() + " to create " + path);
  if (!session.Stat(path).is_dir) Fail(kExitFailed, "could not create " + path);
  return kExitOk;
}

int CmdMv(Session &session, const Args &args) {
  const std::string &from = args.positional[0];
  std::string to = args.positional[1];
  session.Require(from);
  if (IsDeviceRoot(from)) Fail(kExitUsage, "cannot move the root of the device");
  if (session.Stat(to).is_dir) to = JoinDevicePath(to, BaseName(from));
  if (session.Stat(to).exists) Fail(kExitExists, to + " already exists on the device");
  if (!session.Stat(DeviceParent(to)).is_dir)
    Fail(kExitNotOnDevice, DeviceParent(to) + ": no such directory on the device");
  RenamePath(session.device(), from.c_str(), to.c_str());
  if (session.Stat(from).exists || !session.Stat(to).exists) Fail(kExitFailed, "could not move " + from + " to " + to);
  return kExitOk;
}

int CmdRm(Session &session, const Args &args) {
  const std::string &path = args.positional[0];
  const PathInfo info = session.Require(path);
  if (IsDeviceRoot(path)) Fail(kExitUsage, "refusing to remove the root of the device");
  if (info.is_dir && args.has("-r")) DeleteDir(session.device(), path.c_str());
  else DeleteFile(session.device(), path.c_str());
  if (session.Stat(path).exists) {
    if (info.is_dir && !args.has("-r")) Fail(kExitFailed, path + " is a directory that is not empty (use rm -r)");
    Fail(kExitFailed, "could not remove " + path);
  }
  return kExitOk;
}

int CmdPull(Session &session, const Args &args) {
  const std::string &from = args.positional[0];
  fs::path to = args.positional[1];
  const PathInfo info = session.Require(from);
  std::error_code ec;
  if (fs::is_directory(to, ec)) {
    const std::string base = BaseName(from);
    to /= UnsafeHostName(base.c_str()) ? "device" : base;
  } else if (to.has_parent_path() && !fs::is_directory(to.parent_path(), ec)) {
    Fail(kExitHostPath, to.parent_path().string() + ": no such directory");
  }
  if (!info.is_dir) {
    TransferUi ui;
    Transfers transfers(session, info.size, ui.hooks());
    const Outcome outcome = transfers.Download({from, to.string(), info.size, info.mtime});
    transfers.Finish();
    if (outcome == Outcome::kCancelled) Fail(kExitCancelled, "pull of " + from + " cancelled; nothing was kept");
    if (outcome == Outcome::kFailed) Fail(kExitFailed, "could not copy " + from);
    return kExitOk;
  }
  Snapshot root = TakeSnapshot(session, from, 0);
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
  Transfers transfers(session, total, ui.hooks());
  std::vector<std::string> failed;
  bool cancelled = false;
  for (const auto &job : jobs) {
    const Outcome outcome = transfers.Download(job);
    if (outcome == Outcome::kFailed) failed.push_back(job.device_path);
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
  const PathInfo target = session.Stat(to);
  if (target.is_dir) {
    to = JoinDevicePath(to, from.filename().empty() ? from.parent_path().filename().string() : from.filename().string());
  } else if (!session.Stat(DeviceParent(to)).is_dir) {
    Fail(kExitNotOnDevice, DeviceParent(to) + ": no such directory on the device");
  }
  if (session.Stat(to).is_dir && !fs::is_directory(from, ec)) Fail(kExitExists, to + " is a directory on the device");

  // Host files in a stable order, with the device directories they need.
  std::vector<std::pair<fs::path, std::string>> files;
  std::vector<std::string> dirs;
  if (fs::is_directory(from, ec)) {
    dirs.push_back(to);
    std::vector<fs::path> entries;
    for (auto it = fs::recursive_directory_iterator(from, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec))
      entries.push_back(it->path());
    if (ec) Fail(kExitHostPath, "cannot read " + from.string() + ": " + ec.message());
    std::sort(entries.begin(), entries.end());
    for (const auto &entry : entries) {
      const std::string device_path = JoinDevicePath(to, fs::relative(entry, from).generic_string());
      if (fs::is_directory(entry, ec)) dirs.push_back(device_path);
      else if (fs::is_regular_file(entry, ec)) files.emplace_back(entry, device_path);
    }
  } else {
    files.emplace_back(from, to);
  }
  uint64_t total = 0;
  for (const auto &[host, device] : files) total += fs::file_size(host, ec);
  for (const auto &dir : dirs) {
    if (MakeDir(session.device(), dir.c_str()) != 0 || !session.Stat(dir).is_dir)
      Fail(kExitFailed, "could not create " + dir + " on the device");
  }
  TransferUi ui;
  Transfers transfers(session, total, ui.hooks());
  std::vector<std::string> failed;
  bool cancelled = false;
  for (const auto &[host, device] : files) {
    const Outcome outcome = transfers.Upload(host.string(), device, fs::file_size(host, ec));
    if (outcome == Outcome::kFailed) failed.push_back(host.string());
    if (outcome == Outcome::kCancelled || Interrupted()) {
      cancelled = true;
      break;
    }
  }
  transfers.Finish();
  return ReportBatch("push", failed, cancelled);
}

}  // namespace tarn::cli
