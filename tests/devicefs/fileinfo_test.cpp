// The file-information vector, the existence tests and directory creation.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <functional>

#include "fs_fixture.h"

namespace tarn_fs_test {
namespace {

void SetMtime(const fs::path &p, time_t sec, long nsec) {
  const struct timespec times[2] = {{sec, nsec}, {sec, nsec}};
  ASSERT_EQ(::utimensat(AT_FDCWD, p.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << p;
}

std::string Slot(char **info, int i) { return info[i] ? info[i] : "<null>"; }

class FileInfoTest : public DeviceFsTest {};

TEST_F(FileInfoTest, VectorSlotsHoldKindSizeWholeSecondsAndBlocks) {
  image.File("/i/f", Bytes(12345));
  image.Dir("/i/d");
  Start();
  // The device counts nanoseconds; the slot holds whole seconds, and times of
  // nine digits or fewer (below one second) are kept as they are.
  const struct {
    time_t sec;
    long nsec;
    const char *slot2;
  } times[] = {{1300000000, 123456789, "1300000000"}, {1, 0, "1"}, {0, 123456789, "123456789"}, {0, 0, "0"}};
  for (auto &t : times) {
    SetMtime(image.media("/i/f"), t.sec, t.nsec);
    char **info = GetDirOrFileInfo(device, "/i/f");
    EXPECT_EQ(Slot(info, TARN_INFO_MTIME), t.slot2) << t.sec << "s " << t.nsec << "ns";
    FreeFileInfo(info);
  }
  char **info = GetDirOrFileInfo(device, "/i/f");
  EXPECT_EQ(Slot(info, TARN_INFO_KIND), "S_IFREG");
  EXPECT_EQ(Slot(info, TARN_INFO_SIZE), "12345");
  EXPECT_NE(info[TARN_INFO_BLOCKS], nullptr) << "blocks";
  // The birth time in whole seconds: at most the ten digits of a present-day time.
  ASSERT_NE(info[TARN_INFO_BIRTHTIME], nullptr);
  EXPECT_LE(std::string(info[TARN_INFO_BIRTHTIME]).size(), 10u) << info[TARN_INFO_BIRTHTIME];
  EXPECT_EQ(info[TARN_INFO_VALUES], nullptr);
  FreeFileInfo(info);

  info = GetDirOrFileInfo(device, "/i/d");
  EXPECT_EQ(Slot(info, 0), "S_IFDIR");
  FreeFileInfo(info);
  info = GetDirOrFileInfo(device, "/i/none");
  for (int i = 0; i < TARN_INFO_SLOTS; ++i) EXPECT_EQ(info[i], nullptr) << "slot " << i << " of a missing path";
  FreeFileInfo(info);
  ExpectIdle("GetDirOrFileInfo");
}

TEST_F(FileInfoTest, ExistenceTestsAndTheirConsoleLines) {
  image.File("/e/f", "x");
  image.Dir("/e/d");
  Start();
  struct Case {
    const char *what;
    std::function<int()> call;
    int result;
    const char *head;  // entry line
    bool error;        // the error code line printed a second time
  } cases[] = {
      {"IsDirExist on a directory", [&] { return IsDirExist(device, "/e/d"); }, 1, "IsDirExist\n", false},
      {"IsDirExist on a file", [&] { return IsDirExist(device, "/e/f"); }, 0, "IsDirExist\n", true},
      {"IsDirExist on nothing", [&] { return IsDirExist(device, "/e/none"); }, 0, "IsDirExist\n", true},
      {"IsFileExist on a file", [&] { return IsFileExist(device, "/e/f"); }, 1, "IsFileExist\n", false},
      {"IsFileExist on nothing", [&] { return IsFileExist(device, "/e/none"); }, 0, "IsFileExist\n", true},
  };
  for (auto &c : cases) {
    const std::string out = Console([&] { EXPECT_EQ(c.call(), c.result) << c.what; });
    int code = -1;
    ASSERT_EQ(std::sscanf(out.c_str() + std::strlen(c.head), "1afc_error_t %d\n", &code), 1) << c.what << ": " << out;
    std::string expected = std::string(c.head) + "1afc_error_t " + std::to_string(code) + "\n";
    if (c.error) expected += "afc_error_t " + std::to_string(code) + "\n";
    EXPECT_EQ(out, expected) << c.what;
    EXPECT_EQ(code != 0, c.error) << c.what;
    ExpectIdle(c.what);
  }
}

TEST_F(FileInfoTest, MakeDirCreatesParentsUnderTheSyncLock) {
  image.Dir("/mk");
  Start();
  sim->enable_log(kUdid, true);
  EXPECT_EQ(Console([&] {
              EXPECT_EQ(MakeDir(device, "/mk/a/b/c"), 0);
              EXPECT_EQ(MakeDir(device, "/mk/a/b/c"), 0) << "an existing directory is no failure";
            }),
            "MakeDir\nMakeDir\n");
  EXPECT_TRUE(fs::is_directory(image.media("/mk/a/b/c")));
  ExpectIdle("MakeDir");

  // Lock-file open and lock, the directory, unlock, close.
  std::vector<std::string> ops;
  for (auto &r : Log({"FileOpen", "FileLock", "MakeDir", "FileClose"})) ops.push_back(r.op + " " + r.path);
  ops.resize(5);
  EXPECT_EQ(ops, (std::vector<std::string>{"FileOpen /com.apple.itunes.lock_sync", "FileLock /com.apple.itunes.lock_sync",
                                           "MakeDir /mk/a/b/c", "FileLock /com.apple.itunes.lock_sync",
                                           "FileClose /com.apple.itunes.lock_sync"}));
}

}  // namespace
}  // namespace tarn_fs_test
