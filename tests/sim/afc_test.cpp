// The file conduit as libimobiledevice's afc client sees it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "sim_client.h"
#include "images.h"
#include "simulator.h"
#include "test_util.h"

using namespace tarn::testing;
namespace fs = std::filesystem;

namespace {

constexpr int64_t kMtime = 1600000000;

class AfcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    build_image(nlohmann::ordered_json::parse(R"({"sync_lock": false,
      "device": {"UniqueDeviceID": "afc-dev", "FSTotalBytes": 8000000000, "FSFreeBytes": 3000000000,
                 "FSBlockSize": 8192, "Model": "MC540"},
      "files": [{"path": "/hello.txt", "content": "hello world", "mtime": 1600000000},
                {"path": "/Music/F00/b.mp3", "content": "bb"}, {"path": "/Music/F00/A.mp3", "content": "a"},
                {"path": "/Music/F00/a.mp3", "content": "aaa"}, {"path": "/Music/F00", "dir": true, "mtime": 1600000000},
                {"path": "/Music/up", "link": ".."}, {"path": "/escape_rel", "link": "../../../../.."},
                {"path": "/escape_abs", "link": "/Music"}, {"path": "/empty", "dir": true}]})"),
                img.path());
    // Something outside the media root that nothing may reach.
    std::ofstream(img.path() + "/secret") << "outside";
    sim = std::make_unique<Simulator>(std::vector<SimDevice>{{img.path(), "", {}}});
    client = std::make_unique<AfcClient>("afc-dev");
    ASSERT_TRUE(client->ok()) << client->error;
  }
  std::string media(const std::string& p) const { return img.path() + "/media/" + p; }
  afc_client_t afc() const { return client->get(); }

  TempDir img;
  std::unique_ptr<Simulator> sim;
  std::unique_ptr<AfcClient> client;
};

TEST_F(AfcTest, DeviceAndFileInformation) {
  // Capacity and free space are checked through the library's device
  // information.
  auto dev = client->device_info();
  EXPECT_EQ(dev["Model"], "MC540");
  EXPECT_EQ(dev["FSBlockSize"], "8192");

  auto f = client->file_info("/hello.txt");
  EXPECT_EQ(f["st_ifmt"], "S_IFREG");
  EXPECT_EQ(f["st_size"], "11");
  EXPECT_EQ(f["st_nlink"], "1");
  EXPECT_EQ(f["st_mtime"], std::to_string(kMtime) + "000000000");
  EXPECT_EQ(client->file_info("/Music/F00")["st_ifmt"], "S_IFDIR");
  auto link = client->file_info("/Music/up");
  EXPECT_EQ(link["st_ifmt"], "S_IFLNK");
  EXPECT_EQ(link["LinkTarget"], "..");
  afc_error_t e;
  client->file_info("/nope", &e);
  EXPECT_EQ(e, AFC_E_OBJECT_NOT_FOUND);
}

// Like a phone's file system: dots first, then an order that is stable for
// one directory but not sorted, so no caller can lean on it.
TEST_F(AfcTest, DirectoriesListDotsFirstInAStableUnsortedOrder) {
  auto sorted_tail = [](std::vector<std::string> v) {
    std::sort(v.begin() + 2, v.end());
    return v;
  };
  EXPECT_EQ(sorted_tail(client->list("/Music/F00")),
            (std::vector<std::string>{".", "..", "A.mp3", "a.mp3", "b.mp3"}));
  EXPECT_EQ(client->list("/empty"), (std::vector<std::string>{".", ".."}));
  ASSERT_EQ(afc_make_directory(afc(), "/order"), AFC_E_SUCCESS);
  for (char c = 'a'; c <= 'x'; ++c) ASSERT_EQ(client->put(std::string("/order/") + c, "x"), AFC_E_SUCCESS);
  const auto listed = client->list("/order");
  ASSERT_EQ(listed.size(), 26u);
  EXPECT_EQ(client->list("/order"), listed);
  EXPECT_NE(sorted_tail(listed), listed);
  // Through a symlink to an ancestor: a cycle that stays listable.
  EXPECT_EQ(client->list("/Music/up/Music/up/Music/F00").size(), 5u);
  // Removing a link removes the link, not what it points at.
  EXPECT_EQ(afc_remove_path(afc(), "/Music/up"), AFC_E_SUCCESS);
  EXPECT_TRUE(fs::exists(media("Music/F00/a.mp3")));
  EXPECT_EQ(afc_remove_path(afc(), "/Music"), AFC_E_DIR_NOT_EMPTY);
}

// Names as APFS keeps them: UTF-8 only, found in either normalisation,
// stored as first written.
TEST_F(AfcTest, NamesAreUtf8AndFoundInEitherNormalisation) {
  const std::string composed = "/caf\xC3\xA9", decomposed = "/cafe\xCC\x81";
  for (const std::string bad : {"/bad\xFF", "/dir\xC3/x", "/\xED\xA0\x80"}) {
    EXPECT_EQ(client->put(bad, "x"), AFC_E_INVALID_ARG) << bad;
    EXPECT_EQ(afc_make_directory(afc(), bad.c_str()), AFC_E_INVALID_ARG) << bad;
  }
  ASSERT_EQ(client->put(composed, "one"), AFC_E_SUCCESS);
  std::string back;
  EXPECT_EQ(client->get(decomposed, back), AFC_E_SUCCESS);
  EXPECT_EQ(back, "one");
  ASSERT_EQ(client->put(decomposed, "two"), AFC_E_SUCCESS);  // the same file, rewritten
  EXPECT_EQ(client->get(composed, back), AFC_E_SUCCESS);
  EXPECT_EQ(back, "two");
  const auto root = client->list("/");
  EXPECT_EQ(std::count(root.begin(), root.end(), composed.substr(1)), 1);
  EXPECT_EQ(std::count(root.begin(), root.end(), decomposed.substr(1)), 0);
}

TEST_F(AfcTest, NothingOutsideTheRootIsReachable) {
  // Whatever the path or link, the walk is clamped to the media root, so each
  // of these lands inside it (or nowhere), never on img/secret.
  for (const char* p : {"/../secret", "../../secret", "/Music/../../secret", "/escape_rel/secret",
                        "/escape_rel/../secret"}) {
    std::string data;
    EXPECT_EQ(client->get(p, data), AFC_E_OBJECT_NOT_FOUND) << p;
  }
  EXPECT_EQ(client->list("/escape_rel"), client->list("/"));
  EXPECT_EQ(client->list("/escape_abs"), client->list("/Music"));
  EXPECT_EQ(client->list("/.."), client->list("/"));
  // Creating through an escaping link also stays inside.
  EXPECT_EQ(client->put("/escape_rel/planted", "x"), AFC_E_SUCCESS);
  EXPECT_TRUE(fs::exists(media("planted")));
  EXPECT_FALSE(fs::exists(img.path() + "/planted"));
  EXPECT_EQ(afc_make_directory(afc(), "/../../made"), AFC_E_SUCCESS);
  EXPECT_TRUE(fs::is_directory(media("made")));
}

TEST_F(AfcTest, OpenModesFollowStdioSemantics) {
  struct Case {
    afc_file_mode_t mode;
    bool exists_before;
    afc_error_t open;
    std::string after_write;  // file content after writing "XY" at the start
  } cases[] = {
      {AFC_FOPEN_RDONLY, false, AFC_E_OBJECT_NOT_FOUND, ""},
      {AFC_FOPEN_RDONLY, true, AFC_E_SUCCESS, "0123"},  // write refused
      {AFC_FOPEN_RW, false, AFC_E_SUCCESS, "XY"},
      {AFC_FOPEN_RW, true, AFC_E_SUCCESS, "XY23"},
      {AFC_FOPEN_WRONLY, true, AFC_E_SUCCESS, "XY"},
      {AFC_FOPEN_WR, true, AFC_E_SUCCESS, "XY"},
      {AFC_FOPEN_APPEND, true, AFC_E_SUCCESS, "0123XY"},
      {AFC_FOPEN_RDAPPEND, false, AFC_E_SUCCESS, "XY"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "mode " << c.mode << " exists " << c.exists_before);
    fs::remove(media("m.bin"));
    if (c.exists_before) std::ofstream(media("m.bin")) << "0123";
    uint64_t h = 0;
    ASSERT_EQ(afc_file_open(afc(), "/m.bin", c.mode, &h), c.open);
    if (c.open != AFC_E_SUCCESS) continue;
    uint32_t n = 0;
    afc_error_t w = afc_file_write(afc(), h, "XY", 2, &n);
    EXPECT_EQ(w == AFC_E_SUCCESS, c.mode != AFC_FOPEN_RDONLY);
    EXPECT_EQ(afc_file_close(afc(), h), AFC_E_SUCCESS);
    EXPECT_EQ(ReadAll(media("m.bin")), c.after_write);
  }
  uint64_t h = 0;
  EXPECT_EQ(afc_file_open(afc(), "/Music", AFC_FOPEN_RDONLY, &h), AFC_E_OBJECT_IS_DIR);
  EXPECT_EQ(afc_file_open(afc(), "/nodir/x", AFC_FOPEN_WRONLY, &h), AFC_E_OBJECT_NOT_FOUND);
}

TEST_F(AfcTest, ReadSeekTellTruncate) {
  uint64_t h = 0;
  ASSERT_EQ(afc_file_open(afc(), "/hello.txt", AFC_FOPEN_RW, &h), AFC_E_SUCCESS);
  char buf[64];
  uint32_t n = 0;
  ASSERT_EQ(afc_file_seek(afc(), h, 6, SEEK_SET), AFC_E_SUCCESS);
  ASSERT_EQ(afc_file_read(afc(), h, buf, sizeof buf, &n), AFC_E_SUCCESS);
  EXPECT_EQ(std::string(buf, n), "world");
  ASSERT_EQ(afc_file_read(afc(), h, buf, sizeof buf, &n), AFC_E_SUCCESS);
  EXPECT_EQ(n, 0u);  // end of file is an empty answer
  uint64_t pos = 0;
  ASSERT_EQ(afc_file_seek(afc(), h, -5, SEEK_END), AFC_E_SUCCESS);
  ASSERT_EQ(afc_file_tell(afc(), h, &pos), AFC_E_SUCCESS);
  EXPECT_EQ(pos, 6u);
  EXPECT_NE(afc_file_seek(afc(), h, -100, SEEK_CUR), AFC_E_SUCCESS);
  ASSERT_EQ(afc_file_truncate(afc(), h, 5), AFC_E_SUCCESS);
  EXPECT_EQ(fs::file_size(media("hello.txt")), 5u);
  EXPECT_EQ(afc_file_close(afc(), h), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_close(afc(), h), AFC_E_INVALID_ARG);  // already closed
  EXPECT_EQ(afc_truncate(afc(), "/hello.txt", 2), AFC_E_SUCCESS);
  EXPECT_EQ(fs::file_size(media("hello.txt")), 2u);
}

// Holes are answered without reading them; a read must still give the
// file's bytes wherever it starts and ends: inside a hole, across a hole's
// edge into data, up to and past the end of a file that ends in a hole.
TEST_F(AfcTest, SparseFilesReadAsTheirBytes) {
  constexpr off_t kMiB = 1 << 20;
  const std::string data(1000, 'd');
  {
    std::ofstream f(media("sparse.bin"), std::ios::binary);
    f.seekp(kMiB);
    f << data;
  }
  fs::resize_file(media("sparse.bin"), 3 * kMiB);
  std::string want(3 * kMiB, '\0');
  want.replace(kMiB, data.size(), data);

  uint64_t h = 0;
  ASSERT_EQ(afc_file_open(afc(), "/sparse.bin", AFC_FOPEN_RDONLY, &h), AFC_E_SUCCESS);
  const struct {
    uint64_t at;
    uint32_t length;
  } reads[] = {{0, 4096}, {kMiB - 100, 4096}, {kMiB + 500, 4096}, {kMiB + 4096, 65536}, {3 * kMiB - 10, 65536},
               {3 * kMiB, 100}, {5 * kMiB, 100}};
  for (const auto &r : reads) {
    SCOPED_TRACE(r.at);
    ASSERT_EQ(afc_file_seek(afc(), h, static_cast<int64_t>(r.at), SEEK_SET), AFC_E_SUCCESS);
    std::string got(r.length, 'x');
    uint32_t n = 0;
    ASSERT_EQ(afc_file_read(afc(), h, got.data(), r.length, &n), AFC_E_SUCCESS);
    got.resize(n);
    EXPECT_EQ(got, r.at < want.size() ? want.substr(r.at, r.length) : "");
    uint64_t pos = 0;
    ASSERT_EQ(afc_file_tell(afc(), h, &pos), AFC_E_SUCCESS);
    EXPECT_EQ(pos, r.at + n);
  }
  EXPECT_EQ(afc_file_close(afc(), h), AFC_E_SUCCESS);
}

TEST_F(AfcTest, LocksConflictAcrossConnections) {
  AfcClient other("afc-dev");
  ASSERT_TRUE(other.ok());
  uint64_t h1 = 0, h2 = 0;
  ASSERT_EQ(afc_file_open(afc(), "/lock", AFC_FOPEN_RW, &h1), AFC_E_SUCCESS);
  ASSERT_EQ(afc_file_open(other.get(), "/lock", AFC_FOPEN_RW, &h2), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_lock(afc(), h1, AFC_LOCK_SH), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_lock(other.get(), h2, AFC_LOCK_SH), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_lock(other.get(), h2, AFC_LOCK_EX), AFC_E_OP_WOULD_BLOCK);
  EXPECT_EQ(sim->stats("afc-dev").locks_held, 2);
  EXPECT_EQ(afc_file_lock(afc(), h1, AFC_LOCK_UN), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_lock(other.get(), h2, AFC_LOCK_EX), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_lock(afc(), h1, AFC_LOCK_EX), AFC_E_OP_WOULD_BLOCK);
  EXPECT_EQ(sim->stats("afc-dev").locks_held, 1);
  // Closing a handle gives its lock up.
  EXPECT_EQ(afc_file_close(other.get(), h2), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_lock(afc(), h1, AFC_LOCK_EX), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_close(afc(), h1), AFC_E_SUCCESS);
  EXPECT_EQ(sim->stats("afc-dev").locks_held, 0);
}

}  // namespace
