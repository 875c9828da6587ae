// Fault switches and statistics, observed through libimobiledevice.
#include <gtest/gtest.h>

#include <chrono>

#include "sim_client.h"
#include "sim_image.h"
#include "simulator.h"

using namespace tarn::testing;

namespace {

constexpr char kUdid[] = "fault-dev";

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    make_sim_image(img.path(), {ImageEntry::file("a.txt", "0123456789"),
                                ImageEntry::patterned("big.bin", 1 << 20),
                                ImageEntry::directory("iTunes_Control/iTunes")},
                   R"({"ProductVersion": "9.3.5", "DeviceName": "Faulty"})");
    sim = std::make_unique<Simulator>(std::vector<SimDevice>{{img.path(), kUdid, {}}});
  }
  TempDir img;
  std::unique_ptr<Simulator> sim;
};

TEST_F(FaultTest, HandshakeAndServiceRefusalSwitchOnAndOff) {
  sim->set_option(kUdid, "refuse_handshake", "1");
  {
    AfcClient c(kUdid);
    EXPECT_EQ(c.error, "handshake");
  }
  int status = 0;
  run_command(std::string("ideviceinfo -u ") + kUdid, &status);
  EXPECT_NE(status, 0);
  sim->clear_faults(kUdid);
  sim->set_option(kUdid, "refuse_afc", "1");
  {
    AfcClient c(kUdid);
    EXPECT_EQ(c.error, "start_service");
  }
  sim->set_option(kUdid, "refuse_afc", "0");
  AfcClient c(kUdid);
  EXPECT_TRUE(c.ok()) << c.error;
  EXPECT_THROW(sim->set_option(kUdid, "no_such_option", "1"), std::runtime_error);
  EXPECT_THROW(sim->set_option("no-such-device", "latency_us", "1"), std::runtime_error);

  // The same switches given at start.
  TempDir other;
  make_sim_image(other.path(), {});
  Simulator s2({{other.path(), "opt-dev", {"refuse_afc=1", "version=5.1.1"}}});
  AfcClient refused("opt-dev");
  EXPECT_EQ(refused.lockdown_err, LOCKDOWN_E_SERVICE_PROHIBITED);
  EXPECT_NE(run_command("ideviceinfo -u opt-dev -k ProductVersion").find("5.1.1"), std::string::npos);
}

TEST_F(FaultTest, InjectedErrorsMatchPathPatterns) {
  sim->set_option(kUdid, "afc_error", "17:/com.apple.itunes.lock_sync");
  sim->set_option(kUdid, "afc_error", "10:/iTunes_Control/*");
  AfcClient c(kUdid);
  ASSERT_TRUE(c.ok());
  uint64_t h = 0;
  EXPECT_EQ(afc_file_open(c.get(), "/com.apple.itunes.lock_sync", AFC_FOPEN_RW, &h), AFC_E_OBJECT_BUSY);
  EXPECT_EQ(afc_file_open(c.get(), "//./com.apple.itunes.lock_sync", AFC_FOPEN_RW, &h), AFC_E_OBJECT_BUSY);
  EXPECT_EQ(c.put("/iTunes_Control/iTunes/x", "1"), AFC_E_PERM_DENIED);
  EXPECT_EQ(c.list("/iTunes_Control/iTunes").size(), 0u);
  std::string data;
  EXPECT_EQ(c.get("/a.txt", data), AFC_E_SUCCESS);
  EXPECT_EQ(data, "0123456789");
  sim->set_option(kUdid, "afc_error", "");
  EXPECT_EQ(c.put("/iTunes_Control/iTunes/x", "1"), AFC_E_SUCCESS);
}

TEST_F(FaultTest, DropsAfterRequestsOrBytes) {
  sim->set_option(kUdid, "drop_after_requests", "3");
  {
    AfcClient c(kUdid);
    ASSERT_TRUE(c.ok());
    afc_error_t e;
    for (int i = 0; i < 3; ++i) {
      c.file_info("/a.txt", &e);
      EXPECT_EQ(e, AFC_E_SUCCESS) << i;
    }
    c.file_info("/a.txt", &e);
    EXPECT_NE(e, AFC_E_SUCCESS);
  }
  sim->clear_faults(kUdid);
  sim->set_option(kUdid, "drop_after_bytes", "300000");
  {
    AfcClient c(kUdid);
    ASSERT_TRUE(c.ok());
    std::string data;
    c.get("/big.bin", data);
    EXPECT_LE(data.size(), 300000u);
    EXPECT_GT(data.size(), 100000u);
  }
  EXPECT_EQ(sim->stats(kUdid).connections_open, 0);
  EXPECT_EQ(sim->stats(kUdid).files_open, 0);
}

TEST_F(FaultTest, LatencyDelaysEveryRequest) {
  AfcClient c(kUdid);
  ASSERT_TRUE(c.ok());
  sim->set_option(kUdid, "latency_us", "20000");
  auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < 5; ++i) c.file_info("/a.txt");
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
  EXPECT_GE(ms.count(), 100);
  sim->set_option(kUdid, "latency_us", "0");
}

TEST_F(FaultTest, FileSlotsRunOut) {
  sim->set_option(kUdid, "max_files", "3");
  AfcClient c(kUdid);
  ASSERT_TRUE(c.ok());
  uint64_t h[4] = {};
  for (int i = 0; i < 3; ++i) ASSERT_EQ(afc_file_open(c.get(), "/a.txt", AFC_FOPEN_RDONLY, &h[i]), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_open(c.get(), "/a.txt", AFC_FOPEN_RDONLY, &h[3]), AFC_E_NO_RESOURCES);
  EXPECT_EQ(sim->stats(kUdid).files_open, 3);
  ASSERT_EQ(afc_file_close(c.get(), h[1]), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_open(c.get(), "/a.txt", AFC_FOPEN_RDONLY, &h[3]), AFC_E_SUCCESS);
}

TEST_F(FaultTest, DetachEndsConnections) {
  AfcClient c(kUdid);
  ASSERT_TRUE(c.ok());
  EXPECT_EQ(sim->stats(kUdid).connections_open, 1);
  sim->detach(kUdid);
  afc_error_t e;
  c.file_info("/a.txt", &e);
  EXPECT_NE(e, AFC_E_SUCCESS);
  EXPECT_EQ(run_command("idevice_id -l").find(kUdid), std::string::npos);
  AfcClient gone(kUdid);
  EXPECT_EQ(gone.error, "idevice_new");
  sim->attach({img.path(), kUdid, {}});
  AfcClient back(kUdid);
  EXPECT_TRUE(back.ok()) << back.error;
}

TEST_F(FaultTest, StatisticsCountAndLogRequests) {
  sim->enable_log(kUdid, true);
  {
    AfcClient c(kUdid);
    ASSERT_TRUE(c.ok());
    EXPECT_EQ(sim->stats(kUdid).connections_open, 1);  // lockdown is gone, AFC stays
    uint64_t h = 0;
    ASSERT_EQ(afc_file_open(c.get(), "/lockfile", AFC_FOPEN_RW, &h), AFC_E_SUCCESS);
    ASSERT_EQ(afc_file_lock(c.get(), h, AFC_LOCK_EX), AFC_E_SUCCESS);
    char buf[8];
    uint32_t n = 0;
    afc_file_read(c.get(), h, buf, sizeof buf, &n);
    auto s = sim->stats(kUdid);
    EXPECT_EQ(s.files_open, 1);
    EXPECT_EQ(s.locks_held, 1);
    afc_file_close(c.get(), h);
    c.list("/");
    afc_make_directory(c.get(), "/d");
    afc_rename_path(c.get(), "/d", "/e");
    afc_remove_path(c.get(), "/e");
    c.device_info();
  }
  auto s = sim->stats(kUdid);
  EXPECT_EQ(s.connections_open, 0);
  EXPECT_EQ(s.files_open, 0);
  EXPECT_EQ(s.locks_held, 0);
  // Each request counted once and logged in order with the path it named.
  const std::vector<std::string> want = {"FileOpen /lockfile", "FileLock /lockfile", "FileRead /lockfile",
                                         "FileClose /lockfile", "ReadDirectory /", "MakeDir /d",
                                         "RenamePath /d", "RemovePath /e", "GetDeviceInfo "};
  std::vector<std::string> log;
  for (const auto& r : sim->request_log(kUdid)) {
    log.push_back(r.op + " " + r.path);
    EXPECT_EQ(s.total(r.op), 1u) << r.op;
  }
  EXPECT_EQ(log, want);
  sim->reset_stats(kUdid);
  EXPECT_EQ(sim->stats(kUdid).total("FileOpen"), 0u);
  EXPECT_TRUE(sim->request_log(kUdid).empty());
}

}  // namespace
