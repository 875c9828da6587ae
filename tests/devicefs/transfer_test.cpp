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

TEST_F(TransferTest, RoundTripsAreByteExactAcrossBlockBoundaries) {
  const size_t sizes[] = {0, 1, 65535, 65536, 65537, 100000, 3 * 1024 * 1024 + 17};
  image.Dir("/Up");
  Start();
  for (size_t n : sizes) {
    SCOPED_TRACE("size " + std::to_string(n));
    const std::string bytes = Bytes(n, static_cast<unsigned>(n + 1));
    const std::string name = "f" + std::to_string(n);
    WriteAll(image.host("out/" + name), bytes);
    testing::internal::CaptureStdout();
    ASSERT_EQ(CopyFileFromNativeToDevice(device, image.host("out/" + name).c_str(), ("/Up/" + name).c_str(), nullptr), 0);
    fs::create_directories(image.host("back"));
    CopyFileFromDeviceToNative(device, ("/Up/" + name).c_str(), image.host("back/" + name).c_str(), nullptr);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(ReadAll(image.media("/Up/" + name)) == bytes) << "device copy differs";
    ExpectIdle("download");
    EXPECT_TRUE(ReadAll(image.host("back/" + name)) == bytes) << "host copy differs";
  }
}

TEST_F(TransferTest, ProgressCallsFollowTheDocumentedSequence) {
  struct Case {
    const char *what;
    uint64_t size;
    bool upload;
    std::vector<Call> expected;
  } cases[] = {
      {"empty download", 0, false, {{0, 0, 1}}},
      {"download", 100000, false, {{100000, 65536, 0}, {100000, 100000, 0}, {100000, 100000, 1}}},
      {"block-multiple download", 131072, false, {{131072, 65536, 0}, {131072, 131072, 0}, {131072, 131072, 1}}},
      {"empty upload", 0, true, {{0, 0, 0}, {0, 0, 1}}},
      // The final call of an upload carries the last block alone.
      {"upload", 100000, true, {{100000, 65536, 0}, {100000, 100000, 0}, {100000, 34464, 1}}},
      // A file ending on a block boundary is seen to end by one more empty
      // block, which is written and reported as well.
      {"block-multiple upload",
       131072,
       true,
       {{131072, 65536, 0}, {131072, 131072, 0}, {131072, 131072, 0}, {131072, 0, 1}}},
  };
  image.Dir("/P");
  for (auto &c : cases) image.File("/P/d" + std::to_string(c.size), Bytes(c.size));
  Start();
  for (auto &c : cases) {
    Recorder rec;
    device->userData = &rec;
    const std::string host = image.host(std::string(c.what)).string();
    const std::string dev = (c.upload ? "/P/u" : "/P/d") + std::to_string(c.size);
    testing::internal::CaptureStdout();
    if (c.upload) {
      WriteAll(host, Bytes(c.size));
      EXPECT_EQ(CopyFileFromNativeToDevice(device, host.c_str(), dev.c_str(), Record), 0) << c.what;
    } else {
      CopyFileFromDeviceToNative(device, dev.c_str(), host.c_str(), Record);
    }
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(rec.calls, c.expected) << c.what << ": got " << Show(rec.calls) << " expected " << Show(c.expected);
    for (void *u : rec.user_data) EXPECT_EQ(u, &rec) << c.what << ": user data is not the handle's userData";
    ExpectIdle(c.what);
  }
}

TEST_F(TransferTest, CancelOnTheFirstCallStopsAfterOneBlockWithoutFinalCall) {
  image.File("/C/big", Bytes(300000));
  Start();
  {
    Recorder rec;
    rec.cancel_at = 0;
    device->userData = &rec;
    testing::internal::CaptureStdout();
    CopyFileFromDeviceToNative(device, "/C/big", image.host("partial").c_str(), Record);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(rec.calls, (std::vector<Call>{{300000, 65536, 0}})) << Show(rec.calls);
    // The partial host file stays.
    EXPECT_TRUE(ReadAll(image.host("partial")) == Bytes(300000).substr(0, 65536));
    ExpectIdle("cancelled download");
  }
  {
    Recorder rec;
    rec.cancel_at = 0;
    device->userData = &rec;
    WriteAll(image.host("up"), Bytes(300000, 3));
    testing::internal::CaptureStdout();
    EXPECT_EQ(CopyFileFromNativeToDevice(device, image.host("up").c_str(), "/C/up", Record), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(rec.calls, (std::vector<Call>{{300000, 65536, 0}})) << Show(rec.calls);
    EXPECT_EQ(fs::file_size(image.media("/C/up")), 65536u);
    ExpectIdle("cancelled upload");
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

TEST_F(TransferTest, ConsoleLinesOfEachOutcome) {
  image.File("/T/f", "abc");
  Start();
  struct Case {
    const char *what;
    std::function<void()> call;
    std::string expected;
  } cases[] = {
      {"download",
       [&] { CopyFileFromDeviceToNative(device, "/T/f", image.host("f").c_str(), nullptr); },
       "CopyDeviceFile\nblock_size: 65536l\nfinish _CopyFile\nfinish CopyDeviceFile\n"},
      {"download of a missing device file",
       [&] { CopyFileFromDeviceToNative(device, "/T/none", image.host("n").c_str(), nullptr); },
       "CopyDeviceFile\nfinish CopyDeviceFile\n"},
      {"upload", [&] { CopyFileFromNativeToDevice(device, image.host("f").c_str(), "/T/g", nullptr); },
       "CopyFileFromNativeToDevice\n"},
      {"upload of a missing host file",
       [&] { CopyFileFromNativeToDevice(device, "/nonexistent/tarn/x", "/T/h", nullptr); },
       "CopyFileFromNativeToDevice\ncan't read file /nonexistent/tarn/x\n"},
  };
  for (auto &c : cases) {
    testing::internal::CaptureStdout();
    c.call();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.expected) << c.what;
    ExpectIdle(c.what);
  }
  EXPECT_FALSE(fs::exists(image.media("/T/h"))) << "a missing host file must not create the device file";
}

TEST_F(TransferTest, DownloadIntoAnUnwritableHostPathWritesNothing) {
  image.File("/H/f", Bytes(70000));
  WriteAll(image.host("plainfile"), "x");
  Start();
  const std::string targets[] = {
      image.host("no/such/dir/f").string(),   // directory missing
      image.host("plainfile/f").string(),     // a file where a directory should be
      image.host().string(),                  // an existing directory as the file
  };
  for (auto &t : targets) {
    Recorder rec;
    device->userData = &rec;
    testing::internal::CaptureStdout();
    CopyFileFromDeviceToNative(device, "/H/f", t.c_str(), Record);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "CopyDeviceFile\nblock_size: 65536l\nfinish _CopyFile\nfinish CopyDeviceFile\n")
        << t;
    EXPECT_TRUE(rec.calls.empty()) << t << ": " << Show(rec.calls);
    ExpectIdle(t);
  }
  EXPECT_FALSE(fs::exists(image.host("no")));
  EXPECT_EQ(ReadAll(image.host("plainfile")), "x");
}

TEST_F(TransferTest, UnreachableDeviceOrLockFileFailsWithOne) {
  image.File("/F/f", "abc");
  WriteAll(image.host("up"), "abc");
  Start({"afc_error=10:/com.apple.itunes.lock_sync"});
  testing::internal::CaptureStdout();
  EXPECT_EQ(CopyFileFromNativeToDevice(device, image.host("up").c_str(), "/F/g", nullptr), 1);
  CopyFileFromDeviceToNative(device, "/F/f", image.host("down").c_str(), nullptr);
  EXPECT_EQ(MakeDir(device, "/F/new"), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "CopyFileFromNativeToDevice\nCopyDeviceFile\nMakeDir\n");
  EXPECT_FALSE(fs::exists(image.media("/F/g")));
  EXPECT_FALSE(fs::exists(image.host("down")));
  EXPECT_FALSE(fs::exists(image.media("/F/new")));
  ExpectIdle("lock file refused");

  PodDevice *absent = CreatePodDevice("no-such-device");
  testing::internal::CaptureStdout();
  EXPECT_EQ(CopyFileFromNativeToDevice(absent, image.host("up").c_str(), "/F/g", nullptr), 1);
  EXPECT_EQ(MakeDir(absent, "/F/new"), 1);
  testing::internal::GetCapturedStdout();
  FreePodDevice(absent);
}

}  // namespace
}  // namespace tarn_fs_test
