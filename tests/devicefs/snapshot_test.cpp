// Directory snapshots: depth limits, counts, record fields, listing order and
// release.
#include <algorithm>
#include <functional>
#include <set>

#include "fs_fixture.h"

namespace tarn_fs_test {
namespace {

std::vector<std::string> DirNames(const PodDir *d) {
  std::vector<std::string> out;
  for (const PodDir *s = d->first_dir; s; s = s->next_dir) out.push_back(s->name);
  return out;
}

std::vector<std::string> FileNames(const PodDir *d) {
  std::vector<std::string> out;
  for (const PodFile *f = d->first_file; f; f = f->next_file) out.push_back(f->name);
  return out;
}

class SnapshotTest : public DeviceFsTest {
 protected:
  // /s: f1 f2 d1/{g1 d2/{g2 d3/{g3}}}
  void BuildTree() {
    image.File("/s/f1", "1");
    image.File("/s/f2", "22");
    image.File("/s/d1/g1", "333");
    image.File("/s/d1/d2/g2", "4444");
    image.File("/s/d1/d2/d3/g3", "55555");
  }
  PodDir *Snap(const char *path, uint32_t max_level) {
    PodDir *root = nullptr;
    Console([&] { root = GetPodDir(device, path, max_level); });
    return root;
  }
  void Free(PodDir *root) {
    Console([&] { FreePodDir(root, 1, root); });
  }
};

TEST_F(SnapshotTest, DepthLimitDecidesWhatIsReadAndCountedInTheRoot) {
  BuildTree();
  Start();
  struct Case {
    uint32_t max_level;
    int dirs, files, deepest;
  } cases[] = {{1, 1, 2, 1}, {2, 2, 3, 2}, {3, 3, 4, 3}, {0, 3, 5, 3}, {99, 3, 5, 3}};
  for (auto &c : cases) {
    PodDir *root = Snap("/s", c.max_level);
    ASSERT_NE(root, nullptr);
    SCOPED_TRACE("max_level " + std::to_string(c.max_level));
    EXPECT_EQ(root->dir_count, c.dirs);
    EXPECT_EQ(root->file_count, c.files);
    EXPECT_EQ(root->max_level, static_cast<int32_t>(c.max_level));
    EXPECT_EQ(Depth(root), c.deepest) << "the last permitted level is recorded, its content is not read";
    Free(root);
    ExpectIdle("GetPodDir");
  }
}

TEST_F(SnapshotTest, RecordsCarryPathsSizesDatesAndLinks) {
  BuildTree();
  Start();
  PodDir *root = Snap("/s", 0);
  ASSERT_NE(root, nullptr);
  EXPECT_STREQ(root->path, "/s");
  EXPECT_EQ(root->name, nullptr);
  ASSERT_EQ(DirNames(root), std::vector<std::string>{"d1"});
  PodDir *d1 = root->first_dir;
  EXPECT_STREQ(d1->path, "/s/d1");
  EXPECT_STREQ(d1->parent_path, "/s");
  EXPECT_EQ(d1->parent, root);
  ASSERT_NE(d1->first_file, nullptr);
  PodFile *g1 = d1->first_file;
  EXPECT_STREQ(g1->name, "g1");
  EXPECT_STREQ(g1->path, "/s/d1/g1");
  EXPECT_STREQ(g1->parent_path, "/s/d1");
  EXPECT_STREQ(g1->size, "3");
  EXPECT_EQ(g1->parent, d1);

  char **info = GetDirOrFileInfo(device, "/s/d1/g1");
  EXPECT_STREQ(g1->modify_date, info[TARN_INFO_MTIME]);
  EXPECT_STREQ(g1->create_date, info[TARN_INFO_BIRTHTIME]);
  // An application fills its own records with the same two calls.
  PodDir own_dir{};
  PodFile own_file{};
  SetDirInfo(info, &own_dir, nullptr);
  SetFileInfo(info, &own_file, nullptr);
  EXPECT_STREQ(own_dir.modify_date, info[TARN_INFO_MTIME]);
  EXPECT_STREQ(own_file.create_date, info[TARN_INFO_BIRTHTIME]);
  EXPECT_STREQ(own_file.size, "3");
  for (char *text : {own_dir.create_date, own_dir.modify_date, own_file.create_date, own_file.modify_date, own_file.size})
    std::free(text);
  FreeFileInfo(info);

  // Siblings come in the device's listing order and link both ways.
  std::vector<std::string> names = FileNames(root);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"f1", "f2"}));
  PodFile *first = root->first_file;
  EXPECT_EQ(first->prev_file, nullptr);
  EXPECT_EQ(first->next_file->prev_file, first);
  Free(root);
  ExpectIdle("GetPodDir");
}

// Every record of a tree hangs below the directory that holds it, at its
// level, also when a subdirectory is listed before its siblings.
TEST_F(SnapshotTest, EachRecordHangsBelowItsOwnDirectory) {
  for (const char *file : {"/t/a/a/a/x", "/t/a/a/b", "/t/a/b", "/t/a/c/x", "/t/b", "/t/c/x"}) image.File(file, "x");
  // Byte order lists each directory "a" before the rest of its siblings.
  Start({"sorted_listing=1"});
  PodDir *root = Snap("/t", 0);
  std::set<std::string> seen;
  std::function<void(const PodDir *, int)> check = [&](const PodDir *dir, int level) {
    for (const PodFile *f = dir->first_file; f; f = f->next_file) {
      EXPECT_EQ(f->parent, dir) << f->path;
      EXPECT_EQ(std::string(dir->path) + "/" + f->name, f->path);
      seen.insert(f->path);
    }
    for (const PodDir *d = dir->first_dir; d; d = d->next_dir) {
      EXPECT_EQ(d->parent, dir) << d->path;
      EXPECT_EQ(std::string(dir->path) + "/" + d->name, d->path);
      EXPECT_EQ(d->level, level) << d->path;
      seen.insert(std::string(d->path) + "/");
      check(d, level + 1);
    }
  };
  check(root, 1);
  EXPECT_EQ(seen, (std::set<std::string>{"/t/a/", "/t/a/a/", "/t/a/a/a/", "/t/a/a/a/x", "/t/a/a/b", "/t/a/b", "/t/a/c/",
                                         "/t/a/c/x", "/t/b", "/t/c/", "/t/c/x"}));
  EXPECT_EQ(root->dir_count, 5);
  EXPECT_EQ(root->file_count, 6);
  Free(root);
}

TEST_F(SnapshotTest, EntriesOfTheDeviceRootBeginWithTwoSlashes) {
  image.Dir("/empty");
  Start();
  // The separator is always inserted, so entries of "/" begin with "//".
  PodDir *root = Snap("/", 1);
  std::set<std::string> paths;
  for (PodDir *d = root->first_dir; d; d = d->next_dir) paths.insert(d->path);
  EXPECT_TRUE(paths.count("//empty")) << "paths below / are written //name";
  Free(root);
  ExpectIdle("GetPodDir");
}

TEST_F(SnapshotTest, FreeWithAndWithoutTheDirectoryItself) {
  BuildTree();
  Start();
  PodDir *root = Snap("/s", 0);
  const std::string out = Console([&] { FreePodDir(root, 0, root); });
  // Subdirectories first, then the files of each directory; the root's
  // two files come in the device's order.
  const std::string deep =
      "next_dir /s/d1\nnext_dir /s/d1/d2\nnext_dir /s/d1/d2/d3\nnext_file /s/d1/d2/d3/g3\n"
      "next_file /s/d1/d2/g2\nnext_file /s/d1/g1\n";
  EXPECT_EQ(out.substr(0, deep.size()), deep) << out;
  const std::string rest = out.substr(std::min(deep.size(), out.size()));
  EXPECT_TRUE(rest == "next_file /s/f1\nnext_file /s/f2\n" || rest == "next_file /s/f2\nnext_file /s/f1\n") << out;
  // The root survives, emptied and with its counts back at zero.
  EXPECT_EQ(root->dir_count, 0);
  EXPECT_EQ(root->file_count, 0);
  EXPECT_EQ(root->first_dir, nullptr);
  EXPECT_EQ(root->first_file, nullptr);
  EXPECT_STREQ(root->path, "/s");
  // Freeing it with flag 1 releases the rest (LeakSanitizer checks).
  EXPECT_EQ(Console([&] { FreePodDir(root, 1, root); }), "");
}

}  // namespace
}  // namespace tarn_fs_test
