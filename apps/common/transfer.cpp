#include "apps/common/transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "apps/common/device_path.h"
#include "apps/common/host_file.h"
#include "apps/common/naming.h"

namespace tarn::app {
namespace fs = std::filesystem;
namespace {

// What the progress callback sees through the handle's userData.
struct CallbackState {
  const Transfers *transfers;
  std::function<void(uint64_t)> report;
  bool upload;
  bool cancelled = false;
};

int OnProgress(uint64_t, uint64_t done, int finished, void *user_data) {
  auto *state = static_cast<CallbackState *>(user_data);
  if (state == nullptr) return 0;
  // An upload's final call carries the last block alone, not the total.
  if (!(state->upload && finished)) state->report(done);
  if (state->transfers->hooks().cancelled() && !finished) {
    state->cancelled = true;
    return 1;
  }
  return 0;
}

// Points the handle's userData at a state for one call and clears it again.
class CallbackScope {
 public:
  CallbackScope(PodDevice *device, CallbackState *state) : device_(device) { device_->userData = state; }
  ~CallbackScope() { device_->userData = nullptr; }
  CallbackScope(const CallbackScope &) = delete;
  CallbackScope &operator=(const CallbackScope &) = delete;

 private:
  PodDevice *device_;
};

const char *KindOfHostFile(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device node";
  if (S_ISSOCK(mode)) return "a socket";
  return "not a regular file";
}

// Whether `path` may be replaced: nothing there, or a regular file.
void RefuseNonRegular(const std::string &path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
    Fail(kHostPath, "refusing to replace " + path + ": it is " + KindOfHostFile(st.st_mode));
}

}  // namespace

Transfers::Transfers(Session &session, uint64_t total_bytes, size_t total_files, TransferHooks hooks, bool writes)
    : session_(session), hooks_(std::move(hooks)), total_(total_bytes), total_files_(total_files) {
  lock_ = TarnSyncLock(session_.client());
  if (TarnLastError()->code == TARN_E_SYNC_LOCK_BUSY && writes) {
    TarnSyncUnlock(session_.client(), lock_);
    lock_ = 0;
    Fail(kBusy, "the device is syncing with another computer; nothing was written. Wait until the sync has "
                "finished and try again.");
  }
}

Transfers::~Transfers() { TarnSyncUnlock(session_.client(), lock_); }

void Transfers::Report(uint64_t done, bool finished) const {
  if (hooks_.progress) hooks_.progress(Progress{label_, done, total_, finished});
}

void Transfers::Finish() { Report(base_, true); }

Outcome Transfers::Failed(const std::string &what, const TarnError &error) {
  // Copied first: the check of the connection below is a library call of its own.
  const TarnErrorCode code = error.code;
  const bool host_full = code == TARN_E_HOST_IO && error.host_errno == ENOSPC;
  const std::string reason = Describe(error);
  if (BreaksConnection(code) || !session_.Alive())
    Fail(Disconnected(code, files_done_, total_files_));
  if (code == TARN_E_DEVICE_FULL) Fail({kDeviceFull, code, "could not copy " + what + ": " + reason});
  if (host_full) Fail({kHostPath, code, "could not copy " + what + ": " + reason});
  last_failure_ = {StatusOf(code, kFailed), code, reason.empty() ? "the copy ended short of the file's size" : reason};
  return Outcome::kFailed;
}

Outcome Transfers::Download(const DownloadJob &job, bool no_clobber) {
  const fs::path target(job.host_path);
  std::error_code ec;
  const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
  fs::create_directories(dir, ec);
  if (ec) Fail(kHostPath, "cannot create " + dir.string() + ": " + ec.message());
  RefuseNonRegular(job.host_path);
  if (no_clobber && fs::symlink_status(target, ec).type() != fs::file_type::not_found) {
    ++files_done_;
    return Outcome::kSkipped;
  }
  const std::string partial = CreateTemporaryBeside(target).string();

  label_ = BaseName(job.device_path);
  CallbackState state{this, [this](uint64_t done) { Report(base_ + done, false); }, false};
  {
    CallbackScope scope(session_.device(), &state);
    _CopyFileFromDeviceToNative(session_.device(), session_.client(), job.device_path.c_str(), partial.c_str(),
                                OnProgress);
  }
  const uint64_t got = fs::file_size(partial, ec);
  if (state.cancelled || ec || got != job.size) {
    fs::remove(partial, ec);
    if (state.cancelled) return Outcome::kCancelled;
    return Failed(job.device_path, *TarnLastError());
  }
  if (job.mtime >= 0) {
    const timespec times[2] = {{0, UTIME_NOW}, {static_cast<time_t>(job.mtime), 0}};
    ::utimensat(AT_FDCWD, partial.c_str(), times, 0);
  }
  // Whatever appeared at the target during the copy gets the same check.
  try {
    RefuseNonRegular(job.host_path);
  } catch (const Failure &) {
    fs::remove(partial, ec);
    throw;
  }
  fs::rename(partial, target, ec);
  if (ec) {
    fs::remove(partial, ec);
    Fail(kHostPath, "cannot write " + job.host_path + ": " + ec.message());
  }
  ++files_done_;
  base_ += job.size;
  Report(base_, false);
  return Outcome::kCopied;
}

Outcome Transfers::Upload(const std::string &host_path, const std::string &device_path, uint64_t size) {
  const int fd = ::open(host_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail(kHostPath, "cannot read " + host_path + ": " + std::strerror(errno));
  ::close(fd);

  afc_client_t client = session_.client();
  const std::string partial = JoinDevicePath(DeviceParent(device_path), TemporaryName());
  label_ = BaseName(host_path);
  CallbackState state{this, [this](uint64_t done) { Report(base_ + done, false); }, true};
  {
    CallbackScope scope(session_.device(), &state);
    _TarnCopyFileFromNativeToDevice(session_.device(), client, host_path.c_str(), partial.c_str(), OnProgress);
  }
  const TarnError error = *TarnLastError();
  const std::string message = error.message;  // the record is rewritten by the next call
  const PathInfo info = session_.Stat(partial);
  const bool whole = info.exists && !info.is_dir && info.size == size;
  if (state.cancelled || !whole) {
    TarnRemovePath(client, partial.c_str());
    if (state.cancelled) return Outcome::kCancelled;
    // The reason names the file the device knows it by.
    std::string named = message;
    for (size_t at; (at = named.find(partial)) != std::string::npos;) named.replace(at, partial.size(), device_path);
    TarnError copy = error;
    copy.message = named.c_str();
    return Failed(host_path, copy);
  }
  // The device's rename replaces the target in one step.
  if (TarnRenamePath(client, partial.c_str(), device_path.c_str()) != 0) {
    TarnError refused = *TarnLastError();
    const std::string message = refused.message;
    TarnRemovePath(client, partial.c_str());
    refused.message = message.c_str();
    return Failed(host_path, refused);
  }
  ++files_done_;
  base_ += size;
  Report(base_, false);
  return Outcome::kCopied;
}

void CountOutcome(Outcome outcome, const Transfers &transfers, const std::string &what, BatchReport &report) {
  if (outcome == Outcome::kCopied) ++report.copied;
  else if (outcome == Outcome::kSkipped) ++report.skipped;
  else if (outcome == Outcome::kCancelled) report.cancelled = true;
  else report.failed.push_back({transfers.last_failure().status, transfers.last_failure().code,
                                Printable(what) + ": " + transfers.last_failure().message});
}

}  // namespace tarn::app
