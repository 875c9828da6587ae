// Copies of whole device directory trees to the host.
#include "fs_fixture.h"

namespace tarn_fs_test {
namespace {

class CopyDirTest : public DeviceFsTest {};

TEST_F(CopyDirTest, NestedTreesAreRecreatedByteExact) {
  const std::map<std::string, std::string> files = {
      {"x", Bytes(1)},          {"b/y", Bytes(65536, 2)},      {"b/c/z", Bytes(200001, 3)},
      {"b/c/empty.bin", ""},   {"d e/with space", "spaces"},
  };
  for (auto &[rel, bytes] : files) image.File("/a/" + rel, bytes);
  image.Dir("/a/hollow");
  Start();
  sim->enable_log(kUdid, true);
  const std::string out = Console([&] { CopyDeviceDirectory(device, "/a", image.host("copy").c_str()); });
  ExpectIdle("CopyDeviceDirectory");

  std::map<std::string, std::string> expected = files;
  for (const char *d : {"b", "b/c", "d e", "hollow"}) expected[d] = "<dir>";
  EXPECT_EQ(tarn::testing::Tree(image.host("copy")), expected);
  EXPECT_EQ(out.rfind("CopyDeviceDirectory\nfrom is /a/\nto is ", 0), 0u) << out;

  // The lock brackets the whole copy: taken before the first listing,
  // released after the last file was closed.
  auto log = sim->request_log(kUdid);
  ASSERT_FALSE(log.empty());
  size_t lock = log.size(), unlock = 0, first_read = log.size(), last_read = 0;
  for (size_t i = 0; i < log.size(); ++i) {
    if (log[i].op == "FileLock" && lock == log.size()) lock = i;
    if (log[i].op == "FileLock") unlock = i;
    if (log[i].op == "ReadDirectory" && first_read == log.size()) first_read = i;
    if (log[i].op == "FileRead") last_read = i;
  }
  EXPECT_LT(lock, first_read);
  EXPECT_GT(unlock, last_read);
  // One file-information request per entry and the start: nothing asked twice.
  EXPECT_EQ(sim->stats(kUdid).total("GetFileInfo"), 1u + files.size() + 4u);
}

TEST_F(CopyDirTest, ConsoleTraceOfASmallTree) {
  image.File("/a/x", "x");
  image.File("/a/b/y", "y");
  Start();
  const std::string host = image.host("h").string();
  const std::string out = Console([&] { CopyDeviceDirectory(device, "/a", host.c_str()); });
  const std::string file_x = "from is /a/x\nto is " + host + "/x\nfile_info[0] S_IFREG\ncopy file from: /a/x\n" +
                             "copy file to: " + host + "/x\nblock_size: 65536l\nfinish _CopyFile\n" +
                             "finish copy file1\nfinish copy file2\n";
  const std::string dir_b = "from is /a/b\nto is " + host + "/b\nfile_info[0] S_IFDIR\nMkdir " + host +
                            "/b\nafc_read_directory from is /a/b/y\nto is " + host +
                            "/b/y\nfile_info[0] S_IFREG\ncopy file from: /a/b/y\ncopy file to: " + host +
                            "/b/y\nblock_size: 65536l\nfinish _CopyFile\nfinish copy file1\nfinish copy file2\n" +
                            "free(from) ";
  const std::string head = "CopyDeviceDirectory\nfrom is /a/\nto is " + host + "/\nfile_info[0] S_IFDIR\nMkdir " +
                           host + "/\nafc_read_directory ";
  EXPECT_TRUE(out == head + file_x + dir_b + "free(from) " || out == head + dir_b + file_x + "free(from) ") << out;
  EXPECT_EQ(ReadAll(image.host("h/b/y")), "y");
}

// Each missing part refuses the copy before anything is asked of the
// device (there is no connection here to ask).
TEST_F(CopyDirTest, ACopyWithoutEachOfItsPartsIsRefused) {
  const std::string host = image.host().string();
  struct Row {
    const char *parent, *name, *host;
  } rows[] = {{"/s", nullptr, host.c_str()}, {"/s", "..", host.c_str()}, {"/s", "a/b", host.c_str()},
              {nullptr, "s", host.c_str()}, {"", "s", host.c_str()},     {"/", "s", nullptr},
              {"/", "s", ""}};
  for (const Row &row : rows) {
    Quiet([&] { _CopyDirectory(nullptr, nullptr, row.parent, row.name, row.host); });
    EXPECT_EQ(TarnLastError()->code, TARN_E_INVALID_ARGUMENT) << (row.name ? row.name : "(null)");
  }
}

TEST_F(CopyDirTest, AMissingSourceCreatesNothing) {
  Start();
  const std::string out = Console([&] { CopyDeviceDirectory(device, "/none", image.host("n").c_str()); });
  EXPECT_EQ(out, "CopyDeviceDirectory\nfrom is /none/\nto is " + image.host("n").string() +
                     "/\nfile_info[0] (null)\n");
  EXPECT_FALSE(fs::exists(image.host("n")));
  ExpectIdle("CopyDeviceDirectory of a missing directory");
}

}  // namespace
}  // namespace tarn_fs_test
