#include "common/transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

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

}  // namespace

Transfers::Transfers(Session &session, uint64_t total_bytes, TransferHooks hooks)
    : session_(session), hooks_(std::move(hooks)), total_(total_bytes) {}

void Transfers::Report(const std::string &label, uint64_t done, bool finished) const {
  if (hooks_.progress) hooks_.progress(Progress{label, done, total_, finished});
}

void Transfers::Finish() { Report(label_, base_, true); }

Outcome Transfers::Download(const DownloadJob &job) {
  const fs::path target(job.host_path);
  std::error_code ec;
  if (target.has_parent_path()) fs::create_directories(target.parent_path(), ec);
  if (ec) Fail(kHostPath, "cannot create " + target.parent_path().string() + ": " + ec.message());
  const std::string partial = job.host_path + ".tarn-part";
  // The library creates the host file without checking; a directory that
  // cannot be written is found here, before the device is asked for anything.
  const int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) Fail(kHostPath, "cannot write " + job.host_path + ": " + std::strerror(errno));
  ::close(fd);

  label_ = BaseName(job.device_path);
  CallbackState state{this, [this](uint64_t done) { Report(label_, base_ + done, false); }, false};
  {
    CallbackScope scope(session_.device(), &state);
    CopyFileFromDeviceToNative(session_.device(), job.device_path.c_str(), partial.c_str(), OnProgress);
  }
  const uint64_t got = fs::file_size(partial, ec);
  if (state.cancelled || ec || got != job.size) {
    fs::remove(partial, ec);
    return state.cancelled ? Outcome::kCancelled : Outcome::kFailed;
  }
  fs::rename(partial, target, ec);
  if (ec) {
    fs::remove(partial, ec);
    Fail(kHostPath, "cannot write " + job.host_path + ": " + ec.message());
  }
  if (job.mtime >= 0) {
    const timespec times[2] = {{0, UTIME_NOW}, {static_cast<time_t>(job.mtime), 0}};
    ::utimensat(AT_FDCWD, job.host_path.c_str(), times, 0);
  }
  base_ += job.size;
  Report(label_, base_, false);
  return Outcome::kCopied;
}

Outcome Transfers::Upload(const std::string &host_path, const std::string &device_path, uint64_t size) {
  const int fd = ::open(host_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail(kHostPath, "cannot read " + host_path + ": " + std::strerror(errno));
  ::close(fd);

  label_ = BaseName(host_path);
  CallbackState state{this, [this](uint64_t done) { Report(label_, base_ + done, false); }, true};
  int status;
  {
    CallbackScope scope(session_.device(), &state);
    status = CopyFileFromNativeToDevice(session_.device(), host_path.c_str(), device_path.c_str(), OnProgress);
  }
  if (status != 0) Fail(kUnreachable, "cannot reach device " + session_.udid() + " to upload " + host_path);
  if (state.cancelled) {
    DeleteFile(session_.device(), device_path.c_str());
    return Outcome::kCancelled;
  }
  const PathInfo info = session_.Stat(device_path);
  if (!info.exists || info.size != size) return Outcome::kFailed;
  base_ += size;
  Report(label_, base_, false);
  return Outcome::kCopied;
}

}  // namespace tarn::app
