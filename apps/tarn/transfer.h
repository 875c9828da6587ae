// Single-file copies in both directions under one progress bar, with
// Ctrl-C turned into a cancel through the library's progress callback.
#pragma once

#include <cstdint>
#include <string>

#include "progress.h"
#include "session.h"

namespace tarn::cli {

struct DownloadJob {
  std::string device_path;
  std::string host_path;
  uint64_t size = 0;   // as the device reports it; the copy must reach it
  int64_t mtime = -1;  // given to the host file; -1 leaves the copy's own
};

enum class Outcome { kCopied, kFailed, kCancelled };

class Transfers {
 public:
  Transfers(Session &session, uint64_t total_bytes);

  // Downloads into "<host_path>.tarn-part" and renames it into place only
  // once it has the device's size, so that neither a cancel nor a crash
  // leaves a file that looks complete. Fails with kExitHostPath when the
  // host side cannot be written.
  Outcome Download(const DownloadJob &job);
  // Uploads; a cancelled upload's partial device file is removed.
  Outcome Upload(const std::string &host_path, const std::string &device_path, uint64_t size);

  void Finish() { bar_.Finish(); }
  uint64_t bytes_copied() const { return base_; }

 private:
  Session &session_;
  TransferScope scope_;
  ProgressBar bar_;
  uint64_t base_ = 0;  // bytes of the files finished before the current one
};

}  // namespace tarn::cli
