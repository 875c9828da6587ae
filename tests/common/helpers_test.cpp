// The helpers decide how every result of the library spells missing values
// and joins paths, so their corner cases are pinned down here.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/raii.h"
#include "tarn/tarn_device.h"

namespace {

namespace fs = std::filesystem;
using tarn::CString;
using tarn::PlistPtr;

std::string DictString(plist_t dict, const char *key) {
  plist_t node = plist_dict_get_item(dict, key);
  EXPECT_NE(node, nullptr) << key;
  if (node == nullptr) return "<missing>";
  char *value = nullptr;
  plist_get_string_val(node, &value);
  CString owned(value);
  return value ? value : "<null>";
}

struct TempFile {
  fs::path path;
  explicit TempFile(const std::string &bytes) {
    path = fs::temp_directory_path() / ("tarn-helpers-" + std::to_string(::getpid()) + "-" +
                                        std::to_string(reinterpret_cast<uintptr_t>(this)));
    std::ofstream(path, std::ios::binary) << bytes;
  }
  ~TempFile() { fs::remove(path); }
};

TEST(StringInsertion, MissingAndEmptyTextsBecomeTheirFallbacks) {
  struct Case {
    const char *text;
    const char *plain;  // InsertPlistDictString
    const char *none;   // AddNoneValuePlistDictString
  } cases[] = {
      {nullptr, "", "(None)"},
      {"", "", "(None)"},
      {"Abbey Road", "Abbey Road", "Abbey Road"},
      {"\xe4\xb8\xad\xe6\x96\x87", "\xe4\xb8\xad\xe6\x96\x87", "\xe4\xb8\xad\xe6\x96\x87"},
  };
  for (const auto &c : cases) {
    PlistPtr dict(plist_new_dict());
    EXPECT_EQ(InsertPlistDictString(dict.get(), "plain", c.text), 0);
    EXPECT_EQ(AddNoneValuePlistDictString(dict.get(), "none", c.text), 0);
    EXPECT_EQ(DictString(dict.get(), "plain"), c.plain) << (c.text ? c.text : "NULL");
    EXPECT_EQ(DictString(dict.get(), "none"), c.none) << (c.text ? c.text : "NULL");
  }
}

TEST(StringInsertion, NodeCopiesFallBackForNullNonStringAndEmptyNodes) {
  PlistPtr text(plist_new_string("Jazz"));
  PlistPtr empty(plist_new_string(""));
  PlistPtr number(plist_new_uint(7));
  struct Case {
    plist_t node;
    const char *plain;
    const char *none;
  } cases[] = {
      {nullptr, "", "(None)"},
      {text.get(), "Jazz", "Jazz"},
      {empty.get(), "", "(None)"},
      {number.get(), "", "(None)"},
  };
  for (const auto &c : cases) {
    PlistPtr dict(plist_new_dict());
    AddPlistStrToDict(dict.get(), "plain", c.node);
    AddPlistNoneStrToDict(dict.get(), "none", c.node);
    EXPECT_EQ(DictString(dict.get(), "plain"), c.plain);
    EXPECT_EQ(DictString(dict.get(), "none"), c.none);
  }
}

TEST(StringInsertion, KeysKeepInsertionOrder) {
  PlistPtr dict(plist_new_dict());
  for (const char *key : {"id", "size", "path", "title"}) InsertPlistDictString(dict.get(), key, key);
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(dict.get(), &it);
  std::string order;
  for (;;) {
    char *key = nullptr;
    plist_t value = nullptr;
    plist_dict_next_item(dict.get(), it, &key, &value);
    if (key == nullptr) break;
    order += std::string(key) + ",";
    std::free(key);
  }
  std::free(it);
  EXPECT_EQ(order, "id,size,path,title,");
}

TEST(StringInsertion, ArrayAppendTurnsNullIntoEmptyString) {
  PlistPtr array(plist_new_array());
  AppendPlistArrayString(array.get(), "a");
  AppendPlistArrayString(array.get(), nullptr);
  ASSERT_EQ(plist_array_get_size(array.get()), 2u);
  char *second = nullptr;
  plist_get_string_val(plist_array_get_item(array.get(), 1), &second);
  CString owned(second);
  EXPECT_STREQ(second, "");
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

TEST(Paths, ConcatFilePathDecidesTheSeparatorFromTheLastSlash) {
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
}

TEST(Paths, ConcatStrJoinsWithoutSeparator) {
  CString joined(ConcatStr("/tmp/work", "/iTunesCDB"));
  EXPECT_STREQ(joined.get(), "/tmp/work/iTunesCDB");
  CString empty(ConcatStr("", ""));
  EXPECT_STREQ(empty.get(), "");
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

TEST(Strings, IsExistInStrIsACaseSensitiveSubstringTest) {
  EXPECT_EQ(IsExistInStr(".jpg;.jpeg;.gif;.png;.mov;", ".jpe"), 1);
  EXPECT_EQ(IsExistInStr(".jpg;.jpeg;.gif;.png;.mov;", ".JPG"), 0);
  EXPECT_EQ(IsExistInStr(".jpg;.jpeg;.gif;.png;.mov;", ".tiff"), 0);
  EXPECT_EQ(IsExistInStr(nullptr, "x"), 0);
}

TEST(HostFiles, BinaryPlistDetectionNeedsTheWholeMagic) {
  TempFile binary("bplist00\x01\x02");
  TempFile short_file("bplist0");
  TempFile xml("<?xml version=\"1.0\"?><plist/>");
  EXPECT_EQ(IsBinPlist(binary.path.c_str()), 1);
  EXPECT_EQ(IsBinPlist(short_file.path.c_str()), 0);
  EXPECT_EQ(IsBinPlist(xml.path.c_str()), 0);
  EXPECT_EQ(IsBinPlist("/nonexistent/tarn/file"), 0);
}

TEST(HostFiles, SizesAre64BitAndZeroForMissingFiles) {
  TempFile small(std::string(1234, 'x'));
  EXPECT_EQ(GetFileSize(small.path.c_str()), 1234);
  EXPECT_EQ(WGetFileSize(small.path.c_str()), 1234);
  EXPECT_EQ(WGetFileSize("/nonexistent/tarn/file"), 0);
  EXPECT_EQ(GetFileSize("/nonexistent/tarn/file"), 0);

  // A sparse file past 4 GiB must not wrap around.
  TempFile big("");
  ASSERT_EQ(::truncate(big.path.c_str(), (int64_t{5} << 30) + 7), 0);
  EXPECT_EQ(GetFileSize(big.path.c_str()), (int64_t{5} << 30) + 7);
  EXPECT_EQ(WGetFileSize(big.path.c_str()), (int64_t{5} << 30) + 7);
}

TEST(Console, PrintPlistPrintsTheSeparatorAndTheXml) {
  testing::internal::CaptureStdout();
  PrintPlist(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "..................................\n");

  PlistPtr array(plist_new_array());
  AppendPlistArrayString(array.get(), "abc");
  testing::internal::CaptureStdout();
  PrintPlist(array.get());
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("..................................\nthe xml_doc:\n <?xml", 0), 0u) << out;
  EXPECT_NE(out.find("<string>abc</string>"), std::string::npos);
}

}  // namespace
