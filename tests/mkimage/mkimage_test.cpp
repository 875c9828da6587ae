// Images are read back with independent readers (libgpod, SQLite,
// libplist), never with the library under test.
#include <gpod/itdb.h>
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <string>
#include <vector>

#include "apps/common/plist_view.h"
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

// The message SQLite gives for `sql`, or "" when it runs.
std::string SqlError(const std::string &file, const char *sql) {
  sqlite3 *db = nullptr;
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  char *err = nullptr;
  sqlite3_exec(db, sql, nullptr, nullptr, &err);
  const std::string why = err ? err : "";
  sqlite3_free(err);
  sqlite3_close(db);
  return why;
}

// The database file alone, without the -wal and -shm beside it, copied to
// `dir`: what a reader that ignores the log sees.
std::string MainFileAlone(const std::string &file, const std::string &dir) {
  const std::string copy = dir + "/" + fs::path(file).filename().string();
  fs::copy_file(file, copy);
  return copy;
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

// Titles of a music library's playlist in order, through whichever
// membership form the library has: container_item rows by position, or the
// older packed blob of little-endian 64-bit item pids.
std::string PlaylistTitles(const std::string &lib, const std::string &name) {
  std::map<std::string, std::string> titles;
  for (const auto &r : Rows(lib, "SELECT item_pid, title FROM item_extra")) titles[r[0]] = r[1];
  std::string out;
  auto add = [&](const std::string &pid) { out += (out.empty() ? "" : ",") + titles.at(pid); };
  sqlite3 *db = nullptr;
  sqlite3_open_v2(lib.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_stmt *st = nullptr;
  if (sqlite3_prepare_v2(db, "SELECT ci.item_pid FROM container c JOIN container_item ci USING (container_pid) "
                             "WHERE c.name = ?1 ORDER BY ci.position", -1, &st, nullptr) == SQLITE_OK) {
    sqlite3_bind_text(st, 1, name.c_str(), -1, SQLITE_TRANSIENT);
    while (sqlite3_step(st) == SQLITE_ROW) add(std::to_string(sqlite3_column_int64(st, 0)));
  } else if (sqlite3_prepare_v2(db, "SELECT ci.item_pid_data FROM container c JOIN container_items ci "
                                    "USING (container_pid) WHERE c.name = ?1", -1, &st, nullptr) == SQLITE_OK) {
    sqlite3_bind_text(st, 1, name.c_str(), -1, SQLITE_TRANSIENT);
    if (sqlite3_step(st) == SQLITE_ROW) {
      const auto *bytes = static_cast<const uint8_t *>(sqlite3_column_blob(st, 0));
      const int n = sqlite3_column_bytes(st, 0);
      EXPECT_EQ(n % 8, 0);
      for (int at = 0; at + 8 <= n; at += 8) {
        uint64_t v = 0;
        for (int b = 7; b >= 0; --b) v = v << 8 | bytes[at + b];
        add(std::to_string(static_cast<int64_t>(v)));
      }
    }
  } else {
    ADD_FAILURE() << "no playlist membership table in " << lib;
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  return out;
}

using Table = std::vector<std::vector<std::string>>;

TEST(ImageBuilder, ShippedDescriptionsBuildAndReadBack) {
  for (const char *name : {"sample", "ipod", "empty"}) {
    SCOPED_TRACE(name);
    TempDir dir;
    const json d = tarn::testing::load_description(name);
    tarn::testing::build_image(d, dir.path() + "/img");
    const std::string media = dir.path() + "/img/media";
    std::ifstream dev(dir.path() + "/img/device.json");
    EXPECT_EQ(json::parse(dev), d["device"]);
    ExpectDescribedContent(d, media);
    Itdb db = ParseImage(dir.path() + "/img");

    if (d.contains("media_library")) {
      const json &ml = d["media_library"];
      const std::string lib = media + "/iTunes_Control/iTunes/MediaLibrary.sqlitedb";
      const uint32_t total = ml["generate"]["tracks"].get<uint32_t>();
      EXPECT_EQ(Rows(lib, "SELECT count(*) FROM item"), (Table{{std::to_string(total)}}));
      EXPECT_EQ(Rows(lib, "SELECT count(*) FROM item WHERE base_location_id = 0"),
                (Table{{std::to_string(ml["generate"]["cloud"].get<int>())}}));
      // Something of every kind: songs, music videos, movies, TV, podcasts,
      // audiobooks, home videos, and ringtones in their own folder.
      for (const char *kind : {"media_type = 8", "media_type = 1032", "media_type & 2048", "media_type & 512",
                               "media_type & 4", "media_type & 2", "media_type & 8192", "base_location_id = 3900"}) {
        EXPECT_NE(Rows(lib, (std::string("SELECT count(*) FROM item WHERE ") + kind).c_str()), (Table{{"0"}})) << kind;
      }
      // Every local item's file, at its size.
      for (const auto &r : Rows(lib, "SELECT b.path || '/' || e.location, e.file_size FROM item i JOIN item_extra e "
                                     "USING (item_pid) JOIN base_location b USING (base_location_id) "
                                     "WHERE i.base_location_id <> 0")) {
        EXPECT_EQ(fs::file_size(media + "/" + r[0]), std::stoull(r[1])) << r[0];
      }
      // The stale database beside it misses the newest tracks.
      ASSERT_TRUE(db);
      EXPECT_EQ(itdb_tracks_number(db.get()), total - ml["wal_tracks"].get<uint32_t>());
    }
    if (d.contains("photo_library")) {
      const std::string photos = media + "/PhotoData/Photos.sqlite";
      EXPECT_EQ(Rows(photos, "SELECT count(*) FROM ZASSET"),
                (Table{{std::to_string(d["photo_library"]["generate"]["assets"].get<int>())}}));
      // Photos, videos, Live Photos, screenshots; trashed, hidden and
      // cloud-only ones.
      for (const char *what : {"ZKIND = 0 AND ZKINDSUBTYPE = 0", "ZKIND = 1", "ZKINDSUBTYPE = 2", "ZKINDSUBTYPE = 10",
                               "ZTRASHEDSTATE = 1", "ZHIDDEN = 1", "Z_PK IN (SELECT ZASSET FROM ZINTERNALRESOURCE "
                               "WHERE ZLOCALAVAILABILITY = -1)"}) {
        EXPECT_NE(Rows(photos, (std::string("SELECT count(*) FROM ZASSET WHERE ") + what).c_str()), (Table{{"0"}}))
            << what;
      }
      for (const auto &r : Rows(photos, "SELECT a.ZDIRECTORY || '/' || a.ZFILENAME, r.ZLOCALAVAILABILITY FROM ZASSET a "
                                        "JOIN ZINTERNALRESOURCE r ON r.ZASSET = a.Z_PK AND r.ZRESOURCETYPE IN (0, 1)")) {
        EXPECT_EQ(fs::exists(media + "/" + r[0]), r[1] == "1") << r[0];
        EXPECT_TRUE(fs::exists(media + "/PhotoData/Thumbnails/V2/" + r[0] + "/5005.JPG")) << r[0];
      }
    }
    if (d.contains("music")) {
      ASSERT_TRUE(db);
      const json &generate = d["music"]["generate"];
      EXPECT_EQ(itdb_tracks_number(db.get()), generate["tracks"].get<uint32_t>());
      EXPECT_EQ(itdb_playlists_number(db.get()), 1u + generate["playlists"].get<uint32_t>());
      // Each track with its file when the description asks for files; the
      // window's tests count what the iPod holds of every kind.
      for (GList *l = db->tracks; l; l = l->next) {
        auto *t = static_cast<Itdb_Track *>(l->data);
        ASSERT_TRUE(t->title && t->artist && t->album && t->genre && t->ipod_path);
        if (generate.value("files", false)) {
          std::string path = t->ipod_path;
          std::replace(path.begin(), path.end(), ':', '/');
          EXPECT_EQ(fs::file_size(media + path), t->size) << path;
        }
      }
    } else if (!d.contains("media_library")) {
      EXPECT_FALSE(db) << "an image without music has no database";
    }
  }
}

// Both generations of a current phone's music library: the newest tracks
// only in the log, playlists in the described order (a repeat, and members
// that only the log adds), names reached through item's *_pid columns,
// and the date added and compilation flag where each generation keeps
// them.
TEST(ImageBuilder, MediaLibraryKeepsItsNewestTracksOnlyInTheLog) {
  for (const std::string form : {"rows", "blob"}) {
    SCOPED_TRACE(form);
    TempDir dir;
    json d = json::parse(R"({"device": {"DeviceName": "Ana's iPhone"}, "media_library": {"wal_tracks": 2,
      "legacy_cdb": true,
      "tracks": [
        {"id": "a", "title": "Alpha", "artist": "X", "album": "One", "genre": "Jazz", "size": 1000, "file": true,
         "location": "iTunes_Control/Music/F03/ABCD.mp3", "date_added": 1700000000, "play_count": 4, "rating": 80},
        {"id": "b", "title": "Bravo", "artist": "X", "album": "One", "location": "Purchases/77.m4a",
         "purchased": true, "compilation": true, "date_added": 1700000100},
        {"id": "c", "title": "Charlie", "media_type": 2048, "size": 5000},
        {"id": "d", "title": "Delta", "artist": "Y", "album": "Two", "location": "iTunes_Control/Ringtones/R.m4r",
         "file": true, "size": 10},
        {"id": "e", "title": "Echo", "artist": "Z", "album": "Three", "location": "iTunes_Control/Music/F49/E.m4a"}],
      "playlists": [{"name": "Mix", "tracks": ["e", "a", "d", "a"]}, {"name": "F", "kind": "folder"},
                    {"name": "S", "kind": "smart", "parent": "F", "tracks": ["b"]}]}})");
    d["media_library"]["form"] = form;
    tarn::testing::build_image(d, dir.path() + "/img");
    const std::string media = dir.path() + "/img/media";
    const std::string lib = media + "/iTunes_Control/iTunes/MediaLibrary.sqlitedb";
    ASSERT_TRUE(fs::exists(lib + "-wal") && fs::exists(lib + "-shm"));
    TempDir alone;
    const std::string main_only = MainFileAlone(lib, alone.path());
    const char *titles = "SELECT group_concat(title) FROM (SELECT title FROM item_extra ORDER BY title)";
    EXPECT_EQ(Rows(main_only, titles), (Table{{"Alpha,Bravo,Charlie"}}));
    EXPECT_EQ(Rows(lib, titles), (Table{{"Alpha,Bravo,Charlie,Delta,Echo"}}));
    EXPECT_EQ(Rows(main_only, "SELECT count(*) FROM item_artist WHERE item_artist IN ('Y', 'Z')"), (Table{{"0"}}));
    EXPECT_EQ(PlaylistTitles(main_only, "Mix"), "Alpha,Alpha");
    EXPECT_EQ(PlaylistTitles(lib, "Mix"), "Echo,Alpha,Delta,Alpha");
    EXPECT_EQ(PlaylistTitles(lib, "Ana's iPhone"), "Alpha,Bravo,Charlie,Delta,Echo");
    EXPECT_EQ(Rows(lib, "SELECT c.name, c.is_hidden FROM container c JOIN db_info d "
                        "ON d.primary_container_pid = c.container_pid"),
              (Table{{"Ana's iPhone", "1"}}));
    EXPECT_EQ(Rows(lib, "SELECT c.name, c.smart_criteria IS NOT NULL, c.smart_is_folder, p.name FROM container c "
                        "LEFT JOIN container p ON p.container_pid = c.parent_pid WHERE c.name IN ('F', 'S') "
                        "ORDER BY c.name"),
              (Table{{"F", "0", "1", "<null>"}, {"S", "1", "0", "F"}}));

    EXPECT_EQ(Rows(lib, "SELECT e.title, ia.item_artist, al.album, aa.album_artist, g.genre, i.media_type, b.path, "
                        "e.location, e.file_size, s.play_count_user, s.user_rating, "
                        "st.store_item_id <> 0 AND st.purchase_history_id <> 0 "
                        "FROM item i JOIN item_extra e USING (item_pid) LEFT JOIN item_stats s USING (item_pid) "
                        "LEFT JOIN item_store st USING (item_pid) "
                        "LEFT JOIN item_artist ia ON ia.item_artist_pid = i.item_artist_pid "
                        "LEFT JOIN album al ON al.album_pid = i.album_pid "
                        "LEFT JOIN album_artist aa ON aa.album_artist_pid = i.album_artist_pid "
                        "LEFT JOIN genre g ON g.genre_id = i.genre_id "
                        "LEFT JOIN base_location b ON b.base_location_id = i.base_location_id ORDER BY e.title"),
              (Table{{"Alpha", "X", "One", "X", "Jazz", "8", "iTunes_Control/Music/F03", "ABCD.mp3", "1000", "4", "80", "0"},
                     {"Bravo", "X", "One", "X", "<null>", "8", "Purchases", "77.m4a", "0", "0", "0", "1"},
                     {"Charlie", "<null>", "<null>", "<null>", "<null>", "2048", "", "", "0", "0", "0", "0"},
                     {"Delta", "Y", "Two", "Y", "<null>", "8", "iTunes_Control/Ringtones", "R.m4r", "10", "0", "0", "0"},
                     {"Echo", "Z", "Three", "Z", "<null>", "8", "iTunes_Control/Music/F49", "E.m4a", "0", "0", "0", "0"}}));
    EXPECT_EQ(fs::file_size(media + "/iTunes_Control/Music/F03/ABCD.mp3"), 1000u);
    EXPECT_EQ(fs::file_size(media + "/iTunes_Control/Ringtones/R.m4r"), 10u);
    EXPECT_FALSE(fs::exists(media + "/iTunes_Control/Music/F49/E.m4a"));
    EXPECT_NE(Rows(lib, "SELECT count(*) FROM (SELECT item_pid AS p FROM item UNION ALL SELECT container_pid FROM "
                        "container UNION ALL SELECT album_pid FROM album) WHERE p < 0"),
              (Table{{"0"}}))
        << "persistent ids are signed 64-bit values, many negative";

    // Dates in seconds since 2001.
    const char *added = form == "rows" ? "SELECT i.date_added, i.is_compilation FROM item i JOIN item_extra e "
                                         "USING (item_pid) WHERE e.title IN ('Alpha', 'Bravo') ORDER BY e.title"
                                       : "SELECT date_created, is_compilation FROM item_extra "
                                         "WHERE title IN ('Alpha', 'Bravo') ORDER BY title";
    EXPECT_EQ(Rows(lib, added), (Table{{"721692800", "0"}, {"721692900", "1"}}));
    if (form == "blob") {
      EXPECT_NE(SqlError(lib, "SELECT * FROM item_to_container").find("no such module: ML3ContainerItemToContainer"),
                std::string::npos);
      EXPECT_EQ(SqlError(lib, "SELECT * FROM item; SELECT * FROM container_items; SELECT * FROM location_kind"), "");
    } else {
      EXPECT_NE(SqlError(lib, "SELECT * FROM container_items"), "");
    }

    // The stale iTunesCDB: the tracks before the newest, not yet played.
    Itdb old = ParseImage(dir.path() + "/img");
    ASSERT_TRUE(old);
    std::vector<std::string> seen;
    for (GList *l = old->tracks; l; l = l->next) {
      auto *t = static_cast<Itdb_Track *>(l->data);
      seen.push_back(Str(t->title) + "|" + std::to_string(t->playcount));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"Alpha|0", "Bravo|0", "Charlie|0"}));
  }
}

// The photo library of a release: the join table that Z_PRIMARYKEY's
// entity numbers name, the asset table of the release, the newest assets
// only in the log, and the files beside the rows.
TEST(ImageBuilder, PhotoLibraryTakesTheShapeOfItsRelease) {
  struct Release {
    json ios;
    std::string assets, join, album_column, asset_column;
  };
  for (const Release &r : {Release{17, "ZASSET", "Z_28ASSETS", "Z_28ALBUMS", "Z_3ASSETS"},
                           Release{"17.6", "ZASSET", "Z_29ASSETS", "Z_29ALBUMS", "Z_3ASSETS"},
                           Release{13, "ZGENERICASSET", "Z_26ASSETS", "Z_26ALBUMS", "Z_34ASSETS"}}) {
    SCOPED_TRACE(r.ios.dump());
    TempDir dir;
    json d = json::parse(R"({"photo_library": {"wal_assets": 1,
      "albums": [{"title": "Trip"}, {"title": "Old", "trashed": true}],
      "assets": [
        {"directory": "DCIM/100APPLE", "filename": "IMG_0001.HEIC", "kind": "live", "taken": 1700000000, "size": 100,
         "albums": ["Trip"], "thumbnail": true, "aae": true},
        {"directory": "DCIM/100APPLE", "filename": "IMG_0002.JPG", "cloud": true, "albums": ["Trip"]},
        {"directory": "DCIM/101APPLE", "filename": "IMG_0003.MOV", "kind": "video", "duration": 4.5,
         "trashed": true, "albums": ["Old", "Trip"]},
        {"directory": "DCIM/101APPLE", "filename": "IMG_0004.PNG", "kind": "screenshot", "hidden": true,
         "albums": ["Trip"]}]}})");
    d["photo_library"]["ios"] = r.ios;
    tarn::testing::build_image(d, dir.path() + "/img");
    const std::string media = dir.path() + "/img/media";
    const std::string db = media + "/PhotoData/Photos.sqlite";

    // Found the way a reader must find it: the entity numbers, then the
    // table they name.
    const Table album_ent = Rows(db, "SELECT Z_ENT FROM Z_PRIMARYKEY WHERE Z_NAME = 'GenericAlbum'");
    const Table asset_ent = Rows(db, "SELECT Z_ENT FROM Z_PRIMARYKEY WHERE Z_NAME = 'Asset'");
    ASSERT_EQ(album_ent.size(), 1u);
    ASSERT_EQ(asset_ent.size(), 1u);
    EXPECT_EQ("Z_" + album_ent[0][0] + "ASSETS", r.join);
    EXPECT_EQ("Z_" + asset_ent[0][0] + "ASSETS", r.asset_column);
    EXPECT_EQ(Rows(db, ("SELECT name FROM pragma_table_info('" + r.join + "') ORDER BY cid").c_str()),
              (Table{{r.album_column}, {r.asset_column}, {"Z_FOK_" + r.asset_column.substr(2)}}));
    EXPECT_EQ(Rows(db, "SELECT name FROM sqlite_master WHERE name IN ('ZASSET', 'ZGENERICASSET')"), (Table{{r.assets}}));

    const std::string trip = "SELECT a.ZFILENAME FROM " + r.assets + " a JOIN " + r.join + " j ON j." +
                             r.asset_column + " = a.Z_PK JOIN ZGENERICALBUM al ON al.Z_PK = j." + r.album_column +
                             " WHERE al.ZTITLE = 'Trip' AND al.ZKIND = 2 ORDER BY j.Z_FOK_" + r.asset_column.substr(2);
    TempDir alone;
    EXPECT_EQ(Rows(MainFileAlone(db, alone.path()), trip.c_str()),
              (Table{{"IMG_0001.HEIC"}, {"IMG_0002.JPG"}, {"IMG_0003.MOV"}}));
    EXPECT_EQ(Rows(db, trip.c_str()), (Table{{"IMG_0001.HEIC"}, {"IMG_0002.JPG"}, {"IMG_0003.MOV"}, {"IMG_0004.PNG"}}));
    EXPECT_EQ(Rows(db, ("SELECT a.ZFILENAME, a.ZKIND, a.ZKINDSUBTYPE, a.ZTRASHEDSTATE, a.ZTRASHEDDATE IS NOT NULL, "
                        "a.ZHIDDEN, a.ZDURATION, x.ZORIGINALFILENAME, r.ZLOCALAVAILABILITY FROM " + r.assets +
                        " a JOIN ZADDITIONALASSETATTRIBUTES x ON x.Z_PK = a.ZADDITIONALATTRIBUTES "
                        "JOIN ZINTERNALRESOURCE r ON r.ZASSET = a.Z_PK AND r.ZRESOURCETYPE IN (0, 1) ORDER BY a.Z_PK")
                           .c_str()),
              (Table{{"IMG_0001.HEIC", "0", "2", "0", "0", "0", "0.0", "IMG_0001.HEIC", "1"},
                     {"IMG_0002.JPG", "0", "0", "0", "0", "0", "0.0", "IMG_0002.JPG", "-1"},
                     {"IMG_0003.MOV", "1", "0", "1", "1", "0", "4.5", "IMG_0003.MOV", "1"},
                     {"IMG_0004.PNG", "0", "10", "0", "0", "1", "0.0", "IMG_0004.PNG", "1"}}));
    // Seconds since 2001; whole ones read back as integers (the columns'
    // affinity), the others as reals.
    EXPECT_EQ(Rows(db, ("SELECT ZDATECREATED, typeof(ZADDEDDATE) FROM " + r.assets + " WHERE Z_PK = 1").c_str()),
              (Table{{"721692800", "real"}}));

    // A Live Photo is one row and two files; a cloud original is no file.
    const std::string roll = media + "/DCIM/100APPLE/";
    EXPECT_EQ(fs::file_size(roll + "IMG_0001.HEIC"), 100u);
    EXPECT_TRUE(fs::exists(roll + "IMG_0001.MOV"));
    EXPECT_EQ(ReadAll(roll + "IMG_0001.AAE").substr(0, 5), "<?xml");
    EXPECT_FALSE(fs::exists(roll + "IMG_0002.JPG"));
    struct stat st {};
    ::stat((roll + "IMG_0001.HEIC").c_str(), &st);
    EXPECT_EQ(st.st_mtime, 1700000000);
    EXPECT_EQ(ReadAll(media + "/PhotoData/Thumbnails/V2/DCIM/100APPLE/IMG_0001.HEIC/5005.JPG").substr(0, 3),
              "\xFF\xD8\xFF");
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
