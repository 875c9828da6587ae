// Fuzz target: an older device's artwork database, the file as input, read
// with a fixed music database, cover files and SysInfoExtended beside it
// (an image the image builder makes at start, with covers for four albums).
// Every track's cover is asked for, each read to its pixels: a damaged
// database must leave covers out or unreadable, never crash libgpod.
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "common/raii.h"
#include "fake_device.h"
#include "input_file.h"
#include "musicdb/music_database.h"

namespace {

namespace fs = std::filesystem;

struct Context {
  Context() {
    char tmpl[] = "/tmp/tarn-fuzz-artwork-XXXXXX";
    if (!mkdtemp(tmpl)) std::abort();
    dir = tmpl;
  }
  ~Context() {
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  Context(const Context &) = delete;
  Context &operator=(const Context &) = delete;

  std::string dir, database;
  tarn::DeviceArtwork artwork;
  std::vector<uint64_t> ids;
};

// The image builder's older device, in a folder of the process's own; the
// artwork folder the input is written into holds its cover files.
void Build(Context &c) {
  const std::string &dir = c.dir;
  const std::string description = dir + "/device.json", image = dir + "/image";
  std::ofstream(description) << R"({"device": {"UniqueDeviceID": "f0220000000000000000000000000000000000ff",
      "DeviceName": "Fuzz iPod", "ProductType": "iPod4,1", "ProductVersion": "6.1.6"},
    "music": {"generate": {"tracks": 40, "playlists": 0, "seed": 7, "files": false},
      "covers": {"Low Tide": "#c0392b", "Paper Moons": "#2e86c1", "Northbound": "#27ae60",
                 "Small Hours": "#f1c40f"}}})";
  // The builder is instrumented like this program; its leaks are not ours.
  std::vector<std::string> env_text{"ASAN_OPTIONS=detect_leaks=0"};
  std::vector<char *> env{env_text[0].data(), nullptr};
  const char *argv[] = {TARN_MKIMAGE_PATH, description.c_str(), image.c_str(), nullptr};
  pid_t pid = -1;
  int status = 0;
  if (posix_spawn(&pid, TARN_MKIMAGE_PATH, nullptr, nullptr, const_cast<char **>(argv), env.data()) != 0 ||
      waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "fuzz_artwork: the image builder failed\n");
    std::abort();
  }
  const std::string media = image + "/media/iTunes_Control";
  c.database = media + "/iTunes/iTunesCDB";
  c.artwork.folder = dir + "/Artwork";
  c.artwork.sysinfo_extended = media + "/Device/SysInfoExtended";
  fs::create_directories(c.artwork.folder);
  for (const auto &entry : fs::directory_iterator(media + "/Artwork"))
    if (entry.path().extension() == ".ithmb")
      fs::copy_file(entry.path(), c.artwork.folder + "/" + entry.path().filename().string());
  const tarn::ItdbPtr db(tarn::m_itdb_parse_file(c.database.c_str(), nullptr));
  if (!db) std::abort();
  for (GList *t = db->tracks; t != nullptr; t = t->next) c.ids.push_back(static_cast<Itdb_Track *>(t->data)->id);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tarn_fuzz::SilenceStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const tarn_fuzz::InputFile input("ArtworkDB");
  static Context context;
  if (context.ids.empty()) Build(context);
  fs::copy_file(input.Write(data, size), context.artwork.folder + "/ArtworkDB", fs::copy_options::overwrite_existing);
  const auto covers = tarn::TrackCovers::Read(context.database.c_str(), context.artwork);
  if (!covers) std::abort();  // the music database itself is sound
  for (const uint64_t id : context.ids) {
    tarn::GObjectPtr<GdkPixbuf> picture;
    if (covers->Find(id, &picture) == tarn::TrackCovers::Cover::kPicture &&
        (gdk_pixbuf_get_width(picture.get()) <= 0 || gdk_pixbuf_get_height(picture.get()) <= 0))
      std::abort();
  }
  return 0;
}
