// Images are read back with independent readers (libgpod, SQLite,
// libplist), never with the library under test.
#include <gpod/itdb.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <string>
#include <vector>

#include "common/plist_view.h"
#include "images.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;
using tarn::testing::ReadAll;
using tarn::testing::TempDir;

struct ItdbFree {
  void operator()(Itdb_iTunesDB *db) const { itdb_free(db); }
};
using Itdb = std::unique_ptr<Itdb_iTunesDB, ItdbFree>;

Itdb ParseImage(const std::string &image) {
  GError *error = nullptr;
  Itdb db(itdb_parse((image + "/media").c_str(), &error));
  if (error) g_error_free(error);
  return db;
}

std::string Str(const char *s) { return s ? s : "<null>"; }

std::vector<std::vector<std::string>> Rows(const std::string &file, const char *sql) {
  sqlite3 *db = nullptr;
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  std::vector<std::vector<std::string>> rows;
  sqlite3_exec(
      db, sql,
      [](void *out, int n, char **v, char **) {
        auto &r = *static_cast<std::vector<std::vector<std::string>> *>(out);
        r.emplace_back();
        for (int i = 0; i < n; ++i) r.back().push_back(v[i] ? v[i] : "<null>");
        return 0;
      },
      &rows, nullptr);
  sqlite3_close(db);
  return rows;
}

json PlistFileAsJson(const std::string &file) {
  const std::string bytes = ReadAll(file);
  plist_t root = nullptr;
  plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  if (!root) return "<unreadable>";
  json out = tarn::app::PlistToJson(root);
  plist_free(root);
  return out;
}

// Everything but the music database, read back from `media` and compared
// with what `d` asked for.
void ExpectDescribedContent(const json &d, const std::string &media) {
  EXPECT_EQ(fs::exists(media + "/com.apple.itunes.lock_sync"), d.value("sync_lock", true));
  if (d.contains("purchases")) {
    EXPECT_EQ(PlistFileAsJson(media + "/Purchases/MobileDB/TrackData.plist"), d["purchases"]["plist"]);
    for (const auto &f : d["purchases"]["files"])
      EXPECT_EQ(fs::file_size(media + "/Purchases/" + f["name"].get<std::string>()), f.value("size", uint64_t{0}));
  }
  if (d.contains("books")) {
    EXPECT_EQ(PlistFileAsJson(media + "/Books/Books.plist"), d["books"]["books"]);
    EXPECT_EQ(PlistFileAsJson(media + "/Books/Purchases/Purchases.plist"), d["books"]["purchases"]);
  }
  if (d.contains("photos")) {
    std::vector<std::vector<std::string>> want;
    for (const auto &r : d["photos"]["rows"]) {
      want.push_back({r["directory"], r["filename"]});
      const std::string file = media + "/" + want.back()[0] + "/" + want.back()[1];
      if (r.contains("size")) {
        EXPECT_EQ(fs::file_size(file), r["size"].get<uint64_t>()) << file;
      }
    }
    EXPECT_EQ(Rows(media + "/PhotoData/Photos.sqlite", "SELECT directory, filename FROM Photo"), want);
  }
  if (d.contains("recordings")) {
    std::vector<std::vector<std::string>> want;
    for (const auto &r : d["recordings"]["rows"]) {
      want.push_back({r["duration"], r["path"], r["label"].is_null() ? "<null>" : r["label"].get<std::string>()});
      const std::string file = media + "/Recordings/" + fs::path(want.back()[1]).filename().string();
      if (r.contains("size")) {
        EXPECT_EQ(fs::file_size(file), r["size"].get<uint64_t>()) << file;
      }
    }
    EXPECT_EQ(Rows(media + "/Recordings/Recordings.db", "SELECT ZDURATION, ZPATH, ZCUSTOMLABEL FROM ZRECORDING"),
              want);
  }
  for (const auto &f : d.value("files", json::array())) {
    const std::string file = media + f["path"].get<std::string>();
    if (f.value("dir", false)) {
      EXPECT_TRUE(fs::is_directory(file)) << file;
      continue;
    }
    const uint64_t size = f.contains("content") ? f["content"].get<std::string>().size() : f.value("size", uint64_t{0});
    EXPECT_EQ(fs::file_size(file), size) << file;
  }
}

// One description that asks for every part: the music database read back
// with libgpod, the rest with libplist, SQLite and the file system.
TEST(ImageBuilder, EveryPartHoldsExactlyWhatWasDescribed) {
  TempDir dir;
  const json d = json::parse(R"({
    "sync_lock": false,
    "music": {"uncompressed": true, "locations": true, "master": "My iPod",
      "tracks": [
        {"id": "a", "title": "Héllo 世界", "artist": "X", "album": "Y", "genre": "Z", "size": 300,
         "length": 61000, "rating": 80, "play_count": 7, "media_type": 1,
         "path": ":iTunes_Control:Music:F00:AAAA.mp3", "file": true},
        {"id": "b", "title": "Film", "media_type": 2},
        {"id": "c"}],
      "playlists": [{"name": "Mix", "tracks": ["c", "a"]}, {"tracks": []}]},
    "purchases": {"format": "binary", "plist": {"contentInfoByXMLFilename": {"1.xml": {"itemId": 7, "itemName": "T",
                  "com.apple.iTunesStore.downloadInfo": {"mediaAssetFilename": "1.m4a"}}}},
                  "files": [{"name": "1.m4a", "size": 300}]},
    "books": {"format": "xml", "books": {"Books": [{"Name": "B", "Path": "b.epub"}]}, "purchases": {"Books": []}},
    "photos": {"rows": [{"directory": "DCIM/100APPLE", "filename": "IMG_0001.JPG", "size": 10}]},
    "recordings": {"rows": [{"duration": "1.5", "path": "/var/mobile/Media/Recordings/r.m4a", "label": null, "size": 5}]},
    "files": [{"path": "/a/b.txt", "content": "hi", "mtime": 1000000000}, {"path": "/empty", "dir": true}],
    "tree": {"root": "/T", "fanout": 3, "depth": 2, "files": 2}})");
  tarn::testing::build_image(d, dir.path() + "/img");
  const std::string media = dir.path() + "/img/media";
  ExpectDescribedContent(d, media);
  EXPECT_EQ(ReadAll(media + "/Purchases/MobileDB/TrackData.plist").substr(0, 8), "bplist00");
  EXPECT_EQ(ReadAll(media + "/Books/Books.plist").substr(0, 5), "<?xml");
  struct stat st {};
  ::stat((media + "/a/b.txt").c_str(), &st);
  EXPECT_EQ(st.st_mtime, 1000000000);
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(media + "/T"), fs::recursive_directory_iterator()),
            3 + 9 + 9 * 2);

  // The compressed form: the flag in the header and a total length that
  // covers the deflated body; the plain form and the locations beside it.
  const std::string bytes = ReadAll(media + "/iTunes_Control/iTunes/iTunesCDB");
  ASSERT_GT(bytes.size(), 0xaau);
  EXPECT_EQ(bytes.substr(0, 4), "mhbd");
  EXPECT_EQ(bytes[0xa8], 1);
  EXPECT_EQ(*reinterpret_cast<const uint32_t *>(bytes.data() + 8), bytes.size());
  EXPECT_EQ(Rows(media + "/iTunes_Control/iTunes/iTunes Library.itlp/Locations.itdb", "SELECT count(*) FROM location"),
            (std::vector<std::vector<std::string>>{{"3"}}));
  EXPECT_EQ(fs::file_size(media + "/iTunes_Control/Music/F00/AAAA.mp3"), 300u);
  // What libgpod reads below must come out of the compressed file.
  ASSERT_TRUE(fs::remove(media + "/iTunes_Control/iTunes/iTunesDB"));
  Itdb db = ParseImage(dir.path() + "/img");
  ASSERT_TRUE(db);
  std::vector<std::string> tracks, playlists;
  for (GList *l = db->tracks; l; l = l->next) {
    auto *t = static_cast<Itdb_Track *>(l->data);
    tracks.push_back(Str(t->title) + "|" + Str(t->artist) + "|" + Str(t->album) + "|" + Str(t->genre) + "|" +
                     std::to_string(t->size) + "|" + std::to_string(t->tracklen) + "|" + std::to_string(t->rating) +
                     "|" + std::to_string(t->playcount) + "|" + std::to_string(t->mediatype) + "|" + Str(t->ipod_path));
  }
  EXPECT_EQ(tracks, (std::vector<std::string>{
                        "Héllo 世界|X|Y|Z|300|61000|80|7|1|:iTunes_Control:Music:F00:AAAA.mp3",
                        "Film|<null>|<null>|<null>|0|0|0|0|2|<null>",
                        "<null>|<null>|<null>|<null>|0|0|0|0|0|<null>",
                    }));
  for (GList *l = db->playlists; l; l = l->next) {
    auto *p = static_cast<Itdb_Playlist *>(l->data);
    std::string members;
    for (GList *m = p->members; m; m = m->next) members += Str(static_cast<Itdb_Track *>(m->data)->title) + ",";
    playlists.push_back(Str(p->name) + ":" + members);
  }
  EXPECT_EQ(playlists, (std::vector<std::string>{"My iPod:Héllo 世界,Film,<null>,", "Mix:<null>,Héllo 世界,", ":"}));
}

TEST(ImageBuilder, ShippedDescriptionsBuildAndReadBack) {
  for (const char *name : {"sample", "empty"}) {
    SCOPED_TRACE(name);
    TempDir dir;
    const json d = tarn::testing::load_description(name);
    tarn::testing::build_image(d, dir.path() + "/img");
    std::ifstream dev(dir.path() + "/img/device.json");
    EXPECT_EQ(json::parse(dev), d["device"]);
    ExpectDescribedContent(d, dir.path() + "/img/media");
    Itdb db = ParseImage(dir.path() + "/img");
    if (!d.contains("music")) {
      EXPECT_FALSE(db) << "an image without music has no database";
      continue;
    }
    ASSERT_TRUE(db);
    const json &generate = d["music"]["generate"];
    EXPECT_EQ(itdb_tracks_number(db.get()), generate["tracks"].get<uint32_t>());
    EXPECT_EQ(itdb_playlists_number(db.get()), 1u + generate["playlists"].get<uint32_t>());
    // Each track with its file when the description asks for files; the
    // window's tests count what the sample holds of every kind.
    for (GList *l = db->tracks; l; l = l->next) {
      auto *t = static_cast<Itdb_Track *>(l->data);
      ASSERT_TRUE(t->title && t->artist && t->album && t->genre && t->ipod_path);
      if (generate.value("files", false)) {
        std::string path = t->ipod_path;
        std::replace(path.begin(), path.end(), ':', '/');
        EXPECT_EQ(fs::file_size(dir.path() + "/img/media" + path), t->size) << path;
      }
    }
  }
}

TEST(ImageBuilder, BadDescriptionsFailWithAMessage) {
  TempDir dir;
  EXPECT_THROW(tarn::testing::build_image({{"music", {{"source", "/no/such/file"}}}}, dir.path() + "/a"),
               std::runtime_error);
  EXPECT_THROW(tarn::testing::build_image({{"files", {{{"path", "/../escape"}, {"size", 1}}}}}, dir.path() + "/b"),
               std::runtime_error);
  EXPECT_THROW(
      tarn::testing::build_image({{"music", {{"playlists", {{{"name", "x"}, {"tracks", {"missing"}}}}}}}}, dir.path() + "/c"),
      std::runtime_error);
}

}  // namespace
