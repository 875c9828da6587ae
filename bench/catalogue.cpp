// The music catalogue against a bare libgpod parse of the same database:
// GetMusicList (time and peak memory), GetPlayList beside it, and
// GetDeviceInfo, whose every figure one parse of the music database could
// give.
//
// Each measurement runs in a fresh process (this program started again with
// --measure), so that its peak resident memory is its own; every process
// first initialises the handle, so that the baseline is the same for the
// floor and for the library.
//
//   bench_catalogue --image DIR [--reps N]
#include <cstring>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bare_parse.h"
#include "bench_util.h"
#include "images.h"
#include "simulator.h"
#include "tarn/tarn_device.h"


namespace {

using namespace tarn::bench;

// In a child: initialise a handle on the device, then time one operation.
int Measure(const std::string &what, const std::string &udid, const std::string &image, const std::string &work) {
  PodDevice *device = nullptr;
  double s = 0;
  {
    QuietStdout quiet;
    device = CreatePodDevice(udid.c_str());
    if (InitDevice(device, work.c_str()) != 0) return 1;
    if (what == "parse") {
      s = BareParseSeconds(image + "/media");
    } else {
      PodListFunction list = what == "music" ? GetMusicList : GetPlayList;
      s = Seconds([&] {
        if (what == "info") {
          plist_free(GetDeviceInfo(device));
        } else {
          plist_free(list(device, 0, 0));
        }
      });
    }
    FreePodDevice(device);
  }
  return ReportSample(s);
}

}  // namespace

int main(int argc, char **argv) try {
  const std::string image = TextOption(argc, argv, "--image");
  if (!TextOption(argc, argv, "--measure").empty()) {
    return Measure(TextOption(argc, argv, "--measure"), TextOption(argc, argv, "--udid"), image,
                   TextOption(argc, argv, "--work"));
  }
  if (image.empty()) throw std::runtime_error("usage: bench_catalogue --image DIR [--reps N]");
  const int reps = static_cast<int>(Option(argc, argv, "--reps", 5));
  const auto description = nlohmann::json::parse(std::ifstream(image + "/device.json"));
  const std::string udid = description.at("UniqueDeviceID").get<std::string>();

  tarn::testing::Simulator sim({{image, udid, {}}});
  tarn::testing::TempDir work;
  const std::string self = "/proc/self/exe";
  char exe[4096] = {};
  if (::readlink(self.c_str(), exe, sizeof exe - 1) <= 0) throw std::runtime_error("cannot find myself");

  std::map<std::string, std::vector<double>> secs;
  std::map<std::string, std::vector<double>> peak;
  // Turns, so that load on the machine falls on all alike; the first round
  // also makes the local copies.
  for (int i = 0; i < reps; ++i) {
    for (const char *what : {"parse", "music", "playlists", "info"}) {
      const Sample s = RunChild(exe, {"--measure", what, "--udid", udid, "--image", image, "--work", work.path()});
      secs[what].push_back(s.seconds);
      peak[what].push_back(static_cast<double>(s.peak_kib));
    }
  }
  const double parse = Median(secs["parse"]), parse_mem = Median(peak["parse"]);
  const std::string floor = Format("bare libgpod parse %.3f s", parse);
  Print({"GetMusicList", Format("%.3f s", Median(secs["music"])), floor, Median(secs["music"]) / parse, 1.3, false});
  Print({"GetMusicList peak memory", Format("%.0f MiB", Median(peak["music"]) / 1024),
         Format("bare libgpod parse %.0f MiB", parse_mem / 1024), Median(peak["music"]) / parse_mem, 2.0, false});
  Print({"GetPlayList", Format("%.3f s", Median(secs["playlists"])), floor, Median(secs["playlists"]) / parse, 0,
         false});
  Print({"GetDeviceInfo", Format("%.3f s", Median(secs["info"])), floor, Median(secs["info"]) / parse, 1.6, false});
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_catalogue: %s\n", e.what());
  return 1;
}
