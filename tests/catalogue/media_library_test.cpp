// The music library of current phones (MediaLibrary.sqlitedb) read from host
// copies: a real phone's library, checked against what plain SQL says of
// it, libraries of the newer schema written here with SQLite, and damaged
// files.
#include <sqlite3.h>

#include <cstring>
#include <fstream>
#include <map>

#include "catalogue_fixture.h"

namespace tarn_catalogue_test {
namespace {

// Runs SQL on a database file and gives the first column of every row.
std::vector<std::string> Sql(const std::string &db_path, const std::string &sql) {
  sqlite3 *db = nullptr;
  std::vector<std::string> rows;
  if (sqlite3_open_v2(db_path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) == SQLITE_OK) {
    char *error = nullptr;
    sqlite3_exec(
        db, sql.c_str(),
        [](void *out, int, char **values, char **) {
          static_cast<std::vector<std::string> *>(out)->push_back(values[0] ? values[0] : "");
          return 0;
        },
        &rows, &error);
    EXPECT_EQ(error, nullptr) << error << " in " << sql;
    sqlite3_free(error);
  }
  sqlite3_close(db);
  return rows;
}

uint64_t SqlNumber(const std::string &db, const std::string &sql) { return std::stoull(Sql(db, sql).at(0)); }

bool Bool(plist_t dict, const char *key) {
  uint8_t v = 0;
  plist_get_bool_val(plist_dict_get_item(dict, key), &v);
  return v != 0;
}

// The item of a list whose "id" is the library's pid.
plist_t ItemWithId(plist_t list, int64_t pid) {
  plist_t items = plist_dict_get_item(list, "item");
  for (uint32_t i = 0; i < plist_array_get_size(items); ++i)
    if (static_cast<int64_t>(Uint(plist_array_get_item(items, i), "id")) == pid) return plist_array_get_item(items, i);
  return nullptr;
}

class RealLibrary : public ::testing::Test {
 protected:
  // A private copy: SQLite may leave files beside a database it opens, and
  // the shared data stays as it is.
  void SetUp() override {
    fs::copy_file(tarn::testing::realdata_file("medialibrary/MediaLibrary.sqlitedb"), path);
  }
  tarn::testing::TempDir dir;
  std::string path = dir.path() + "/MediaLibrary.sqlitedb";
};

TEST_F(RealLibrary, KindsCountsAndTotalsAreWhatSqlSays) {
  // Songs carry bit 8, podcasts bit 4; a track has a file only with a base
  // location, a location and a size.
  const std::string local = " AND i.base_location_id <> 0 AND e.location <> '' AND e.file_size > 0";
  const std::string from = "FROM item i JOIN item_extra e USING (item_pid) WHERE ";
  struct Case {
    uint32_t kind;
    const char *bits;
  } cases[] = {{0, "(i.media_type & 8) <> 0 AND (i.media_type & 4) = 0"}, {2, "(i.media_type & 4) <> 0"}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.kind);
    Plist list(ReadTrackDbTypeSQLITE(path.c_str(), c.kind));
    ASSERT_TRUE(list);
    EXPECT_EQ(Uint(list.get(), "number"), SqlNumber(path, "SELECT count(*) " + from + c.bits));
    EXPECT_EQ(Uint(list.get(), "total"), SqlNumber(path, "SELECT total(e.file_size) " + from + c.bits + local));
    size_t cloud = 0;
    plist_t items = plist_dict_get_item(list.get(), "item");
    for (uint32_t i = 0; i < plist_array_get_size(items); ++i) {
      plist_t item = plist_array_get_item(items, i);
      if (!Bool(item, "cloud")) continue;
      ++cloud;
      EXPECT_EQ(Str(item, "path"), "");
      EXPECT_EQ(Uint(item, "size"), 0u);
    }
    EXPECT_EQ(cloud, SqlNumber(path, "SELECT count(*) " + from + c.bits + " AND NOT (1" + local + ")"));
  }
  // The library has no movie: an empty list, not none.
  Plist movies(ReadTrackDbTypeSQLITE(path.c_str(), 1));
  ASSERT_TRUE(movies);
  EXPECT_EQ(Uint(movies.get(), "number"), 0u);
}

TEST_F(RealLibrary, ItsCoversAreInACacheNoOneDescribesSoNoTrackNamesOne) {
  // Every item of this library has an artwork_cache_id with its artwork_info
  // rows; where those bytes lie is not known, so no track names a cover.
  ASSERT_GT(SqlNumber(path, "SELECT count(*) FROM item_extra WHERE artwork_cache_id <> 0"), 0u);
  for (uint32_t kind : {0u, 2u}) {
    Plist list(ReadTrackDbTypeSQLITE(path.c_str(), kind));
    ASSERT_TRUE(list);
    EXPECT_EQ(TarnLastError()->code, TARN_OK) << TarnLastError()->message;
    plist_t items = plist_dict_get_item(list.get(), "item");
    ASSERT_GT(plist_array_get_size(items), 0u);
    for (uint32_t i = 0; i < plist_array_get_size(items); ++i)
      ASSERT_EQ(plist_dict_get_item(plist_array_get_item(items, i), "artwork"), nullptr);
  }
}

TEST_F(RealLibrary, TracksCarryTheirOwnNamesNotTheirAlbumsRepresentative) {
  Plist music(ReadTrackDbTypeSQLITE(path.c_str(), 0));
  ASSERT_TRUE(music);
  // A handful of tracks, spread over the library, joined on the item's own
  // ids; most are not their album's representative item.
  const auto rows = Sql(path,
                        "SELECT i.item_pid || '|' || e.title || '|' || ifnull(ia.item_artist,'') || '|' || "
                        "ifnull(al.album,'') || '|' || ifnull(g.genre,'') || '|' || ifnull(c.composer,'') || '|' || "
                        "CAST(e.total_time_ms AS INTEGER) || '|' || ('/' || bl.path || '/' || e.location) || '|' || "
                        "e.file_size || '|' || i.track_number || '|' || ifnull(s.play_count_user, 0) "
                        "FROM item i JOIN item_extra e USING (item_pid) LEFT JOIN item_stats s USING (item_pid) "
                        "LEFT JOIN item_artist ia ON ia.item_artist_pid = i.item_artist_pid "
                        "LEFT JOIN album al ON al.album_pid = i.album_pid LEFT JOIN genre g ON g.genre_id = i.genre_id "
                        "LEFT JOIN composer c ON c.composer_pid = i.composer_pid "
                        "JOIN base_location bl ON bl.base_location_id = i.base_location_id "
                        "WHERE i.media_type = 8 AND i.base_location_id = 300 AND e.file_size > 0 "
                        "AND al.representative_item_pid <> i.item_pid ORDER BY i.item_pid LIMIT 5 OFFSET 100");
  ASSERT_EQ(rows.size(), 5u);
  for (const std::string &row : rows) {
    SCOPED_TRACE(row);
    std::vector<std::string> f;
    for (size_t at = 0, bar; (bar = row.find('|', at)), true; at = bar + 1) {
      f.push_back(row.substr(at, bar == std::string::npos ? std::string::npos : bar - at));
      if (bar == std::string::npos) break;
    }
    ASSERT_EQ(f.size(), 11u);
    plist_t item = ItemWithId(music.get(), std::stoll(f[0]));
    ASSERT_TRUE(item);
    auto known = [](const std::string &s) { return s.empty() ? std::string("(None)") : s; };
    EXPECT_EQ(Str(item, "title"), f[1]);
    EXPECT_EQ(Str(item, "artist"), known(f[2]));
    EXPECT_EQ(Str(item, "album"), known(f[3]));
    EXPECT_EQ(Str(item, "genre"), known(f[4]));
    EXPECT_EQ(Str(item, "composer"), f[5]);
    EXPECT_EQ(Uint(item, "time"), std::stoull(f[6]));
    EXPECT_EQ(Str(item, "path"), f[7]);
    EXPECT_EQ(Uint(item, "size"), std::stoull(f[8]));
    EXPECT_EQ(Uint(item, "track"), std::stoull(f[9]));
    EXPECT_EQ(Uint(item, "plays"), std::stoull(f[10]));
  }
}

TEST_F(RealLibrary, PlaylistsFromThePackedMembershipTheLibraryListFirst) {
  Plist playlists(ReadPlaylistDbTypeSQLITE(path.c_str()));
  ASSERT_TRUE(playlists);
  // The hidden "Podcasts" list is the phone's own; the library list is
  // hidden too and is kept, first.
  std::vector<std::string> seen;
  for (uint32_t i = 0; i < plist_array_get_size(playlists.get()); ++i) {
    plist_t p = plist_array_get_item(playlists.get(), i);
    seen.push_back(Str(p, "name") + ":" + Str(p, "kind") + ":" + std::to_string(Uint(p, "number")));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"myra’s iPhone:library:548", "Car:user:34", "Purchased:builtin:40"}));
  // Members in the packed order: the first ids of "Car", decoded from the
  // blob's bytes here.
  const auto hex = Sql(path, "SELECT hex(substr(ci.item_pid_data, 1, 24)) FROM container_items ci JOIN container c "
                             "USING (container_pid) WHERE c.name = 'Car'");
  ASSERT_EQ(hex.size(), 1u);
  plist_t car = plist_dict_get_item(plist_array_get_item(playlists.get(), 1), "item");
  for (int m = 0; m < 3; ++m) {
    uint64_t pid = 0;
    for (int b = 7; b >= 0; --b) pid = pid << 8 | std::stoul(hex[0].substr(m * 16 + b * 2, 2), nullptr, 16);
    EXPECT_EQ(Uint(plist_array_get_item(car, m), "id"), pid) << m;
  }
}

// A library of the newer schema: membership as positioned rows, the date
// added on the item, no statistics table, every kind of item.
constexpr const char *kNewerSchema = R"(
CREATE TABLE item (item_pid INTEGER PRIMARY KEY, media_type INTEGER, item_artist_pid INTEGER, album_pid INTEGER,
  album_artist_pid INTEGER, composer_pid INTEGER, genre_id INTEGER, disc_number INTEGER, track_number INTEGER,
  base_location_id INTEGER, date_added INTEGER, is_compilation INTEGER);
CREATE TABLE item_extra (item_pid INTEGER PRIMARY KEY, title TEXT, total_time_ms REAL, year INTEGER,
  location TEXT, file_size INTEGER, media_kind INTEGER);
CREATE TABLE item_artist (item_artist_pid INTEGER PRIMARY KEY, item_artist TEXT);
CREATE TABLE album (album_pid INTEGER PRIMARY KEY, album TEXT);
CREATE TABLE base_location (base_location_id INTEGER PRIMARY KEY, path TEXT);
CREATE TABLE container (container_pid INTEGER PRIMARY KEY, name TEXT, parent_pid INTEGER, distinguished_kind INTEGER,
  is_hidden INTEGER, smart_criteria BLOB, smart_is_folder INTEGER, smart_is_genius INTEGER);
CREATE TABLE container_item (container_item_pid INTEGER PRIMARY KEY, container_pid INTEGER, item_pid INTEGER,
  position INTEGER, occurrence_id INTEGER);
CREATE TABLE db_info (db_pid INTEGER PRIMARY KEY, primary_container_pid INTEGER);
INSERT INTO base_location VALUES (0, ''), (3843, 'iTunes_Control/Music/F03'), (3900, 'iTunes_Control/Ringtones');
INSERT INTO item_artist VALUES (-5, 'Ana');
INSERT INTO album VALUES (77, 'First');
)";

struct NewItem {
  int64_t pid;
  int64_t media_type;
  const char *title;
  int64_t base;
  const char *location;
  int64_t size;
};

class NewerLibrary : public ::testing::Test {
 protected:
  void Write(const std::vector<NewItem> &items, const std::string &extra = "") {
    std::string sql = kNewerSchema;
    for (const NewItem &i : items) {
      sql += "INSERT INTO item VALUES (" + std::to_string(i.pid) + ", " + std::to_string(i.media_type) +
             ", -5, 77, 0, 0, 0, 1, 2, " + std::to_string(i.base) + ", 600000000, 0);";
      sql += "INSERT INTO item_extra VALUES (" + std::to_string(i.pid) + ", '" + i.title + "', 1500.9, 2020, '" +
             i.location + "', " + std::to_string(i.size) + ", 1);";
    }
    Sql(path, sql + extra);
  }
  tarn::testing::TempDir dir;
  std::string path = dir.path() + "/MediaLibrary.sqlitedb";
};

TEST_F(NewerLibrary, EveryItemLandsInOneListByItsBits) {
  Write({{-1, 0x8, "song", 3843, "A.mp3", 10},
         {2, 0x408, "music video", 3843, "B.m4v", 20},
         {3, 0x800, "movie", 3843, "C.m4v", 30},
         {4, 0x2000, "home video", 3843, "D.m4v", 40},
         {5, 0x200, "tv", 3843, "E.m4v", 50},
         {6, 0x104, "video podcast", 3843, "F.m4v", 60},
         {7, 0x4, "podcast", 3843, "G.mp3", 70},
         {8, 0x2, "audiobook", 3843, "H.m4b", 80},
         {9, 0x8, "tone", 3900, "I.m4r", 90},
         {10, 0x10, "memo", 3843, "J.m4a", 100},
         {11, 0, "booklet", 3843, "K.pdf", 110},
         {12, 0x8, "in the cloud", 0, "", 0}});
  const std::map<uint32_t, std::vector<std::string>> expected = {
      {0, {"in the cloud", "music video", "song"}}, {1, {"home video", "movie"}}, {2, {"podcast", "video podcast"}},
      {3, {"tv"}}, {4, {"audiobook"}}, {5, {"tone"}}};
  for (const auto &[kind, titles] : expected) {
    Plist list(ReadTrackDbTypeSQLITE(path.c_str(), kind));
    ASSERT_TRUE(list) << kind;
    EXPECT_EQ(Column(list.get(), "title"), titles) << kind;
  }
  Plist music(ReadTrackDbTypeSQLITE(path.c_str(), 0));
  plist_t song = ItemWithId(music.get(), -1);
  ASSERT_TRUE(song);
  EXPECT_EQ(Str(song, "path"), "/iTunes_Control/Music/F03/A.mp3");
  EXPECT_EQ(Str(song, "artist"), "Ana");
  EXPECT_EQ(Str(song, "album"), "First");
  EXPECT_EQ(Str(song, "genre"), "(None)");
  EXPECT_EQ(Uint(song, "time"), 1500u);
  EXPECT_EQ(Uint(song, "plays"), 0u);  // no statistics table: unknown
  EXPECT_EQ(Uint(song, "date_added"), 600000000u + 978307200u);
  EXPECT_EQ(Uint(music.get(), "total"), 30u);  // the cloud track adds nothing
  EXPECT_TRUE(Bool(ItemWithId(music.get(), 12), "cloud"));
}

TEST_F(NewerLibrary, PlaylistsKeepPositionRepeatsKindsAndFolders) {
  Write({{1, 8, "one", 3843, "1.mp3", 1}, {2, 8, "two", 3843, "2.mp3", 1}, {3, 8, "three", 3843, "3.mp3", 1}},
        "INSERT INTO container VALUES (100, 'Phone', 0, 0, 1, NULL, 0, 0), (101, 'Road', 104, 0, 0, NULL, 0, 0),"
        " (102, 'Recent', 0, 0, 0, x'00', 0, 0), (103, 'Hidden', 0, 0, 1, NULL, 0, 0), (104, 'Trips', 0, 0, 0, "
        "NULL, 1, 0), (105, 'Mix', 0, 0, 0, NULL, 0, 1), (106, 'Purchased', 0, 20, 0, NULL, 0, 0);"
        "INSERT INTO db_info VALUES (1, 100);"
        "INSERT INTO container_item VALUES (1, 101, 3, 2, 0), (2, 101, 1, 0, 0), (3, 101, 3, 1, 1),"
        " (4, 101, 999, 3, 0), (5, 100, 1, 0, 0), (6, 100, 2, 1, 0), (7, 100, 3, 2, 0);");
  Plist playlists(ReadPlaylistDbTypeSQLITE(path.c_str()));
  ASSERT_TRUE(playlists);
  const std::vector<std::string> seen = PlaylistLines(playlists.get());
  // By position, a track twice, a member the library lacks left out.
  EXPECT_EQ(seen, (std::vector<std::string>{"Phone:library::one,two,three,", "Mix:genius::", "Purchased:builtin::",
                                            "Recent:smart::", "Road:user:Trips:one,three,three,",
                                            "Trips:folder::"}));
}

TEST_F(NewerLibrary, DamagedOrForeignFilesGiveAReasonNeverRows) {
  Write({{1, 8, "one", 3843, "1.mp3", 1}});
  const std::string whole = ReadAll(path);
  struct Case {
    const char *name;
    std::string content;
    std::string sql;  // run on a whole copy instead of writing content
  } cases[] = {
      {"truncated", whole.substr(0, 4096), ""},
      {"foreign", "This is no database at all, just a text file someone left here.\n", ""},
      {"empty header", std::string(4096, '\0'), ""},
      {"no item_extra", "", "DROP TABLE item_extra;"},
      {"no item", "", "DROP TABLE item;"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string damaged = dir.path() + "/" + c.name + ".sqlitedb";
    if (c.sql.empty()) {
      std::ofstream(damaged, std::ios::binary) << c.content;
    } else {
      std::ofstream(damaged, std::ios::binary) << whole;
      Sql(damaged, c.sql);
    }
    for (int kind = 0; kind < 2; ++kind) {
      Plist list(kind ? ReadPlaylistDbTypeSQLITE(damaged.c_str()) : ReadTrackDbTypeSQLITE(damaged.c_str(), 0));
      EXPECT_FALSE(list);
      EXPECT_EQ(TarnLastError()->code, TARN_E_DATABASE_UNREADABLE) << TarnLastError()->message;
    }
  }
  Plist absent(ReadTrackDbTypeSQLITE((dir.path() + "/none.sqlitedb").c_str(), 0));
  EXPECT_FALSE(absent);
  EXPECT_EQ(TarnLastError()->code, TARN_E_DATABASE_ABSENT);
  EXPECT_FALSE(fs::exists(dir.path() + "/none.sqlitedb")) << "a missing copy is never created";
}

}  // namespace
}  // namespace tarn_catalogue_test
