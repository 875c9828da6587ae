// A device image with every database the catalogue reads and the media files
// they name: a real compressed music database, a purchases plist, a books
// plist, voice recordings and a camera roll in SQLite, synced pictures.
// Built straight into the media tree, so that the hardening tests do not
// depend on the image builder's format.
#pragma once

#include <sqlite3.h>

#include <plist/plist.h>

#include "../devicefs/fs_fixture.h"
#include "images.h"

namespace tarn_fs_test {

inline void Sql(const fs::path &db_path, const std::string &script) {
  fs::create_directories(db_path.parent_path());
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open(db_path.c_str(), &db), SQLITE_OK);
  char *error = nullptr;
  const int rc = sqlite3_exec(db, script.c_str(), nullptr, nullptr, &error);
  EXPECT_EQ(rc, SQLITE_OK) << (error ? error : "");
  sqlite3_free(error);
  sqlite3_close(db);
}

// A property list's bytes in either form; the node is consumed.
inline std::string PlistBytes(plist_t root, bool binary) {
  char *bytes = nullptr;
  uint32_t length = 0;
  if (binary) {
    plist_to_bin(root, &bytes, &length);
  } else {
    plist_to_xml(root, &bytes, &length);
  }
  std::string out(bytes, length);
  std::free(bytes);
  plist_free(root);
  return out;
}

inline std::string BinaryPlist(plist_t root) { return PlistBytes(root, true); }

inline plist_t Dict(std::initializer_list<std::pair<const char *, plist_t>> items) {
  plist_t d = plist_new_dict();
  for (auto &[k, v] : items) plist_dict_set_item(d, k, v);
  return d;
}

inline std::string PurchasesPlist(int count) {
  plist_t entries = plist_new_dict();
  for (int i = 1; i <= count; ++i) {
    plist_dict_set_item(
        entries, ("p" + std::to_string(i) + ".xml").c_str(),
        Dict({{"itemId", plist_new_uint(9000 + i)},
              {"com.apple.iTunesStore.downloadInfo",
               Dict({{"mediaAssetFilename", plist_new_string((std::to_string(i) + ".m4a").c_str())}})},
              {"itemName", plist_new_string(("Bought " + std::to_string(i)).c_str())},
              {"bitRate", plist_new_uint(256)}}));
  }
  return BinaryPlist(Dict({{"contentInfoByXMLFilename", entries}}));
}

// The music database of a real iPhone, as the tests were given it.
inline std::string RealMusicDatabase(const char *name = "iphone-a.itunescdb") {
  return ReadAll(tarn::testing::realdata(name));
}

// The rules every counted list holds, whatever it was read from.
inline void ExpectConsistent(plist_t list, bool has_total = true) {
  if (list == nullptr) return;
  ASSERT_EQ(plist_get_node_type(list), PLIST_DICT);
  plist_t items = plist_dict_get_item(list, "item");
  ASSERT_EQ(plist_get_node_type(items), PLIST_ARRAY);
  uint64_t number = 0, total = 0, sum = 0;
  plist_get_uint_val(plist_dict_get_item(list, "number"), &number);
  EXPECT_EQ(number, plist_array_get_size(items));
  if (!has_total) return;
  for (uint32_t i = 0; i < plist_array_get_size(items); ++i) {
    uint64_t size = 0;
    plist_t node = plist_dict_get_item(plist_array_get_item(items, i), "size");
    ASSERT_EQ(plist_get_node_type(node), PLIST_UINT) << "item " << i;
    plist_get_uint_val(node, &size);
    sum += size;
  }
  plist_get_uint_val(plist_dict_get_item(list, "total"), &total);
  EXPECT_EQ(total, sum);
}

inline void AddCatalogue(const Image &image) {
  image.File("/com.apple.itunes.lock_sync", "");
  image.File("/iTunes_Control/iTunes/iTunesCDB", RealMusicDatabase());
  image.File("/Purchases/MobileDB/TrackData.plist", PurchasesPlist(2));
  image.File("/Purchases/1.m4a", std::string(300, 'a'));
  image.File("/Purchases/2.m4a", std::string(400, 'b'));
  image.File("/Books/Books.plist",
             BinaryPlist(Dict({{"Books", [] {
                                  plist_t books = plist_new_array();
                                  plist_array_append_item(books, Dict({{"Name", plist_new_string("A Book")},
                                                                       {"Path", plist_new_string("a.epub")}}));
                                  return books;
                                }()}})));
  image.File("/Recordings/20110101 120000.m4a", std::string(500, 'r'));
  image.File("/Recordings/20110102 130000.m4a", std::string(600, 'r'));
  Sql(image.media("/Recordings/Recordings.db"),
      "CREATE TABLE ZRECORDING (Z_PK INTEGER PRIMARY KEY, ZDURATION FLOAT, ZPATH VARCHAR, ZCUSTOMLABEL VARCHAR);"
      "INSERT INTO ZRECORDING VALUES (1, 12.5, '/var/mobile/Media/Recordings/20110101 120000.m4a', 'Talk');"
      "INSERT INTO ZRECORDING VALUES (2, 3, '/var/mobile/Media/Recordings/20110102 130000.m4a', NULL);");
  image.File("/DCIM/100APPLE/IMG_0001.JPG", std::string(700, 'j'));
  image.File("/DCIM/100APPLE/IMG_0002.MOV", std::string(800, 'm'));
  Sql(image.media("/PhotoData/Photos.sqlite"),
      "CREATE TABLE Photo (primaryKey INTEGER PRIMARY KEY, directory TEXT, filename TEXT);"
      "INSERT INTO Photo VALUES (1, 'DCIM/100APPLE', 'IMG_0001.JPG');"
      "INSERT INTO Photo VALUES (2, 'DCIM/100APPLE', 'IMG_0002.MOV');");
  image.File("/Photos/Thumbs/t1.jpg", std::string(90, 't'));
  image.File("/PhotoStreamsData/s/x.png", std::string(80, 's'));
}

}  // namespace tarn_fs_test
