// Fixture of the device file-system tests: a device image made on the spot
// (its media tree written with std::filesystem), one simulated device serving
// it, and a handle for that device.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "device_test.h"
#include "tarn/tarn_device.h"

namespace tarn_fs_test {

namespace fs = std::filesystem;

inline constexpr const char *kUdid = "00008030-0000TARNFS0001";

using tarn::testing::Bytes;
using tarn::testing::Console;
using tarn::testing::Quiet;
using tarn::testing::ReadAll;
using tarn::testing::WriteAll;

// The level of the deepest directory a snapshot recorded.
inline int Depth(const PodDir *d) {
  int deepest = d->level;
  for (const PodDir *s = d->first_dir; s; s = s->next_dir) deepest = std::max(deepest, Depth(s));
  return deepest;
}

// <root>/media is the device's file-conduit root, without a sync lock file
// until a call makes one; <root>/host is scratch space on the host side.
// Files are placed straight into the media tree, also while it is served.
class Image {
 public:
  Image() {
    tarn::testing::build_image({{"sync_lock", false}, {"device", {{"UniqueDeviceID", kUdid}}}}, dir_.path());
    fs::create_directories(host());
  }

  fs::path root() const { return dir_.path(); }
  // The host file behind a device path ("/a/b" -> <root>/media/a/b).
  fs::path media(const std::string &device_path) const { return root() / "media" / device_path.substr(1); }
  fs::path host(const std::string &rel = "") const { return rel.empty() ? root() / "host" : root() / "host" / rel; }

  void File(const std::string &device_path, const std::string &bytes) const { WriteAll(media(device_path), bytes); }
  void Dir(const std::string &device_path) const { fs::create_directories(media(device_path)); }
  // Adds what `description` describes to the media tree.
  void Add(const nlohmann::ordered_json &description) const {
    const fs::path scratch = root() / "add";
    tarn::testing::build_image(description, scratch.string());
    fs::copy(scratch / "media", root() / "media", fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    fs::remove_all(scratch);
  }

 private:
  tarn::testing::TempDir dir_;
};

class DeviceFsTest : public tarn::testing::SimulatedDeviceTest {
 protected:
  DeviceFsTest() : SimulatedDeviceTest(kUdid) {}

  // Starts the simulator on the image as built so far.
  void Start(const std::vector<std::string> &options = {}) {
    Serve(image.root().string(), options);
    device = CreatePodDevice(kUdid);
  }

  // The requests of the simulator's log whose op is one of ops.
  std::vector<tarn::testing::SimRequest> Log(const std::vector<std::string> &ops) {
    std::vector<tarn::testing::SimRequest> out;
    for (auto &r : sim->request_log(kUdid)) {
      for (auto &op : ops) {
        if (r.op == op) out.push_back(r);
      }
    }
    return out;
  }

  Image image;
};

}  // namespace tarn_fs_test
