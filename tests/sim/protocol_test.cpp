// The simulator as libimobiledevice and its tools see it: device list,
// lockdown values, services, attach/detach events, clients served side by side.
#include <gtest/gtest.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <plist/plist.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "apps/common/plist_view.h"
#include "sim_client.h"
#include "images.h"
#include "simulator.h"

using namespace tarn::testing;

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
    build_image({{"device", nlohmann::ordered_json::parse(kDescription)}, {"files", {{{"path", "/a.txt"}, {"content", "x"}}}}},
                img1.path());
    build_image({{"device", {{"DeviceName", "Bare"}, {"ProductVersion", "12.4"}}}}, img2.path());
    sim = std::make_unique<Simulator>(std::vector<SimDevice>{{img1.path(), "", {}},
                                                             {img2.path(), "second-device", {}}});
  }
  TempDir img1, img2;
  std::unique_ptr<Simulator> sim;
};

// idevice_id -l is run in every state by the states test.
TEST_F(ProtocolTest, ToolsDescribeDevices) {
  int status = -1;
  const std::string info = run_command(std::string("ideviceinfo -u ") + kUdid, &status);
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
      {nullptr, "NoSuchKey", LOCKDOWN_E_MISSING_VALUE, nullptr},
      {"com.apple.disk_usage", nullptr, LOCKDOWN_E_MISSING_VALUE, nullptr},
      {"com.apple.nothing", "X", LOCKDOWN_E_MISSING_VALUE, nullptr},
  };
  for (const auto& c : cases) {
    plist_t v = nullptr;
    EXPECT_EQ(lockdownd_get_value(ld, c.domain, c.key, &v), c.want) << (c.key ? c.key : c.domain);
    if (c.value) {
      EXPECT_EQ(tarn::app::PlistToJson(v), c.value);
    }
    plist_free(v);
  }
  plist_t all = nullptr;
  ASSERT_EQ(lockdownd_get_value(ld, nullptr, nullptr, &all), LOCKDOWN_E_SUCCESS);
  EXPECT_EQ(tarn::app::PlistToJson(plist_dict_get_item(all, "ProductVersion")), "12.4");
  // Beside the description, the keys every phone answers (ideviceinfo and
  // idevicedate rely on them).
  for (const char* key : {"ActivationState", "BuildVersion", "CPUArchitecture", "DeviceClass", "DevicePublicKey",
                          "HardwareModel", "PasswordProtected", "TimeIntervalSince1970",
                          "TimeZone", "TimeZoneOffsetFromUTC", "UniqueChipID", "WiFiAddress"})
    EXPECT_NE(plist_dict_get_item(all, key), nullptr) << key;
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
  build_image({}, img3.path());
  sim->attach({img3.path(), "third", {}});
  EXPECT_TRUE(wait_for(4));
  idevice_event_unsubscribe();
  std::lock_guard lk(mu);
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[2], std::make_pair(static_cast<int>(IDEVICE_DEVICE_REMOVE), std::string("second-device")));
  EXPECT_EQ(events[3], std::make_pair(static_cast<int>(IDEVICE_DEVICE_ADD), std::string("third")));

}

// Many clients at once: nobody waits for anybody else.
TEST_F(ProtocolTest, StalledAndSlowClientsDelayNobodyElse) {
  // A client that sends half a message and then goes quiet.
  int raw = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, sim->socket_path().c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(::connect(raw, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::send(raw, "\x40\x00\x00", 3, 0), 3);

  // A client of the slow device is busy in a request...
  AfcClient slow_client("second-device");
  ASSERT_TRUE(slow_client.ok());
  sim->set_option("second-device", "latency_us", "3000000");
  std::atomic<bool> slow_done{false};
  std::thread busy([&] {
    slow_client.file_info("/");
    slow_done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));

  // ...while the fast device serves a client from start to end.
  {
    AfcClient c(kUdid);
    ASSERT_TRUE(c.ok()) << c.error;
    std::string back;
    EXPECT_EQ(c.put("/w", std::string(256 * 1024, 'w')), AFC_E_SUCCESS);
    EXPECT_EQ(c.get("/w", back), AFC_E_SUCCESS);
    EXPECT_EQ(back.size(), 256u * 1024);
  }
  EXPECT_FALSE(slow_done.load()) << "the fast client waited for the slow one";
  busy.join();
  ::close(raw);
  EXPECT_EQ(sim->stats(kUdid).connections_open, 0);
}

TEST(DevsimProcess, StopsCleanlyOnSignals) {
  for (const std::string sig : {"TERM", "INT"}) {
    TempDir dir, img;
    build_image({}, img.path());
    const std::string sock = dir.path() + "/mux", out = dir.path() + "/out";
    // Started in the background and signalled once it says it is ready; its
    // exit status, its first line and any socket it left behind.
    const std::string script = std::string(TARN_DEVSIM_PATH) + " --socket " + sock + " --device " + img.path() +
                               ",udid=x >" + out + " & pid=$!; until grep -qs ready " + out + "; do sleep 0.01; done; " +
                               "test -e " + sock + " && test -e " + sock + ".ctl || echo sockets missing; kill -" +
                               sig + " $pid; wait $pid; echo exit $?; cat " + out + "; for f in " + sock + " " + sock +
                               ".ctl; do test -e $f && echo left $f; done; true";
    EXPECT_EQ(run_command("sh -c '" + script + "'"), "exit 0\ntarn-devsim: ready on " + sock + "\n") << sig;
  }
}

TEST(DevsimProcess, RejectsBadStartArguments) {
  TempDir img;
  build_image({}, img.path());
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
