// Single-file transfers against their floors: CopyFileFromDeviceToNative
// against a raw loop of 64 KiB afc_file_read calls writing the same host
// file, CopyFileFromNativeToDevice against a raw afc_file_write loop, and,
// where FUSE works, `cp` out of an ifuse mount of the same device beside
// them (what a user would otherwise do).
//
//   bench_transfer [--size MiB] [--reps N] [--latency-us N]
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <filesystem>
#include <memory>
#include <string>

#include "bench_util.h"
#include "images.h"
#include "simulator.h"
#include "tarn/tarn_device.h"

namespace {

namespace fs = std::filesystem;
using namespace tarn::bench;

constexpr const char *kUdid = "00008030-00BE0C0000000001";
constexpr uint32_t kChunk = 64 * 1024;

int KeepGoing(uint64_t, uint64_t, int, void *) { return 0; }

void RawDownload(afc_client_t afc, const char *from, const std::string &to) {
  uint64_t h = 0;
  if (afc_file_open(afc, from, AFC_FOPEN_RDONLY, &h) != AFC_E_SUCCESS) throw std::runtime_error("open failed");
  std::unique_ptr<FILE, int (*)(FILE *)> out(std::fopen(to.c_str(), "wb"), &std::fclose);
  std::vector<char> buf(kChunk);
  for (;;) {
    uint32_t n = 0;
    if (afc_file_read(afc, h, buf.data(), kChunk, &n) != AFC_E_SUCCESS || n == 0) break;
    std::fwrite(buf.data(), 1, n, out.get());
  }
  afc_file_close(afc, h);
}

void RawUpload(afc_client_t afc, const std::string &from, const char *to) {
  uint64_t h = 0;
  if (afc_file_open(afc, to, AFC_FOPEN_WRONLY, &h) != AFC_E_SUCCESS) throw std::runtime_error("open failed");
  std::unique_ptr<FILE, int (*)(FILE *)> in(std::fopen(from.c_str(), "rb"), &std::fclose);
  std::vector<char> buf(kChunk);
  size_t n = 0;
  while ((n = std::fread(buf.data(), 1, kChunk, in.get())) > 0) {
    uint32_t written = 0;
    afc_file_write(afc, h, buf.data(), static_cast<uint32_t>(n), &written);
  }
  afc_file_close(afc, h);
}

int Run(const std::string &cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

// Median seconds of `cp` out of an ifuse mount, or a negative value when
// FUSE is not usable here.
double IfuseCopySeconds(const std::string &mount, const std::string &to, int reps) {
  if (::access("/dev/fuse", R_OK | W_OK) != 0 || Run("command -v ifuse") != 0) return -1;
  fs::create_directories(mount);
  if (Run("ifuse -u " + std::string(kUdid) + " " + mount) != 0) return -1;
  const double s = MedianSeconds(reps, [&] { Run("cp " + mount + "/big.bin " + to); });
  Run("fusermount3 -u " + mount + " || fusermount -u " + mount);
  return s;
}

}  // namespace

int main(int argc, char **argv) try {
  const uint64_t size = static_cast<uint64_t>(Option(argc, argv, "--size", 512)) << 20;
  const int reps = static_cast<int>(Option(argc, argv, "--reps", 5));
  const long latency = Option(argc, argv, "--latency-us", 0);
  const double mib = static_cast<double>(size) / (1 << 20);

  tarn::testing::TempDir dir;
  const std::string image = dir.path() + "/image";
  tarn::testing::build_image({{"sync_lock", false}, {"files", {{{"path", "/big.bin"}, {"size", size}}}}}, image);
  std::vector<std::string> options;
  if (latency) options.push_back("latency_us=" + std::to_string(latency));
  tarn::testing::Simulator sim({{image, kUdid, options}});

  PodDevice *device = nullptr;
  {
    QuietStdout quiet;
    device = CreatePodDevice(kUdid);
  }
  const std::string host = dir.path() + "/download.bin";
  const std::string upload_source = dir.path() + "/upload.bin";
  {
    std::ofstream(upload_source).close();
    fs::resize_file(upload_source, size);
  }

  // The floor's loops run over a connection opened once; the library's
  // calls do too, as the programs make them: over a connection held on the
  // handle. Without it each call pays for a lockdown session of its own,
  // which libimobiledevice's handshake can stretch to 100 ms or more.
  if (TarnHoldConnection(device) != 0) throw std::runtime_error("no connection to hold");
  // The floor and the library take turns, so that a burst of load on the
  // machine falls on both alike, and which of them goes first changes from
  // one turn to the next: whatever a copy leaves the kernel to finish (the
  // pages of the file it replaced) falls on both alike too. In a fixed order
  // the upload that followed the download ran up to a fifth faster than the
  // other, whichever of the two it was.
  std::vector<double> raw_down, lib_down, raw_up, lib_up;
  {
    RawAfc raw(kUdid);
    const auto in_turn = [](int i, const std::function<void()> &a, const std::function<void()> &b) {
      if (i % 2 == 0) {
        a();
        b();
      } else {
        b();
        a();
      }
    };
    for (int i = 0; i < reps; ++i) {
      in_turn(
          i, [&] { raw_down.push_back(Seconds([&] { RawDownload(raw.get(), "/big.bin", host); })); },
          [&] {
            QuietStdout quiet;
            lib_down.push_back(
                Seconds([&] { CopyFileFromDeviceToNative(device, "/big.bin", host.c_str(), KeepGoing); }));
            if (fs::file_size(host) != size) throw std::runtime_error("download is short");
          });
      in_turn(
          i, [&] { raw_up.push_back(Seconds([&] { RawUpload(raw.get(), upload_source, "/up.bin"); })); },
          [&] {
            QuietStdout quiet;
            lib_up.push_back(
                Seconds([&] { CopyFileFromNativeToDevice(device, upload_source.c_str(), "/up.bin", KeepGoing); }));
            if (fs::file_size(image + "/media/up.bin") != size) throw std::runtime_error("upload is short");
          });
    }
  }
  const std::string tag = latency ? " (" + std::to_string(latency) + " us/request)" : "";
  const double rd = Median(raw_down), ld = Median(lib_down), ru = Median(raw_up), lu = Median(lib_up);
  // The ratio is the median of each turn's own ratio: the two copies of a
  // turn ran back to back under the same load, which the medians of the
  // two columns taken apart do not keep together.
  const auto paired = [](const std::vector<double> &floor, const std::vector<double> &library) {
    std::vector<double> ratios;
    for (size_t i = 0; i < floor.size() && i < library.size(); ++i) ratios.push_back(floor[i] / library[i]);
    return Median(ratios);
  };
  Print({"download " + Format("%.0f MiB", mib) + tag, Format("%.0f MB/s", size / ld / 1e6),
         Format("raw read loop %.0f MB/s", size / rd / 1e6), paired(raw_down, lib_down), 1.0, true});
  // An upload's requests are the raw loop's own: 64 KiB blocks with the
  // progress reported after each, and between two requests nothing but one
  // read of the host file, which costs 2-4 % (a loop sending one buffer
  // again and again without reading ran 1.02-1.04 of the raw loop). So the
  // library can only match the loop; the row checks that it adds nothing
  // beyond the 3 % the row moves between runs of one build.
  Print({"upload " + Format("%.0f MiB", mib) + tag, Format("%.0f MB/s", size / lu / 1e6),
         Format("raw write loop %.0f MB/s", size / ru / 1e6), paired(raw_up, lib_up), 0.97, true});

  const double fuse = IfuseCopySeconds(dir.path() + "/mnt", host, reps);
  if (fuse > 0) {
    Print({"cp from ifuse mount" + tag, Format("%.0f MB/s", size / fuse / 1e6),
           Format("raw read loop %.0f MB/s", size / rd / 1e6), rd / fuse, 0, true});
  } else {
    std::fprintf(stderr, "bench_transfer: FUSE not usable here, no ifuse figure\n");
  }
  FreePodDevice(device);
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_transfer: %s\n", e.what());
  return 1;
}
