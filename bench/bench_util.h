// What every benchmark program shares: timing with medians, a raw
// libimobiledevice connection for the floors, and the one table row format
// that scripts/bench gathers into a single table.
//
// The machines these run on are shared and noisy, so no figure stands
// alone: each is divided by a floor measured in the same run, and both are
// medians of several repetitions. Rows go to stdout; everything else (the
// library's own console lines included) goes to stderr or /dev/null.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

extern char **environ;

namespace tarn::bench {

inline double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

inline double Seconds(const std::function<void()> &run) {
  const auto t0 = std::chrono::steady_clock::now();
  run();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Median seconds of `reps` runs of `run`, each preceded by `prepare`
// (untimed).
inline double MedianSeconds(int reps, const std::function<void()> &run,
                            const std::function<void()> &prepare = [] {}) {
  std::vector<double> t;
  for (int i = 0; i < reps; ++i) {
    prepare();
    t.push_back(Seconds(run));
  }
  return Median(t);
}

// Integer option "--name N" from the command line, or `fallback`.
inline long Option(int argc, char **argv, const std::string &name, long fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (name == argv[i]) return std::strtol(argv[i + 1], nullptr, 10);
  }
  return fallback;
}

// The text after `name` on the command line, or "".
inline std::string TextOption(int argc, char **argv, const std::string &name) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (name == argv[i]) return argv[i + 1];
  }
  return "";
}

// The library prints its progress lines on stdout; while a measurement runs
// they go to /dev/null so that they neither cost terminal time nor mix into
// the table.
class QuietStdout {
 public:
  QuietStdout() {
    std::fflush(stdout);
    saved_ = ::dup(1);
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    ::close(null);
  }
  ~QuietStdout() {
    std::fflush(stdout);
    ::dup2(saved_, 1);
    ::close(saved_);
  }
  QuietStdout(const QuietStdout &) = delete;
  QuietStdout &operator=(const QuietStdout &) = delete;

 private:
  int saved_ = -1;
};

// A file-conduit connection made directly with libimobiledevice, as an
// application without this library would make it: the floor's side.
class RawAfc {
 public:
  explicit RawAfc(const std::string &udid) {
    lockdownd_client_t ld = nullptr;
    lockdownd_service_descriptor_t svc = nullptr;
    if (idevice_new(&device_, udid.c_str()) != IDEVICE_E_SUCCESS)
      throw std::runtime_error("no device " + udid);
    if (lockdownd_client_new_with_handshake(device_, &ld, "tarn-bench") != LOCKDOWN_E_SUCCESS)
      throw std::runtime_error("lockdown handshake failed");
    const bool started = lockdownd_start_service(ld, "com.apple.afc", &svc) == LOCKDOWN_E_SUCCESS;
    lockdownd_client_free(ld);
    if (!started) throw std::runtime_error("file conduit not started");
    const afc_error_t err = afc_client_new(device_, svc, &afc_);
    lockdownd_service_descriptor_free(svc);
    if (err != AFC_E_SUCCESS) throw std::runtime_error("file conduit client failed");
  }
  ~RawAfc() {
    if (afc_) afc_client_free(afc_);
    if (device_) idevice_free(device_);
  }
  RawAfc(const RawAfc &) = delete;
  RawAfc &operator=(const RawAfc &) = delete;
  afc_client_t get() const { return afc_; }

 private:
  idevice_t device_ = nullptr;
  afc_client_t afc_ = nullptr;
};

// Peak resident memory of this process so far, in KiB.
inline long PeakRssKib() {
  rusage u{};
  ::getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// One row of the shared table. `ratio` is the figure held against the
// target: a cost relative to its floor (time, memory; the target is a
// ceiling) or, when `higher_is_better`, a rate relative to its floor (the
// target is a minimum). A target of 0 reports the row without one. A row
// whose `requests_ok` is false misses its target whatever its time: it made
// other requests than its algorithm needs.
struct Row {
  std::string name;
  std::string measured;  // human-readable figure, e.g. "812 MB/s"
  std::string floor;     // the floor's figure, or a reference
  double ratio = 0;
  double target = 0;
  bool higher_is_better = false;
  bool requests_ok = true;
};

inline bool Meets(const Row &r) {
  if (!r.requests_ok) return false;
  if (r.target == 0) return true;
  return r.higher_is_better ? r.ratio >= r.target : r.ratio <= r.target;
}

inline void Print(const Row &r) {
  char target[32] = "-";
  if (r.target != 0) std::snprintf(target, sizeof target, "%s %.2f", r.higher_is_better ? ">=" : "<=", r.target);
  const char *result = !r.requests_ok ? "MISSED (requests)" : r.target == 0 ? "-" : Meets(r) ? "ok" : "MISSED";
  std::printf("| %s | %s | %s | %.3f | %s | %s |\n", r.name.c_str(), r.measured.c_str(), r.floor.c_str(), r.ratio,
              target, result);
  std::fflush(stdout);
}

inline std::string Format(const char *fmt, double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, fmt, v);
  return buf;
}


// One measurement in a process of its own, so that its peak resident memory
// is its own: runs `self` with `args`, which prints "SECONDS PEAK_KIB".
struct Sample {
  double seconds = 0;
  long peak_kib = 0;
};
// The child's side: prints what RunChild reads, and gives the exit status.
inline int ReportSample(double seconds) {
  std::printf("%.6f %ld\n", seconds, PeakRssKib());
  return 0;
}
inline Sample RunChild(const std::string &self, const std::vector<std::string> &args) {
  std::vector<char *> argv{const_cast<char *>(self.c_str())};
  for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  int out[2];
  if (::pipe(out) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, out[1], 1);
  posix_spawn_file_actions_addclose(&fa, out[0]);
  pid_t pid = -1;
  const int err = posix_spawn(&pid, self.c_str(), &fa, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  ::close(out[1]);
  if (err != 0) throw std::runtime_error("cannot start a measuring process");
  std::string text;
  char buf[256];
  for (ssize_t n; (n = ::read(out[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  Sample s;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || std::sscanf(text.c_str(), "%lf %ld", &s.seconds, &s.peak_kib) != 2)
    throw std::runtime_error("measuring " + (args.size() > 1 ? args[1] : std::string("?")) + " failed");
  return s;
}


}  // namespace tarn::bench
