// The companion library's four services.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "tarn/tarn_tool.h"

namespace {
namespace fs = std::filesystem;

struct TempDir {
  fs::path path;
  TempDir() {
    std::string tmpl = (fs::temp_directory_path() / "tarn-tool-XXXXXX").string();
    path = ::mkdtemp(tmpl.data());
  }
  ~TempDir() { fs::remove_all(path); }
};

TEST(TarnTool, LocalFormatTimeUsesTheLocalZoneAndFitsTheBuffer) {
  const char *old_tz = std::getenv("TZ");
  std::string saved = old_tz ? old_tz : "";
  setenv("TZ", "UTC", 1);
  tzset();
  char *epoch = TarnGetLocalFormatTime(0, "%Y/%m/%d %H:%M:%S", 32);
  EXPECT_STREQ(epoch, "1970/01/01 00:00:00");
  std::free(epoch);

  setenv("TZ", "Asia/Tokyo", 1);
  tzset();
  char *tokyo = TarnGetLocalFormatTime(1300000000, "%Y/%m/%d %H:%M:%S", 32);
  EXPECT_STREQ(tokyo, "2011/03/13 16:06:40");
  std::free(tokyo);

  // A text that does not fit is not cut in the middle.
  char *tiny = TarnGetLocalFormatTime(0, "%Y/%m/%d %H:%M:%S", 8);
  ASSERT_NE(tiny, nullptr);
  EXPECT_LT(std::string(tiny).size(), 8u);
  std::free(tiny);
  EXPECT_EQ(TarnGetLocalFormatTime(0, nullptr, 32), nullptr);

  if (old_tz) setenv("TZ", saved.c_str(), 1); else unsetenv("TZ");
  tzset();
}

TEST(TarnTool, MkdirCreatesParentsAndReportsExistingDirectoriesAsSuccess) {
  TempDir tmp;
  const std::string nested = (tmp.path / "a" / "b" / "c").string();
  EXPECT_EQ(TarnMkdir(nested.c_str()), 0);
  EXPECT_TRUE(fs::is_directory(nested));
  EXPECT_EQ(TarnMkdir(nested.c_str()), 0);
  EXPECT_EQ(TarnIsFileExists(nested.c_str()), 1);

  const std::string file = (tmp.path / "plain").string();
  std::ofstream(file) << "x";
  EXPECT_NE(TarnMkdir(file.c_str()), 0);
  EXPECT_NE(TarnMkdir((file + "/below").c_str()), 0);
  EXPECT_NE(TarnMkdir(""), 0);
  EXPECT_NE(TarnMkdir(nullptr), 0);
  EXPECT_EQ(TarnIsFileExists((tmp.path / "missing").c_str()), 0);
  EXPECT_EQ(TarnIsFileExists(nullptr), 0);
}

TEST(TarnTool, ToLowerChangesOnlyAsciiLetters) {
  std::string text = "Song.MP3 \xC3\x84RGER \xE4\xB8\xAD";
  TarnToLower(text.data());
  EXPECT_EQ(text, "song.mp3 \xC3\x84rger \xE4\xB8\xAD");
  TarnToLower(nullptr);
}

}  // namespace
