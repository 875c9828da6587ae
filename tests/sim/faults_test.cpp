// Fault switches and statistics, observed through libimobiledevice.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "sim_client.h"
#include "images.h"
#include "simulator.h"
#include "test_util.h"

using namespace tarn::testing;

namespace {

constexpr char kUdid[] = "fault-dev";

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    build_image(nlohmann::ordered_json::parse(R"({"device": {"ProductVersion": "9.3.5", "DeviceName": "Faulty"},
      "files": [{"path": "/a.txt", "content": "0123456789"}, {"path": "/big.bin", "size": 1048576, "pattern": true},
                {"path": "/iTunes_Control/iTunes", "dir": true}]})"),
                img.path());
    sim = std::make_unique<Simulator>(std::vector<SimDevice>{{img.path(), kUdid, {}}});
  }
  TempDir img;
  std::unique_ptr<Simulator> sim;
};

// Each switch breaks what it names; once the faults are cleared a new client
// reads the device as usual and nothing of the broken one stays open.
TEST_F(FaultTest, EachSwitchBreaksWhatItNamesUntilCleared) {
  struct Case {
    std::vector<std::pair<const char*, const char*>> options;
    std::function<void(AfcClient&)> probe;  // gets a client made after the switch was set
  };
  const Case cases[] = {
      {{{"refuse_handshake", "1"}},
       [](AfcClient& c) {
         EXPECT_EQ(c.error, "handshake");
         int status = 0;
         run_command(std::string("ideviceinfo -u ") + kUdid, &status);
         EXPECT_NE(status, 0);
       }},
      {{{"refuse_afc", "1"}}, [](AfcClient& c) { EXPECT_EQ(c.error, "start_service"); }},
      {{{"afc_error", "17:/com.apple.itunes.lock_sync"}, {"afc_error", "10:/iTunes_Control/*"}},
       [](AfcClient& c) {
         uint64_t h = 0;
         EXPECT_EQ(afc_file_open(c.get(), "/com.apple.itunes.lock_sync", AFC_FOPEN_RW, &h), AFC_E_OBJECT_BUSY);
         EXPECT_EQ(afc_file_open(c.get(), "//./com.apple.itunes.lock_sync", AFC_FOPEN_RW, &h), AFC_E_OBJECT_BUSY);
         EXPECT_EQ(c.put("/iTunes_Control/iTunes/x", "1"), AFC_E_PERM_DENIED);
         EXPECT_EQ(c.list("/iTunes_Control/iTunes").size(), 0u);
         std::string data;
         EXPECT_EQ(c.get("/a.txt", data), AFC_E_SUCCESS) << "a path no pattern matches";
       }},
      {{{"drop_after_requests", "3"}},
       [](AfcClient& c) {
         afc_error_t e;
         for (int i = 0; i < 3; ++i) {
           c.file_info("/a.txt", &e);
           EXPECT_EQ(e, AFC_E_SUCCESS) << i;
         }
         c.file_info("/a.txt", &e);
         EXPECT_NE(e, AFC_E_SUCCESS);
       }},
      {{{"drop_after_bytes", "300000"}},
       [](AfcClient& c) {
         // The cut falls inside a data packet. libimobiledevice 1.3 then
         // reports the whole read as done (its tail unfilled); only the
         // next request fails.
         std::string data;
         EXPECT_NE(c.get("/big.bin", data), AFC_E_SUCCESS);
         EXPECT_LE(data.size(), 300000u + 65536u);
         EXPECT_GT(data.size(), 100000u);
       }},
      {{{"max_files", "3"}},
       [this](AfcClient& c) {
         uint64_t h[4] = {};
         for (int i = 0; i < 3; ++i) ASSERT_EQ(afc_file_open(c.get(), "/a.txt", AFC_FOPEN_RDONLY, &h[i]), AFC_E_SUCCESS);
         EXPECT_EQ(afc_file_open(c.get(), "/a.txt", AFC_FOPEN_RDONLY, &h[3]), AFC_E_NO_RESOURCES);
         EXPECT_EQ(sim->stats(kUdid).files_open, 3);
         ASSERT_EQ(afc_file_close(c.get(), h[1]), AFC_E_SUCCESS);
         EXPECT_EQ(afc_file_open(c.get(), "/a.txt", AFC_FOPEN_RDONLY, &h[3]), AFC_E_SUCCESS);
       }},
      {{{"latency_us", "20000"}},
       [](AfcClient& c) {
         const auto t0 = std::chrono::steady_clock::now();
         for (int i = 0; i < 5; ++i) c.file_info("/a.txt");
         EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(100));
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options[0].first);
    for (const auto& [key, value] : c.options) sim->set_option(kUdid, key, value);
    {
      AfcClient client(kUdid);
      c.probe(client);
    }
    sim->clear_faults(kUdid);
    ExpectIdle(*sim, kUdid, c.options[0].first);
    AfcClient after(kUdid);
    std::string data;
    EXPECT_EQ(after.get("/a.txt", data), AFC_E_SUCCESS) << after.error;
  }
  EXPECT_THROW(sim->set_option(kUdid, "no_such_option", "1"), std::runtime_error);
  EXPECT_THROW(sim->set_option("no-such-device", "latency_us", "1"), std::runtime_error);
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
