// Several devices at once: four simulated devices, one thread and one
// handle per device, each downloading its own file. The aggregate rate is
// set against one device downloading alone, with and without a simulated
// per-request latency (a USB link is bound by round trips, which threads
// overlap).
//
//   bench_multi_device [--size MiB] [--reps N] [--devices N] [--latency-us 0|200]
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench_util.h"
#include "images.h"
#include "simulator.h"
#include "tarn/tarn_device.h"

namespace {

using namespace tarn::bench;

std::string Udid(int i) { return "00008030-00BE0C00000001" + std::to_string(10 + i); }

// Where the downloads go: a file system in memory where the host has one.
// At the simulator's speed four devices write some 600 MB/s, and on a
// virtual disk the kernel's writeback of those files takes the processors
// that the devices' round trips should share (3.3 times one device on this
// machine's disk against 3.6 to 3.8 in memory); a real device delivers a
// tenth of that rate, which any disk absorbs. One device and four write to
// the same place.
std::filesystem::path DownloadBase() {
  std::error_code ec;
  if (std::filesystem::is_directory("/dev/shm", ec) && ::access("/dev/shm", W_OK) == 0) return "/dev/shm";
  return std::filesystem::temp_directory_path();
}

// Median seconds for `n` devices to download their file in parallel.
double ParallelSeconds(const std::vector<PodDevice *> &devices, int n, const std::string &host_dir, int reps) {
  return MedianSeconds(reps, [&] {
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) {
      threads.emplace_back([&, i] {
        const std::string to = host_dir + "/down" + std::to_string(i) + ".bin";
        CopyFileFromDeviceToNative(devices[i], "/big.bin", to.c_str(), nullptr);
      });
    }
    for (auto &t : threads) t.join();
  });
}

}  // namespace

int main(int argc, char **argv) try {
  const uint64_t size = static_cast<uint64_t>(Option(argc, argv, "--size", 128)) << 20;
  const int reps = static_cast<int>(Option(argc, argv, "--reps", 5));
  const int count = static_cast<int>(Option(argc, argv, "--devices", 4));

  // --latency-us N measures that latency alone.
  const long only = Option(argc, argv, "--latency-us", -1);
  tarn::testing::TempDir dir, downloads(DownloadBase());
  bool images_made = false;
  for (const long latency : {0L, 200L}) {
    if (only >= 0 && latency != only) continue;
    std::vector<tarn::testing::SimDevice> sims;
    for (int i = 0; i < count; ++i) {
      const std::string image = dir.path() + "/image" + std::to_string(i);
      if (!images_made)
        tarn::testing::build_image({{"sync_lock", false}, {"files", {{{"path", "/big.bin"}, {"size", size}}}}}, image);
      std::vector<std::string> options;
      if (latency) options.push_back("latency_us=" + std::to_string(latency));
      sims.push_back({image, Udid(i), options});
    }
    images_made = true;
    tarn::testing::Simulator sim(sims);
    std::vector<PodDevice *> devices;
    double one = 0, all = 0;
    {
      QuietStdout quiet;
      for (int i = 0; i < count; ++i) devices.push_back(CreatePodDevice(Udid(i).c_str()));
      one = ParallelSeconds(devices, 1, downloads.path(), reps);
      all = ParallelSeconds(devices, count, downloads.path(), reps);
      for (auto *d : devices) FreePodDevice(d);
    }
    const double one_rate = size / one / 1e6, all_rate = count * size / all / 1e6;
    const std::string tag = latency ? ", " + std::to_string(latency) + " us/request" : "";
    Print({std::to_string(count) + " devices, a thread each" + tag, Format("%.0f MB/s total", all_rate),
           Format("one device %.0f MB/s", one_rate), all_rate / one_rate, latency ? 3.5 : 1.5, true});
  }
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_multi_device: %s\n", e.what());
  return 1;
}
