// What encryption and one lockdown session per call cost. First one session
// alone: a raw libimobiledevice handshake (QueryType, pair record,
// StartSession) over TLS against the same handshake plain, which is what a
// TLS session costs on this machine. Then the library's work: a directory
// pull of 1,000 small files, 100 of them fetched one call each and then over
// one connection, and GetPodDir over a tree of about 20,000 entries, with TLS
// sessions and handshake_delay_us at a phone's session cost, against the
// same calls with ssl=0 and no delay as the floor. The
// simulator counts the TLS sessions each call opened; they are printed, so a
// call that handshakes more often than it needs to shows up.
//
//   bench_sessions [--reps N] [--delay-us N]
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

constexpr const char *kUdid = "00008030-00BE0C0000000005";

void Handshake() {
  idevice_t dev = nullptr;
  lockdownd_client_t ld = nullptr;
  if (idevice_new(&dev, kUdid) != IDEVICE_E_SUCCESS) throw std::runtime_error("no device");
  const lockdownd_error_t e = lockdownd_client_new_with_handshake(dev, &ld, "tarn-bench");
  if (ld) lockdownd_client_free(ld);
  idevice_free(dev);
  if (e != LOCKDOWN_E_SUCCESS) throw std::runtime_error("handshake failed: " + std::to_string(e));
}

}  // namespace

int main(int argc, char **argv) try {
  const int reps = static_cast<int>(Option(argc, argv, "--reps", 5));
  // A phone's session: see BENCHMARKS.md for how this value was chosen.
  const long delay_us = Option(argc, argv, "--delay-us", 10000);

  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", /*overwrite=*/0);
  tarn::testing::TempDir dir;
  const std::string image = dir.path() + "/image", host = dir.path() + "/pulled";
  {
    nlohmann::ordered_json tree = nlohmann::ordered_json::array();
    for (int i = 0; i < 1000; ++i)
      tree.push_back({{"path", "/P/f" + std::to_string(i) + ".txt"}, {"size", 2048}, {"pattern", true}});
    for (int a = 0; a < 20; ++a) {
      for (int b = 0; b < 20; ++b) {
        const std::string d = "/T/d" + std::to_string(a) + "/e" + std::to_string(b);
        for (int f = 0; f < 49; ++f) tree.push_back({{"path", d + "/track" + std::to_string(f) + ".m4a"}, {"content", "x"}});
      }
    }
    tarn::testing::build_image({{"sync_lock", false}, {"files", tree}}, image);
  }
  tarn::testing::Simulator sim({{image, kUdid, {}}});
  auto plain = [&] {
    sim.set_option(kUdid, "ssl", "0");
    sim.set_option(kUdid, "handshake_delay_us", "0");
  };
  auto encrypted = [&](long delay) {
    sim.set_option(kUdid, "ssl", "1");
    sim.set_option(kUdid, "handshake_delay_us", std::to_string(delay));
  };

  // One session, TLS against plain, no delay: the simulator's and the
  // client's TLS work on this machine.
  {
    std::vector<double> tls, bare;
    for (int i = 0; i < 4 * reps; ++i) {
      encrypted(0);
      tls.push_back(Seconds(Handshake));
      plain();
      bare.push_back(Seconds(Handshake));
    }
    const double t = Median(tls), b = Median(bare);
    std::fprintf(stderr, "bench_sessions: one TLS session costs %.2f ms more than a plain one here\n", (t - b) * 1e3);
    Print({"One lockdown session, TLS", Format("%.2f ms", t * 1e3), Format("plain %.2f ms", b * 1e3), t / b, 0, false});
  }

  PodDevice *device = nullptr;
  {
    QuietStdout quiet;
    device = CreatePodDevice(kUdid);
  }
  if (!device) throw std::runtime_error("CreatePodDevice failed");
  struct Work {
    std::string name;
    std::function<void()> run;
  } works[] = {
      {"Directory pull, 1,000 files of 2 KiB",
       [&] {
         fs::remove_all(host);
         fs::create_directories(host);
         CopyDeviceDirectory(device, "/P", host.c_str());
       }},
      // The same kind of files fetched one call each, as a caller without a
      // directory call does: here every call pays for its own session.
      {"100 of those files, one call each",
       [&] {
         fs::remove_all(host);
         fs::create_directories(host);
         for (int i = 0; i < 100; ++i) {
           const std::string name = "/f" + std::to_string(i) + ".txt";
           CopyFileFromDeviceToNative(device, ("/P" + name).c_str(), (host + name).c_str(), nullptr);
         }
       }},
      // The same 100 files as one batch: one connection and one sync lock
      // for all of them, as the tool's directory pulls and exports work. It
      // should save all but one of the hundred sessions above.
      {"100 of those files, one connection",
       [&] {
         fs::remove_all(host);
         fs::create_directories(host);
         idevice_t idevice = nullptr;
         afc_client_t client = OpenIdeviceAndAfC(&idevice, kUdid);
         const uint64_t lock = TarnSyncLock(client);
         for (int i = 0; client && i < 100; ++i) {
           const std::string name = "/f" + std::to_string(i) + ".txt";
           _CopyFileFromDeviceToNative(device, client, ("/P" + name).c_str(), (host + name).c_str(), nullptr);
         }
         TarnSyncUnlock(client, lock);
         CloseIdeviceAndAfC(client, idevice);
       }},
      // The same 100 calls, one each, on a handle that holds its
      // connection: the calls in between open none of their own.
      {"100 of those files, one call each, held connection",
       [&] {
         fs::remove_all(host);
         fs::create_directories(host);
         TarnHoldConnection(device);
         for (int i = 0; i < 100; ++i) {
           const std::string name = "/f" + std::to_string(i) + ".txt";
           CopyFileFromDeviceToNative(device, ("/P" + name).c_str(), (host + name).c_str(), nullptr);
         }
         TarnReleaseConnection(device);
       }},
      {"GetPodDir 20,020 entries",
       [&] {
         PodDir *root = GetPodDir(device, "/T", 0);
         FreePodDir(root, 1, root);
       }},
  };
  for (auto &w : works) {
    std::vector<double> tls, bare;
    uint64_t sessions = 0;
    // One untimed turn each (page cache, the simulator's first threads),
    // then alternating turns, so that load on the shared machine falls on both.
    for (int i = -2; i < reps; ++i) {
      for (int side = 0; side < 2; ++side) {
        const bool with_tls = (i + side) % 2 == 0;
        if (with_tls) encrypted(delay_us);
        else plain();
        sim.reset_stats(kUdid);
        QuietStdout quiet;
        const double t = Seconds(w.run);
        if (i >= 0) (with_tls ? tls : bare).push_back(t);
        if (with_tls) sessions = sim.stats(kUdid).tls_sessions;
      }
    }
    std::fprintf(stderr, "bench_sessions: %s seconds, TLS", w.name.c_str());
    for (double t : tls) std::fprintf(stderr, " %.3f", t);
    std::fprintf(stderr, "; plain");
    for (double t : bare) std::fprintf(stderr, " %.3f", t);
    std::fprintf(stderr, "\n");
    const double t = Median(tls), b = Median(bare);
    Print({w.name + ", TLS, phone's " + std::to_string(delay_us / 1000) + " ms/handshake",
           Format("%.3f s, ", t) + std::to_string(sessions) + " TLS sessions", Format("ssl=0 %.3f s", b), t / b, 0,
           false});
  }
  {
    QuietStdout quiet;
    FreePodDevice(device);
  }
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_sessions: %s\n", e.what());
  return 1;
}
