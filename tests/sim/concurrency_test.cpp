// Many clients at once: nobody waits for anybody else.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "sim_client.h"
#include "sim_image.h"
#include "simulator.h"

using namespace tarn::testing;

namespace {

class ConcurrencyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    make_sim_image(fast.path(), {ImageEntry::file("f.txt", "fast")});
    make_sim_image(slow.path(), {ImageEntry::file("s.txt", "slow")});
    sim = std::make_unique<Simulator>(std::vector<SimDevice>{
        {fast.path(), "fast-dev", {}}, {slow.path(), "slow-dev", {}}});
  }
  TempDir fast, slow;
  std::unique_ptr<Simulator> sim;
};

TEST_F(ConcurrencyTest, StalledAndSlowClientsDelayNobodyElse) {
  // A client that sends half a message and then goes quiet.
  int raw = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, sim->socket_path().c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(::connect(raw, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(::send(raw, "\x40\x00\x00", 3, 0), 3);

  // A client of the slow device is busy in a request...
  AfcClient slow_client("slow-dev");
  ASSERT_TRUE(slow_client.ok());
  sim->set_option("slow-dev", "latency_us", "3000000");
  std::atomic<bool> slow_done{false};
  std::thread busy([&] {
    slow_client.file_info("/s.txt");
    slow_done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));

  // ...while the fast device serves a client from start to end.
  {
    AfcClient c("fast-dev");
    ASSERT_TRUE(c.ok()) << c.error;
    std::string back;
    EXPECT_EQ(c.put("/w", std::string(256 * 1024, 'w')), AFC_E_SUCCESS);
    EXPECT_EQ(c.get("/w", back), AFC_E_SUCCESS);
    EXPECT_EQ(back.size(), 256u * 1024);
  }
  EXPECT_FALSE(slow_done.load()) << "the fast client waited for the slow one";
  busy.join();
  ::close(raw);
  EXPECT_EQ(sim->stats("fast-dev").connections_open, 0);
}

}  // namespace
