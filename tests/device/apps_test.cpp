// Apps and their Documents through the library: the list a phone pages out,
// every file-system call on a handle made for an app (landing in the app's
// container, never on the media partition), and the reasons a phone's
// refusals become.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "device_test.h"
#include "images.h"
#include "tarn/tarn_device.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
using tarn::testing::Bytes;
using tarn::testing::Quiet;
using tarn::testing::ReadAll;
using tarn::testing::WriteAll;

constexpr const char *kUdid = "00008030-0000A0000APPS001";
constexpr const char *kPlayer = "org.example.player";

std::string Text(plist_t dict, const char *key) {
  char *value = nullptr;
  plist_get_string_val(plist_dict_get_item(dict, key), &value);
  std::string out = value ? value : "";
  free(value);
  return out;
}

class AppsTest : public tarn::testing::SimulatedDeviceTest {
 protected:
  AppsTest() : SimulatedDeviceTest(kUdid) {}
  void SetUp() override {
    tarn::testing::build_image(
        {{"device", {{"DeviceName", "Apps Phone"}}},
         {"files", {{{"path", "/DCIM/keep.jpg"}, {"content", "media"}}}},
         {"apps",
          {{{"identifier", kPlayer}, {"name", "Player"}, {"version", "2.4"}, {"file_sharing", true}, {"icon", "#e05a2b"},
            {"documents", {{{"path", "/film.mp4"}, {"pattern", true}, {"size", 200000}}, {{"path", "/Subs/en.srt"}, {"content", "1\n"}}}}},
           {{"identifier", "org.example.notes"}, {"name", "notes"}, {"version", "1.0"}, {"file_sharing", false}},
           {{"identifier", "org.example.atlas"}, {"name", "Atlas"}, {"build", "77"}, {"file_sharing", true}}}}},
        dir.path() + "/image");
    // One app per page, so that the list has to be read across pages.
    Serve(dir.path() + "/image", {"browse_page=1"});
    host = dir.path() + "/host";
    fs::create_directories(host);
  }
  fs::path Documents(const std::string &rel = "") const {
    return fs::path(dir.path()) / "image/apps" / kPlayer / "Documents" / rel;
  }
  std::string host;
};

TEST_F(AppsTest, ListsEveryPageSortedByNameWithIconsInOneSession) {
  device = Quiet([] { return CreatePodDevice(kUdid); });
  sim->reset_stats(kUdid);
  plist_t apps = TarnListApps(device, 1);
  ASSERT_NE(apps, nullptr) << TarnLastError()->message;
  EXPECT_EQ(sim->stats(kUdid).tls_sessions, 1u) << "the list and its icons over one session";
  struct Expected {
    const char *identifier, *name, *version;
    bool sharing;
  } const expected[] = {
      {"org.example.atlas", "Atlas", "77", true},
      {"org.example.notes", "notes", "1.0", false},
      {kPlayer, "Player", "2.4", true},
  };
  ASSERT_EQ(plist_array_get_size(apps), std::size(expected));
  for (uint32_t i = 0; i < std::size(expected); ++i) {
    plist_t app = plist_array_get_item(apps, i);
    EXPECT_EQ(Text(app, "identifier"), expected[i].identifier);
    EXPECT_EQ(Text(app, "name"), expected[i].name);
    EXPECT_EQ(Text(app, "version"), expected[i].version);
    uint8_t sharing = 2;
    plist_get_bool_val(plist_dict_get_item(app, "file_sharing"), &sharing);
    EXPECT_EQ(sharing != 0, expected[i].sharing) << expected[i].identifier;
    char *png = nullptr;
    uint64_t size = 0;
    plist_get_data_val(plist_dict_get_item(app, "icon"), &png, &size);
    ASSERT_GT(size, 8u);
    EXPECT_EQ(std::memcmp(png, "\x89PNG\r\n\x1a\n", 8), 0);
    free(png);
  }
  plist_free(apps);

  apps = TarnListApps(device, 0);
  ASSERT_NE(apps, nullptr);
  EXPECT_EQ(plist_dict_get_item(plist_array_get_item(apps, 0), "icon"), nullptr) << "icons only when asked for";
  plist_free(apps);

  // A connection cut in the middle of the list says so, and nothing half-read is returned.
  sim->set_option(kUdid, "drop_after_bytes", "700");
  EXPECT_EQ(TarnListApps(device, 0), nullptr);
  EXPECT_EQ(TarnLastError()->code, TARN_E_CONNECTION_LOST) << TarnLastError()->message;
  ExpectIdle("a list cut short");
}

// Every file-system call of the media partition, on the app's Documents,
// both over per-call connections and over a held one.
TEST_F(AppsTest, EveryFileOperationWorksOnTheAppsDocuments) {
  for (const bool held : {false, true}) {
    SCOPED_TRACE(held ? "held connection" : "a connection per call");
    if (device != nullptr) FreePodDevice(device);
    fs::remove_all(Documents("Inbox"));
    device = Quiet([] { return CreatePodDeviceForApp(kUdid, kPlayer); });
    ASSERT_NE(device, nullptr);
    if (held) {
      ASSERT_EQ(TarnHoldConnection(device), 0) << TarnLastError()->message;
    }
    const std::string upload = Bytes(150000, held ? 3 : 4);
    WriteAll(host + "/up.bin", upload);
    uint64_t last_done = 0;
    int finished = 0;
    const PodProgressCallback progress = [](uint64_t, uint64_t done, int fin, void *user) {
      auto *seen = static_cast<std::pair<uint64_t *, int *> *>(user);
      *seen->first = done;
      *seen->second += fin;
      return 0;
    };
    std::pair<uint64_t *, int *> seen{&last_done, &finished};
    device->userData = &seen;

    struct Step {
      const char *what;
      std::function<void()> run;
    } const steps[] = {
        {"mkdir", [&] {
           EXPECT_EQ(MakeDir(device, "/Documents/Inbox/Deep"), 0);
           EXPECT_TRUE(fs::is_directory(Documents("Inbox/Deep")));
         }},
        {"upload", [&] {
           EXPECT_EQ(CopyFileFromNativeToDevice(device, (host + "/up.bin").c_str(), "/Documents/Inbox/up.bin", progress), 0);
           EXPECT_EQ(ReadAll(Documents("Inbox/up.bin")), upload);
           EXPECT_EQ(finished, 1);
         }},
        {"information", [&] {
           char **info = GetDirOrFileInfo(device, "/Documents/Inbox/up.bin");
           ASSERT_NE(info[TARN_INFO_SIZE], nullptr);
           EXPECT_STREQ(info[TARN_INFO_SIZE], "150000");
           FreeFileInfo(info);
           EXPECT_EQ(IsFileExist(device, "/Documents/film.mp4"), 1);
           EXPECT_EQ(IsDirExist(device, "/Documents/Subs"), 1);
         }},
        {"listing", [&] {
           PodDir *root = GetPodDir(device, "/Documents", 0);
           ASSERT_NE(root, nullptr);
           EXPECT_EQ(root->file_count, 3);  // film.mp4, Subs/en.srt, Inbox/up.bin
           EXPECT_EQ(root->dir_count, 3);   // Subs, Inbox, Inbox/Deep
           FreePodDir(root, 1, root);
         }},
        {"search", [&] {
           PodSearchItem *found = SearchFile(device, "/Documents", "en.s");
           ASSERT_NE(found, nullptr);
           EXPECT_STREQ(static_cast<PodFile *>(found->record)->path, "/Documents/Subs/en.srt");
           FreeSearchResult(found);
         }},
        {"download", [&] {
           finished = 0;
           CopyFileFromDeviceToNative(device, "/Documents/film.mp4", (host + "/film.mp4").c_str(), progress);
           EXPECT_EQ(TarnLastError()->code, TARN_OK) << TarnLastError()->message;
           EXPECT_EQ(ReadAll(host + "/film.mp4"), ReadAll(Documents("film.mp4")));
           EXPECT_EQ(last_done, 200000u);
         }},
        {"tree copy", [&] {
           CopyDeviceDirectory(device, "/Documents/Subs", (host + "/subs").c_str());
           EXPECT_EQ(ReadAll(host + "/subs/en.srt"), "1\n");
         }},
        {"rename", [&] {
           RenamePath(device, "/Documents/Inbox/up.bin", "/Documents/Inbox/moved.bin");
           EXPECT_TRUE(fs::exists(Documents("Inbox/moved.bin")));
           EXPECT_FALSE(fs::exists(Documents("Inbox/up.bin")));
         }},
        {"delete file", [&] {
           EXPECT_EQ(DeleteFile(device, "/Documents/Inbox/moved.bin"), 0);
           EXPECT_FALSE(fs::exists(Documents("Inbox/moved.bin")));
         }},
        {"delete tree", [&] {
           DeleteDir(device, "/Documents/Inbox");
           EXPECT_FALSE(fs::exists(Documents("Inbox")));
         }},
    };
    for (const Step &step : steps) {
      SCOPED_TRACE(step.what);
      Quiet([&] {
        step.run();
        return 0;
      });
    }
    // Nothing reached the media partition, and no sync lock file was made in the container.
    EXPECT_EQ(ReadAll(dir.path() + "/image/media/DCIM/keep.jpg"), "media");
    EXPECT_FALSE(fs::exists(dir.path() + "/image/media/Documents"));
    EXPECT_FALSE(fs::exists(fs::path(dir.path()) / "image/apps" / kPlayer / "com.apple.itunes.lock_sync"));
    if (held) {
      EXPECT_EQ(TarnSyncLock(TarnHeldClient(device)), 0u);
    }
    TarnReleaseConnection(device);
  }
  ExpectIdle("after the app's handle let go");
}

TEST_F(AppsTest, RefusalsBecomeReasonsThatSayWhy) {
  struct Case {
    const char *bundle;
    TarnErrorCode code;
    const char *says;
  } const cases[] = {
      {"org.example.notes", TARN_E_APP_NOT_SHARING, "does not share files"},
      {"org.example.gone", TARN_E_APP_NOT_INSTALLED, "No app \"org.example.gone\" is installed"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.bundle);
    PodDevice *app = Quiet([&] { return CreatePodDeviceForApp(kUdid, c.bundle); });
    ASSERT_NE(app, nullptr);
    EXPECT_EQ(TarnHoldConnection(app), 1);
    EXPECT_EQ(TarnLastError()->code, c.code);
    EXPECT_NE(std::string(TarnLastError()->message).find(c.says), std::string::npos) << TarnLastError()->message;
    // A call with its own connection keeps the refusal as its reason, not the requests that could not be made.
    PodDir *root = Quiet([&] { return GetPodDir(app, "/Documents", 0); });
    if (root != nullptr) FreePodDir(root, 1, root);
    EXPECT_EQ(TarnLastError()->code, c.code);
    FreePodDevice(app);
  }
  EXPECT_EQ(CreatePodDeviceForApp(kUdid, ""), nullptr);
  EXPECT_EQ(TarnLastError()->code, TARN_E_INVALID_ARGUMENT);
  ExpectIdle("after the refusals");
}

}  // namespace
