// How fast tarn-devsim serves file-conduit reads: a raw libimobiledevice
// afc_file_read loop over a sparse file. The simulator must stay well above
// what the library is measured at, or it would hide the library's own cost.
//
//   bench_sim_read_rate [--size MiB] [--chunk KiB] [--reps N]
#include <string>
#include <vector>

#include "bench_util.h"
#include "images.h"
#include "simulator.h"

namespace {
constexpr const char *kUdid = "00008030-00BE0C0000000003";
}  // namespace

int main(int argc, char **argv) try {
  using namespace tarn::bench;
  const uint64_t size = static_cast<uint64_t>(Option(argc, argv, "--size", 256)) << 20;
  const uint32_t chunk = static_cast<uint32_t>(Option(argc, argv, "--chunk", 64)) << 10;
  const int reps = static_cast<int>(Option(argc, argv, "--reps", 5));

  tarn::testing::TempDir dir;
  tarn::testing::build_image({{"sync_lock", false}, {"files", {{{"path", "/sparse.bin"}, {"size", size}}}}}, dir.path());
  tarn::testing::Simulator sim({{dir.path(), kUdid, {}}});
  RawAfc afc(kUdid);
  std::vector<char> buf(chunk);
  const double s = MedianSeconds(reps, [&] {
    uint64_t h = 0, total = 0;
    if (afc_file_open(afc.get(), "/sparse.bin", AFC_FOPEN_RDONLY, &h) != AFC_E_SUCCESS)
      throw std::runtime_error("open failed");
    for (uint32_t n = 1; n != 0; total += n) {
      if (afc_file_read(afc.get(), h, buf.data(), chunk, &n) != AFC_E_SUCCESS) throw std::runtime_error("read failed");
    }
    afc_file_close(afc.get(), h);
    if (total != size) throw std::runtime_error("short read");
  });
  // The figure is held against 1 GB/s.
  Print({"simulator " + std::to_string(chunk >> 10) + " KiB reads", Format("%.0f MB/s", size / s / 1e6),
         "1000 MB/s", size / s / 1e9, 1.0, true});
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_sim_read_rate: %s\n", e.what());
  return 1;
}
