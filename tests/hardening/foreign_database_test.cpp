// Databases that do not match what their readers expect: files that are no
// database at all, tables and columns of another schema, values of another
// type, property lists of another shape, truncated and damaged music
// databases. Every reader must answer null or a list that is consistent in
// itself ("number" the length of "item", "total" the sum of the sizes), and
// never crash.
#include <functional>

#include "catalogue_image.h"

namespace tarn_fs_test {
namespace {


struct DbCase {
  const char *what;
  std::string script;  // SQL, or with raw set, the file's bytes
  int number;          // items expected; -1 for null, -2 for any
  bool raw = false;
};

class ForeignDatabaseTest : public DeviceFsTest {
 protected:
  void SetUp() override {
    image.File("/com.apple.itunes.lock_sync", "");
    image.File("/Recordings/a.m4a", "12345");
    image.File("/DCIM/100APPLE/IMG_0001.JPG", "123");
    Start();
  }

  // A host file holding bytes, or an SQLite database made by script.
  std::string HostFile(const std::string &name, const std::string &bytes) {
    WriteAll(image.host(name), bytes);
    return image.host(name).string();
  }
  std::string HostDb(const std::string &name, const std::string &script) {
    fs::remove(image.host(name));
    Sql(image.host(name), script);
    return image.host(name).string();
  }

  // Each case's database, as the local copy `file`, through `reader`: a
  // consistent list or null as the case says, and nothing left open.
  template <size_t N>
  void ReadEach(const DbCase (&cases)[N], const char *file, plist_t (*reader)(PodDevice *, const char *)) {
    for (const DbCase &c : cases) {
      SCOPED_TRACE(c.what);
      const std::string path = c.raw ? HostFile(file, c.script) : HostDb(file, c.script);
      plist_t list = Quiet([&] { return reader(device, path.c_str()); });
      ExpectConsistent(list);
      if (c.number == -1) {
        EXPECT_EQ(list, nullptr);
      }
      if (c.number >= 0) {
        EXPECT_EQ(Number(list), static_cast<uint64_t>(c.number));
      }
      if (list) plist_free(list);
      ExpectIdle(c.what);
    }
  }
};

TEST_F(ForeignDatabaseTest, RecordingDatabasesOfAnotherShape) {
  const std::string table = "CREATE TABLE ZRECORDING (ZDURATION, ZPATH, ZCUSTOMLABEL);";
  const DbCase cases[] = {
      {"no database", "this is not an SQLite file, only text", -1, true},
      {"an empty file", "", -1, true},
      {"no such table", "CREATE TABLE OTHER (x);", -1},
      {"columns missing", "CREATE TABLE ZRECORDING (ZDURATION); INSERT INTO ZRECORDING VALUES (1);", -1},
      {"no rows", table, -1},
      {"a row of the expected shape", table + "INSERT INTO ZRECORDING VALUES (1.5, '/x/Recordings/a.m4a', 'l');", 1},
      // Nulls, blobs and numbers where texts belong; a path outside the
      // recordings folder; a duration that is no number.
      {"values of every type",
       table +
           "INSERT INTO ZRECORDING VALUES (NULL, NULL, NULL);"
           "INSERT INTO ZRECORDING VALUES (x'00ff', x'2f5265636f7264696e67732f00', 7);"
           "INSERT INTO ZRECORDING VALUES ('abc', 42, NULL);"
           "INSERT INTO ZRECORDING VALUES (1e308, '/etc/passwd', NULL);"
           "INSERT INTO ZRECORDING VALUES (-5, '/Recordings/', NULL);"
           "INSERT INTO ZRECORDING VALUES (2, '/x/Recordings/a.m4a', NULL);",
       -2},
  };
  ReadEach(cases, "Recordings.db", ReadRecordingDbTypeSQLITE);
}

TEST_F(ForeignDatabaseTest, CameraDatabasesOfAnotherShapeFallBackToTheCameraFolder) {
  const DbCase cases[] = {
      {"no database", std::string(2048, '\x01'), -1, true},
      {"no such table", "CREATE TABLE Other (x);", -1},
      {"columns missing", "CREATE TABLE Photo (x); INSERT INTO Photo VALUES (1);", -1},
      {"values of every type",
       "CREATE TABLE Photo (directory, filename);"
       "INSERT INTO Photo VALUES (NULL, NULL);"
       "INSERT INTO Photo VALUES (x'00', 5);"
       "INSERT INTO Photo VALUES ('DCIM/100APPLE', 'IMG_0001.JPG');",
       -2},
  };
  ReadEach(cases, "Photos.sqlite", ReadCameraDbTypeSQLITE);
}

struct PlistCase {
  const char *what;
  std::function<plist_t()> root;
};

plist_t Array(std::initializer_list<plist_t> items) {
  plist_t a = plist_new_array();
  for (plist_t i : items) plist_array_append_item(a, i);
  return a;
}

TEST_F(ForeignDatabaseTest, PurchasesOfAnotherShape) {
  const PlistCase cases[] = {
      {"an array for a root", [] { return Array({plist_new_string("x")}); }},
      {"purchases in an array", [] { return Dict({{"contentInfoByXMLFilename", Array({plist_new_dict()})}}); }},
      {"entries of every type",
       [] {
         return Dict({{"contentInfoByXMLFilename",
                       Dict({{"a", plist_new_string("not an entry")},
                             {"b", Dict({{"itemId", plist_new_bool(1)}})},
                             {"c", Dict({{"com.apple.iTunesStore.downloadInfo", plist_new_string("x")}})},
                             {"d", Dict({{"com.apple.iTunesStore.downloadInfo",
                                          Dict({{"mediaAssetFilename", plist_new_uint(5)}})}})},
                             {"e", Dict({{"com.apple.iTunesStore.downloadInfo",
                                          Dict({{"mediaAssetFilename", plist_new_string("../Recordings/a.m4a")}})},
                                         {"itemName", plist_new_uint(1)},
                                         {"duration", plist_new_string("long")}})}})}});
       }},
  };
  for (const PlistCase &c : cases) {
    SCOPED_TRACE(c.what);
    const std::string path = HostFile("TrackData.plist", BinaryPlist(c.root()));
    plist_t items = plist_new_array();
    uint64_t total = 0;
    const uint32_t n = Quiet([&] { return GetPurchaseMusicListFromPlist(device, path.c_str(), items, &total, plist_from_bin); });
    EXPECT_EQ(n, plist_array_get_size(items)) << "the count must be the items appended";
    uint64_t sum = 0;
    for (uint32_t i = 0; i < plist_array_get_size(items); ++i) {
      uint64_t size = 0;
      plist_get_uint_val(plist_dict_get_item(plist_array_get_item(items, i), "size"), &size);
      sum += size;
    }
    EXPECT_EQ(total, sum);
    plist_free(items);
    ExpectIdle(c.what);
  }
}

TEST_F(ForeignDatabaseTest, BookCataloguesOfAnotherShape) {
  const PlistCase cases[] = {
      {"an array for a root", [] { return Array({plist_new_string("Books")}); }},
      {"books in a dictionary", [] { return Dict({{"Books", Dict({{"a", plist_new_dict()}})}}); }},
      {"books of every type",
       [] {
         return Dict({{"Books", Array({plist_new_string("a book?"), plist_new_uint(3),
                                       Dict({{"Name", plist_new_uint(1)}, {"Path", Array({})}}),
                                       Dict({{"Artist", plist_new_bool(0)}, {"Path", plist_new_string("b.epub")}})})}});
       }},
  };
  for (const PlistCase &c : cases) {
    SCOPED_TRACE(c.what);
    for (const bool binary : {true, false}) {
      const std::string path = HostFile("Books.plist", PlistBytes(c.root(), binary));
      plist_t catalogue = Quiet([&] { return ReadBookDbTypePLIST(path.c_str(), "/Books.plist"); });
      if (catalogue) {
        plist_t items = plist_dict_get_item(catalogue, "item");
        ASSERT_EQ(plist_get_node_type(items), PLIST_ARRAY);
        EXPECT_EQ(Number(catalogue), plist_array_get_size(items));
        plist_free(catalogue);
      }
    }
  }
}

// Property lists whose strings hold a NUL (found by fuzzing the book
// catalogue): libplist records such a string's length past the NUL, and
// reading it aborted, copying it and printing the copy read past its end.
// Every "éé" in the strings becomes "é" and a NUL: a raw byte in XML, U+0000
// in the UTF-16 of a binary plist.
std::string WithNul(plist_t root, bool binary) {
  std::string bytes = PlistBytes(root, binary);
  const std::string marker = binary ? std::string("\x00\xe9\x00\xe9", 4) : std::string("\xc3\xa9\xc3\xa9");
  // The second "é" becomes NULs (in UTF-16 its first byte already is one).
  for (size_t at = bytes.find(marker); at != std::string::npos; at = bytes.find(marker, at + 4))
    bytes[at + 2] = bytes[at + 3] = '\0';
  return bytes;
}

std::string Text(plist_t dict, const char *key) {
  char *text = nullptr;
  plist_get_string_val(plist_dict_get_item(dict, key), &text);
  std::string out = text ? text : "(none)";
  std::free(text);
  return out;
}

TEST_F(ForeignDatabaseTest, StringsHoldingANulAreCutAtTheNul) {
  image.File("/Purchases/p\xc3\xa9", "123456");
  for (const bool binary : {true, false}) {
    SCOPED_TRACE(binary ? "binary" : "XML");
    const std::string books = HostFile(
        "Books.plist",
        WithNul(Dict({{"Books", Array({Dict({{"Name", plist_new_string("Title\xc3\xa9\xc3\xa9 tail")},
                                             {"Path", plist_new_string("a\xc3\xa9\xc3\xa9.epub")}})})}}),
                binary));
    plist_t catalogue = Quiet([&] { return ReadBookDbTypePLIST(books.c_str(), "/Books.plist"); });
    ASSERT_NE(catalogue, nullptr);
    plist_t book = plist_array_get_item(plist_dict_get_item(catalogue, "item"), 0);
    EXPECT_EQ(Text(book, "title"), "Title\xc3\xa9");
    const std::string path = Text(book, "path");
    EXPECT_EQ(path.substr(path.size() - 3), "a\xc3\xa9");
    plist_free(catalogue);

    const std::string purchases = HostFile(
        "TrackData.plist",
        WithNul(Dict({{"contentInfoByXMLFilename",
                       Dict({{"p.xml",
                              Dict({{"itemId", plist_new_uint(1)},
                                    {"com.apple.iTunesStore.downloadInfo",
                                     Dict({{"mediaAssetFilename", plist_new_string("p\xc3\xa9\xc3\xa9.m4a")}})},
                                    {"itemName", plist_new_string("Song\xc3\xa9\xc3\xa9 two")}})}})}}),
                binary));
    plist_t items = plist_new_array();
    uint64_t total = 0;
    testing::internal::CaptureStdout();
    const uint32_t n = GetPurchaseMusicListFromPlist(device, purchases.c_str(), items, &total,
                                                     binary ? plist_from_bin : plist_from_xml);
    // What an application does with a list: copy it and print it.
    plist_t copy = plist_copy(items);
    PrintPlist(copy);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(n, 1u);
    plist_t item = plist_array_get_item(copy, 0);
    EXPECT_EQ(Text(item, "title"), "Song\xc3\xa9");
    EXPECT_EQ(Text(item, "path"), "/Purchases/p\xc3\xa9");
    EXPECT_EQ(total, 6u);
    plist_free(copy);
    plist_free(items);
  }
  ExpectIdle("catalogues with a NUL in their strings");
}

TEST_F(ForeignDatabaseTest, DamagedMusicDatabasesGiveNull) {
  const std::string real = RealMusicDatabase();
  ASSERT_GT(real.size(), 256u);
  struct Case {
    const char *what;
    std::string bytes;
  } cases[] = {
      {"an empty file", ""},
      {"text", "this is no music database"},
      {"the header alone", real.substr(0, 0xF4)},
      {"cut in half", real.substr(0, real.size() / 2)},
      {"one byte short", real.substr(0, real.size() - 1)},
      {"the compressed part zeroed", real.substr(0, 0xF4) + std::string(real.size() - 0xF4, '\0')},
      {"its checksum wrong", real.substr(0, real.size() - 1) + static_cast<char>(real.back() ^ 1)},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const std::string path = HostFile("iTunesCDB", c.bytes);
    GError *error = nullptr;
    Itdb_iTunesDB *db = m_itdb_parse_file(path.c_str(), &error);
    EXPECT_EQ(db, nullptr);
    if (db) itdb_free(db);
    if (error) g_error_free(error);
    for (uint32_t kind = 0; kind <= 5; ++kind) {
      plist_t list = Quiet([&] { return ReadTrackDbTypeCdb(path.c_str(), kind); });
      EXPECT_EQ(list, nullptr) << "kind " << kind;
      if (list) plist_free(list);
    }
    plist_t playlists = Quiet([&] { return ReadPlaylistDbTypeCdb(path.c_str()); });
    EXPECT_EQ(playlists, nullptr);
    if (playlists) plist_free(playlists);
  }
}

}  // namespace
}  // namespace tarn_fs_test
