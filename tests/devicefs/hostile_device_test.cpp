// A device that is not to be trusted: listings with names no file system
// would hold, and file information with keys left out. The simulator serves
// a real directory and cannot produce either, so this program stands in
// front of libimobiledevice for two requests (the library resolves them to
// the definitions below, which pass everything else on unchanged).
#include <dlfcn.h>

#include <cstring>
#include <functional>
#include <set>

#include "fs_fixture.h"

namespace {

// Names appended to every listing while set.
std::vector<std::string> g_extra_names;
// A key dropped from every file-information answer while set.
std::string g_dropped_key;

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

extern "C" afc_error_t afc_get_file_info(afc_client_t client, const char *path, char ***info) {
  using Fn = afc_error_t (*)(afc_client_t, const char *, char ***);
  static const auto real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "afc_get_file_info"));
  const afc_error_t err = real(client, path, info);
  if (err != AFC_E_SUCCESS || g_dropped_key.empty()) return err;
  std::vector<std::string> kv = Items(*info), kept;
  afc_dictionary_free(*info);
  for (size_t i = 0; i + 1 < kv.size(); i += 2) {
    if (kv[i] != g_dropped_key) kept.insert(kept.end(), {kv[i], kv[i + 1]});
  }
  *info = Vector(kept);
  return err;
}

namespace tarn_fs_test {
namespace {

class HostileDeviceTest : public DeviceFsTest {
 protected:
  void TearDown() override {
    g_extra_names.clear();
    g_dropped_key.clear();
    DeviceFsTest::TearDown();
  }
};

TEST_F(HostileDeviceTest, AMissingKeyLeavesANullInItsOwnSlot) {
  image.File("/k/f", "12345");
  Start();
  const char *keys[] = {"st_ifmt", "st_size", "st_mtime", "st_blocks", "st_birthtime"};
  for (int slot = 0; slot < 5; ++slot) {
    g_dropped_key = keys[slot];
    char **info = GetDirOrFileInfo(device, "/k/f");
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(info[i] == nullptr, i == slot) << "without " << keys[slot] << ", slot " << i;
    }
    EXPECT_EQ(info[5], nullptr);
    // g_strfreev would stop at the hole.
    for (int i = 0; i < 5; ++i) g_free(info[i]);
    g_free(info);
  }
  ExpectIdle("GetDirOrFileInfo");
}

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
