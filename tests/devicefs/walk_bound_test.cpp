// Every recursive walk (snapshot, search, recursive delete, directory copy)
// ends on a device that presents a very deep tree, as one whose links lead
// back up would.
#include "fs_fixture.h"

namespace tarn_fs_test {
namespace {

constexpr int kLevels = TARN_MAX_WALK_DEPTH + 16;

class WalkBoundTest : public DeviceFsTest {
 protected:
  // /deep/f, /deep/d/f, /deep/d/d/f, ... kLevels directories deep.
  void BuildDeepTree() {
    std::string dir = "/deep";
    image.File(dir + "/f", "0");
    for (int level = 1; level <= kLevels; ++level) {
      dir += "/d";
      image.File(dir + "/f", std::to_string(level));
    }
  }
};

TEST_F(WalkBoundTest, DeepTreesAreReadDownToTheBoundAndNoFurther) {
  BuildDeepTree();
  Start();
  testing::internal::CaptureStdout();

  // Directories down to the bound are recorded; the last one is not read,
  // so the files below level TARN_MAX_WALK_DEPTH - 1 are not either.
  PodDir *root = GetPodDir(device, "/deep", 0);
  EXPECT_EQ(root->dir_count, TARN_MAX_WALK_DEPTH);
  EXPECT_EQ(root->file_count, TARN_MAX_WALK_DEPTH);
  EXPECT_EQ(Depth(root), TARN_MAX_WALK_DEPTH);
  FreePodDir(root, 1, root);

  PodSearchItem *found = SearchFile(device, "/deep", "f");
  int hits = 0;
  for (PodSearchItem *i = found; i; i = i->next) ++hits;
  FreeSearchResult(found);
  EXPECT_EQ(hits, TARN_MAX_WALK_DEPTH);

  CopyDeviceDirectory(device, "/deep", image.host("copy").c_str());
  int deepest = 0, files = 0;
  for (auto it = fs::recursive_directory_iterator(image.host("copy")); it != fs::recursive_directory_iterator(); ++it) {
    deepest = std::max(deepest, it.depth());
    if (it->is_regular_file()) ++files;
  }
  EXPECT_EQ(files, TARN_MAX_WALK_DEPTH);
  EXPECT_LT(deepest, TARN_MAX_WALK_DEPTH);

  // What lies beyond the bound is not seen, so its directories cannot be
  // emptied and stay; everything the walk saw above them is removed.
  EXPECT_EQ(DeleteDir(device, "/deep"), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_FALSE(fs::exists(image.media("/deep/f")));
  EXPECT_TRUE(fs::exists(image.media("/deep/d")));
  ExpectIdle("walks of a deep tree");
}

}  // namespace
}  // namespace tarn_fs_test
