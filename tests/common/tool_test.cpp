// The companion library's four services.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <tuple>
#include <string>

#include "images.h"
#include "tarn/tarn_tool.h"
#include "test_util.h"

namespace {
namespace fs = std::filesystem;

TEST(TarnTool, LocalFormatTimeUsesTheLocalZoneAndFitsTheBuffer) {
  for (const auto &[zone, when, text] : {std::tuple{"UTC", 0, "1970/01/01 00:00:00"},
                                         {"Asia/Tokyo", 1300000000, "2011/03/13 16:06:40"}}) {
    tarn::testing::ScopedTimeZone tz(zone);
    char *formatted = TarnGetLocalFormatTime(when, "%Y/%m/%d %H:%M:%S", 32);
    EXPECT_STREQ(formatted, text) << zone;
    std::free(formatted);
  }

  // A text that does not fit is not cut in the middle.
  char *tiny = TarnGetLocalFormatTime(0, "%Y/%m/%d %H:%M:%S", 8);
  ASSERT_NE(tiny, nullptr);
  EXPECT_LT(std::string(tiny).size(), 8u);
  std::free(tiny);
  EXPECT_EQ(TarnGetLocalFormatTime(0, nullptr, 32), nullptr);
}

TEST(TarnTool, MkdirCreatesParentsAndReportsExistingDirectoriesAsSuccess) {
  tarn::testing::TempDir tmp;
  const fs::path root = tmp.path();
  const std::string nested = (root / "a" / "b" / "c").string();
  EXPECT_EQ(TarnMkdir(nested.c_str()), 0);
  EXPECT_TRUE(fs::is_directory(nested));
  EXPECT_EQ(TarnMkdir(nested.c_str()), 0);
  EXPECT_EQ(TarnIsFileExists(nested.c_str()), 1);

  const std::string file = (root / "plain").string();
  std::ofstream(file) << "x";
  EXPECT_NE(TarnMkdir(file.c_str()), 0);
  EXPECT_NE(TarnMkdir((file + "/below").c_str()), 0);
  EXPECT_NE(TarnMkdir(""), 0);
  EXPECT_NE(TarnMkdir(nullptr), 0);
  EXPECT_EQ(TarnIsFileExists((root / "missing").c_str()), 0);
  EXPECT_EQ(TarnIsFileExists(nullptr), 0);
}

TEST(TarnTool, ToLowerChangesOnlyAsciiLetters) {
  std::string text = "Song.MP3 \xC3\x84RGER \xE4\xB8\xAD";
  TarnToLower(text.data());
  EXPECT_EQ(text, "song.mp3 \xC3\x84rger \xE4\xB8\xAD");
  TarnToLower(nullptr);
}

}  // namespace
