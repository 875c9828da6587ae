// A simulated device built from a description, a handle on it and a host
// working directory: what every catalogue test starts from.
#pragma once

#include <functional>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <algorithm>
#include <filesystem>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "apps/common/plist_view.h"
#include "images.h"
#include "device_test.h"
#include "tarn/tarn_device.h"

namespace tarn_catalogue_test {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;
using tarn::testing::Console;
using tarn::testing::ReadAll;

inline constexpr const char *kUdid = "00008030-00CA7A10C0000001";

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using Plist = std::unique_ptr<void, PlistFree>;

// A property list as compact JSON with its keys unquoted, for comparisons
// that print what differed.
inline std::string Text(const json &j) {
  static const std::regex key("\"(\\w+)\":");
  return std::regex_replace(j.dump(), key, "$1:");
}
inline std::string Text(plist_t node) { return node ? Text(tarn::app::PlistToJson(node)) : "null"; }
// As Text, with the items of a walked list sorted by path: a device lists a
// directory in an order of its own, and the walk keeps that order.
inline std::string TextByPath(plist_t node) {
  if (!node) return "null";
  json j = tarn::app::PlistToJson(node);
  if (j.contains("item"))
    std::sort(j["item"].begin(), j["item"].end(),
              [](const json &a, const json &b) { return a.value("path", "") < b.value("path", ""); });
  return Text(j);
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

// A playlist list of a phone's music library, one line a playlist:
// "name:kind:parent:title,title,...".
inline std::vector<std::string> PlaylistLines(plist_t playlists) {
  std::vector<std::string> lines;
  for (uint32_t i = 0; i < plist_array_get_size(playlists); ++i) {
    plist_t p = plist_array_get_item(playlists, i);
    std::string members;
    for (const std::string &t : Column(p, "title")) members += t + ",";
    lines.push_back(Str(p, "name") + ":" + Str(p, "kind") + ":" + Str(p, "parent") + ":" + members);
  }
  return lines;
}

// Local time nine hours east of UTC for the life of the object, without
// depending on the host's zone database.
inline constexpr const char *kNineEast = "XYZ-9";

class CatalogueTest : public tarn::testing::SimulatedDeviceTest {
 protected:
  CatalogueTest() : SimulatedDeviceTest(kUdid) {}
  // Builds the image, starts the simulator and initialises a handle.
  // Returns InitDevice's result.
  int Start(const json &description, const std::vector<std::string> &options = {}) {
    json d = description;
    d["device"]["UniqueDeviceID"] = kUdid;
    tarn::testing::build_image(d, dir.path() + "/image");
    if (before_serving) before_serving();
    fs::create_directories(work());
    Serve(dir.path() + "/image", options);
    Console([&] { device = CreatePodDevice(kUdid); });
    int rc = -1;
    init_output = Console([&] { rc = InitDevice(device, work().c_str()); });
    return rc;
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
  // What a test changes in the built image before it is served.
  std::function<void()> before_serving;
  std::string media(const std::string &p) const { return dir.path() + "/image/media" + p; }

  // Runs a call with its console output captured into `output`.
  template <typename F>
  auto Quiet(F f) {
    return tarn::testing::Quiet(f, &output);
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

  std::string init_output, output;
};

}  // namespace tarn_catalogue_test
