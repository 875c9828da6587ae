// Commands on the device's file system: ls, stat, find, mkdir, mv, rm,
// pull and push. The library's status results say little (a rename always
// reports success), so each command checks the device before and after.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

#include <tarn/tarn_tool.h>

#include "apps/common/app_list.h"
#include "apps/common/device_path.h"
#include "apps/common/naming.h"
#include "apps/common/text.h"
#include "apps/common/file_ops.h"
#include "apps/common/transfer.h"
#include "console.h"
#include "progress.h"

namespace tarn::cli {
namespace fs = std::filesystem;
namespace {

uint64_t ParseUint(const char *text) { return text != nullptr ? std::strtoull(text, nullptr, 10) : 0; }
int64_t ParseInt(const char *text) { return text != nullptr ? std::strtoll(text, nullptr, 10) : 0; }

// ---------------------------------------------------------------- ls

// One line of ls -l: type, size, time, name; a link shows where it points.
void PrintLong(std::FILE *out, bool is_dir, uint64_t size, int64_t mtime, const std::string &name,
               const std::string &link) {
  const char type = is_dir ? 'd' : link.empty() ? '-' : 'l';
  std::fprintf(out, "%c %12s  %s  %s%s%s\n", type, is_dir ? "-" : HumanSize(size).c_str(), LocalTime(mtime).c_str(),
               Printable(name).c_str(), is_dir ? "/" : "", link.empty() ? "" : (" -> " + Printable(link)).c_str());
}

void PrintTree(Session &session, std::FILE *out, const PodDir *dir, const std::string &prefix, bool long_format) {
  for (const DirEntry &e : EntriesOf(dir)) {
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

// ---------------------------------------------------------------- pull, push

// A batch's notes as warnings, its failures as errors, and its end.
int ReportBatch(const char *what, const BatchReport &report) {
  for (const auto &note : report.notes) PrintWarning(note);
  for (const auto &failure : report.failed) PrintError("could not copy " + failure.message);
  if (report.cancelled) Fail(kExitCancelled, std::string(what) + " cancelled; nothing partial was kept");
  if (!report.failed.empty()) Fail(kExitFailed, std::to_string(report.failed.size()) + " file(s) could not be copied");
  return kExitOk;
}

}  // namespace

int CmdLs(Session &session, const Args &args) {
  const std::string path =
      !args.positional.empty() ? args.positional[0] : session.options().app.empty() ? "/" : kAppDocuments;
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
  MakeDirectory(session, args.positional[0], args.has("-p"));
  return kExitOk;
}

int CmdMv(Session &session, const Args &args) {
  Move(session, args.positional[0], args.positional[1], true);
  return kExitOk;
}

int CmdRm(Session &session, const Args &args) {
  Remove(session, args.positional[0], args.has("-r"));
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
  if (info.is_dir && fs::exists(fs::symlink_status(to, ec)) && !fs::is_directory(fs::symlink_status(to, ec)))
    Fail(kExitExists, to.string() + " exists and is not a directory");
  const DownloadPlan plan = PlanDownload(session, from, info, to);
  TransferUi ui;
  const BatchReport report = RunDownloads(session, plan, ui.hooks(), no_clobber);
  if (!info.is_dir && report.cancelled) Fail(kExitCancelled, "pull of " + from + " cancelled; nothing was kept");
  if (!info.is_dir && !report.failed.empty())
    Fail({kExitFailed, report.failed.front().code, "could not copy " + report.failed.front().message});
  return ReportBatch("pull", report);
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
    RequireParentDirectory(session, to);
  }
  const PathInfo final_target = session.Stat(to);
  if (final_target.is_dir && !from_dir) Fail(kExitExists, to + " is a directory on the device");
  if (final_target.exists && !final_target.is_dir && from_dir)
    Fail(kExitExists, to + " is a file on the device; a directory cannot be pushed onto it");

  const UploadPlan plan = PlanUpload(from, to);
  TransferUi ui;
  return ReportBatch("push", RunUploads(session, plan, ui.hooks()));
}

}  // namespace tarn::cli
