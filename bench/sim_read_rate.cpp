// How fast tarn-devsim serves file-conduit reads: a raw libimobiledevice
// afc_file_read loop over a sparse file, median of several runs.
//
//   bench_sim_read_rate [--size MiB] [--chunk KiB] [--runs N]
#include <fcntl.h>
#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Child {
  pid_t pid = -1;
  ~Child() {
    if (pid > 0) {
      ::kill(pid, SIGTERM);
      ::waitpid(pid, nullptr, 0);
    }
  }
};

struct TempTree {
  std::string path;
  ~TempTree() {
    std::error_code ec;
    if (!path.empty()) std::filesystem::remove_all(path, ec);
  }
};

int fail(const char* what) {
  std::fprintf(stderr, "bench_sim_read_rate: %s\n", what);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t size_mib = 256, chunk_kib = 64;
  int runs = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string a = argv[i];
    if (a == "--size") size_mib = std::strtoull(argv[i + 1], nullptr, 10);
    else if (a == "--chunk") chunk_kib = std::strtoull(argv[i + 1], nullptr, 10);
    else if (a == "--runs") runs = std::atoi(argv[i + 1]);
  }
  if (!size_mib || !chunk_kib || runs < 1) return fail("bad arguments");

  char tmpl[] = "/tmp/tarn-bench-XXXXXX";
  if (!::mkdtemp(tmpl)) return fail("mkdtemp failed");
  TempTree tree{tmpl};
  std::filesystem::create_directories(tree.path + "/img/media");
  std::ofstream(tree.path + "/img/device.json") << R"({"UniqueDeviceID": "bench-device"})";
  {
    std::ofstream(tree.path + "/img/media/sparse.bin");
    std::filesystem::resize_file(tree.path + "/img/media/sparse.bin", size_mib << 20);
  }

  // Start the simulator and wait for its ready line.
  std::string sock = tree.path + "/mux.sock";
  std::string bin = TARN_DEVSIM_PATH, dev = tree.path + "/img";
  std::vector<char*> args = {bin.data(), const_cast<char*>("--socket"), sock.data(),
                             const_cast<char*>("--device"), dev.data(), nullptr};
  int out[2];
  if (::pipe(out) != 0) return fail("pipe failed");
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, out[1], 1);
  Child child;
  if (posix_spawn(&child.pid, bin.c_str(), &fa, nullptr, args.data(), environ) != 0)
    return fail("cannot start tarn-devsim");
  posix_spawn_file_actions_destroy(&fa);
  ::close(out[1]);
  pollfd p{out[0], POLLIN, 0};
  char line[256] = {};
  if (::poll(&p, 1, 10000) <= 0 || ::read(out[0], line, sizeof line - 1) <= 0)
    return fail("tarn-devsim did not become ready");
  ::setenv("USBMUXD_SOCKET_ADDRESS", ("UNIX:" + sock).c_str(), 1);

  idevice_t device = nullptr;
  lockdownd_client_t ld = nullptr;
  lockdownd_service_descriptor_t svc = nullptr;
  afc_client_t afc = nullptr;
  if (idevice_new(&device, "bench-device") != IDEVICE_E_SUCCESS) return fail("no device");
  if (lockdownd_client_new_with_handshake(device, &ld, "bench") != LOCKDOWN_E_SUCCESS ||
      lockdownd_start_service(ld, "com.apple.afc", &svc) != LOCKDOWN_E_SUCCESS)
    return fail("lockdown failed");
  lockdownd_client_free(ld);
  if (afc_client_new(device, svc, &afc) != AFC_E_SUCCESS) return fail("afc failed");
  lockdownd_service_descriptor_free(svc);

  std::vector<char> buf(chunk_kib << 10);
  std::vector<double> rates;
  for (int r = 0; r < runs; ++r) {
    uint64_t h = 0, total = 0;
    if (afc_file_open(afc, "/sparse.bin", AFC_FOPEN_RDONLY, &h) != AFC_E_SUCCESS) return fail("open failed");
    auto t0 = std::chrono::steady_clock::now();
    while (true) {
      uint32_t n = 0;
      if (afc_file_read(afc, h, buf.data(), static_cast<uint32_t>(buf.size()), &n) != AFC_E_SUCCESS)
        return fail("read failed");
      if (n == 0) break;
      total += n;
    }
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    afc_file_close(afc, h);
    if (total != size_mib << 20) return fail("short read");
    rates.push_back(static_cast<double>(total) / 1e6 / s);
    std::printf("run %d: %.0f MB/s\n", r + 1, rates.back());
  }
  afc_client_free(afc);
  idevice_free(device);
  std::sort(rates.begin(), rates.end());
  std::printf("median: %.0f MB/s (%llu KiB reads, %llu MiB file, %d runs)\n", rates[rates.size() / 2],
              static_cast<unsigned long long>(chunk_kib), static_cast<unsigned long long>(size_mib), runs);
  return 0;
}
