#include "common/transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>
#include <system_error>

#include "common/device_path.h"
#include "common/naming.h"

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

// A short hidden name: whatever the final name's length, the temporary one
// fits the 255 bytes a name may have on either side.
std::string TemporaryName() {
  static std::mt19937_64 random{std::random_device{}()};
  char text[32];
  std::snprintf(text, sizeof text, ".tarn-%012llx.part", static_cast<unsigned long long>(random() & 0xffffffffffffULL));
  return text;
}

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

Outcome Transfers::Failed(const std::string &what, const TarnError &error, const std::string &reason) {
  if (error.code == TARN_E_CONNECTION_LOST || error.code == TARN_E_NO_DEVICE || !session_.Alive())
    Fail(kDisconnected, "device disconnected after " + std::to_string(files_done_) + " of " +
                            std::to_string(total_files_) + " files. Check the cable and try again.");
  if (error.code == TARN_E_DEVICE_FULL) Fail(kDeviceFull, "could not copy " + what + ": " + reason);
  if (error.code == TARN_E_HOST_IO && error.host_errno == ENOSPC)
    Fail(kHostPath, "could not copy " + what + ": No space left on device");
  last_failure_ = reason.empty() ? "the copy ended short of the file's size" : reason;
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
  // A fresh name, never one that is there: O_EXCL would not follow a link
  // planted at it either.
  std::string partial;
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < 16; ++attempt) {
    partial = (dir / TemporaryName()).string();
    fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0 && errno != EEXIST) break;
  }
  if (fd < 0) Fail(kHostPath, "cannot write " + job.host_path + ": " + std::strerror(errno));
  ::close(fd);

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
    return Failed(job.device_path, *TarnLastError(), LastReason());
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
  const std::string reason = LastReason();
  const PathInfo info = session_.Stat(partial);
  const bool whole = info.exists && !info.is_dir && info.size == size;
  if (state.cancelled || !whole) {
    TarnRemovePath(client, partial.c_str());
    if (state.cancelled) return Outcome::kCancelled;
    return Failed(host_path, error, reason);
  }
  // The device's rename replaces the target in one step.
  if (TarnRenamePath(client, partial.c_str(), device_path.c_str()) != 0) {
    const TarnError refused = *TarnLastError();
    const std::string why = LastReason();
    TarnRemovePath(client, partial.c_str());
    return Failed(host_path, refused, why);
  }
  ++files_done_;
  base_ += size;
  Report(base_, false);
  return Outcome::kCopied;
}

}  // namespace tarn::app
