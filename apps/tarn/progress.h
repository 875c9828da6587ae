// The progress bar of transfers and the Ctrl-C that cancels them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "tool.h"

namespace tarn::cli {

// During transfers SIGINT only sets a flag: the progress callback reads it
// and asks the library to stop, so that the device connection and its sync
// lock are released on the way out and no partial file is kept. A second
// Ctrl-C, or one outside a transfer, ends the tool at once.
void CatchInterrupt();
bool Interrupted();

// Marks the span in which a Ctrl-C becomes a cancel.
class TransferScope {
 public:
  TransferScope();
  ~TransferScope();
  TransferScope(const TransferScope &) = delete;
  TransferScope &operator=(const TransferScope &) = delete;
};

// One bar on standard error, redrawn at most ten times a second:
//   [#########-----------]  45%  12.3 MiB / 27.0 MiB  5.1 MiB/s  0:03 left  name
// Disabled bars draw nothing.
class ProgressBar {
 public:
  ProgressBar(bool enabled, uint64_t total);
  ~ProgressBar();
  void SetLabel(const std::string &label);
  void Update(uint64_t done);
  // Draws the last state and ends the line.
  void Finish();

 private:
  void Draw(bool force);
  bool enabled_;
  bool drawn_ = false;
  uint64_t total_;
  uint64_t done_ = 0;
  std::string label_;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point last_draw_;
};

// Whether transfers show a bar: --progress / --no-progress, else only when
// standard error is a terminal.
bool ProgressWanted(const GlobalOptions &options);

}  // namespace tarn::cli
