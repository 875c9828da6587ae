// What each tarn command costs the phone in secure lockdown sessions, as the
// simulator counts them: a TLS handshake is the dearest step on a real
// device, and every command needs at most one.
#include "tool_fixture.h"

namespace tarn_apps_test {
namespace {

class ToolSessionTest : public ToolTest {
 protected:
  void SetUp() override {
    json d = Description();
    for (int i = 0; i < 3; ++i)
      d["files"].push_back({{"path", "/DCIM/100APPLE/IMG_000" + std::to_string(i) + ".JPG"},
                            {"content", "picture " + std::to_string(i)}, {"mtime", kTrackTime}});
    tarn::testing::build_image(d, image());
    fs::create_directories(host(""));
    Serve(image());
  }
};

TEST_F(ToolSessionTest, EveryCommandOpensAtMostOneSecureSession) {
  WriteAll(host("up.txt"), "uploaded");
  struct Case {
    std::vector<std::string> args;
    uint64_t sessions;
  };
  const std::vector<Case> cases = {
      // The name is one of the values a device gives without a session.
      {{"devices"}, 0},
      {{"info"}, 1},
      {{"list", "music"}, 1},
      {{"list", "camera"}, 1},
      {{"ls", "-l", "/DCIM/100APPLE"}, 1},
      {{"stat", "/DCIM/100APPLE/IMG_0000.JPG"}, 1},
      {{"find", "/", "img"}, 1},
      {{"mkdir", "-p", "/New/Deeper"}, 1},
      {{"mv", "/New/Deeper", "/New/Other"}, 1},
      {{"rm", "-r", "/New"}, 1},
      {{"pull", "/DCIM", host("dcim")}, 1},
      {{"push", host("up.txt"), "/DCIM/up.txt"}, 1},
      {{"export", "music", host("music")}, 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.args[0] + (c.args.size() > 1 ? " " + c.args[1] : ""));
    sim->reset_stats(kUdid);
    const Result r = Tarn(c.args);
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(sim->stats(kUdid).tls_sessions, c.sessions);
  }
}

}  // namespace
}  // namespace tarn_apps_test
