// Small helpers every test area uses: host files read and written whole,
// the library's console lines captured, and the check that a call left
// nothing open on the simulated device.
#pragma once

#include <gtest/gtest.h>
#include <malloc.h>
#include <plist/plist.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include "child_process.h"
#include "simulator.h"

namespace tarn::testing {

// Read in one piece: a character iterator over the sample phone's
// hundreds of MiB takes minutes in an instrumented build.
inline std::string ReadAll(const std::filesystem::path &p) {
  std::ifstream in(p, std::ios::binary | std::ios::ate);
  const std::streamoff size = in ? static_cast<std::streamoff>(in.tellg()) : -1;
  if (size < 0) return {};
  std::string bytes(static_cast<size_t>(size), '\0');
  in.seekg(0);
  in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<size_t>(in.gcount()));
  return bytes;
}

inline void WriteAll(const std::filesystem::path &p, const std::string &bytes) {
  if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << bytes;
}

// Deterministic bytes, so a failed comparison can be reproduced.
inline std::string Bytes(size_t n, unsigned seed = 7) {
  std::string s(n, '\0');
  std::minstd_rand gen(seed);
  for (auto &c : s) c = static_cast<char>(gen() & 0xff);
  return s;
}

// Every entry below `dir`: relative path -> the file's bytes, or "<dir>".
inline std::map<std::string, std::string> Tree(const std::filesystem::path &dir) {
  std::map<std::string, std::string> out;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(dir, ec); it != std::filesystem::recursive_directory_iterator(); ++it)
    out[std::filesystem::relative(it->path(), dir).string()] = it->is_directory() ? "<dir>" : ReadAll(it->path());
  return out;
}

// The entries below `dir` that a write left under its temporary name, and
// the size of the largest of them.
struct Partials {
  size_t count = 0;
  uintmax_t largest = 0;
};
inline Partials PartialsBelow(const std::filesystem::path &dir) {
  Partials p;
  std::error_code ec;
  for (auto it = std::filesystem::recursive_directory_iterator(dir, ec); it != std::filesystem::recursive_directory_iterator(); ++it) {
    if (!it->path().filename().string().starts_with(".tarn-")) continue;
    ++p.count;
    p.largest = std::max(p.largest, it->is_regular_file(ec) ? it->file_size(ec) : 0);
  }
  return p;
}

// The one capture of the library's console lines: runs `f` with standard
// output captured and gives back its result; what it printed goes to
// *printed when that is given, and is dropped otherwise.
template <typename F>
auto Quiet(F &&f, std::string *printed = nullptr) {
  struct Release {
    std::string *to;
    ~Release() {
      std::string out = ::testing::internal::GetCapturedStdout();
      if (to != nullptr) *to = std::move(out);
    }
  };
  ::testing::internal::CaptureStdout();
  const Release release{printed};
  return f();
}

// What `f` printed on standard output.
template <typename F>
std::string Console(F &&f) {
  std::string out;
  Quiet(f, &out);
  return out;
}

// TZ set to `zone` for the life of the object, then put back.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char *zone) : tz_("TZ", zone) { tzset(); }

 private:
  // Members end in reverse order: TZ is put back before the zone is re-read.
  struct Reread {
    ~Reread() { tzset(); }
  } reread_;
  ScopedEnv tz_;
};

// Runs a shell command, killed after `seconds`; gives its standard output
// and error, and its exit status through `status`.
inline std::string run_command(const std::string &cmd, int *status = nullptr, int seconds = 30) {
  const std::string line = "timeout " + std::to_string(seconds) + " " + cmd + " 2>&1";
  const Result r = ChildProcess({"/bin/sh", "-c", line}).Wait(std::chrono::seconds(seconds + 10));
  if (status) *status = r.code;
  return r.out;
}

// The bytes the heap holds in use: a plain build's own check for a record
// that is never released (under a sanitizer, whose allocator malloc's
// counters do not see, it stays put and LeakSanitizer checks instead).
inline size_t HeapInUse() {
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

// Nothing of a call may outlive it on the device.
inline void ExpectIdle(Simulator &sim, const std::string &udid, const std::string &after) {
  const SimStats s = sim.idle_stats(udid);
  EXPECT_EQ(s.connections_open, 0) << "connection left open after " << after;
  EXPECT_EQ(s.files_open, 0) << "file handle left open after " << after;
  EXPECT_EQ(s.locks_held, 0) << "lock left held after " << after;
}

}  // namespace tarn::testing
