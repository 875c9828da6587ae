// Images are read back with independent readers (libgpod, SQLite,
// libplist), never with the library under test.
#include <gpod/itdb.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <string>
#include <vector>

#include "images.h"
#include "sim_image.h"

namespace {

namespace fs = std::filesystem;
using json = nlohmann::ordered_json;
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

plist_t ReadPlist(const std::string &file) {
  std::ifstream in(file, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), {});
  plist_t root = nullptr;
  if (bytes.rfind("bplist00", 0) == 0) plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  else plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  return root;
}

TEST(ImageBuilder, MusicDatabaseHoldsExactlyTheDescribedTracksAndPlaylists) {
  TempDir dir;
  const json d = json::parse(R"({
    "music": {"uncompressed": true, "locations": true, "master": "My iPod",
      "tracks": [
        {"id": "a", "title": "Héllo 世界", "artist": "X", "album": "Y", "genre": "Z", "size": 300,
         "length": 61000, "rating": 80, "play_count": 7, "media_type": 1,
         "path": ":iTunes_Control:Music:F00:AAAA.mp3", "file": true},
        {"id": "b", "title": "Film", "media_type": 2},
        {"id": "c"}],
      "playlists": [{"name": "Mix", "tracks": ["c", "a"]}, {"tracks": []}]}})");
  tarn::testing::build_image(d, dir.path() + "/img");
  const std::string media = dir.path() + "/img/media";
  const std::string cdb = media + "/iTunes_Control/iTunes/iTunesCDB";

  // The compressed form: the flag in the header and a total length that
  // covers the deflated body.
  std::ifstream in(cdb, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), {});
  ASSERT_GT(bytes.size(), 0xaau);
  EXPECT_EQ(bytes.substr(0, 4), "mhbd");
  EXPECT_EQ(bytes[0xa8], 1);
  EXPECT_EQ(*reinterpret_cast<const uint32_t *>(bytes.data() + 8), bytes.size());
  EXPECT_TRUE(fs::exists(media + "/iTunes_Control/iTunes/iTunesDB"));
  EXPECT_EQ(Rows(media + "/iTunes_Control/iTunes/iTunes Library.itlp/Locations.itdb", "SELECT count(*) FROM location"),
            (std::vector<std::vector<std::string>>{{"3"}}));
  EXPECT_EQ(fs::file_size(media + "/iTunes_Control/Music/F00/AAAA.mp3"), 300u);

  Itdb db = ParseImage(dir.path() + "/img");
  ASSERT_TRUE(db);
  std::vector<std::string> tracks;
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
  std::vector<std::string> playlists;
  for (GList *l = db->playlists; l; l = l->next) {
    auto *p = static_cast<Itdb_Playlist *>(l->data);
    std::string members;
    for (GList *m = p->members; m; m = m->next) members += Str(static_cast<Itdb_Track *>(m->data)->title) + ",";
    playlists.push_back(Str(p->name) + ":" + members);
  }
  EXPECT_EQ(playlists, (std::vector<std::string>{"My iPod:Héllo 世界,Film,<null>,", "Mix:<null>,Héllo 世界,", ":"}));
}

TEST(ImageBuilder, PlistsAndSqliteDatabasesHoldWhatWasDescribed) {
  TempDir dir;
  const json d = json::parse(R"({
    "sync_lock": false,
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

  EXPECT_FALSE(fs::exists(media + "/com.apple.itunes.lock_sync"));
  plist_t purchases = ReadPlist(media + "/Purchases/MobileDB/TrackData.plist");
  plist_t entry = plist_dict_get_item(plist_dict_get_item(purchases, "contentInfoByXMLFilename"), "1.xml");
  uint64_t id = 0;
  plist_get_uint_val(plist_dict_get_item(entry, "itemId"), &id);
  EXPECT_EQ(id, 7u);
  plist_free(purchases);
  EXPECT_EQ(fs::file_size(media + "/Purchases/1.m4a"), 300u);

  plist_t books = ReadPlist(media + "/Books/Books.plist");
  EXPECT_EQ(plist_array_get_size(plist_dict_get_item(books, "Books")), 1u);
  plist_free(books);
  plist_t bought = ReadPlist(media + "/Books/Purchases/Purchases.plist");
  EXPECT_EQ(plist_array_get_size(plist_dict_get_item(bought, "Books")), 0u);
  plist_free(bought);

  EXPECT_EQ(Rows(media + "/PhotoData/Photos.sqlite", "SELECT directory, filename FROM Photo"),
            (std::vector<std::vector<std::string>>{{"DCIM/100APPLE", "IMG_0001.JPG"}}));
  EXPECT_EQ(fs::file_size(media + "/DCIM/100APPLE/IMG_0001.JPG"), 10u);
  EXPECT_EQ(Rows(media + "/Recordings/Recordings.db", "SELECT ZDURATION, ZPATH, ZCUSTOMLABEL FROM ZRECORDING"),
            (std::vector<std::vector<std::string>>{{"1.5", "/var/mobile/Media/Recordings/r.m4a", "<null>"}}));
  EXPECT_EQ(fs::file_size(media + "/Recordings/r.m4a"), 5u);

  struct stat st {};
  ::stat((media + "/a/b.txt").c_str(), &st);
  EXPECT_EQ(st.st_mtime, 1000000000);
  EXPECT_TRUE(fs::is_directory(media + "/empty"));
  size_t entries = 0;
  for (auto it = fs::recursive_directory_iterator(media + "/T"); it != fs::recursive_directory_iterator(); ++it) ++entries;
  EXPECT_EQ(entries, 3u + 9u + 9u * 2u);
}

TEST(ImageBuilder, ShippedDescriptionsBuildAndReadBack) {
  for (const char *name : {"sample", "empty"}) {
    SCOPED_TRACE(name);
    TempDir dir;
    const json d = tarn::testing::load_description(name);
    tarn::testing::build_image(d, dir.path() + "/img");
    std::ifstream dev(dir.path() + "/img/device.json");
    EXPECT_EQ(json::parse(dev), d["device"]);
    Itdb db = ParseImage(dir.path() + "/img");
    if (!d.contains("music")) {
      EXPECT_FALSE(db) << "an image without music has no database";
      continue;
    }
    ASSERT_TRUE(db);
    EXPECT_EQ(itdb_tracks_number(db.get()), d["music"]["generate"]["tracks"].get<uint32_t>());
    EXPECT_EQ(itdb_playlists_number(db.get()), 1u + d["music"]["generate"]["playlists"].get<uint32_t>());
    // Every kind of media is there for the catalogue lists to find.
    std::set<uint32_t> kinds;
    for (GList *l = db->tracks; l; l = l->next) kinds.insert(static_cast<Itdb_Track *>(l->data)->mediatype);
    EXPECT_EQ(kinds, (std::set<uint32_t>{0x1, 0x2, 0x4, 0x6, 0x8, 0x20, 0x40, 0x4000}));
  }
}

TEST(ImageBuilder, RealDatabasesArePlacedAsTheyAreAndParseThroughLibgpod) {
  for (const char *file : {"iphone-a.itunescdb", "iphone-b.itunescdb", "ipod-c.itunescdb",
                           "iphone-d-empty.itunescdb", "iphone-e.itunescdb", "iphone-f.itunescdb"}) {
    SCOPED_TRACE(file);
    TempDir dir;
    tarn::testing::build_image({{"music", {{"source", tarn::testing::realdata(file)}}}}, dir.path() + "/img");
    std::ifstream a(tarn::testing::realdata(file), std::ios::binary);
    std::ifstream b(dir.path() + "/img/media/iTunes_Control/iTunes/iTunesCDB", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(a), {}), std::string(std::istreambuf_iterator<char>(b), {}));
    Itdb db = ParseImage(dir.path() + "/img");
    ASSERT_TRUE(db);
    EXPECT_GE(itdb_playlists_number(db.get()), 1u);
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
