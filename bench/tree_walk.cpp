// Tree walks against a raw loop making the same requests: GetPodDir,
// SearchFile and DeleteDir over a tree of about 20,000 entries, with no
// latency and with a USB-like latency per request. The simulator counts the
// file-conduit requests of each call; they are printed beside the count the
// walk needs (one listing per directory, one information query per entry,
// and for the delete one removal per entry, nothing else), so that a walk
// that asks twice shows up even where the time does not: such a row misses
// its target whatever its time. The raw loop is held to the same counts
// before it may serve as the floor.
//
//   bench_tree_walk [--fanout N] [--files N] [--reps N] [--latency-us 0|200] [--cpu N]
#include <sched.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench_util.h"
#include "images.h"
#include "simulator.h"
#include "tarn/tarn_device.h"

namespace {

namespace fs = std::filesystem;
using namespace tarn::bench;

constexpr const char *kUdid = "00008030-00BE0C0000000002";

// File-conduit requests of one walk; `other` counts every request of any
// other kind (opens, reads, locks...), which no walk needs.
struct Counts {
  uint64_t list = 0, info = 0, remove = 0, other = 0;
  bool operator==(const Counts &) const = default;
};

std::string Text(const Counts &c) {
  std::string s = std::to_string(c.list) + " lists, " + std::to_string(c.info) + " infos";
  if (c.remove) s += ", " + std::to_string(c.remove) + " removes";
  if (c.other) s += ", " + std::to_string(c.other) + " others";
  return s;
}

// The same requests the library's walks make, straight through
// libimobiledevice: list a directory, query each entry, descend depth first,
// and (for a delete) remove files and then the emptied directory.
void RawWalk(afc_client_t afc, const std::string &dir, bool remove) {
  char **names = nullptr;
  if (afc_read_directory(afc, dir.c_str(), &names) != AFC_E_SUCCESS) return;
  for (char **n = names; *n; ++n) {
    if (std::string(*n) == "." || std::string(*n) == "..") continue;
    const std::string path = dir + "/" + *n;
    char **info = nullptr;
    afc_get_file_info(afc, path.c_str(), &info);
    bool is_dir = false;
    for (char **kv = info; kv && kv[0] && kv[1]; kv += 2) {
      if (std::string(kv[0]) == "st_ifmt") is_dir = std::string(kv[1]) == "S_IFDIR";
    }
    afc_dictionary_free(info);
    if (is_dir) RawWalk(afc, path, remove);
    else if (remove) afc_remove_path(afc, path.c_str());
  }
  afc_dictionary_free(names);
  if (remove) afc_remove_path(afc, dir.c_str());
}

}  // namespace

int main(int argc, char **argv) try {
  // 20 x 20 directories of 49 files: 400 directories and 19,600 files.
  const int fanout = static_cast<int>(Option(argc, argv, "--fanout", 20));
  const int files = static_cast<int>(Option(argc, argv, "--files", 49));
  const int reps = static_cast<int>(Option(argc, argv, "--reps", 5));

  // The tree lives in memory where the machine has a memory file system:
  // each delete is undone by copying 20,000 files back, which on a shared
  // disk took half a minute a time and left writeback running into the
  // next timed walk.
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", /*overwrite=*/0);
  tarn::testing::TempDir dir;
  const std::string image = dir.path() + "/image", pristine = dir.path() + "/tree";
  {
    nlohmann::ordered_json tree = nlohmann::ordered_json::array();
    for (int a = 0; a < fanout; ++a) {
      for (int b = 0; b < fanout; ++b) {
        const std::string d = "/T/d" + std::to_string(a) + "/e" + std::to_string(b);
        tree.push_back({{"path", d}, {"dir", true}});
        for (int f = 0; f < files; ++f) tree.push_back({{"path", d + "/track" + std::to_string(f) + ".m4a"}, {"content", "x"}});
      }
    }
    tarn::testing::build_image({{"sync_lock", false}, {"files", tree}}, image);
    fs::copy(image + "/media/T", pristine, fs::copy_options::recursive);
  }
  const uint64_t dirs = static_cast<uint64_t>(fanout) * fanout + fanout;
  const uint64_t entries = dirs + static_cast<uint64_t>(fanout) * fanout * files;
  std::fprintf(stderr, "bench_tree_walk: %llu entries below /T\n", static_cast<unsigned long long>(entries));
  auto restore = [&] {
    fs::remove_all(image + "/media/T");
    fs::copy(pristine, image + "/media/T", fs::copy_options::recursive);
  };

  // --cpu N keeps this program and the simulator it starts on processor N.
  // Without it, the scheduler puts the two on one processor or on two from
  // run to run, and a round trip across two virtual processors takes about
  // twice as long: the same walk then takes 0.43 s or 1.1 s, for the floor
  // and the library alike, and a median of a few runs says more about where
  // they landed than about the library (BENCHMARKS.md).
  if (const long cpu = Option(argc, argv, "--cpu", -1); cpu >= 0) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<int>(cpu), &set);
    if (::sched_setaffinity(0, sizeof set, &set) != 0) throw std::runtime_error("cannot keep to one processor");
  }

  // --latency-us N measures that latency alone (to re-run one half when
  // load on the machine spoilt it).
  const long only = Option(argc, argv, "--latency-us", -1);
  for (const long latency : {0L, 200L}) {
    if (only >= 0 && latency != only) continue;
    std::vector<std::string> options;
    if (latency) options.push_back("latency_us=" + std::to_string(latency));
    tarn::testing::Simulator sim({{image, kUdid, options}});
    PodDevice *device = nullptr;
    {
      QuietStdout quiet;
      device = CreatePodDevice(kUdid);
    }
    auto counted = [&](const std::function<void()> &run) {
      sim.reset_stats(kUdid);
      run();
      const auto s = sim.stats(kUdid);
      Counts c{s.total("ReadDirectory"), s.total("GetFileInfo"), s.total("RemovePath"), 0};
      for (const auto &[op, n] : s.requests) c.other += n;
      c.other -= c.list + c.info + c.remove;
      return c;
    };
    const std::string tag = latency ? ", " + std::to_string(latency) + " us/request" : "";

    struct Walk {
      std::string name;
      Counts expected;
      std::function<void()> library;
      bool removes;
    } walks[] = {
        {"GetPodDir", {dirs + 1, entries + 1, 0, 0},
         [&] {
           PodDir *root = GetPodDir(device, "/T", 0);
           FreePodDir(root, 1, root);
         },
         false},
        {"SearchFile", {dirs + 1, entries, 0, 0},
         [&] { FreeSearchResult(SearchFile(device, "/T", "track7.")); }, false},
        {"DeleteDir", {dirs + 1, entries, entries + 1, 0}, [&] { DeleteDir(device, "/T"); }, true},
    };
    for (auto &w : walks) {
      Counts got;
      {
        QuietStdout quiet;
        if (w.removes) restore();
        got = counted(w.library);
      }
      // Each library call opens its own connection and closes it again, so
      // the raw loop does too: a floor on one connection kept open for all
      // runs would leave out requests every call must make (the usbmux and
      // lockdown exchange, a new simulator thread to serve it).
      auto raw_walk = [&] {
        RawAfc raw(kUdid);
        // A snapshot also describes its root.
        if (w.name == "GetPodDir") {
          char **info = nullptr;
          afc_get_file_info(raw.get(), "/T", &info);
          afc_dictionary_free(info);
        }
        RawWalk(raw.get(), "/T", w.removes);
      };
      // The floor must make exactly the requests the walk needs, or the
      // ratio compares different work.
      if (w.removes) restore();
      const Counts floor_got = counted(raw_walk);
      if (floor_got != w.expected)
        throw std::runtime_error("the raw loop of " + w.name + " made " + Text(floor_got) + ", not " + Text(w.expected));
      std::vector<double> lib, floor;
      // Turns in alternating order (raw first, then the library first), so
      // that whatever one walk leaves running (the simulator tearing down
      // its connection) falls on both sides alike.
      auto run_raw = [&] {
        if (w.removes) restore();
        floor.push_back(Seconds(raw_walk));
      };
      auto run_library = [&] {
        if (w.removes) restore();
        QuietStdout quiet;
        lib.push_back(Seconds(w.library));
      };
      for (int i = 0; i < reps; ++i) {
        if (i % 2 == 0) {
          run_raw();
          run_library();
        } else {
          run_library();
          run_raw();
        }
      }
      // Every sample goes to stderr: a median that a burst of load moved is
      // then plain to see.
      std::fprintf(stderr, "bench_tree_walk: %s%s seconds, library", w.name.c_str(), tag.c_str());
      for (double t : lib) std::fprintf(stderr, " %.3f", t);
      std::fprintf(stderr, "; raw loop");
      for (double t : floor) std::fprintf(stderr, " %.3f", t);
      std::fprintf(stderr, "\n");
      const double l = Median(lib), f = Median(floor);
      Print({w.name + " " + std::to_string(entries) + " entries" + tag,
             Format("%.3f s, ", l) + Text(got) + (got == w.expected ? " (as needed)" : " (needs " + Text(w.expected) + ")"),
             Format("raw loop %.3f s", f), l / f, 1.1, false, got == w.expected});
    }
    {
      QuietStdout quiet;
      FreePodDevice(device);
    }
    restore();
  }
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_tree_walk: %s\n", e.what());
  return 1;
}
