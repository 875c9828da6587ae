// File copies in both directions over the session's one connection and one
// hold of the device's sync lock, with one running total reported through a
// progress callback and a cancel flag that stops them between blocks.
//
// Neither side ever shows a partial file under its final name: a download
// goes to a temporary name in the target's host directory and an upload to
// a temporary name in the target's device directory, each renamed over the
// target only when every byte is there; a cancel or failure removes the
// temporary file and leaves the target as it was.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "apps/common/session.h"
#include "apps/common/text.h"

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

enum class Outcome { kCopied, kSkipped, kFailed, kCancelled };

class Transfers {
 public:
  // `writes`: the batch changes the device, and so refuses (kBusy) while
  // another computer syncs with it.
  Transfers(Session &session, uint64_t total_bytes, size_t total_files, TransferHooks hooks, bool writes);
  ~Transfers();
  Transfers(const Transfers &) = delete;
  Transfers &operator=(const Transfers &) = delete;

  // A host path that is not a regular file (a directory, link, FIFO or
  // device node) is never replaced: fails with kHostPath. With `no_clobber`
  // an existing file is left as it is (kSkipped). Fails with kHostPath when
  // the host side cannot be written, kDisconnected when the device went away.
  Outcome Download(const DownloadJob &job, bool no_clobber = false);
  Outcome Upload(const std::string &host_path, const std::string &device_path, uint64_t size);

  // Why the last kFailed happened.
  const Failure &last_failure() const { return last_failure_; }

  // Sends the last progress report.
  void Finish();
  uint64_t bytes_copied() const { return base_; }
  const TransferHooks &hooks() const { return hooks_; }

 private:
  void Report(uint64_t done, bool finished) const;
  // After a failed file, with the library's reason for it: ends the batch
  // when the connection is gone or either side has no room, since every
  // further file would fail the same way.
  Outcome Failed(const std::string &what, const TarnError &error);
  Session &session_;
  TransferHooks hooks_;
  uint64_t total_;
  size_t total_files_;
  size_t files_done_ = 0;
  uint64_t lock_ = 0;
  uint64_t base_ = 0;  // bytes of the files finished before the current one
  std::string label_;
  Failure last_failure_;
};

// How a batch of copies ended.
struct BatchReport {
  size_t copied = 0, skipped = 0;
  uint64_t bytes = 0;
  bool cancelled = false;
  std::vector<Failure> failed;     // "<what>: <reason>", one per file that could not be copied
  std::vector<std::string> notes;  // the plan's notes, then the device links passed over
};

// Adds one copy's outcome to a batch's report; a failure is kept with `what`
// (the file's path) and the reason the transfers recorded.
void CountOutcome(Outcome outcome, const Transfers &transfers, const std::string &what, BatchReport &report);

// Whether a batch stops after a copy: the copy was cancelled, or the person
// asked to stop in the meantime (then the report says cancelled too).
inline bool StopsBatch(BatchReport &report, const TransferHooks &hooks) {
  if (hooks.cancelled()) report.cancelled = true;
  return report.cancelled;
}

// Runs a batch of downloads in order over `transfers`: `copy(job)` copies one
// and gives its outcome and device path. A file that fails is kept and the
// batch goes on; a cancel ends it. `save` runs however the batch ends, also
// when a lost connection ends it by a Failure, so that what was copied stays
// recorded (the export's and the import's record).
template <typename Job, typename Copy>
BatchReport DownloadBatch(Transfers &transfers, const std::vector<Job> &jobs, const TransferHooks &hooks,
                          const std::function<void()> &save, Copy copy) {
  BatchReport report;
  try {
    for (const Job &job : jobs) {
      const auto [outcome, device_path] = copy(job);
      CountOutcome(outcome, transfers, device_path, report);
      if (StopsBatch(report, hooks)) break;
    }
  } catch (const Failure &) {
    save();
    throw;
  }
  transfers.Finish();
  save();
  report.bytes = transfers.bytes_copied();
  return report;
}

}  // namespace tarn::app
