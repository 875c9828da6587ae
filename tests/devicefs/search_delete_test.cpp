// Search by name, rename, and the single and recursive deletes.
#include <algorithm>
#include <cstring>
#include <functional>
#include <map>

#include "fs_fixture.h"

namespace tarn_fs_test {
namespace {

class SearchDeleteTest : public DeviceFsTest {
 protected:
  // "dir PATH" or "file PATH" for each result, in order.
  std::vector<std::string> Search(const char *dir, const char *keyword) {
    PodSearchItem *first = Quiet([&] { return SearchFile(device, dir, keyword); });
    std::vector<std::string> out;
    for (PodSearchItem *i = first; i; i = i->next) {
      out.push_back(i->kind ? std::string("dir ") + static_cast<PodDir *>(i->record)->path
                            : std::string("file ") + static_cast<PodFile *>(i->record)->path);
    }
    FreeSearchResult(first);
    ExpectIdle("SearchFile");
    return out;
  }
};

TEST_F(SearchDeleteTest, SearchMatchesLowerCasedNamesInPreOrder) {
  image.File("/m/Song.MP3", "abc");
  image.File("/m/Mp3s/a.mp3", "a");
  image.File("/m/other/deeper/x.mp3", "x");
  image.File("/m/other/readme.txt", "t");
  Start();
  struct Case {
    const char *keyword;
    std::vector<std::string> expected;  // sorted; the device lists siblings in an order of its own
  } cases[] = {
      // Capitals in names do not hinder a lower-case keyword.
      {"mp3", {"dir /m/Mp3s", "file /m/Mp3s/a.mp3", "file /m/Song.MP3", "file /m/other/deeper/x.mp3"}},
      // The keyword itself is not lower-cased.
      {"MP3", {}},
      // A directory whose name does not match is still searched.
      {"x.mp", {"file /m/other/deeper/x.mp3"}},
      {"deep", {"dir /m/other/deeper"}},
  };
  for (auto &c : cases) {
    std::vector<std::string> found = Search("/m", c.keyword);
    // Pre-order: a directory comes before everything found below it.
    for (size_t i = 0; i < found.size(); ++i) {
      const std::string path = found[i].substr(found[i].find(' ') + 1);
      for (size_t j = 0; j < i; ++j) {
        const std::string earlier = found[j].substr(found[j].find(' ') + 1);
        EXPECT_NE(earlier.rfind(path + "/", 0), 0u) << earlier << " listed before its directory " << path;
      }
    }
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, c.expected) << c.keyword;
  }
}

TEST_F(SearchDeleteTest, SearchResultsDescribeFilesAndDirectories) {
  image.File("/m/Tune.mp3", "12345");
  image.File("/m/Tunes/b", "b");
  Start();
  std::string out;
  PodSearchItem *first = Quiet([&] { return SearchFile(device, "/m", "tune"); }, &out);
  std::map<int, PodSearchItem *> by_kind;
  for (PodSearchItem *i = first; i; i = i->next) by_kind[i->kind] = i;
  ASSERT_EQ(by_kind.size(), 2u);
  auto *file = static_cast<PodFile *>(by_kind[0]->record);
  EXPECT_STREQ(file->name, "Tune.mp3");
  EXPECT_STREQ(file->path, "/m/Tune.mp3");
  EXPECT_STREQ(file->parent_path, "/m");
  EXPECT_STREQ(file->size, "5");
  EXPECT_NE(file->modify_date, nullptr);
  auto *dir = static_cast<PodDir *>(by_kind[1]->record);
  EXPECT_STREQ(dir->name, "Tunes");
  EXPECT_STREQ(dir->path, "/m/Tunes");
  EXPECT_EQ(dir->parent_path, nullptr);
  EXPECT_NE(dir->modify_date, nullptr);
  EXPECT_EQ(dir->first_file, nullptr) << "a found directory is not read";
  EXPECT_NE(out.find("file_path is /m/Tune.mp3\n"), std::string::npos) << out;
  EXPECT_NE(out.find("file_path dir is /m/Tunes\n"), std::string::npos) << out;
  EXPECT_NE(out.find("create_date is "), std::string::npos) << out;
  FreeSearchResult(first);
  EXPECT_EQ(SearchFile(device, "/no/such/dir", "a"), nullptr);
  ExpectIdle("SearchFile");
}

TEST_F(SearchDeleteTest, RenameAndDeleteFileReportAsDocumented) {
  image.File("/r/a", "a");
  image.Dir("/r/full/x");
  Start();
  struct Case {
    const char *what;
    std::function<int()> call;
    int result;
    int error_lines;  // "afc_error_t" lines printed
  } cases[] = {
      {"rename", [&] { return RenamePath(device, "/r/a", "/r/b"); }, 0, 1},
      {"failed rename still returns 0", [&] { return RenamePath(device, "/r/none", "/r/c"); }, 0, 2},
      {"delete file", [&] { return DeleteFile(device, "/r/b"); }, 0, 1},
      {"delete missing file", [&] { return DeleteFile(device, "/r/b"); }, 1, 2},
      {"delete non-empty directory", [&] { return DeleteFile(device, "/r/full"); }, 1, 2},
      {"delete empty directory", [&] { return DeleteFile(device, "/r/full/x"); }, 0, 1},
  };
  for (auto &c : cases) {
    const std::string out = Console([&] { EXPECT_EQ(c.call(), c.result) << c.what; });
    size_t lines = 0;
    for (size_t p = out.find("afc_error_t "); p != std::string::npos; p = out.find("afc_error_t ", p + 1)) ++lines;
    EXPECT_EQ(static_cast<int>(lines), c.error_lines) << c.what << ": " << out;
    ExpectIdle(c.what);
  }
  EXPECT_FALSE(fs::exists(image.media("/r/a")));
  EXPECT_FALSE(fs::exists(image.media("/r/b")));
  EXPECT_TRUE(fs::exists(image.media("/r/full")));
  EXPECT_FALSE(fs::exists(image.media("/r/full/x")));
}

TEST_F(SearchDeleteTest, DeleteDirRemovesEverythingInPostOrder) {
  image.File("/del/f1", "1");
  image.File("/del/a/f2", "2");
  image.File("/del/a/b/f3", "3");
  image.Dir("/del/a/b/empty");
  image.File("/del/c/f4", "4");
  image.File("/keep", "k");
  Start();
  sim->enable_log(kUdid, true);
  const std::string out = Console([&] { EXPECT_EQ(DeleteDir(device, "/del"), 0); });
  EXPECT_EQ(out.rfind("pd->name: del\n", 0), 0u) << out;
  EXPECT_FALSE(fs::exists(image.media("/del")));
  EXPECT_TRUE(fs::exists(image.media("/keep")));

  std::vector<std::string> removed;
  for (auto &r : Log({"RemovePath"})) removed.push_back(r.path);
  ASSERT_EQ(removed.size(), 9u);
  EXPECT_EQ(removed.back(), "/del") << "the given directory goes last";
  auto index = [&](const std::string &p) { return std::find(removed.begin(), removed.end(), p) - removed.begin(); };
  // Every entry is removed before the directory that holds it.
  for (size_t i = 0; i < removed.size(); ++i) {
    const std::string &p = removed[i];
    const std::string parent = p.substr(0, p.rfind('/'));
    if (parent.empty()) continue;
    EXPECT_LT(static_cast<long>(i), index(parent)) << p << " removed after its directory " << parent;
  }
  ExpectIdle("DeleteDir");
}

// Every text of a record is released with it. Texts of a MiB each stand
// far above what the heap moves by otherwise, so a plain build sees one
// that is lost.
TEST_F(SearchDeleteTest, ReleasedRecordsGiveBackEveryText) {
  constexpr size_t kBig = size_t{1} << 20;
  const auto big = [] {
    auto *text = static_cast<char *>(std::malloc(kBig));
    std::memset(text, 'x', kBig - 1);
    text[kBig - 1] = '\0';
    return text;
  };
  // A directory holding a directory and a file, every text of each big.
  const auto tree = [&] {
    auto *root = static_cast<PodDir *>(std::calloc(1, sizeof(PodDir)));
    auto *sub = static_cast<PodDir *>(std::calloc(1, sizeof(PodDir)));
    auto *file = static_cast<PodFile *>(std::calloc(1, sizeof(PodFile)));
    for (PodDir *d : {root, sub}) {
      for (char **text : {&d->name, &d->path, &d->parent_path, &d->create_date, &d->modify_date}) *text = big();
    }
    for (char **text : {&file->name, &file->path, &file->parent_path, &file->create_date, &file->modify_date, &file->size})
      *text = big();
    root->first_dir = sub;
    sub->first_file = file;
    return root;
  };
  Start();
  struct Row {
    const char *what;
    std::function<void()> call;
  } rows[] = {
      {"FreePodDir", [&] { FreePodDir(tree(), 1, nullptr); }},
      // No connection: every removal fails, and the records go all the same.
      {"_TarnDeleteDir", [&] { _TarnDeleteDir(nullptr, tree(), nullptr); }},
      {"InitDevice again", [&] {
         std::string host(kBig, '/');
         InitDevice(device, host.c_str());
       }},
  };
  for (const Row &row : rows) {
    Quiet([&] { row.call(); });
    const size_t before = tarn::testing::HeapInUse();
    for (int i = 0; i < 4; ++i) Quiet([&] { row.call(); });
    EXPECT_LT(tarn::testing::HeapInUse(), before + kBig / 2) << row.what;
  }
}

}  // namespace
}  // namespace tarn_fs_test
