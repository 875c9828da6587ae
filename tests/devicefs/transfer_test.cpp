// Single-file transfers: bytes, progress calls, cancel, the sync lock and the
// console lines the application's log relies on.
#include <cinttypes>
#include <functional>
#include <sstream>
#include <tuple>

#include "fs_fixture.h"

namespace tarn_fs_test {
namespace {

struct Call {
  uint64_t total, done;
  int finished;
  bool operator==(const Call &o) const { return total == o.total && done == o.done && finished == o.finished; }
};

std::string Show(const std::vector<Call> &calls) {
  std::ostringstream out;
  for (auto &c : calls) out << "(" << c.total << "," << c.done << "," << c.finished << ") ";
  return out.str();
}

// What the progress callback sees, reached through the handle's userData.
struct Recorder {
  std::vector<Call> calls;
  std::vector<void *> user_data;
  int cancel_at = -1;  // index of the call that answers 1
  tarn::testing::Simulator *sim = nullptr;
  std::vector<tarn::testing::SimStats> stats;  // taken inside each call
};

int Record(uint64_t total, uint64_t done, int finished, void *user) {
  auto *r = static_cast<Recorder *>(user);
  r->calls.push_back({total, done, finished});
  r->user_data.push_back(user);
  if (r->sim) r->stats.push_back(r->sim->stats(kUdid));
  return static_cast<int>(r->calls.size()) - 1 == r->cancel_at ? 1 : 0;
}

class TransferTest : public DeviceFsTest {};

// Every run also compares the bytes that arrived, so the sizes below cover
// the block boundaries in both directions.
TEST_F(TransferTest, ProgressCallsFollowTheDocumentedSequenceAndBytesArriveIntact) {
  constexpr uint64_t kWhole = ~uint64_t{0};
  struct Case {
    const char *what;
    uint64_t size;
    bool upload;
    int cancel_at;    // index of the call that answers 1, or -1
    int drop_after;   // requests before the device vanishes, or 0
    std::vector<Call> expected;
    uint64_t kept;    // bytes at the destination afterwards
  } cases[] = {
      {"empty download", 0, false, -1, 0, {{0, 0, 1}}, kWhole},
      {"one-byte download", 1, false, -1, 0, {{1, 1, 0}, {1, 1, 1}}, kWhole},
      {"download", 100000, false, -1, 0, {{100000, 65536, 0}, {100000, 100000, 0}, {100000, 100000, 1}}, kWhole},
      {"block-multiple download", 131072, false, -1, 0,
       {{131072, 65536, 0}, {131072, 131072, 0}, {131072, 131072, 1}}, kWhole},
      {"empty upload", 0, true, -1, 0, {{0, 0, 0}, {0, 0, 1}}, kWhole},
      // The final call of an upload carries the last block alone.
      {"upload", 100000, true, -1, 0, {{100000, 65536, 0}, {100000, 100000, 0}, {100000, 34464, 1}}, kWhole},
      // A file ending on a block boundary is seen to end by one more empty
      // block, which is written and reported as well.
      {"block-multiple upload", 131072, true, -1, 0,
       {{131072, 65536, 0}, {131072, 131072, 0}, {131072, 131072, 0}, {131072, 0, 1}}, kWhole},
      // A cancel on the first call stops after one block, without a final
      // call; what arrived stays.
      {"cancelled download", 300000, false, 0, 0, {{300000, 65536, 0}}, 65536},
      {"cancelled upload", 300000, true, 0, 0, {{300000, 65536, 0}}, 65536},
      // Lock file open and lock, file information, open, two blocks: the
      // third block's request finds the device gone, and the final call
      // still comes.
      {"download cut short", 300000, false, -1, 6, {{300000, 65536, 0}, {300000, 131072, 0}, {300000, 131072, 1}},
       131072},
      // Lock file open and lock, open, three blocks written; the fourth finds
      // the device gone and the final call reports nothing more written.
      {"upload cut short", 300000, true, -1, 6,
       {{300000, 65536, 0}, {300000, 131072, 0}, {300000, 196608, 0}, {300000, 0, 1}}, 196608},
  };
  image.Dir("/P");
  for (auto &c : cases) image.File("/P/d" + std::to_string(c.size), Bytes(c.size));
  Start();
  for (auto &c : cases) {
    SCOPED_TRACE(c.what);
    Recorder rec;
    rec.cancel_at = c.cancel_at;
    device->userData = &rec;
    const std::string host = image.host(std::string(c.what)).string();
    const std::string dev = (c.upload ? "/P/u" : "/P/d") + std::to_string(c.size);
    if (c.drop_after) sim->set_option(kUdid, "drop_after_requests", std::to_string(c.drop_after));
    testing::internal::CaptureStdout();
    if (c.upload) {
      WriteAll(host, Bytes(c.size));
      EXPECT_EQ(CopyFileFromNativeToDevice(device, host.c_str(), dev.c_str(), Record), 0);
    } else {
      CopyFileFromDeviceToNative(device, dev.c_str(), host.c_str(), Record);
    }
    testing::internal::GetCapturedStdout();
    sim->clear_faults(kUdid);
    EXPECT_EQ(rec.calls, c.expected) << "got " << Show(rec.calls) << " expected " << Show(c.expected);
    for (void *u : rec.user_data) EXPECT_EQ(u, &rec) << "user data is not the handle's userData";
    const std::string arrived = ReadAll(c.upload ? image.media(dev) : fs::path(host));
    EXPECT_TRUE(arrived == Bytes(c.size).substr(0, c.kept == kWhole ? c.size : c.kept)) << arrived.size() << " bytes";
    ExpectIdle(c.what);
  }
}

TEST_F(TransferTest, TheSyncLockIsHeldForTheWholeCopy) {
  image.File("/L/f", Bytes(200000));
  Start();
  Recorder rec;
  rec.sim = sim.get();
  device->userData = &rec;
  WriteAll(image.host("g"), Bytes(200000));
  testing::internal::CaptureStdout();
  CopyFileFromDeviceToNative(device, "/L/f", image.host("f").c_str(), Record);
  EXPECT_EQ(CopyFileFromNativeToDevice(device, image.host("g").c_str(), "/L/g", Record), 0);
  testing::internal::GetCapturedStdout();
  // Five calls each; the upload's final call comes after its device file
  // was closed, the lock file stays open until the bracket ends.
  ASSERT_EQ(rec.stats.size(), 10u) << Show(rec.calls);
  for (size_t i = 0; i < rec.stats.size(); ++i) {
    EXPECT_EQ(rec.stats[i].locks_held, 1) << "progress call " << i;
    EXPECT_EQ(rec.stats[i].files_open, i == 9 ? 1 : 2) << "progress call " << i;
  }
  ExpectIdle("copies");
}

TEST_F(TransferTest, EachOutcomePrintsItsLinesAndAFailureWritesNothing) {
  image.File("/T/f", Bytes(70000));
  WriteAll(image.host("up"), "abc");
  WriteAll(image.host("plainfile"), "x");
  Start();
  const std::string download = "CopyDeviceFile\nblock_size: 65536l\nfinish _CopyFile\nfinish CopyDeviceFile\n";
  auto down = [&](const char *from, const std::string &to) {
    return [&, from, to] {
      Recorder rec;
      device->userData = &rec;
      CopyFileFromDeviceToNative(device, from, to.c_str(), Record);
      EXPECT_EQ(rec.calls.empty(), to != image.host("f").string()) << "progress of a download that cannot write";
    };
  };
  auto up = [&](const char *from, const char *to, int result) {
    return [&, from, to, result] { EXPECT_EQ(CopyFileFromNativeToDevice(device, from, to, nullptr), result); };
  };
  const std::string up_host = image.host("up").string();
  struct Case {
    const char *what;
    bool lock_refused;
    std::function<void()> call;
    std::string expected;
  } cases[] = {
      {"download", false, down("/T/f", image.host("f").string()), download},
      {"download of a missing device file", false, down("/T/none", image.host("n").string()),
       "CopyDeviceFile\nfinish CopyDeviceFile\n"},
      // The host path cannot be written: a missing directory, a file where a
      // directory should be, an existing directory as the file.
      {"download into a missing directory", false, down("/T/f", image.host("no/such/dir/f").string()), download},
      {"download below a file", false, down("/T/f", image.host("plainfile/f").string()), download},
      {"download onto a directory", false, down("/T/f", image.host().string()), download},
      {"upload", false, up(up_host.c_str(), "/T/g", 0), "CopyFileFromNativeToDevice\n"},
      // 0: the connection and the lock were there.
      {"upload of a missing host file", false, up("/nonexistent/tarn/x", "/T/h", 0),
       "CopyFileFromNativeToDevice\ncan't read file /nonexistent/tarn/x\n"},
      // The sync lock cannot be taken: nothing moves.
      {"upload without the lock", true, up(up_host.c_str(), "/T/locked", 1), "CopyFileFromNativeToDevice\n"},
      {"download without the lock", true, [&] {
         CopyFileFromDeviceToNative(device, "/T/f", image.host("locked").c_str(), nullptr);
       }, "CopyDeviceFile\n"},
      {"MakeDir without the lock", true, [&] { EXPECT_EQ(MakeDir(device, "/T/new"), 1); }, "MakeDir\n"},
  };
  for (auto &c : cases) {
    SCOPED_TRACE(c.what);
    if (c.lock_refused) sim->set_option(kUdid, "afc_error", "10:/com.apple.itunes.lock_sync");
    EXPECT_EQ(Console([&] { c.call(); }), c.expected);
    sim->set_option(kUdid, "afc_error", "");
    ExpectIdle(c.what);
  }
  for (const char *none : {"/T/h", "/T/locked", "/T/new"}) EXPECT_FALSE(fs::exists(image.media(none))) << none;
  EXPECT_FALSE(fs::exists(image.host("no")));
  EXPECT_FALSE(fs::exists(image.host("locked")));
  EXPECT_EQ(ReadAll(image.host("plainfile")), "x");

  PodDevice *absent = CreatePodDevice("no-such-device");
  testing::internal::CaptureStdout();
  EXPECT_EQ(CopyFileFromNativeToDevice(absent, up_host.c_str(), "/T/g", nullptr), 1);
  EXPECT_EQ(MakeDir(absent, "/T/new"), 1);
  testing::internal::GetCapturedStdout();
  FreePodDevice(absent);
}

}  // namespace
}  // namespace tarn_fs_test
