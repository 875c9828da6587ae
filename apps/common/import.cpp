#include "apps/common/import.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <system_error>

#include "apps/common/catalogue.h"
#include "apps/common/export_record.h"
#include "apps/common/host_file.h"
#include "apps/common/naming.h"
#include "apps/common/picture.h"
#include "apps/common/plist_view.h"
#include "apps/common/text.h"

namespace tarn::app {
namespace fs = std::filesystem;
namespace {

struct Planned {
  std::string device_path;
  std::string rel;
  bool convert = false;
  std::vector<std::string> dirs;
};

std::string StemOf(const std::string &name) {
  const std::string base = BaseName(name);
  const size_t dot = base.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? base : base.substr(0, dot);
}

std::vector<std::string> Split(const std::string &folder) {
  std::vector<std::string> parts;
  for (size_t from = 0; from <= folder.size();) {
    const size_t to = std::min(folder.find('/', from), folder.size());
    parts.push_back(folder.substr(from, to - from));
    from = to + 1;
  }
  return parts;
}

void SetTime(const fs::path &file, int64_t mtime) {
  if (mtime < 0) return;
  const timespec times[2] = {{0, UTIME_NOW}, {static_cast<time_t>(mtime), 0}};
  ::utimensat(AT_FDCWD, file.c_str(), times, 0);
}

class Importer {
 public:
  Importer(Session &session, fs::path dir, ImportReport &report)
      : session_(session), dir_(std::move(dir)), record_(dir_, session.udid()), report_(report) {}

  void Plan(plist_t item, bool heic_to_jpeg) {
    ++report_.listed;
    const std::string path = DictString(item, "path");
    if (path.empty() || DictBool(item, "cloud")) {
      ++report_.in_cloud;
      return;
    }
    if (!record_.RelOf(path).empty()) {
      ++report_.already;
      return;
    }
    Planned picture{path, "", heic_to_jpeg && IsHeic(path), Split(DateFolder(item))};
    picture.rel = Claim(picture.dirs, SafeName(StemOf(path), "Picture"),
                        picture.convert ? std::string(".JPG") : Extension(path), path);
    // A Live Photo's video goes beside its picture under the same name.
    const std::string live = DictString(item, "live_video");
    const std::string stem = StemOf(picture.rel);
    plan_.push_back(std::move(picture));
    if (!live.empty() && record_.RelOf(live).empty())
      plan_.push_back({live, Claim(plan_.back().dirs, stem, Extension(live), live), false, plan_.back().dirs});
  }

  void Copy(const TransferHooks &hooks) {
    std::vector<std::pair<DownloadJob, size_t>> jobs;
    uint64_t total = 0;
    for (size_t i = 0; i < plan_.size(); ++i) {
      const PathInfo info = session_.Stat(plan_[i].device_path);
      if (!info.exists || info.is_dir) {
        report_.notes.push_back(Printable(plan_[i].device_path) + " is listed in the camera roll but missing on the device");
        continue;
      }
      jobs.push_back({{plan_[i].device_path, (dir_ / plan_[i].rel).string(), info.size, info.mtime}, i});
      total += info.size;
    }
    Transfers transfers(session_, total, jobs.size(), hooks, false);
    // What was copied stays known as imported, however the batch ends.
    BatchReport end = DownloadBatch(transfers, jobs, hooks, [this] { record_.Save(); }, [&](const auto &entry) {
      return std::pair{Download(transfers, entry.first, plan_[entry.second]), entry.first.device_path};
    });
    report_.failed.insert(report_.failed.end(), std::make_move_iterator(end.failed.begin()),
                          std::make_move_iterator(end.failed.end()));
    report_.cancelled = end.cancelled;
    report_.bytes = end.bytes;
  }

 private:
  // A name that no file of the folder holds and that the record does not
  // give to another picture (one the person moved away stays imported).
  std::string Claim(const std::vector<std::string> &dirs, const std::string &stem, const std::string &ext,
                    const std::string &device_path) {
    return names_.Claim(dirs, stem, ext, [&](const std::string &candidate) {
      std::error_code ec;
      return (fs::symlink_status(dir_ / candidate, ec).type() != fs::file_type::not_found || record_.Knows(candidate)) &&
             record_.Find(candidate, device_path) == nullptr;
    });
  }

  Outcome Download(Transfers &transfers, const DownloadJob &job, const Planned &planned) {
    if (!planned.convert) {
      const Outcome outcome = transfers.Download(job);
      if (outcome == Outcome::kCopied) Done(planned.rel, job);
      return outcome;
    }
    // The HEIC comes whole under a temporary name beside its JPEG, which is
    // then written whole in turn; neither is ever seen half done.
    const fs::path target = dir_ / planned.rel;
    std::error_code ec;
    fs::create_directories(target.parent_path(), ec);
    const fs::path original = CreateTemporaryBeside(target);
    DownloadJob into = job;
    into.host_path = original.string();
    const Outcome outcome = transfers.Download(into);
    if (outcome != Outcome::kCopied) {
      fs::remove(original, ec);
      return outcome;
    }
    std::string rel = planned.rel;
    try {
      ConvertHeicToJpeg(original, target);
      SetTime(target, job.mtime);
      fs::remove(original, ec);
      ++report_.converted;
    } catch (const Failure &failure) {
      if (failure.status == kHostPath) {
        fs::remove(original, ec);
        throw;
      }
      // Not a picture libheif can read: the original is kept as it came.
      rel = Claim(planned.dirs, StemOf(planned.rel), Extension(job.device_path), job.device_path);
      fs::rename(original, dir_ / rel, ec);
      if (ec) {
        fs::remove(original, ec);
        Fail(kHostPath, "cannot write " + (dir_ / rel).string() + ": " + ec.message());
      }
      report_.notes.push_back(Printable(BaseName(job.device_path)) + " could not be converted to JPEG: " + failure.message +
                              "; kept as it is");
    }
    Done(rel, job);
    return outcome;
  }

  void Done(const std::string &rel, const DownloadJob &job) {
    ++report_.copied;
    record_.Record(rel, job.device_path, job.size, job.mtime);
    report_.files.push_back(rel);
  }

  Session &session_;
  fs::path dir_;
  Manifest record_;
  NameRegistry names_;
  std::vector<Planned> plan_;
  ImportReport &report_;
};

}  // namespace

std::string DateFolder(plist_t item) {
  const uint64_t taken = DictUint(item, "taken");
  if (taken > 0) {
    const time_t when = static_cast<time_t>(taken);
    std::tm local{};
    localtime_r(&when, &local);
    char text[16];
    std::strftime(text, sizeof text, "%Y/%m", &local);
    return text;
  }
  // Older phones give the local time as text: "2022/04/15 05:40:00".
  const std::string time = DictString(item, "time");
  const auto digits = [&](size_t from, size_t n) {
    for (size_t i = from; i < from + n; ++i)
      if (i >= time.size() || !std::isdigit(static_cast<unsigned char>(time[i]))) return false;
    return true;
  };
  if (digits(0, 4) && time.size() > 7 && time[4] == '/' && digits(5, 2)) return time.substr(0, 7);
  return "Undated";
}

ImportReport ImportPhotos(Session &session, const ImportRequest &request, const TransferHooks &hooks) {
  const fs::path dir = request.host_dir;
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec || !fs::is_directory(dir) || ::access(dir.c_str(), W_OK) != 0)
    Fail(kHostPath, "cannot write to " + dir.string());
  ImportReport report;
  PlistPtr list = FetchList(session.device(), Kind::kCamera);
  if (!list) {
    report.nothing_listed = true;
    return report;
  }
  Importer importer(session, dir, report);
  for (plist_t item : ArrayItems(DictArray(list.get(), "item"))) importer.Plan(item, request.heic_to_jpeg);
  importer.Copy(hooks);
  return report;
}

}  // namespace tarn::app
