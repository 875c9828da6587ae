// The progress bar of transfers and the Ctrl-C that cancels them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "apps/common/transfer.h"
#include "cli.h"

namespace tarn::cli {

// During transfers SIGINT (and SIGTERM, SIGHUP) only sets a flag: the progress callback reads it
// and asks the library to stop, so that the device connection and its sync
// lock are released on the way out and no partial file is kept. A second
// Ctrl-C, or one outside a transfer, ends the tool at once.
void CatchInterrupt();
bool Interrupted();
// The signal that set Interrupted(): SIGINT, SIGTERM or SIGHUP.
int CaughtSignal();

// One bar on standard error, redrawn at most ten times a second:
//   [#########-----------]  45%  12.3 MiB / 27.0 MiB  5.1 MiB/s  0:03 left  name
// Disabled bars draw nothing.
class ProgressBar {
 public:
  explicit ProgressBar(bool enabled);
  ~ProgressBar();
  void Update(const Progress &progress);
  // Draws the last state and ends the line.
  void Finish();

 private:
  void Draw(bool force);
  bool enabled_;
  bool drawn_ = false;
  uint64_t total_ = 0;
  uint64_t done_ = 0;
  std::string label_;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_draw_;
};

// Whether transfers show a bar: --progress / --no-progress, else only when
// standard error is a terminal.
void SetProgressWanted(std::optional<bool> wanted);

// The hooks of one batch of transfers: a bar on standard error, and Ctrl-C
// as the cancel flag for as long as the batch lives.
class TransferUi {
 public:
  TransferUi();
  ~TransferUi();
  TransferUi(const TransferUi &) = delete;
  TransferUi &operator=(const TransferUi &) = delete;
  const TransferHooks &hooks() const { return hooks_; }

 private:
  std::shared_ptr<ProgressBar> bar_;
  TransferHooks hooks_;
};

}  // namespace tarn::cli
