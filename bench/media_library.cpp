// A current phone's catalogues against SQLite alone: GetMusicList over a
// 50,000-track MediaLibrary.sqlitedb and GetCameraPVList over a
// 20,000-picture photo library (its reader; the list call also prints the
// list as XML, shown in a row of its own), each against a floor that runs the same
// SELECT through SQLite and keeps every value it reads (what any program
// that shows the list must hold), in time and in peak memory.
//
// Each measurement runs in a fresh process (this program again, with
// --measure), so that its peak resident memory is its own. Every process
// first initialises a handle (the local copies exist after the first), and
// the camera roll runs over a held connection, as the programs do, so that
// the one secure session a command costs is not counted against a list.
//
//   bench_media_library [--tracks N] [--assets N] [--reps N]
#include <sqlite3.h>

#include <cstring>
#include <filesystem>
#include <tuple>
#include <map>
#include <string>
#include <vector>

#include "bench_util.h"
#include "catalogue/catalogue.h"
#include "catalogue/photo_library.h"
#include "common/sqlite_schema.h"
#include "images.h"
#include "simulator.h"
#include "tarn/tarn_device.h"


namespace {

using namespace tarn::bench;

constexpr const char *kUdid = "00008110-0000BE4C4000001E";

// Every value of every row, as text or number, kept.
size_t SelectAll(const std::string &path, bool photos) {
  sqlite3 *raw = nullptr;
  sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  std::unique_ptr<sqlite3, int (*)(sqlite3 *)> db(raw, sqlite3_close);
  tarn::SqliteSchema schema(db.get());
  const std::string sql = photos ? tarn::PhotoAssetQuery(schema, "ZASSET") : tarn::LibraryTrackQuery(schema);
  tarn::SqliteStmt stmt = tarn::Prepare(db.get(), sql);
  if (!stmt) throw std::runtime_error("the floor's SELECT failed");
  struct Value {
    std::string text;
    int64_t number = 0;
  };
  std::vector<std::vector<Value>> rows;
  const int columns = sqlite3_column_count(stmt.get());
  while (sqlite3_step(stmt.get()) == SQLITE_ROW) {
    std::vector<Value> row(static_cast<size_t>(columns));
    for (int c = 0; c < columns; ++c) {
      if (sqlite3_column_type(stmt.get(), c) == SQLITE_TEXT) row[static_cast<size_t>(c)].text = tarn::ColumnText(stmt.get(), c);
      else row[static_cast<size_t>(c)].number = sqlite3_column_int64(stmt.get(), c);
    }
    rows.push_back(std::move(row));
  }
  return rows.size();
}

int Measure(const std::string &what, const std::string &work) {
  PodDevice *device = nullptr;
  double s = 0;
  {
    QuietStdout quiet;
    device = CreatePodDevice(kUdid);
    if (InitDevice(device, work.c_str()) != 0) return 1;
    if (what == "music-floor") {
      s = Seconds([&] { SelectAll(work + "/MediaLibrary.sqlitedb", false); });
    } else if (what == "camera-floor") {
      s = Seconds([&] { SelectAll(work + "/Photos.sqlite", true); });
    } else if (what == "music") {
      s = Seconds([&] { plist_free(GetMusicList(device, 0, 0)); });
    } else {
      // The reader alone, and the list call, which also prints the whole
      // list as XML on standard output.
      if (TarnHoldConnection(device) != 0) return 1;
      const std::string copy = work + "/Photos.sqlite";
      s = Seconds([&] {
        plist_free(what == "camera" ? ReadCameraDbTypeSQLITE(device, copy.c_str()) : GetCameraPVList(device, 0, 0));
      });
      TarnReleaseConnection(device);
    }
    FreePodDevice(device);
  }
  return ReportSample(s);
}

}  // namespace

int main(int argc, char **argv) try {
  if (!TextOption(argc, argv, "--measure").empty())
    return Measure(TextOption(argc, argv, "--measure"), TextOption(argc, argv, "--work"));
  const int reps = static_cast<int>(Option(argc, argv, "--reps", 5));
  const long tracks = Option(argc, argv, "--tracks", 50000), assets = Option(argc, argv, "--assets", 20000);

  tarn::testing::TempDir dir;
  const std::string image = dir.path() + "/image", work = dir.path() + "/work";
  std::fprintf(stderr, "building a phone of %ld tracks and %ld pictures...\n", tracks, assets);
  tarn::testing::build_image(
      {{"device", {{"UniqueDeviceID", kUdid}, {"DeviceName", "Bench Phone"}}},
       {"media_library", {{"wal_tracks", 500}, {"generate", {{"tracks", tracks}, {"playlists", 0}, {"seed", 3}}}}},
       {"photo_library", {{"ios", 17}, {"wal_assets", 200}, {"generate", {{"assets", assets}, {"seed", 3}, {"files", true}}}}}},
      image);
  std::filesystem::create_directories(work);
  tarn::testing::Simulator sim({{image, kUdid, {}}});
  char exe[4096] = {};
  if (::readlink("/proc/self/exe", exe, sizeof exe - 1) <= 0) throw std::runtime_error("cannot find myself");

  std::map<std::string, std::vector<double>> secs, peak;
  // Turns, so that load on the machine falls on all alike; the first round
  // also makes the local copies.
  for (int i = 0; i < reps; ++i) {
    for (const char *what : {"music-floor", "music", "camera-floor", "camera", "camera-list"}) {
      const Sample s = RunChild(exe, {"--measure", what, "--work", work});
      secs[what].push_back(s.seconds);
      peak[what].push_back(static_cast<double>(s.peak_kib));
    }
  }
  for (const auto &[name, list, floor, label] :
       {std::tuple{"GetMusicList, music library", "music", "music-floor", "tracks"},
        std::tuple{"ReadCameraDbTypeSQLITE, photo library", "camera", "camera-floor", "pictures"}}) {
    const double t = Median(secs[list]), f = Median(secs[floor]);
    const double m = Median(peak[list]), fm = Median(peak[floor]);
    const long count = std::string(label) == "tracks" ? tracks : assets;
    Print({std::string(name) + " (" + std::to_string(count) + " " + label + ")",
           Format("%.3f s", t), Format("SQLite SELECT %.3f s", f), t / f, 1.3, false});
    Print({std::string(name) + " peak memory", Format("%.0f MiB", m / 1024), Format("SQLite SELECT %.0f MiB", fm / 1024),
           m / fm, 1.5, false});
  }
  // The list call prints its whole result as XML, as it always has: a cost
  // every caller pays, shown beside the reader's.
  Print({"GetCameraPVList with its XML console dump", Format("%.3f s", Median(secs["camera-list"])),
         Format("SQLite SELECT %.3f s", Median(secs["camera-floor"])),
         Median(secs["camera-list"]) / Median(secs["camera-floor"]), 0, false});
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_media_library: %s\n", e.what());
  return 1;
}
