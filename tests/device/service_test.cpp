// The entry points an application calls before it has chosen a device: the
// service record, the device list, the handle with its slot table, and the
// per-call connection.
#include <gtest/gtest.h>
#include <libimobiledevice/libimobiledevice.h>
#include <plist/plist.h>

#include <algorithm>
#include <cstdio>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "apps/common/plist_view.h"
#include "images.h"
#include "simulator.h"
#include "tarn/tarn_device.h"
#include "test_util.h"

namespace {

using tarn::testing::Console;
using tarn::testing::Quiet;
using tarn::testing::SimDevice;
using tarn::testing::Simulator;
using tarn::testing::TempDir;

constexpr const char *kFirst = "00008030-000A11CE0000001E";
constexpr const char *kSecond = "00008030-000B0B000000002E";

std::string MakeImage(const TempDir &dir, const std::string &name) {
  const std::string root = dir.path() + "/" + name;
  if (!std::filesystem::exists(root))
    tarn::testing::build_image({{"files", {{{"path", "/hello.txt"}, {"content", "hello"}}}}}, root);
  return root;
}

TEST(DeviceList, ListsAttachedDevicesInOrderAndNullWithoutAny) {
  {
    Simulator none;
    EXPECT_EQ(Console([&] { EXPECT_EQ(GetDevicesId(), nullptr); }), "GetDevicesId\n");
  }
  TempDir dir;
  Simulator sim({{MakeImage(dir, "a"), kFirst, {}}, {MakeImage(dir, "b"), kSecond, {}}});
  std::string out;
  plist_t list = Quiet(GetDevicesId, &out);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(tarn::app::PlistToJson(list), nlohmann::ordered_json({kFirst, kSecond}));
  // The entry line, the end line, then the array as XML after the separator.
  EXPECT_EQ(out.rfind("GetDevicesId\nGetDevicesId END\n..................................\nthe xml_doc:\n <?xml", 0), 0u)
      << out;
  EXPECT_NE(out.find(std::string("<string>") + kSecond + "</string>"), std::string::npos);
  plist_free(list);
}

TEST(ServiceRecord, HoldsTheThreeEntryPointsInOrder) {
  PodDeviceService *service = nullptr;
  EXPECT_EQ(Console([&] { service = CreatePodDeviceService(); }), "CreatePodDeviceService\n");
  ASSERT_NE(service, nullptr);
  void *const *slots = reinterpret_cast<void *const *>(service);
  EXPECT_EQ(slots[0], reinterpret_cast<void *>(&GetDevicesId));
  EXPECT_EQ(slots[1], reinterpret_cast<void *>(&CreatePodDevice));
  EXPECT_EQ(slots[2], reinterpret_cast<void *>(&FreePodDevice));
  EXPECT_EQ(sizeof(PodDeviceService), 3 * sizeof(void *));
  FreePodDeviceService(service);
  FreePodDeviceService(nullptr);
}

TEST(DeviceHandle, SlotTableCallsTheExportedFunctionsInItsFixedOrder) {
  PodDevice *device = nullptr;
  EXPECT_EQ(Console([&] { device = CreatePodDevice(kFirst); }), "CreatePodDevice\n");
  ASSERT_NE(device, nullptr);
  // The application reads the record as 32 pointer-size fields.
  void *const *f = reinterpret_cast<void *const *>(device);
  const std::vector<void *> expected = {
      reinterpret_cast<void *>(&InitDevice),         reinterpret_cast<void *>(&GetDeviceInfo),
      reinterpret_cast<void *>(&CopyFileFromDeviceToNative),
      reinterpret_cast<void *>(&CopyFileFromNativeToDevice),
      reinterpret_cast<void *>(&CopyDeviceDirectory), reinterpret_cast<void *>(&GetMusicList),
      reinterpret_cast<void *>(&GetMovieList),       reinterpret_cast<void *>(&GetMusicList),
      reinterpret_cast<void *>(&GetPlayList),        reinterpret_cast<void *>(&GetMovieList),
      reinterpret_cast<void *>(&GetPodcastList),     reinterpret_cast<void *>(&GetTvshowList),
      reinterpret_cast<void *>(&GetAudioBookList),   reinterpret_cast<void *>(&GetRecordingList),
      reinterpret_cast<void *>(&GetRingtonesList),
      reinterpret_cast<void *>(&GetUserPictureListFromDevice),
      reinterpret_cast<void *>(&GetBookList),        reinterpret_cast<void *>(&GetCameraPVList),
      reinterpret_cast<void *>(&MakeDir),            reinterpret_cast<void *>(&IsDirExist),
      reinterpret_cast<void *>(&IsFileExist),        reinterpret_cast<void *>(&RenamePath),
      reinterpret_cast<void *>(&DeleteFile),         reinterpret_cast<void *>(&DeleteDir),
      reinterpret_cast<void *>(&GetPodDir),          reinterpret_cast<void *>(&FreePodDir),
      reinterpret_cast<void *>(&GetDirOrFileInfo),   reinterpret_cast<void *>(&SearchFile)};
  ASSERT_EQ(expected.size(), 28u);
  EXPECT_EQ(sizeof(PodDevice), 32 * sizeof(void *));
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(f[4 + i], expected[i]) << "slot at position " << (5 + i);
  }
  EXPECT_STREQ(device->deviceId, kFirst);
  EXPECT_EQ(device->userData, nullptr);
  EXPECT_EQ(device->dbInfo, nullptr);
  EXPECT_EQ(device->hostDir, nullptr);

  // The identifier is the handle's own copy.
  std::string id = kSecond;
  PodDevice *other = CreatePodDevice(id.c_str());
  id.assign(id.size(), 'x');
  EXPECT_STREQ(other->deviceId, kSecond);

  FreePodDevice(device);
  FreePodDevice(other);
  FreePodDevice(nullptr);
}

class ConnectionTest : public ::testing::Test {
 protected:
  void Start(const std::vector<std::string> &options = {}) {
    sim = std::make_unique<Simulator>(std::vector<SimDevice>{{MakeImage(dir, "a"), kFirst, options}});
  }
  TempDir dir;
  std::unique_ptr<Simulator> sim;
};

TEST_F(ConnectionTest, OpensAWorkingFileConduitOrGivesNullAndClosesEverything) {
  struct Case {
    const char *what;
    std::vector<std::string> options;
    const char *udid;
    bool conduit, connection;  // what the call hands back
  } cases[] = {
      {"a working device", {}, kFirst, true, true},
      {"unknown device", {}, "ffffffffffffffffffffffffffffffffffffffff", false, false},
      // The device connection is the caller's to close.
      {"refused handshake", {"refuse_handshake=1"}, kFirst, false, true},
      {"refused file conduit", {"refuse_afc=1"}, kFirst, false, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    Start(c.options);
    idevice_t conn = nullptr;
    afc_client_t afc = OpenIdeviceAndAfC(&conn, c.udid);
    EXPECT_EQ(afc != nullptr, c.conduit);
    EXPECT_EQ(conn != nullptr, c.connection);
    if (afc) {
      char **info = nullptr;
      EXPECT_EQ(afc_get_file_info(afc, "/hello.txt", &info), AFC_E_SUCCESS);
      g_strfreev(info);
      // Only the device connection and the file conduit stay: lockdown is gone.
      EXPECT_EQ(sim->stats(kFirst).connections_open, 1);
    }
    CloseIdeviceAndAfC(afc, conn);
    tarn::testing::ExpectIdle(*sim, kFirst, c.what);
    sim.reset();
  }
}

// An application links against exactly the documented interface: every
// function the header declares is exported, and nothing else is.
TEST(Exports, TheLibraryExportsExactlyTheDeclaredFunctions) {
  // A declaration names its function right before the first '(' of its line.
  std::set<std::string> declared, exported;
  std::istringstream header(tarn::testing::ReadAll(std::string(TARN_SOURCE_DIR) + "/include/tarn/tarn_device.h"));
  const std::regex declaration(R"(^TARN_API [^(]*?(\w+)\s*\()");
  std::smatch m;
  for (std::string line; std::getline(header, line);)
    if (std::regex_search(line, m, declaration)) declared.insert(m[1]);
  ASSERT_GT(declared.size(), 80u);
  int status = -1;
  std::istringstream symbols(tarn::testing::run_command(
      std::string("nm -D --defined-only --format=posix ") + TARN_DEVICE_LIB_PATH + " | awk '$2 ~ /^[TDB]$/ {print $1}'",
      &status));
  ASSERT_EQ(status, 0);
  for (std::string name; std::getline(symbols, name);) exported.insert(name);
  std::vector<std::string> missing, extra;
  std::set_difference(declared.begin(), declared.end(), exported.begin(), exported.end(),
                      std::back_inserter(missing));
  std::set_difference(exported.begin(), exported.end(), declared.begin(), declared.end(),
                      std::back_inserter(extra));
  EXPECT_TRUE(missing.empty()) << "declared, not exported: " << ::testing::PrintToString(missing);
  EXPECT_TRUE(extra.empty()) << "exported, not declared: " << ::testing::PrintToString(extra);
}

}  // namespace
