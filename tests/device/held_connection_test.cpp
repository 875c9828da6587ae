// How many secure lockdown sessions the library opens: one per exported
// call however many library calls it makes inside, none between the two
// ends of a held connection, and none to learn a device's name.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>

#include "device_test.h"
#include "images.h"
#include "tarn/tarn_device.h"
#include "test_util.h"

namespace {

using tarn::testing::Quiet;

constexpr const char *kUdid = "00008030-000A11CE0000005E";

class HeldConnectionTest : public tarn::testing::SimulatedDeviceTest {
 protected:
  HeldConnectionTest() : SimulatedDeviceTest(kUdid) {}
  void SetUp() override {
    // A camera roll whose sizes come from the device and purchases: the
    // device information's totals make library calls that need the device.
    tarn::testing::build_image(
        {{"device", {{"DeviceName", "Held Phone"}}},
         {"music", {{"tracks", {{{"title", "song"}, {"size", 1000}, {"media_type", 1}}}}}},
         {"photos", {{"rows", {{{"directory", "DCIM/100APPLE"}, {"filename", "IMG_0001.JPG"}, {"size", 300}}}}}},
         {"files",
          {{{"path", "/DCIM/100APPLE/IMG_0001.JPG"}, {"content", std::string(300, 'p')}},
           {{"path", "/DCIM/latest"}, {"link", "100APPLE/IMG_0001.JPG"}}}}},
        dir.path() + "/image");
    Serve(dir.path() + "/image");
    device = Quiet([] { return CreatePodDevice(kUdid); });
    work = dir.path() + "/work";
  }
  uint64_t Sessions() {
    const uint64_t n = sim->stats(kUdid).tls_sessions;
    sim->reset_stats(kUdid);
    return n;
  }
  std::string work;
};

TEST_F(HeldConnectionTest, ACallsInnerCallsBorrowItsSessionAndAHeldOneServesEveryCall) {
  std::string out;
  sim->reset_stats(kUdid);
  ASSERT_EQ(Quiet([&] { return InitDevice(device, work.c_str()); }, &out), 0);
  EXPECT_EQ(Sessions(), 1u) << "InitDevice";
  plist_t info = Quiet([&] { return GetDeviceInfo(device); }, &out);
  ASSERT_NE(info, nullptr);
  uint64_t photos = 0;
  plist_get_uint_val(plist_dict_get_item(info, "Photos"), &photos);
  EXPECT_EQ(photos, 300u) << "the camera roll was sized over the borrowed connection";
  plist_free(info);
  EXPECT_EQ(Sessions(), 1u) << "GetDeviceInfo";

  EXPECT_EQ(TarnHeldClient(device), nullptr);
  ASSERT_EQ(TarnHoldConnection(device), 0);
  ASSERT_NE(TarnHeldClient(device), nullptr);
  EXPECT_EQ(TarnHoldConnection(device), 0) << "a second hold keeps the first";
  Quiet([&] {
    InitDevice(device, work.c_str());
    plist_free(GetDeviceInfo(device));
    plist_free(GetCameraPVList(device, 0, 0));
    PodDir *root = GetPodDir(device, "/DCIM", 0);
    FreePodDir(root, 1, root);
    return 0;
  }, &out);
  EXPECT_EQ(TarnMakeDirectory(TarnHeldClient(device), "/Made"), 0);
  EXPECT_EQ(Sessions(), 1u) << "everything between hold and release";
  TarnReleaseConnection(device);
  ExpectIdle("released");
  EXPECT_EQ(TarnHeldClient(device), nullptr);
  EXPECT_EQ(Quiet([&] { return IsDirExist(device, "/Made"); }, &out), 1);
  EXPECT_EQ(Sessions(), 1u) << "a call after the release opens its own again";

  // Freeing the handle closes a connection still held on it.
  ASSERT_EQ(TarnHoldConnection(device), 0);
  FreePodDevice(device);
  device = nullptr;
  ExpectIdle("freed while held");
}

TEST_F(HeldConnectionTest, TheNameCostsNoSessionAndALockedDeviceStillGivesItButHoldsNothing) {
  char *name = TarnGetDeviceName(device);
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name, "Held Phone");
  std::free(name);
  EXPECT_EQ(Sessions(), 0u);

  sim->set_option(kUdid, "locked", "1");
  name = TarnGetDeviceName(device);
  EXPECT_STREQ(name ? name : "", "Held Phone");
  std::free(name);
  EXPECT_EQ(TarnHoldConnection(device), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_LOCKED);
  EXPECT_EQ(TarnHeldClient(device), nullptr);
  EXPECT_EQ(TarnHoldConnection(nullptr), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_INVALID_ARGUMENT);
  ExpectIdle("a refused hold");
}

TEST_F(HeldConnectionTest, SingleRequestsOverAClientSayWhyTheyFailed) {
  ASSERT_EQ(TarnHoldConnection(device), 0);
  afc_client_t client = TarnHeldClient(device);
  EXPECT_EQ(TarnRemovePath(client, "/nowhere"), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_NOT_FOUND);
  EXPECT_EQ(TarnRenamePath(client, "/nowhere", "/elsewhere"), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_NOT_FOUND);
  EXPECT_EQ(TarnMakeDirectory(nullptr, "/x"), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_INVALID_ARGUMENT);
  EXPECT_EQ(TarnLinkTarget(client, "/DCIM"), nullptr);
  EXPECT_EQ(TarnLastError()->code, TARN_OK) << "a directory is no link, and that is no failure";
  char *target = TarnLinkTarget(client, "/DCIM/latest");
  EXPECT_STREQ(target ? target : "", "100APPLE/IMG_0001.JPG");
  std::free(target);
  EXPECT_EQ(TarnMakeDirectory(client, "/A"), 0);
  EXPECT_EQ(TarnRenamePath(client, "/A", "/B"), 0);
  EXPECT_EQ(TarnRemovePath(client, "/B"), 0);
  EXPECT_EQ(TarnRemovePath(client, "/B"), 1);
}

TEST_F(HeldConnectionTest, AnUnpluggedPhoneEndsNoProgramThatKeepsSigpipesDefault) {
  // A program that never heard of SIGPIPE (its default action ends the
  // process) holds a connection; the phone goes away; every later request
  // and the release write to a closed socket and must only fail.
  std::fflush(nullptr);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::signal(SIGPIPE, SIG_DFL);
    if (TarnHoldConnection(device) != 0) ::_exit(2);
    sim->detach(kUdid);
    for (int i = 0; i < 20; ++i) {
      char **info = GetFileInfo(TarnHeldClient(device), "/DCIM");
      FreeFileInfo(info);
    }
    TarnReleaseConnection(device);
    FreePodDevice(device);
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
  EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);

  // The signal is blocked only while the library works: calls, nested
  // ones among them (the device information opens the music list's), leave
  // the thread's mask as they found it, blocked or not.
  sigset_t pipe_only;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  for (const bool blocked : {false, true}) {
    SCOPED_TRACE(blocked);
    ASSERT_EQ(pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &pipe_only, nullptr), 0);
    plist_free(Quiet([&] { return GetDeviceInfo(device); }));
    char **info = GetFileInfo(nullptr, "/DCIM");
    FreeFileInfo(info);
    sigset_t now;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &now), 0);
    EXPECT_EQ(sigismember(&now, SIGPIPE) == 1, blocked);
  }
  ASSERT_EQ(pthread_sigmask(SIG_UNBLOCK, &pipe_only, nullptr), 0);
}

}  // namespace
