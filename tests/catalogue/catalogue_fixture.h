// A simulated device built from a description, a handle on it and a host
// working directory: what every catalogue test starts from.
#pragma once

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <filesystem>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "images.h"
#include "sim_image.h"
#include "simulator.h"
#include "tarn/tarn_device.h"

namespace tarn_catalogue_test {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

inline constexpr const char *kUdid = "00008030-00CA7A10C0000001";

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using Plist = std::unique_ptr<void, PlistFree>;

// A property list as compact JSON-like text, for comparisons that print
// what differed.
inline std::string Text(plist_t node) {
  if (node == nullptr) return "null";
  switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
      std::string s = "{";
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      for (;;) {
        char *key = nullptr;
        plist_t v = nullptr;
        plist_dict_next_item(node, it, &key, &v);
        if (!key) break;
        s += std::string(s.size() > 1 ? "," : "") + key + ":" + Text(v);
        free(key);
      }
      free(it);
      return s + "}";
    }
    case PLIST_ARRAY: {
      std::string s = "[";
      for (uint32_t i = 0; i < plist_array_get_size(node); ++i) s += (i ? "," : "") + Text(plist_array_get_item(node, i));
      return s + "]";
    }
    case PLIST_UINT: {
      uint64_t v = 0;
      plist_get_uint_val(node, &v);
      return std::to_string(v);
    }
    case PLIST_STRING: {
      char *v = nullptr;
      plist_get_string_val(node, &v);
      std::string s = "\"" + std::string(v ? v : "") + "\"";
      free(v);
      return s;
    }
    default: return "?";
  }
}

inline uint64_t Uint(plist_t dict, const char *key) {
  uint64_t v = 0;
  plist_get_uint_val(plist_dict_get_item(dict, key), &v);
  return v;
}

inline std::string Str(plist_t dict, const char *key) {
  char *v = nullptr;
  plist_get_string_val(plist_dict_get_item(dict, key), &v);
  std::string s = v ? v : "";
  free(v);
  return s;
}

// The string values of `key` over the items of a list result.
inline std::vector<std::string> Column(plist_t result, const char *key) {
  std::vector<std::string> out;
  plist_t items = plist_dict_get_item(result, "item");
  for (uint32_t i = 0; i < plist_array_get_size(items); ++i) out.push_back(Str(plist_array_get_item(items, i), key));
  return out;
}

// Local time nine hours east of UTC for the life of the object, without
// depending on the host's zone database.
class FixedZone {
 public:
  FixedZone() {
    if (const char *old = std::getenv("TZ")) {
      saved_ = old;
      had_ = true;
    }
    setenv("TZ", "XYZ-9", 1);
    tzset();
  }
  ~FixedZone() {
    if (had_) setenv("TZ", saved_.c_str(), 1);
    else unsetenv("TZ");
    tzset();
  }
  FixedZone(const FixedZone &) = delete;
  FixedZone &operator=(const FixedZone &) = delete;

 private:
  std::string saved_;
  bool had_ = false;
};

class CatalogueTest : public ::testing::Test {
 protected:
  // Builds the image, starts the simulator and initialises a handle.
  // Returns InitDevice's result.
  int Start(const json &description, const std::vector<std::string> &options = {}) {
    json d = description;
    d["device"]["UniqueDeviceID"] = kUdid;
    tarn::testing::build_image(d, dir.path() + "/image");
    fs::create_directories(work());
    sim = std::make_unique<tarn::testing::Simulator>(
        std::vector<tarn::testing::SimDevice>{{dir.path() + "/image", kUdid, options}});
    ::testing::internal::CaptureStdout();
    device = CreatePodDevice(kUdid);
    ::testing::internal::GetCapturedStdout();
    ::testing::internal::CaptureStdout();
    const int rc = InitDevice(device, work().c_str());
    init_output = ::testing::internal::GetCapturedStdout();
    return rc;
  }
  void TearDown() override {
    if (device) FreePodDevice(device);
  }
  // Back to before Start, for tests that try several devices in turn.
  void Reset() {
    if (device) FreePodDevice(device);
    device = nullptr;
    sim.reset();
    fs::remove_all(dir.path() + "/image");
    fs::remove_all(work());
  }

  std::string work() const { return dir.path() + "/work"; }
  std::string media(const std::string &p) const { return dir.path() + "/image/media" + p; }

  // Runs a call with its console output captured into `output`.
  template <typename F>
  auto Quiet(F f) {
    ::testing::internal::CaptureStdout();
    auto r = f();
    output = ::testing::internal::GetCapturedStdout();
    return r;
  }

  void ExpectIdle(const std::string &after) {
    const auto s = sim->idle_stats(kUdid);
    EXPECT_EQ(s.connections_open, 0) << "connection left open after " << after;
    EXPECT_EQ(s.files_open, 0) << "file handle left open after " << after;
    EXPECT_EQ(s.locks_held, 0) << "lock left held after " << after;
  }

  // The device paths whose file information was asked for: all of them, and
  // those asked while the device's sync lock was held. Needs the simulator's
  // request log switched on before the call.
  struct InfoRequests {
    std::vector<std::string> all, locked;
  };
  InfoRequests LoggedInfoRequests() {
    InfoRequests r;
    bool held = false;
    for (const auto &req : sim->request_log(kUdid)) {
      if (req.op == "FileLock" && req.path == "/com.apple.itunes.lock_sync") held = !held;
      if (req.op != "GetFileInfo") continue;
      r.all.push_back(req.path);
      if (held) r.locked.push_back(req.path);
    }
    return r;
  }

  tarn::testing::TempDir dir;
  std::unique_ptr<tarn::testing::Simulator> sim;
  PodDevice *device = nullptr;
  std::string init_output, output;
};

}  // namespace tarn_catalogue_test
