// A small simulated phone for the tool's tests: a music library whose
// names collide and need cleaning, playlists, and files of known content,
// plus the environment that points the tool at the simulator and a private
// cache directory.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "images.h"
#include "child_process.h"
#include "device_test.h"

namespace tarn_apps_test {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;

// The tarn tool run with `args`.
class ToolProcess : public tarn::testing::ChildProcess {
 public:
  ToolProcess(std::vector<std::string> args, const std::map<std::string, std::string> &env)
      : ChildProcess((args.insert(args.begin(), TARN_TOOL_PATH), args), env) {}
};

inline tarn::testing::Result RunTool(const std::vector<std::string> &args, const std::map<std::string, std::string> &env) {
  return ToolProcess(args, env).Wait();
}

inline constexpr const char *kUdid = "00008030-00A11CE000000001";
inline constexpr int64_t kTrackTime = 1650000000;  // the device's modification time of every track file

struct Track {
  const char *id;
  const char *title;   // nullptr: left out
  const char *artist;  // nullptr: left out
  const char *album;
  const char *file;    // device path
  uint64_t length_ms;
};

// Two "Intro"s on one album, a title and an artist that are no file
// names, a track without artist or album.
inline const std::vector<Track> &Tracks() {
  static const std::vector<Track> tracks = {
      {"t1", "Intro", "Mira Okafor", "Paper Moons", "/iTunes_Control/Music/F00/AAAA.mp3", 61000},
      {"t2", "Harbour Nights", "Mira Okafor", "Paper Moons", "/iTunes_Control/Music/F01/BBBB.m4a", 214000},
      {"t3", "Intro", "Mira Okafor", "Paper Moons", "/iTunes_Control/Music/F02/CCCC.mp3", 45000},
      {"t4", "AC/DC: Live?", "Orquesta del Sur", "Lanterns", "/iTunes_Control/Music/F03/DDDD.mp3", 3723000},
      {"t5", "Field Notes", nullptr, nullptr, "/iTunes_Control/Music/F04/EEEE.mp3", 1000},
  };
  return tracks;
}

// The bytes of a track's file: distinct per track, of a size that differs too.
inline std::string TrackContent(const Track &t) {
  std::string text;
  for (int i = 0; text.size() < 3000 + 500 * static_cast<size_t>(t.id[1] - '0'); ++i)
    text += std::string(t.id) + " block " + std::to_string(i) + "\n";
  return text;
}

using tarn::testing::ReadAll;
using tarn::testing::Result;
using tarn::testing::WriteAll;

class ToolTest : public tarn::testing::SimulatedDeviceTest {
 protected:
  ToolTest() : SimulatedDeviceTest(kUdid) {}
  static json Description() {
    json d;
    d["device"] = {{"UniqueDeviceID", kUdid}, {"DeviceName", "Test Phone"}, {"ProductType", "iPhone12,1"},
                   {"ProductVersion", "15.7"}, {"SerialNumber", "F2LTEST0TARN"},
                   {"FSTotalBytes", 64000000000}, {"FSFreeBytes", 21500000000}};
    json tracks = json::array(), files = json::array();
    for (const Track &t : Tracks()) {
      json track = {{"id", t.id}, {"length", t.length_ms}, {"media_type", 1}};
      if (t.title) track["title"] = t.title;
      if (t.artist) track["artist"] = t.artist;
      if (t.album) track["album"] = t.album;
      track["size"] = TrackContent(t).size();
      std::string colons = t.file;
      std::replace(colons.begin(), colons.end(), '/', ':');
      track["path"] = colons;
      tracks.push_back(track);
      files.push_back({{"path", t.file}, {"content", TrackContent(t)}, {"mtime", kTrackTime}});
    }
    d["music"] = {{"tracks", tracks},
                  {"playlists", json::array({json{{"name", "Road/Trip"}, {"tracks", {"t4", "t1", "t3", "t2"}}},
                                             json{{"name", "Quiet"}, {"tracks", {"t5", "t3"}}}})}};
    d["files"] = files;
    return d;
  }

  // Builds the image, starts the simulator with it and makes the host side.
  void SetUp() override {
    tarn::testing::build_image(Description(), image());
    fs::create_directories(host(""));
    Serve(image());
  }

  Result Tarn(const std::vector<std::string> &args) const { return RunTool(args, Env()); }

  std::map<std::string, std::string> Env() const {
    return {{"USBMUXD_SOCKET_ADDRESS", sim->env_value()}, {"XDG_CACHE_HOME", cache()}, {"LC_ALL", "C.UTF-8"}};
  }

  std::string image() const { return dir.path() + "/image"; }
  std::string media(const std::string &device_path) const { return image() + "/media" + device_path; }
  std::string cache() const { return dir.path() + "/cache"; }
  std::string host(const std::string &name) const { return dir.path() + "/host/" + name; }

};

}  // namespace tarn_apps_test
