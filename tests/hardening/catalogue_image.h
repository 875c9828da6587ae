// A device image with every database the catalogue reads and the media files
// they name: a real compressed music database, a purchases plist, a books
// plist, voice recordings and a camera roll in SQLite, synced pictures; and
// the writers of the foreign databases the hardening tests make by hand.
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

// The music database of a real iPhone, as the tests were given it.
inline std::string RealMusicDatabase(const char *name = "iphone-a.itunescdb") {
  return ReadAll(tarn::testing::realdata(name));
}

// A list's "number"; 0 for no list.
inline uint64_t Number(plist_t list) {
  uint64_t n = 0;
  if (list) plist_get_uint_val(plist_dict_get_item(list, "number"), &n);
  return n;
}

// The rules every counted list holds, whatever it was read from.
inline void ExpectConsistent(plist_t list, bool has_total = true) {
  if (list == nullptr) return;
  ASSERT_EQ(plist_get_node_type(list), PLIST_DICT);
  plist_t items = plist_dict_get_item(list, "item");
  ASSERT_EQ(plist_get_node_type(items), PLIST_ARRAY);
  uint64_t total = 0, sum = 0;
  EXPECT_EQ(Number(list), plist_array_get_size(items));
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
  image.Add(nlohmann::ordered_json::parse(R"({
    "music": {"source": ")" + tarn::testing::realdata("iphone-a.itunescdb") + R"("},
    "purchases": {"format": "binary", "plist": {"contentInfoByXMLFilename": {
        "p1.xml": {"itemId": 9001, "com.apple.iTunesStore.downloadInfo": {"mediaAssetFilename": "1.m4a"},
                   "itemName": "Bought 1", "bitRate": 256},
        "p2.xml": {"itemId": 9002, "com.apple.iTunesStore.downloadInfo": {"mediaAssetFilename": "2.m4a"},
                   "itemName": "Bought 2", "bitRate": 256}}},
      "files": [{"name": "1.m4a", "size": 300}, {"name": "2.m4a", "size": 400}]},
    "books": {"format": "binary", "books": {"Books": [{"Name": "A Book", "Path": "a.epub"}]}},
    "recordings": {"rows": [
      {"duration": 12.5, "path": "/var/mobile/Media/Recordings/20110101 120000.m4a", "label": "Talk", "size": 500},
      {"duration": 3, "path": "/var/mobile/Media/Recordings/20110102 130000.m4a", "label": null, "size": 600}]},
    "photos": {"rows": [{"directory": "DCIM/100APPLE", "filename": "IMG_0001.JPG", "size": 700},
                        {"directory": "DCIM/100APPLE", "filename": "IMG_0002.MOV", "size": 800}]},
    "files": [{"path": "/Photos/Thumbs/t1.jpg", "size": 90}, {"path": "/PhotoStreamsData/s/x.png", "size": 80}]})"));
}

}  // namespace tarn_fs_test
