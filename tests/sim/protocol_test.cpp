// The simulator as libimobiledevice and its tools see it: device list,
// lockdown values, services and attach/detach events.
#include <gtest/gtest.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <plist/plist.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <chrono>
#include <mutex>
#include <thread>

#include "sim_client.h"
#include "sim_image.h"
#include "simulator.h"

using namespace tarn::testing;
extern char** environ;

namespace {

const char kDescription[] = R"({
  "UniqueDeviceID": "ab12cd34ef56ab12cd34ef56ab12cd34ef56ab12",
  "DeviceName": "Kitchen iPod",
  "ProductType": "iPod5,1",
  "ProductVersion": "6.1.6",
  "SerialNumber": "CCQK1234F4T1",
  "FSTotalBytes": 32000000000,
  "FSFreeBytes": 12000000000,
  "Model": "MD717",
  "lockdown": {"DeviceClass": "iPod", "com.apple.mobile.battery": {"BatteryCurrentCapacity": 87}}
})";
const char kUdid[] = "ab12cd34ef56ab12cd34ef56ab12cd34ef56ab12";

class ProtocolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    make_sim_image(img1.path(), {ImageEntry::file("a.txt", "x")}, kDescription);
    make_sim_image(img2.path(), {}, R"({"DeviceName": "Bare", "ProductVersion": "12.4"})");
    sim = std::make_unique<Simulator>(std::vector<SimDevice>{{img1.path(), "", {}},
                                                             {img2.path(), "second-device", {}}});
  }
  TempDir img1, img2;
  std::unique_ptr<Simulator> sim;
};

std::string string_value(plist_t node) {
  char* s = nullptr;
  if (node && plist_get_node_type(node) == PLIST_STRING) plist_get_string_val(node, &s);
  std::string out = s ? s : "";
  free(s);
  return out;
}

TEST_F(ProtocolTest, ToolsListAndDescribeDevices) {
  int status = -1;
  std::string ids = run_command("idevice_id -l", &status);
  EXPECT_EQ(status, 0) << ids;
  EXPECT_NE(ids.find(kUdid), std::string::npos) << ids;
  EXPECT_NE(ids.find("second-device"), std::string::npos) << ids;

  std::string info = run_command(std::string("ideviceinfo -u ") + kUdid, &status);
  EXPECT_EQ(status, 0) << info;
  for (const char* line : {"DeviceName: Kitchen iPod", "ProductType: iPod5,1", "DeviceClass: iPod"})
    EXPECT_NE(info.find(line), std::string::npos) << line << " missing in\n" << info;
  std::string battery =
      run_command(std::string("ideviceinfo -u ") + kUdid + " -q com.apple.mobile.battery", &status);
  EXPECT_NE(battery.find("BatteryCurrentCapacity: 87"), std::string::npos) << battery;
  EXPECT_EQ(run_command("idevice_id second-device"), "Bare\n");
}

TEST_F(ProtocolTest, GetValueAnswersWhatTheDescriptionHolds) {
  idevice_t dev = nullptr;
  // A device that is not attached cannot be reached at all.
  EXPECT_NE(idevice_new(&dev, "no-such-device"), IDEVICE_E_SUCCESS);
  ASSERT_EQ(idevice_new(&dev, "second-device"), IDEVICE_E_SUCCESS);
  lockdownd_client_t ld = nullptr;
  ASSERT_EQ(lockdownd_client_new_with_handshake(dev, &ld, "test"), LOCKDOWN_E_SUCCESS);
  struct Case {
    const char* domain;
    const char* key;
    lockdownd_error_t want;
    const char* value;
  } cases[] = {
      {nullptr, "DeviceName", LOCKDOWN_E_SUCCESS, "Bare"},
      {nullptr, "UniqueDeviceID", LOCKDOWN_E_SUCCESS, "second-device"},
      {nullptr, "SerialNumber", LOCKDOWN_E_MISSING_VALUE, nullptr},
      {"com.apple.disk_usage", nullptr, LOCKDOWN_E_MISSING_VALUE, nullptr},
      {"com.apple.nothing", "X", LOCKDOWN_E_MISSING_VALUE, nullptr},
  };
  for (const auto& c : cases) {
    plist_t v = nullptr;
    EXPECT_EQ(lockdownd_get_value(ld, c.domain, c.key, &v), c.want) << (c.key ? c.key : c.domain);
    if (c.value) {
      EXPECT_EQ(string_value(v), c.value);
    }
    plist_free(v);
  }
  plist_t all = nullptr;
  ASSERT_EQ(lockdownd_get_value(ld, nullptr, nullptr, &all), LOCKDOWN_E_SUCCESS);
  EXPECT_EQ(string_value(plist_dict_get_item(all, "ProductVersion")), "12.4");
  EXPECT_EQ(plist_dict_get_size(all), 3u);  // name, version and the identifier only
  plist_free(all);

  lockdownd_service_descriptor_t svc = nullptr;
  EXPECT_EQ(lockdownd_start_service(ld, "com.apple.mobile.notification_proxy", &svc),
            LOCKDOWN_E_INVALID_SERVICE);
  lockdownd_client_free(ld);
  idevice_free(dev);
}

TEST_F(ProtocolTest, ListenReportsAttachAndDetach) {
  std::mutex mu;
  std::vector<std::pair<int, std::string>> events;
  auto cb = [](const idevice_event_t* e, void* user) {
    auto* p = static_cast<std::pair<std::mutex*, decltype(events)*>*>(user);
    std::lock_guard lk(*p->first);
    p->second->emplace_back(e->event, e->udid);
  };
  std::pair<std::mutex*, decltype(events)*> ctx{&mu, &events};
  ASSERT_EQ(idevice_event_subscribe(cb, &ctx), IDEVICE_E_SUCCESS);
  auto wait_for = [&](size_t n) {
    for (int i = 0; i < 500; ++i) {
      {
        std::lock_guard lk(mu);
        if (events.size() >= n) return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  };
  EXPECT_TRUE(wait_for(2));  // both devices present at subscription
  sim->detach("second-device");
  EXPECT_TRUE(wait_for(3));
  TempDir img3;
  make_sim_image(img3.path(), {});
  sim->attach({img3.path(), "third", {}});
  EXPECT_TRUE(wait_for(4));
  idevice_event_unsubscribe();
  std::lock_guard lk(mu);
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[2], std::make_pair(static_cast<int>(IDEVICE_DEVICE_REMOVE), std::string("second-device")));
  EXPECT_EQ(events[3], std::make_pair(static_cast<int>(IDEVICE_DEVICE_ADD), std::string("third")));

}

TEST(DevsimProcess, StopsCleanlyOnSignals) {
  for (int sig : {SIGTERM, SIGINT}) {
    TempDir dir, img;
    make_sim_image(img.path(), {});
    std::string sock = dir.path() + "/mux", bin = TARN_DEVSIM_PATH, dev = img.path() + ",udid=x";
    std::vector<char*> argv = {bin.data(), const_cast<char*>("--socket"), sock.data(),
                               const_cast<char*>("--device"), dev.data(), nullptr};
    int out[2];
    ASSERT_EQ(::pipe(out), 0);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    pid_t pid = -1;
    ASSERT_EQ(posix_spawn(&pid, bin.c_str(), &fa, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&fa);
    ::close(out[1]);
    char line[256] = {};
    ASSERT_GT(::read(out[0], line, sizeof line - 1), 0);  // blocks until ready
    ::close(out[0]);
    EXPECT_EQ(std::string(line), "tarn-devsim: ready on " + sock + "\n");
    EXPECT_TRUE(std::filesystem::exists(sock));
    EXPECT_TRUE(std::filesystem::exists(sock + ".ctl"));
    ::kill(pid, sig);
    int status = -1;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_FALSE(std::filesystem::exists(sock));
    EXPECT_FALSE(std::filesystem::exists(sock + ".ctl"));
  }
}

TEST(DevsimProcess, RejectsBadStartArguments) {
  TempDir img;
  make_sim_image(img.path(), {});
  for (std::string args : {std::string("--device ") + img.path(),  // no socket
                           std::string("--socket /tmp/x --device /nonexistent"),
                           "--socket /tmp/x --device " + img.path() + ",bogus=1",
                           "--socket /tmp/x --device " + img.path() + ",latency_us=abc"}) {
    int status = 0;
    std::string out = run_command(std::string(TARN_DEVSIM_PATH) + " " + args, &status);
    EXPECT_NE(status, 0) << args;
    EXPECT_NE(out.find("tarn-devsim:"), std::string::npos) << out;
  }
}

}  // namespace
