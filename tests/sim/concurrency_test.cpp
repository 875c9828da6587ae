// Many clients at once: nobody waits for anybody else, and the counters are
// exact as soon as a client has gone.
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

  // ...while the fast device serves eight clients in parallel.
  std::atomic<int> good{0};
  std::vector<std::thread> workers;
  for (int i = 0; i < 8; ++i) {
    workers.emplace_back([&, i] {
      AfcClient c("fast-dev");
      if (!c.ok()) return;
      std::string name = "/w" + std::to_string(i), data(256 * 1024, static_cast<char>('a' + i)), back;
      if (c.put(name, data) == AFC_E_SUCCESS && c.get(name, back) == AFC_E_SUCCESS && back == data)
        ++good;
    });
  }
  for (auto& w : workers) w.join();
  EXPECT_FALSE(slow_done.load()) << "fast clients waited for the slow one";
  busy.join();
  ::close(raw);
  EXPECT_EQ(good.load(), 8);
  auto s = sim->stats("fast-dev");
  EXPECT_EQ(s.connections_open, 0);
  EXPECT_EQ(s.total("FileWrite"), 8u);
}

TEST_F(ConcurrencyTest, CountersAreExactRightAfterClientsLeave) {
  for (int round = 0; round < 20; ++round) {
    {
      AfcClient c("fast-dev");
      ASSERT_TRUE(c.ok());
      uint64_t h = 0;
      ASSERT_EQ(afc_file_open(c.get(), "/f.txt", AFC_FOPEN_RW, &h), AFC_E_SUCCESS);
      ASSERT_EQ(afc_file_lock(c.get(), h, AFC_LOCK_EX), AFC_E_SUCCESS);
      // Left open and locked: leaving must give both up.
    }
    auto s = sim->stats("fast-dev");
    ASSERT_EQ(s.connections_open, 0) << round;
    ASSERT_EQ(s.files_open, 0) << round;
    ASSERT_EQ(s.locks_held, 0) << round;
  }
  EXPECT_EQ(sim->stats("fast-dev").total("FileLock"), 20u);
}

}  // namespace
