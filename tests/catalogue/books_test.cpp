// Books from the two catalogue plists.
#include <cstring>
#include <fstream>

#include "catalogue_fixture.h"

namespace tarn_catalogue_test {
namespace {

const json kUserBooks = json::parse(R"({"Books": [
  {"Name": "Full", "Artist": "Ar", "Album": "Al", "Genre": "Ge", "Path": "abc.epub"},
  {"Artist": "", "Album": "Al2", "Path": 5},
  {"Name": "Third", "Path": "sub/t.pdf"}]})");
const json kPurchasedBooks = json::parse(R"({"Books": [{"Name": "Bought", "Genre": "", "Path": "abc.epub"}]})");

constexpr const char *kUserCatalogue =
    "{catalog:\"UserBook\",number:3,item:["
    "{title:\"Full\",time:\"\",artist:\"Ar\",album:\"Al\",rating:\"\",genre:\"Ge\",path:\"/Books/abc.epub\"},"
    "{title:\"\",time:\"\",artist:\"(None)\",album:\"Al2\",rating:\"\",genre:\"(None)\",path:\"\"},"
    "{title:\"Third\",time:\"\",artist:\"(None)\",album:\"(None)\",rating:\"\",genre:\"(None)\","
    "path:\"/Books/sub/t.pdf\"}]}";
constexpr const char *kPurchaseCatalogue =
    "{catalog:\"PurchaseBook\",number:1,item:["
    "{title:\"Bought\",time:\"\",artist:\"(None)\",album:\"(None)\",rating:\"\",genre:\"(None)\","
    "path:\"/Books/Purchases/abc.epub\"}]}";

TEST_F(CatalogueTest, BookCataloguesInBothPlistFormsListEveryBook) {
  for (const char *format : {"xml", "binary"}) {
    SCOPED_TRACE(format);
    Reset();
    // With a music database, "BookDb" names all four types; only the two
    // plists are catalogues.
    ASSERT_EQ(Start({{"music", {{"uncompressed", true}, {"tracks", {{{"title", "t"}}}}}},
                     {"books", {{"format", format}, {"books", kUserBooks}, {"purchases", kPurchasedBooks}}}}),
              0);
    ASSERT_EQ(plist_array_get_size(plist_dict_get_item(device->dbInfo, "BookDb")), 4u);
    Plist result(Quiet([&] { return GetBookList(device, 0, 0); }));
    EXPECT_EQ(Text(result.get()), std::string("[") + kUserCatalogue + "," + kPurchaseCatalogue + "]");
    EXPECT_EQ(output.rfind("GetBookList\n..................................\nthe xml_doc:\n", 0), 0u) << output;
    ExpectIdle("the book list");
  }
}

// Handles whose dbInfo the tests write themselves: the book list never
// contacts the device.
class BookListTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Console([&] { device = CreatePodDevice(kUdid); });
    device->hostDir = strdup(dir.path().c_str());
  }
  void TearDown() override { FreePodDevice(device); }

  // The user catalogue as XML and the purchased one as binary, written by
  // the image builder and placed where InitDevice would copy them.
  void WriteCatalogues() {
    for (const char *format : {"xml", "binary"}) {
      const std::string image = dir.path() + "/" + format;
      tarn::testing::build_image(
          {{"books", {{"format", format}, {"books", kUserBooks}, {"purchases", kPurchasedBooks}}}}, image);
      const std::string from = std::string(format) == "xml" ? "/media/Books/Books.plist"
                                                              : "/media/Books/Purchases/Purchases.plist";
      fs::copy_file(image + from, dir.path() + "/" + fs::path(from).filename().string());
    }
  }
  void SetBookDb(const std::vector<std::pair<uint64_t, const char *>> &entries) {
    plist_t info = plist_new_dict();
    plist_t array = plist_new_array();
    for (const auto &[type, path] : entries) {
      plist_t pair = plist_new_dict();
      plist_dict_set_item(pair, "Type", plist_new_uint(type));
      plist_dict_set_item(pair, "Path", plist_new_string(path));
      plist_array_append_item(array, pair);
    }
    plist_dict_set_item(info, "BookDb", array);
    device->dbInfo = info;
  }

  tarn::testing::TempDir dir;
  PodDevice *device = nullptr;
};

TEST_F(BookListTest, TheWalkReadsAtMostTwoCataloguesAndKeepsAnEmptyArray) {
  WriteCatalogues();
  const std::string both = std::string("[") + kUserCatalogue + "," + kPurchaseCatalogue + "]";
  const struct {
    const char *what;
    std::vector<std::pair<uint64_t, const char *>> entries;
    std::string expected;
  } cases[] = {
      {"a third catalogue entry is not read",
       {{2, "/Books/Books.plist"}, {3, "/Books/Purchases/Purchases.plist"}, {2, "/Books/Books.plist"}},
       both},
      {"the music databases and unknown types are passed over",
       {{0, "/iTunes_Control/iTunes/iTunesCDB"}, {7, "/x/Books.plist"}, {3, "/Books/Purchases/Purchases.plist"}},
       std::string("[") + kPurchaseCatalogue + "]"},
      {"a copy is found by its base name; a missing one adds nothing",
       {{2, "/Books/Other.plist"}, {3, "/Nowhere/Books.plist"}},
       std::string("[") + kUserCatalogue + "]"},
      {"no catalogue with books gives an empty array", {{2, "/Books/Other.plist"}}, "[]"},
      {"an empty entry gives an empty array", {}, "[]"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    plist_free(device->dbInfo);
    SetBookDb(c.entries);
    std::string out;
    Plist result(tarn::testing::Quiet([&] { return GetBookList(device, 0, 0); }, &out));
    EXPECT_EQ(Text(result.get()), c.expected);
    EXPECT_EQ(out.rfind("GetBookList\n..................................\n", 0), 0u) << out;
  }

  plist_free(device->dbInfo);
  device->dbInfo = plist_new_dict();
  EXPECT_EQ(Console([&] { EXPECT_EQ(GetBookList(device, 0, 0), nullptr); }), "GetBookList\n") << "no book database: null";
}

TEST_F(BookListTest, ReadersGiveNullForWhatIsNoCatalogue) {
  WriteCatalogues();
  const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\">";
  std::ofstream(dir.path() + "/NoBooks.plist") << head << "<dict><key>Other</key><array/></dict></plist>";
  std::ofstream(dir.path() + "/Empty.plist") << head << "<dict><key>Books</key><array/></dict></plist>";
  std::ofstream(dir.path() + "/Broken.plist") << "<plist><dict><key>Books";
  const struct {
    const char *what, *file, *name;
  } cases[] = {
      {"unknown catalogue name", "/Books.plist", "/Other.plist"},
      {"no Books array", "/NoBooks.plist", "/Books.plist"},
      {"empty Books array", "/Empty.plist", "/Books.plist"},
      {"unparsable file", "/Broken.plist", "/Books.plist"},
      {"missing file", "/Missing.plist", "/Books.plist"},
  };
  for (const auto &c : cases) {
    Plist result(ReadBookDbTypePLIST((dir.path() + c.file).c_str(), c.name));
    EXPECT_EQ(Text(result.get()), "null") << c.what;
  }
}

}  // namespace
}  // namespace tarn_catalogue_test
