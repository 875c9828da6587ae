// A device that disappears in the middle of an operation: every operation
// comes back with its failure result in bounded time and leaves nothing open.
#include <chrono>
#include <functional>
#include <tuple>

#include "fs_fixture.h"

namespace tarn_fs_test {
namespace {

class FaultTest : public DeviceFsTest {};

TEST_F(FaultTest, ADeviceLostMidOperationYieldsTheFailureResultWithoutHanging) {
  image.File("/t/a/f1", Bytes(300000));
  image.File("/t/a/b/f2", Bytes(70000, 2));
  image.File("/t/a/b/c/f3", "3");
  image.File("/t/up", Bytes(300000, 3));
  WriteAll(image.host("up"), Bytes(300000, 4));
  Start();

  // Each operation with what it must return when the device vanishes; the
  // walks and copies have no result, they must merely come back.
  struct Case {
    const char *what;
    std::function<void()> call;
  } cases[] = {
      {"GetPodDir", [&] { FreePodDir(GetPodDir(device, "/t", 0), 1, nullptr); }},
      {"SearchFile", [&] { FreeSearchResult(SearchFile(device, "/t", "f")); }},
      {"CopyDeviceDirectory", [&] { CopyDeviceDirectory(device, "/t/a", image.host("tree").c_str()); }},
      {"download", [&] { CopyFileFromDeviceToNative(device, "/t/a/f1", image.host("f1").c_str(), nullptr); }},
      {"upload",
       [&] {
         const int r = CopyFileFromNativeToDevice(device, image.host("up").c_str(), "/t/up2", nullptr);
         EXPECT_TRUE(r == 0 || r == 1);
       }},
      {"MakeDir", [&] { (void)MakeDir(device, "/t/new/dir"); }},
      {"IsDirExist", [&] { (void)IsDirExist(device, "/t/a"); }},
      {"GetDirOrFileInfo", [&] { g_strfreev(GetDirOrFileInfo(device, "/t/a/f1")); }},
      {"DeleteDir", [&] { EXPECT_EQ(DeleteDir(device, "/t/a/b"), 0); }},
  };
  for (int after : {0, 1, 2, 3, 5, 8, 13}) {
    for (auto &c : cases) {
      SCOPED_TRACE(std::string(c.what) + " with the device dropped after " + std::to_string(after) + " requests");
      sim->set_option(kUdid, "drop_after_requests", std::to_string(after));
      const auto start = std::chrono::steady_clock::now();
      testing::internal::CaptureStdout();
      c.call();
      testing::internal::GetCapturedStdout();
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << "took too long";
      sim->clear_faults(kUdid);
      ExpectIdle(c.what);
    }
  }
}

int CountCalls(uint64_t total, uint64_t done, int finished, void *user) {
  auto *calls = static_cast<std::vector<std::tuple<uint64_t, uint64_t, int>> *>(user);
  calls->emplace_back(total, done, finished);
  return 0;
}

TEST_F(FaultTest, ATransferCutShortStillEndsWithTheFinalProgressCall) {
  image.File("/x/f", Bytes(300000));
  WriteAll(image.host("up"), Bytes(300000));
  // Lock file open and lock, file information, open, two blocks: the third
  // block's request finds the device gone.
  Start({"drop_after_requests=6"});
  std::vector<std::tuple<uint64_t, uint64_t, int>> calls;
  device->userData = &calls;
  testing::internal::CaptureStdout();
  CopyFileFromDeviceToNative(device, "/x/f", image.host("f").c_str(), CountCalls);
  testing::internal::GetCapturedStdout();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.back(), std::make_tuple(uint64_t{300000}, uint64_t{131072}, 1));
  EXPECT_EQ(fs::file_size(image.host("f")), 131072u) << "what arrived stays on the host";
  ExpectIdle("download cut short");

  calls.clear();
  testing::internal::CaptureStdout();
  EXPECT_EQ(CopyFileFromNativeToDevice(device, image.host("up").c_str(), "/x/up", CountCalls), 0);
  testing::internal::GetCapturedStdout();
  ASSERT_FALSE(calls.empty());
  // Lock file open and lock, open, then one block written before the drop.
  EXPECT_EQ(std::get<2>(calls.back()), 1);
  for (size_t i = 0; i + 1 < calls.size(); ++i) EXPECT_EQ(std::get<2>(calls[i]), 0);
  ExpectIdle("upload cut short");
}

}  // namespace
}  // namespace tarn_fs_test
