// A device that is not to be trusted: listings with names that would lead a
// walk out of its directory. The simulator serves a real directory and cannot
// list such names, so this program stands in front of libimobiledevice's
// directory listing (the library resolves it to the definition below, which
// passes everything else on unchanged).
#include <dlfcn.h>

#include <cstring>
#include <functional>
#include <set>

#include "fs_fixture.h"

namespace {

// Names appended to every listing while set.
std::vector<std::string> g_extra_names;

char **Vector(const std::vector<std::string> &items) {
  auto **v = static_cast<char **>(std::calloc(items.size() + 1, sizeof(char *)));
  for (size_t i = 0; i < items.size(); ++i) v[i] = strdup(items[i].c_str());
  return v;
}

std::vector<std::string> Items(char **v) {
  std::vector<std::string> out;
  for (; v && *v; ++v) out.push_back(*v);
  return out;
}

}  // namespace

extern "C" afc_error_t afc_read_directory(afc_client_t client, const char *path, char ***list) {
  using Fn = afc_error_t (*)(afc_client_t, const char *, char ***);
  static const auto real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "afc_read_directory"));
  const afc_error_t err = real(client, path, list);
  if (err != AFC_E_SUCCESS || g_extra_names.empty()) return err;
  std::vector<std::string> names = Items(*list);
  afc_dictionary_free(*list);
  names.insert(names.end(), g_extra_names.begin(), g_extra_names.end());
  *list = Vector(names);
  return err;
}

namespace tarn_fs_test {
namespace {

class HostileDeviceTest : public DeviceFsTest {
 protected:
  void TearDown() override {
    g_extra_names.clear();
    DeviceFsTest::TearDown();
  }
};

TEST_F(HostileDeviceTest, ListedNamesThatLeaveTheirDirectoryAreSkippedByEveryWalk) {
  image.File("/a/x", "x");
  image.File("/a/sub/y", "y");
  image.File("/escape", "outside");
  Start();
  // Each would point above or beside the directory being walked, or at it.
  g_extra_names = {"", ".", "..", "../escape", "sub/../../escape", "/escape"};
  testing::internal::CaptureStdout();

  CopyDeviceDirectory(device, "/a", image.host("copy").c_str());
  std::set<std::string> beside, copied;
  for (auto &e : fs::directory_iterator(image.host())) beside.insert(e.path().filename().string());
  for (auto &e : fs::recursive_directory_iterator(image.host("copy"))) {
    copied.insert(fs::relative(e.path(), image.host("copy")).string());
  }
  EXPECT_EQ(beside, std::set<std::string>{"copy"}) << "written beside the host directory";
  EXPECT_EQ(copied, (std::set<std::string>{"x", "sub", "sub/y"}));

  PodDir *root = GetPodDir(device, "/a", 0);
  EXPECT_EQ(root->dir_count, 1);
  EXPECT_EQ(root->file_count, 2);
  FreePodDir(root, 1, root);

  PodSearchItem *found = SearchFile(device, "/a", "escape");
  EXPECT_EQ(found, nullptr);
  FreeSearchResult(found);

  EXPECT_EQ(DeleteDir(device, "/a"), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_FALSE(fs::exists(image.media("/a")));
  EXPECT_EQ(ReadAll(image.media("/escape")), "outside") << "a delete reached beyond its directory";
  ExpectIdle("walks over hostile names");
}

}  // namespace
}  // namespace tarn_fs_test
