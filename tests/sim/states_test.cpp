// The states a real phone can be in, judged by libimobiledevice 1.3 itself
// and by its command-line clients: the lockdown error each state gives is
// the one a phone in that state gives.
#include <arpa/inet.h>
#include <gtest/gtest.h>


#include "sim_client.h"
#include "images.h"
#include "simulator.h"
#include "test_util.h"

using namespace tarn::testing;

namespace {

constexpr char kUdid[] = "state-dev";

class StatesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    build_image(nlohmann::ordered_json::parse(R"({"device": {"ProductVersion": "15.7", "DeviceName": "Stateful"},
                                                 "files": [{"path": "/a.txt", "content": "abc"}]})"),
                img.path());
    sim = std::make_unique<Simulator>(std::vector<SimDevice>{{img.path(), kUdid, {}}});
  }
  // The handshake every tool makes: QueryType, pair record, StartSession, TLS.
  static lockdownd_error_t Handshake() {
    idevice_t dev = nullptr;
    if (idevice_new(&dev, kUdid) != IDEVICE_E_SUCCESS) return LOCKDOWN_E_MUX_ERROR;
    lockdownd_client_t ld = nullptr;
    const lockdownd_error_t e = lockdownd_client_new_with_handshake(dev, &ld, "tarn-test");
    if (ld) lockdownd_client_free(ld);
    idevice_free(dev);
    return e;
  }
  static std::string Tool(const std::string& cmd, int* status) { return run_command(cmd + " -u " + kUdid, status); }

  TempDir img;
  std::unique_ptr<Simulator> sim;
};

TEST_F(StatesTest, EachStateGivesThePhonesLockdownError) {
  struct Case {
    std::vector<std::string> options;
    lockdownd_error_t want;
    const char* validate_says;  // part of what `idevicepair validate` prints
  };
  const Case cases[] = {
      {{}, LOCKDOWN_E_SUCCESS, "SUCCESS: Validated pairing"},
      {{"paired=0"}, LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING, "accept the trust dialog"},
      {{"paired=0", "pair_answer=denied"}, LOCKDOWN_E_USER_DENIED_PAIRING, "denied the trust dialog"},
      {{"paired=0", "pair_answer=passcode"}, LOCKDOWN_E_PASSWORD_PROTECTED, "passcode is set"},
      {{"locked=1"}, LOCKDOWN_E_PASSWORD_PROTECTED, "passcode is set"},
      {{"stale_pairing=1"}, LOCKDOWN_E_INVALID_HOST_ID, "not paired with this host"},
      {{"ssl_fail=1"}, LOCKDOWN_E_SSL_ERROR, "error code -5"},
      {{"ssl=0"}, LOCKDOWN_E_SUCCESS, "SUCCESS: Validated pairing"},
  };
  for (const Case& c : cases) {
    std::string name;
    for (const auto& o : c.options) {
      name += o + " ";
      const auto eq = o.find('=');
      sim->set_option(kUdid, o.substr(0, eq), o.substr(eq + 1));
    }
    SCOPED_TRACE(name);
    sim->reset_stats(kUdid);
    EXPECT_EQ(Handshake(), c.want);
    int status = -1;
    // Every state still shows the device and answers values outside a session.
    EXPECT_NE(run_command("idevice_id -l").find(kUdid), std::string::npos);
    EXPECT_EQ(Tool("ideviceinfo -s -k DeviceName", &status), "Stateful\n");
    // Unpaired, each client first makes its own 2048-bit keys (seconds here),
    // so the handshake above and validate below stand for them.
    if (name.rfind("paired=0", 0) != 0) {
      const std::string info = Tool("ideviceinfo -k DeviceName", &status);
      EXPECT_EQ(status == 0, c.want == LOCKDOWN_E_SUCCESS) << info;
    }
    const std::string said = Tool("idevicepair validate", &status);
    EXPECT_NE(said.find(c.validate_says), std::string::npos) << said;
    const bool encrypted = c.want == LOCKDOWN_E_SUCCESS && name != "ssl=0 ";
    EXPECT_EQ(sim->stats(kUdid).tls_sessions > 0, encrypted);
    sim->clear_faults(kUdid);
    sim->set_option(kUdid, "paired", "1");
    ExpectIdle(*sim, kUdid, name);
  }
}

// The whole exchange a new host goes through, with the real tools: the
// record saved by pairing serves later sessions; unpairing drops it.
TEST_F(StatesTest, PairValidateUnpairWithTheRealTools) {
  sim->set_option(kUdid, "paired", "0");
  sim->set_option(kUdid, "pair_answer", "accept");
  int status = -1;
  std::string out = Tool("idevicepair pair", &status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_EQ(Handshake(), LOCKDOWN_E_SUCCESS);
  out = Tool("idevicedate", &status);
  EXPECT_EQ(status, 0) << out;
  out = Tool("idevicepair unpair", &status);
  EXPECT_EQ(status, 0) << out;
  sim->set_option(kUdid, "pair_answer", "pending");
  EXPECT_EQ(Handshake(), LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING);
  EXPECT_GE(sim->stats(kUdid).tls_sessions, 2u);
}

// stall_after_requests leaves a request unanswered for as long as the client
// waits; the connection ends when the client gives up.
TEST_F(StatesTest, StalledRequestIsNeverAnswered) {
  sim->set_option(kUdid, "stall_after_requests", "1");
  idevice_t dev = nullptr;
  ASSERT_EQ(idevice_new(&dev, kUdid), IDEVICE_E_SUCCESS);
  idevice_connection_t conn = nullptr;
  ASSERT_EQ(idevice_connect(dev, 62078, &conn), IDEVICE_E_SUCCESS);
  const std::string query =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Request</key><string>QueryType</string></dict></plist>";
  auto ask = [&] {
    uint32_t len = htonl(static_cast<uint32_t>(query.size())), sent = 0, got = 0;
    idevice_connection_send(conn, reinterpret_cast<const char*>(&len), 4, &sent);
    idevice_connection_send(conn, query.data(), static_cast<uint32_t>(query.size()), &sent);
    char buf[4096];
    idevice_connection_receive_timeout(conn, buf, sizeof buf, &got, 500);
    return got;
  };
  EXPECT_GT(ask(), 0u);
  EXPECT_EQ(ask(), 0u);
  idevice_disconnect(conn);
  idevice_free(dev);
  ExpectIdle(*sim, kUdid, "a stalled request");
}

}  // namespace
