// Album artwork through the simulator: which tracks the music list gives a
// cover, and TarnCopyArtwork copying a cover to the host over one
// connection: a current phone's file as it is, refusing the names and sizes
// its database should never hold; an older device's picture out of its
// artwork database, as PNG.
#include <gdk-pixbuf/gdk-pixbuf.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "catalogue_fixture.h"
#include "images.h"

namespace tarn_catalogue_test {
namespace {

constexpr const char *kSecret = "kept out of reach";

// Two albums with covers (a JPEG shared by two tracks, one of them only in
// the log; a PNG), a track without one, and covers the library must not
// follow: names that leave the artwork folder and a file far too large.
json Library() {
  return json::parse(std::string(R"J({
    "media_library": {"wal_tracks": 1, "tracks": [
      {"id": "a1", "title": "A1", "artist": "Ana", "album": "Blue", "artwork": "jpeg", "size": 10, "location": "iTunes_Control/Music/F01/A1.mp3"},
      {"id": "b1", "title": "B1", "artist": "Ben", "album": "Green", "artwork": "png", "size": 10, "location": "iTunes_Control/Music/F01/B1.mp3"},
      {"id": "c1", "title": "C1", "artist": "Cid", "album": "Plain", "size": 10, "location": "iTunes_Control/Music/F01/C1.mp3"},
      {"id": "h1", "title": "H1", "artist": "Hal", "album": "Up", "artwork_path": "../../../../Secret"},
      {"id": "h2", "title": "H2", "artist": "Hal", "album": "Up", "artwork_path": "/Secret"},
      {"id": "h3", "title": "H3", "artist": "Hal", "album": "Up", "artwork_path": "ab/./../../../../../Secret"},
      {"id": "h4", "title": "H4", "artist": "Hal", "album": "Up", "artwork_path": "ab//cd"},
      {"id": "h5", "title": "H5", "artist": "Hal", "album": "Up", "artwork_path": "ab/"},
      {"id": "z1", "title": "Z1", "artist": "Zed", "album": "Huge", "artwork": "jpeg", "artwork_size": 40000000},
      {"id": "a2", "title": "A2", "artist": "Ana", "album": "Blue", "artwork": "jpeg", "size": 10, "location": "iTunes_Control/Music/F01/A2.mp3"}]},
    "files": [{"path": "/Secret", "content": ")J") + kSecret + R"J("}]})J");
}

class ArtworkTest : public CatalogueTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(Start(Library()), 0);
    Plist music(Quiet([&] { return GetMusicList(device, 0, 0); }));
    ASSERT_TRUE(music) << TarnLastError()->message;
    plist_t items = plist_dict_get_item(music.get(), "item");
    for (uint32_t i = 0; i < plist_array_get_size(items); ++i) {
      plist_t item = plist_array_get_item(items, i);
      ids[Str(item, "title")] = Uint(item, "id");
      if (plist_dict_get_item(item, "artwork")) artwork[Str(item, "title")] = Str(item, "artwork");
    }
  }
  // TarnCopyArtwork of a track by title: its status and reason.
  int Copy(const std::string &title, const std::string &host) {
    return Quiet([&] { return TarnCopyArtwork(device, ids.at(title), host.c_str()); });
  }
  std::string host(const std::string &name) const { return dir.path() + "/" + name; }

  std::map<std::string, uint64_t> ids;
  std::map<std::string, std::string> artwork;  // title -> "artwork" of its item
};

TEST_F(ArtworkTest, TracksCarryTheirAlbumsCoverOnlyWhereTheLibraryNamesOneInsideItsFolder) {
  ASSERT_EQ(ids.size(), 10u);
  EXPECT_EQ((std::set<std::string>{"A1", "A2", "B1", "Z1"}), [&] {
    std::set<std::string> titles;
    for (const auto &[title, path] : artwork) titles.insert(title);
    return titles;
  }()) << "no key for a track without a cover, nor for a name that leaves the artwork folder";
  EXPECT_EQ(artwork["A1"], artwork["A2"]) << "one cover for an album, also for a track only in the log";
  EXPECT_NE(artwork["A1"], artwork["B1"]);
  for (const auto &[title, path] : artwork) {
    SCOPED_TRACE(title);
    EXPECT_EQ(path.rfind("/iTunes_Control/iTunes/Artwork/Originals/", 0), 0u);
    EXPECT_TRUE(fs::is_regular_file(media(path)));
  }
  // Every key of a track comes before "artwork": it is the last.
  Plist music(Quiet([&] { return GetMusicList(device, 0, 0); }));
  plist_t first = plist_array_get_item(plist_dict_get_item(music.get(), "item"), 0);
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(first, &it);
  std::string last;
  for (;;) {
    char *key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(first, it, &key, &value);
    if (key == nullptr) break;
    last = key;
    free(key);
  }
  free(it);
  EXPECT_EQ(last, "artwork");
}

TEST_F(ArtworkTest, ACopyIsTheCoversBytesAndRefusalsLeaveTheHostFileAsItWas) {
  for (const char *title : {"A1", "A2", "B1"}) {
    SCOPED_TRACE(title);
    const std::string out = host(std::string(title) + ".cover");
    ASSERT_EQ(Copy(title, out), 0) << TarnLastError()->message;
    const std::string bytes = ReadAll(out);
    EXPECT_EQ(bytes, ReadAll(media(artwork[title])));
    const bool jpeg = bytes.rfind("\xff\xd8\xff", 0) == 0, png = bytes.rfind("\x89PNG", 0) == 0;
    EXPECT_TRUE(std::string(title) == "B1" ? png : jpeg);
  }
  // A cover copied over an earlier file replaces it whole.
  const std::string kept = host("kept.cover");
  std::ofstream(kept) << "earlier";
  ASSERT_EQ(Copy("B1", kept), 0);
  EXPECT_EQ(ReadAll(kept), ReadAll(media(artwork["B1"])));

  struct Refusal {
    const char *title;
    TarnErrorCode code;
  } refusals[] = {{"C1", TARN_E_NOT_FOUND},           {"H1", TARN_E_DATABASE_UNREADABLE},
                  {"H2", TARN_E_DATABASE_UNREADABLE}, {"H3", TARN_E_DATABASE_UNREADABLE},
                  {"H4", TARN_E_DATABASE_UNREADABLE}, {"Z1", TARN_E_DEVICE}};
  for (const Refusal &r : refusals) {
    SCOPED_TRACE(r.title);
    std::ofstream(kept) << "earlier";
    EXPECT_EQ(Copy(r.title, kept), 1);
    EXPECT_EQ(TarnLastError()->code, r.code) << TarnLastError()->message;
    EXPECT_EQ(ReadAll(kept), "earlier");
  }
  EXPECT_EQ(Quiet([&] { return TarnCopyArtwork(device, 12345, kept.c_str()); }), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_NOT_FOUND);
  EXPECT_EQ(Quiet([&] { return TarnCopyArtwork(device, ids["A1"], nullptr); }), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_INVALID_ARGUMENT);
  // A folder that does not exist: the host's reason.
  EXPECT_EQ(Copy("A1", host("missing/a.cover")), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_NOT_FOUND);
  // Nothing of the refused copies is left beside the host file.
  std::set<std::string> names;
  for (const auto &entry : fs::directory_iterator(dir.path())) names.insert(entry.path().filename().string());
  for (const std::string &name : names) EXPECT_EQ(name.find(".tarn-copy"), std::string::npos) << name;
  ExpectIdle("after the copies");
}

TEST_F(ArtworkTest, AHeldConnectionCopiesEveryCoverInOneSession) {
  sim->reset_stats(kUdid);
  ASSERT_EQ(TarnHoldConnection(device), 0);
  for (int round = 0; round < 10; ++round)
    for (const char *title : {"A1", "A2", "B1"})
      ASSERT_EQ(Copy(title, host("cover")), 0) << TarnLastError()->message;
  EXPECT_EQ(sim->stats(kUdid).tls_sessions, 1u);
  TarnReleaseConnection(device);
  // Without a held connection each copy is one call with its own session.
  sim->reset_stats(kUdid);
  ASSERT_EQ(Copy("A1", host("cover")), 0);
  EXPECT_EQ(sim->stats(kUdid).tls_sessions, 1u);
  ExpectIdle("released");
}

TEST_F(CatalogueTest, AnOlderDeviceWithoutAnArtworkDatabaseHasNoCoverToCopy) {
  ASSERT_EQ(Start({{"music", {{"tracks", {{{"title", "song"}, {"size", 1000}, {"media_type", 1}}}}}}}), 0);
  Plist music(Quiet([&] { return GetMusicList(device, 0, 0); }));
  ASSERT_TRUE(music);
  plist_t item = plist_array_get_item(plist_dict_get_item(music.get(), "item"), 0);
  EXPECT_EQ(plist_dict_get_item(item, "artwork"), nullptr);
  const std::string out = dir.path() + "/cover";
  EXPECT_EQ(Quiet([&] { return TarnCopyArtwork(device, Uint(item, "id"), out.c_str()); }), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_NOT_FOUND) << TarnLastError()->message;
  EXPECT_FALSE(fs::exists(out));
}

// The older device of the shipped images: its covers live in the artwork
// database libgpod wrote (ArtworkDB and .ithmb files), for the albums the
// description gives a colour; the other albums have none.
class OlderArtworkTest : public CatalogueTest {
 protected:
  void SetUp() override {
    const json description = tarn::testing::load_description("ipod");
    for (const auto &[album, colour] : description["music"]["covers"].items())
      colours[album] = std::stoul(colour.get<std::string>().substr(1), nullptr, 16);
    ASSERT_FALSE(colours.empty());
    ASSERT_EQ(Start(description), 0);
    Plist music(Quiet([&] { return GetMusicList(device, 0, 0); }));
    ASSERT_TRUE(music) << TarnLastError()->message;
    plist_t items = plist_dict_get_item(music.get(), "item");
    for (uint32_t i = 0; i < plist_array_get_size(items); ++i) {
      plist_t item = plist_array_get_item(items, i);
      // The purchases beside the database (one on the album "Paper Moons")
      // have no cover there.
      if (Str(item, "path").rfind("/iTunes_Control/Music/", 0) != 0) continue;
      // The older list's items keep their ten keys: no cover name among them.
      EXPECT_EQ(plist_dict_get_size(item), 10u);
      tracks.push_back({Uint(item, "id"), Str(item, "album")});
    }
  }
  // One track of each album with a cover.
  std::map<std::string, uint64_t> Covered() const {
    std::map<std::string, uint64_t> one;
    for (const Track &t : tracks)
      if (colours.count(t.album)) one.emplace(t.album, t.id);
    return one;
  }
  int Copy(uint64_t id, const std::string &host) {
    return Quiet([&] { return TarnCopyArtwork(device, id, host.c_str()); });
  }
  std::string host(const std::string &name) const { return dir.path() + "/" + name; }

  struct Track {
    uint64_t id;
    std::string album;
  };
  std::map<std::string, uint32_t> colours;  // album -> 0xrrggbb
  std::vector<Track> tracks;
};

// The centre pixel of a PNG file as 0xrrggbb, or nothing when it is no PNG.
std::optional<uint32_t> CentreOfPng(const std::string &path, int *width) {
  const std::string bytes = ReadAll(path);
  if (bytes.rfind("\x89PNG", 0) != 0) return std::nullopt;
  GError *error = nullptr;
  const std::unique_ptr<GdkPixbuf, decltype(&g_object_unref)> pixbuf(gdk_pixbuf_new_from_file(path.c_str(), &error),
                                                                     &g_object_unref);
  if (error != nullptr) g_error_free(error);
  if (!pixbuf) return std::nullopt;
  *width = gdk_pixbuf_get_width(pixbuf.get());
  const guchar *p = gdk_pixbuf_get_pixels(pixbuf.get()) +
                    gdk_pixbuf_get_height(pixbuf.get()) / 2 * gdk_pixbuf_get_rowstride(pixbuf.get()) +
                    *width / 2 * gdk_pixbuf_get_n_channels(pixbuf.get());
  return uint32_t{p[0]} << 16 | uint32_t{p[1]} << 8 | p[2];
}

// Channels within what the device's 16-bit pixels keep of a colour.
bool Near(uint32_t a, uint32_t b) {
  for (int shift : {16, 8, 0})
    if (std::abs(static_cast<int>((a >> shift) & 0xff) - static_cast<int>((b >> shift) & 0xff)) > 8) return false;
  return true;
}

TEST_F(OlderArtworkTest, ACoverIsTheAlbumsPictureAsPngAndATrackWithoutOneIsRefused) {
  ASSERT_EQ(Covered().size(), colours.size());
  for (const auto &[album, id] : Covered()) {
    SCOPED_TRACE(album);
    const std::string out = host("cover.png");
    ASSERT_EQ(Copy(id, out), 0) << TarnLastError()->message;
    int width = 0;
    const auto centre = CentreOfPng(out, &width);
    ASSERT_TRUE(centre);
    EXPECT_EQ(width, 128) << "the largest size the device keeps";
    EXPECT_TRUE(Near(*centre, colours[album])) << std::hex << *centre << " for " << colours[album];
  }

  const std::string kept = host("kept.png");
  std::ofstream(kept) << "earlier";
  const auto plain =
      std::find_if(tracks.begin(), tracks.end(), [&](const Track &t) { return colours.count(t.album) == 0; });
  ASSERT_NE(plain, tracks.end());
  EXPECT_EQ(Copy(plain->id, kept), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_NOT_FOUND) << TarnLastError()->message;
  EXPECT_EQ(Copy(987654321, kept), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_NOT_FOUND);
  EXPECT_EQ(ReadAll(kept), "earlier");
  ExpectIdle("after the copies");
}

TEST_F(OlderArtworkTest, AHeldConnectionCopiesEveryCoverInOneSession) {
  ASSERT_EQ(Covered().size(), colours.size());
  sim->reset_stats(kUdid);
  ASSERT_EQ(TarnHoldConnection(device), 0);
  for (int round = 0; round < 5; ++round)
    for (const auto &[album, id] : Covered()) ASSERT_EQ(Copy(id, host("cover")), 0) << TarnLastError()->message;
  EXPECT_EQ(sim->stats(kUdid).tls_sessions, 1u);
  TarnReleaseConnection(device);
  ExpectIdle("released");
}

TEST_F(OlderArtworkTest, AChangedArtworkDatabaseIsReadAgainAndADamagedOneGivesAReason) {
  const auto covered = Covered();
  ASSERT_FALSE(covered.empty());
  const uint64_t id = covered.begin()->second;
  ASSERT_EQ(Copy(id, host("cover")), 0) << TarnLastError()->message;
  // Damaged on the device after a first copy: the kept copy is not used
  // again, and the cover cannot be read.
  const std::string db = media("/iTunes_Control/Artwork/ArtworkDB");
  std::string bytes = ReadAll(db);
  for (const size_t length : {bytes.size() / 3, size_t{40}, size_t{0}}) {
    SCOPED_TRACE(length);
    std::string damaged = bytes.substr(0, length);
    for (size_t at = 16; at < damaged.size(); at += 7) damaged[at] = static_cast<char>(0xff);
    std::ofstream(db, std::ios::binary | std::ios::trunc) << damaged;
    std::ofstream(host("kept"), std::ios::trunc) << "earlier";
    EXPECT_EQ(Copy(id, host("kept")), 1);
    EXPECT_EQ(TarnLastError()->code, TARN_E_DATABASE_UNREADABLE) << TarnLastError()->message;
    EXPECT_EQ(ReadAll(host("kept")), "earlier");
  }
  // Whole again: the cover comes back.
  std::ofstream(db, std::ios::binary | std::ios::trunc) << bytes;
  ASSERT_EQ(Copy(id, host("cover")), 0) << TarnLastError()->message;
  int width = 0;
  EXPECT_TRUE(CentreOfPng(host("cover"), &width));
  ExpectIdle("after the copies");
}

TEST_F(OlderArtworkTest, ANewMusicDatabaseIsReadAgainThoughTheArtworkStaysAsItWas) {
  uint64_t id = 0;
  for (const auto &[album, track] : Covered()) id = std::max(id, track);
  ASSERT_EQ(Copy(id, host("cover")), 0) << TarnLastError()->message;
  // A library of one track written over the music database, the artwork
  // files left as they were: only the music database tells that the track
  // is gone. An older device's copy is kept as long as it exists, so the
  // host copy is removed for InitDevice to make a new one.
  json small = tarn::testing::load_description("ipod");
  small["music"].erase("covers");
  small["music"]["generate"]["tracks"] = 1;
  tarn::testing::build_image(small, dir.path() + "/small");
  fs::copy_file(dir.path() + "/small/media/iTunes_Control/iTunes/iTunesCDB", media("/iTunes_Control/iTunes/iTunesCDB"),
                fs::copy_options::overwrite_existing);
  fs::remove(work() + "/iTunesCDB");
  ASSERT_EQ(Quiet([&] { return InitDevice(device, work().c_str()); }), 0) << TarnLastError()->message;
  EXPECT_EQ(Copy(id, host("cover")), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_NOT_FOUND) << TarnLastError()->message;
  EXPECT_NE(std::string(TarnLastError()->message).find("holds no track"), std::string::npos);
}

}  // namespace
}  // namespace tarn_catalogue_test
