// An older device's album covers against one bare libgpod parse of its
// music database: the covers of 20 albums asked one after the other, as a
// window asks for the albums in sight, over a held connection, on a library
// of 50,000 tracks. Every cover needs the music database parsed with the
// artwork database; what the row shows is whether the 20 pay for one parse
// or for 20.
//
// Each measurement runs in a fresh process (this program again, with
// --measure), so that nothing one turn read is still kept for the next.
//
//   bench_artwork [--tracks N] [--reps N]
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bare_parse.h"
#include "bench_util.h"
#include "images.h"
#include "simulator.h"
#include "tarn/tarn_device.h"

namespace {

using namespace tarn::bench;

constexpr const char *kUdid = "5f3a9c0e7d1b2a4c6e8f0a1b2c3d4e5f6a7b8c9e";
constexpr int kAlbums = 20;

// The id of one track of each album with a cover, from the music list.
std::vector<uint64_t> CoveredTracks(PodDevice *device) {
  std::vector<uint64_t> ids;
  plist_t music = GetMusicList(device, 0, 0);
  plist_t items = music ? plist_dict_get_item(music, "item") : nullptr;
  for (uint32_t i = 0; items && i < plist_array_get_size(items); ++i) {
    plist_t item = plist_array_get_item(items, i);
    char *album = nullptr;
    plist_get_string_val(plist_dict_get_item(item, "album"), &album);
    if (album && std::strncmp(album, "Cover Album ", 12) == 0) {
      uint64_t id = 0;
      plist_get_uint_val(plist_dict_get_item(item, "id"), &id);
      ids.push_back(id);
    }
    std::free(album);
  }
  plist_free(music);
  return ids;
}

int Measure(const std::string &what, const std::string &image, const std::string &work) {
  PodDevice *device = nullptr;
  double s = 0;
  {
    QuietStdout quiet;
    device = CreatePodDevice(kUdid);
    if (InitDevice(device, work.c_str()) != 0) return 1;
    if (what == "parse") {
      s = BareParseSeconds(image + "/media");
    } else {
      const std::vector<uint64_t> ids = CoveredTracks(device);
      if (ids.size() != kAlbums || TarnHoldConnection(device) != 0) return 1;
      const std::string cover = work + "/cover.png";
      int failed = 0;
      s = Seconds([&] {
        for (const uint64_t id : ids) failed += TarnCopyArtwork(device, id, cover.c_str());
      });
      TarnReleaseConnection(device);
      if (failed != 0) return 1;
    }
    FreePodDevice(device);
  }
  return ReportSample(s);
}

}  // namespace

int main(int argc, char **argv) try {
  if (!TextOption(argc, argv, "--measure").empty())
    return Measure(TextOption(argc, argv, "--measure"), TextOption(argc, argv, "--image"),
                   TextOption(argc, argv, "--work"));
  const int reps = static_cast<int>(Option(argc, argv, "--reps", 5));
  const long tracks = Option(argc, argv, "--tracks", 50000);

  // The generated library, and one track on each of 20 albums of its own
  // with a cover.
  nlohmann::json extra = nlohmann::json::array(), covers = nlohmann::json::object();
  for (int i = 0; i < kAlbums; ++i) {
    const std::string album = "Cover Album " + std::to_string(i + 1);
    extra.push_back({{"title", "Cover Track " + std::to_string(i + 1)},
                     {"artist", "Bench Artist"},
                     {"album", album},
                     {"genre", "Pop"},
                     {"length", 200000},
                     {"size", 6400000},
                     {"media_type", 1},
                     {"path", ":iTunes_Control:Music:F00:COVR" + std::to_string(i) + ".m4a"}});
    char colour[8];
    std::snprintf(colour, sizeof colour, "#%02x%02x%02x", 40 + i * 10, 200 - i * 7, 90 + i * 5);
    covers[album] = colour;
  }
  tarn::testing::TempDir dir;
  const std::string image = dir.path() + "/image", work = dir.path() + "/work";
  std::fprintf(stderr, "building an older device of %ld tracks with %d album covers...\n", tracks, kAlbums);
  tarn::testing::build_image(
      {{"device", {{"UniqueDeviceID", kUdid}, {"DeviceName", "Bench iPod"}, {"ProductType", "iPod4,1"},
                   {"ProductVersion", "6.1.6"}}},
       {"music", {{"generate", {{"tracks", tracks}, {"playlists", 0}, {"seed", 5}, {"files", false}}},
                  {"tracks", extra},
                  {"covers", covers}}}},
      image);
  std::filesystem::create_directories(work);
  tarn::testing::Simulator sim({{image, kUdid, {}}});
  char exe[4096] = {};
  if (::readlink("/proc/self/exe", exe, sizeof exe - 1) <= 0) throw std::runtime_error("cannot find myself");

  std::map<std::string, std::vector<double>> secs;
  // Turns, so that load on the machine falls on both alike; the first round
  // also makes the local copies.
  for (int i = 0; i < reps; ++i) {
    for (const char *what : {"parse", "covers"}) {
      const Sample s = RunChild(exe, {"--measure", what, "--image", image, "--work", work});
      secs[what].push_back(s.seconds);
    }
  }
  const double parse = Median(secs["parse"]), covers_s = Median(secs["covers"]);
  Print({"TarnCopyArtwork, 20 albums of an older device (" + std::to_string(tracks + kAlbums) + " tracks)",
         Format("%.3f s", covers_s), Format("bare libgpod parse %.3f s", parse), covers_s / parse, 1.5, false});
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_artwork: %s\n", e.what());
  return 1;
}
