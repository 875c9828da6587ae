// File copies in both directions with one running total, reported through
// a progress callback, and a cancel flag that stops them between blocks.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "common/session.h"

namespace tarn::app {

struct Progress {
  std::string label;  // the name of the file being copied
  uint64_t done = 0;  // bytes of the whole batch
  uint64_t total = 0;
  bool finished = false;  // the last report of the batch
};

// What a batch of copies tells its caller, and how the caller stops it.
// Both may be left empty; the callbacks run on the copying thread.
struct TransferHooks {
  std::function<void(const Progress &)> progress;
  const std::atomic<bool> *cancel = nullptr;  // set it to stop at the next block
  bool cancelled() const { return cancel != nullptr && cancel->load(); }
};

struct DownloadJob {
  std::string device_path;
  std::string host_path;
  uint64_t size = 0;   // as the device reports it; the copy must reach it
  int64_t mtime = -1;  // given to the host file; -1 leaves the copy's own
};

enum class Outcome { kCopied, kFailed, kCancelled };

class Transfers {
 public:
  Transfers(Session &session, uint64_t total_bytes, TransferHooks hooks);

  // Downloads into "<host_path>.tarn-part" and renames it into place only
  // once it has the device's size, so that neither a cancel nor a crash
  // leaves a file that looks complete. Fails with kHostPath when the host
  // side cannot be written.
  Outcome Download(const DownloadJob &job);
  // Uploads; a cancelled upload's partial device file is removed.
  Outcome Upload(const std::string &host_path, const std::string &device_path, uint64_t size);

  // Sends the last progress report.
  void Finish();
  uint64_t bytes_copied() const { return base_; }
  const TransferHooks &hooks() const { return hooks_; }

 private:
  void Report(const std::string &label, uint64_t done, bool finished) const;
  Session &session_;
  TransferHooks hooks_;
  uint64_t total_;
  uint64_t base_ = 0;  // bytes of the files finished before the current one
  std::string label_;
};

}  // namespace tarn::app
