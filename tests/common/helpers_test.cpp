// The helpers decide how every result of the library spells missing values
// and joins paths, so their corner cases are pinned down here.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/db_entry.h"
#include "common/number.h"
#include "common/raii.h"
#include "tarn/tarn_device.h"
#include "images.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
using tarn::CString;
using tarn::PlistPtr;
using tarn::testing::Console;

std::string DictString(plist_t dict, const char *key) {
  plist_t node = plist_dict_get_item(dict, key);
  EXPECT_NE(node, nullptr) << key;
  if (node == nullptr) return "<missing>";
  char *value = nullptr;
  plist_get_string_val(node, &value);
  CString owned(value);
  return value ? value : "<null>";
}

TEST(StringInsertion, MissingEmptyAndNonStringValuesBecomeTheirFallbacks) {
  PlistPtr text(plist_new_string("Jazz"));
  PlistPtr empty(plist_new_string(""));
  PlistPtr number(plist_new_uint(7));
  // A value as a C text, as a node, or both (null in both columns: the
  // missing value), and what the plain and the "(None)" forms store for it.
  struct Case {
    const char *text;
    plist_t node;
    const char *plain, *none;
  } cases[] = {
      {nullptr, nullptr, "", "(None)"},
      {"", empty.get(), "", "(None)"},
      {"Jazz", text.get(), "Jazz", "Jazz"},
      {"\xe4\xb8\xad\xe6\x96\x87", nullptr, "\xe4\xb8\xad\xe6\x96\x87", "\xe4\xb8\xad\xe6\x96\x87"},
      {nullptr, number.get(), "", "(None)"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text ? c.text : "NULL");
    PlistPtr dict(plist_new_dict());
    EXPECT_EQ(InsertPlistDictString(dict.get(), "plain", c.text), 0);
    EXPECT_EQ(AddNoneValuePlistDictString(dict.get(), "none", c.text), 0);
    AddPlistStrToDict(dict.get(), "node plain", c.node);
    AddPlistNoneStrToDict(dict.get(), "node none", c.node);
    if (c.text || !c.node) {
      EXPECT_EQ(DictString(dict.get(), "plain"), c.plain);
      EXPECT_EQ(DictString(dict.get(), "none"), c.none);
    }
    if (c.node || !c.text) {
      EXPECT_EQ(DictString(dict.get(), "node plain"), c.plain);
      EXPECT_EQ(DictString(dict.get(), "node none"), c.none);
    }
  }
  PlistPtr array(plist_new_array());
  AppendPlistArrayString(array.get(), nullptr);
  char *appended = nullptr;
  plist_get_string_val(plist_array_get_item(array.get(), 0), &appended);
  CString owned(appended);
  EXPECT_STREQ(appended, "") << "an appended null text";
}

TEST(NodeCopies, NullGivesTheFallbackAndOthersAreDeepCopies) {
  PlistPtr zero(PlistCopyZero(nullptr));
  uint64_t value = 99;
  ASSERT_EQ(plist_get_node_type(zero.get()), PLIST_UINT);
  plist_get_uint_val(zero.get(), &value);
  EXPECT_EQ(value, 0u);

  PlistPtr empty(PlistCopyEmptyString(nullptr));
  ASSERT_EQ(plist_get_node_type(empty.get()), PLIST_STRING);

  // A copy of a node of another type keeps that type: an "itemId" may be
  // an integer or a string, and is carried over as it is.
  PlistPtr original(plist_new_string("12345"));
  PlistPtr copy(PlistCopyZero(original.get()));
  EXPECT_NE(copy.get(), original.get());
  EXPECT_EQ(plist_get_node_type(copy.get()), PLIST_STRING);
}

TEST(Paths, JoinsDecideTheSeparatorFromTheLastSlash) {
  struct Case {
    const char *dir, *name, *joined;
  } cases[] = {
      {"/DCIM", "100APPLE", "/DCIM/100APPLE"},
      {"/DCIM/", "100APPLE", "/DCIM/100APPLE"},
      {"/DCIM", "", "/DCIM/"},
      {"/a/", "b", "/a/b"},
      {"Books", "x.epub", "Booksx.epub"},
      {"/", "Purchases", "/Purchases"},
  };
  for (const auto &c : cases) {
    CString joined(ConcatFilePath(c.dir, c.name));
    EXPECT_STREQ(joined.get(), c.joined) << c.dir << " + " << c.name;
  }
  CString plain(ConcatStr("/tmp/work", "iTunesCDB"));
  EXPECT_STREQ(plain.get(), "/tmp/workiTunesCDB") << "ConcatStr adds no separator";
}

TEST(DeviceNumbers, TextThatOverflowsOrIsNoNumberStaysDefined) {
  struct Case {
    const char *text;
    uint64_t value;
  } cases[] = {
      {"300000", 300000},
      {"18446744073709551615", UINT64_MAX},
      {"99999999999999999999999", UINT64_MAX},
      {"12abc", 12},
      {"abc", 0},
      {"", 0},
      {nullptr, 0},
  };
  for (const auto &c : cases) EXPECT_EQ(tarn::DeviceNumber(c.text), c.value) << (c.text ? c.text : "(null)");
}

TEST(Paths, LocalCopiesAreTheBaseNameInsideTheHostFolder) {
  struct Case {
    const char *host_dir, *device_path, *local;
  } cases[] = {
      {"/tmp/work", "/iTunes_Control/iTunes/iTunesCDB", "/tmp/work/iTunesCDB"},
      {"/tmp/work/", "/iTunes_Control/iTunes/iTunesCDB", "/tmp/work/iTunesCDB"},
      {"cache", "/Books/Books.plist", "cache/Books.plist"},
      {"", "/Recordings/Recordings.db", "Recordings.db"},
      {nullptr, "noslash", "noslash"},
  };
  for (const auto &c : cases) {
    PodDevice device{};
    device.hostDir = const_cast<char *>(c.host_dir);
    EXPECT_EQ(tarn::LocalCopyPath(&device, c.device_path), c.local) << (c.host_dir ? c.host_dir : "(null)");
  }
}

TEST(Paths, FileNameAndPostfix) {
  EXPECT_STREQ(GetFileName("/iTunes_Control/iTunes/iTunesCDB"), "iTunesCDB");
  EXPECT_STREQ(GetFileName("/Books/"), "");
  EXPECT_STREQ(GetFileName("noslash"), "noslash");

  struct Case {
    const char *path, *postfix;
  } cases[] = {{"song.mp3", ".mp3"}, {"/a.b/c", ".b/c"}, {"/a/c", nullptr}, {"photo.", "."}, {".jpg", ".jpg"}};
  for (const auto &c : cases) {
    CString postfix(GetFilePostfix(c.path));
    if (c.postfix == nullptr) {
      EXPECT_EQ(postfix.get(), nullptr) << c.path;
    } else {
      EXPECT_STREQ(postfix.get(), c.postfix) << c.path;
    }
  }
}

TEST(Strings, ReplaceCharRewritesEveryTargetAndToleratesEqualCharacters) {
  CString path(ReplaceChar(":iPod_Control:Music:F00:ABCD.mp3", '/', ':'));
  EXPECT_STREQ(path.get(), "/iPod_Control/Music/F00/ABCD.mp3");
  CString blanks(ReplaceChar("a b c", '_', ' '));
  EXPECT_STREQ(blanks.get(), "a_b_c");
  CString null_text(ReplaceChar(nullptr, '/', ':'));
  EXPECT_STREQ(null_text.get(), "");
  // Equal characters would never terminate a naive scan; they give a copy.
  CString same(ReplaceChar("a:b", ':', ':'));
  EXPECT_STREQ(same.get(), "a:b");
}

TEST(HostFiles, BinaryPlistDetectionNeedsTheWholeMagicAndSizesAre64Bit) {
  tarn::testing::TempDir dir;
  const struct {
    const char *name;
    std::string bytes;
    int binary;
  } cases[] = {{"binary", "bplist00\x01\x02", 1},
               {"short", "bplist0", 0},
               {"xml", "<?xml version=\"1.0\"?><plist/>", 0},
               {"plain", std::string(1234, 'x'), 0}};
  for (const auto &c : cases) {
    const std::string path = dir.path() + "/" + c.name;
    tarn::testing::WriteAll(path, c.bytes);
    EXPECT_EQ(IsBinPlist(path.c_str()), c.binary) << c.name;
    EXPECT_EQ(GetFileSize(path.c_str()), static_cast<int64_t>(c.bytes.size())) << c.name;
    EXPECT_EQ(WGetFileSize(path.c_str()), static_cast<int64_t>(c.bytes.size())) << c.name;
  }
  EXPECT_EQ(IsBinPlist("/nonexistent/tarn/file"), 0);
  EXPECT_EQ(GetFileSize("/nonexistent/tarn/file"), 0);
  EXPECT_EQ(WGetFileSize("/nonexistent/tarn/file"), 0);

  // A sparse file past 4 GiB must not wrap around.
  const std::string big = dir.path() + "/big";
  tarn::testing::WriteAll(big, "");
  ASSERT_EQ(::truncate(big.c_str(), (int64_t{5} << 30) + 7), 0);
  EXPECT_EQ(GetFileSize(big.c_str()), (int64_t{5} << 30) + 7);
  EXPECT_EQ(WGetFileSize(big.c_str()), (int64_t{5} << 30) + 7);
}

// A list is printed as the device list's test shows; no list, only the
// separator.
TEST(Console, PrintPlistOfNothingPrintsTheSeparator) {
  EXPECT_EQ(Console([&] { PrintPlist(nullptr); }), "..................................\n");
}

}  // namespace
