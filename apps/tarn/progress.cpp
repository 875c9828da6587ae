#include "progress.h"

#include <csignal>
#include <cstdio>

#include <glib.h>

#include "console.h"
#include "apps/common/text.h"
#include "cli.h"

namespace tarn::cli {
namespace {

std::atomic<bool> g_interrupted{false};
volatile std::sig_atomic_t g_transferring = 0;
std::optional<bool> g_progress;
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

volatile std::sig_atomic_t g_signal = SIGINT;

void OnInterrupt(int signal) {
  std::signal(signal, SIG_DFL);
  g_signal = signal;
  // Outside a transfer nothing would look at the flag for a long time (a
  // deep listing, a catalogue read): the tool ends at once, as a user
  // expects; the device releases what the closed connection held.
  if (g_transferring == 0) std::raise(signal);
  g_interrupted = true;
}

constexpr int kBarCells = 24;

}  // namespace

void CatchInterrupt() {
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  // Restarted system calls keep a socket read in the library from failing
  // half-way: the cancel then comes through the progress callback.
  action.sa_flags = SA_RESTART;
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

int CaughtSignal() { return g_signal; }

bool Interrupted() { return g_interrupted; }

void SetProgressWanted(std::optional<bool> wanted) { g_progress = wanted; }

TransferUi::TransferUi()
    : bar_(std::make_shared<ProgressBar>(g_progress.has_value() ? *g_progress : ErrIsTerminal())) {
  g_transferring = 1;
  hooks_.progress = [bar = bar_](const Progress &progress) { bar->Update(progress); };
  hooks_.cancel = &g_interrupted;
}

TransferUi::~TransferUi() { g_transferring = 0; }

ProgressBar::ProgressBar(bool enabled) : enabled_(enabled), start_(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() {
  if (drawn_) std::fputc('\n', stderr);
}

void ProgressBar::Update(const Progress &progress) {
  label_ = progress.label;
  done_ = progress.done;
  total_ = progress.total;
  if (progress.finished) Finish();
  else Draw(false);
}

void ProgressBar::Finish() {
  if (!enabled_) return;
  Draw(true);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  drawn_ = false;
}

void ProgressBar::Draw(bool force) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (!force && drawn_ && now - last_draw_ < std::chrono::milliseconds(100)) return;
  last_draw_ = now;
  drawn_ = true;
  const double fraction = total_ == 0 ? 1.0 : std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_));
  const int full = static_cast<int>(fraction * kBarCells);
  std::string bar(static_cast<size_t>(full), '#');
  bar.append(static_cast<size_t>(kBarCells - full), '-');
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const bool complete = done_ >= total_;
  // The first moments of a transfer give no useful rate; a finished one
  // always has its average.
  const double rate = seconds > 0.05 || (complete && seconds > 0) ? static_cast<double>(done_) / seconds : 0.0;
  std::string left = complete ? HumanDuration(0) : "-:--";
  if (rate > 0 && !complete) left = HumanDuration(static_cast<uint64_t>((total_ - done_) / rate * 1000.0));
  std::string label = label_;
  const bool text = g_utf8_validate(label.c_str(), static_cast<gssize>(label.size()), nullptr);
  const glong chars = text ? g_utf8_strlen(label.c_str(), -1) : 0;
  if (chars > 30) label = "\u2026" + std::string(g_utf8_offset_to_pointer(label.c_str(), chars - 29));
  std::fprintf(stderr, "\r[%s] %3d%%  %s / %s  %s/s  %s left  %s\033[K", bar.c_str(),
               static_cast<int>(fraction * 100), HumanSize(done_).c_str(), HumanSize(total_).c_str(),
               HumanSize(static_cast<uint64_t>(rate)).c_str(), left.c_str(), label.c_str());
  std::fflush(stderr);
}

}  // namespace tarn::cli
