// Eight threads over four simulated devices, each thread with a handle of its
// own: transfers both ways, snapshots, searches, directory creation and the
// catalogue lists at the same time. Every thread must see its own device's
// data, and no device may hold anything once the threads are done. Run under
// ThreadSanitizer by scripts/test --tsan.
#include <atomic>
#include <thread>

#include "../devicefs/fs_fixture.h"

namespace tarn_fs_test {
namespace {

constexpr int kDevices = 4;
constexpr int kThreads = 8;
constexpr int kRounds = 3;

std::string Udid(int device) { return "00008030-0000TARNCC000" + std::to_string(device); }

struct Device {
  Image image;
  std::string data;  // the content of /c/data on this device
};

// What one thread does with its own handle; failures are collected as texts
// so that no gtest assertion runs off the main thread.
void Work(int thread, Device &dev, const std::string &udid, std::vector<std::string> &errors) {
  auto fail = [&](const std::string &what) { errors.push_back("thread " + std::to_string(thread) + ": " + what); };
  PodDevice *device = CreatePodDevice(udid.c_str());
  const fs::path host = dev.image.host("t" + std::to_string(thread));
  fs::create_directories(host);
  const std::string mine = Bytes(90000 + thread * 1000, 100 + thread);
  WriteAll(host / "up", mine);
  const std::string up_path = "/c/up" + std::to_string(thread);

  for (int round = 0; round < kRounds; ++round) {
    CopyFileFromDeviceToNative(device, "/c/data", (host / "data").c_str(), nullptr);
    if (ReadAll(host / "data") != dev.data) fail("downloaded data differs");

    if (CopyFileFromNativeToDevice(device, (host / "up").c_str(), up_path.c_str(), nullptr) != 0) fail("upload");
    if (ReadAll(dev.image.media(up_path)) != mine) fail("uploaded data differs");

    PodDir *root = GetPodDir(device, "/c/tree", 0);
    if (root->file_count != 3 || root->dir_count != 2) fail("snapshot counts");
    FreePodDir(root, 1, root);

    PodSearchItem *found = SearchFile(device, "/c/tree", "leaf");
    int n = 0;
    for (PodSearchItem *i = found; i; i = i->next) ++n;
    FreeSearchResult(found);
    if (n != 2) fail("search found " + std::to_string(n));

    const std::string dir = "/c/made" + std::to_string(thread) + "/" + std::to_string(round);
    if (MakeDir(device, dir.c_str()) != 0 || IsDirExist(device, dir.c_str()) != 1) fail("MakeDir " + dir);

    char **info = GetDirOrFileInfo(device, "/c/data");
    if (!info[1] || std::to_string(dev.data.size()) != info[1]) fail("file information");
    for (int i = 0; i < 5; ++i) g_free(info[i]);
    g_free(info);
  }
  FreePodDevice(device);
}

TEST(ConcurrencyTest, EightThreadsOverFourDevicesEachSeeTheirOwnDevice) {
  std::vector<std::unique_ptr<Device>> devices;
  std::vector<tarn::testing::SimDevice> sims;
  for (int d = 0; d < kDevices; ++d) {
    auto dev = std::make_unique<Device>();
    dev->data = Bytes(200000 + d * 7000, d);
    dev->image.File("/c/data", dev->data);
    dev->image.File("/c/tree/leaf1", "1");
    dev->image.File("/c/tree/a/leaf2", "2");
    dev->image.File("/c/tree/a/b/other", "3");
    sims.push_back({dev->image.root().string(), Udid(d), {}});
    devices.push_back(std::move(dev));
  }
  tarn::testing::Simulator sim(sims);

  std::vector<std::vector<std::string>> errors(kThreads);
  std::vector<std::thread> threads;
  testing::internal::CaptureStdout();
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back(Work, t, std::ref(*devices[t % kDevices]), Udid(t % kDevices), std::ref(errors[t]));
  }
  for (auto &t : threads) t.join();
  testing::internal::GetCapturedStdout();

  for (auto &e : errors) {
    for (auto &msg : e) ADD_FAILURE() << msg;
  }
  for (int d = 0; d < kDevices; ++d) {
    const tarn::testing::SimStats s = sim.idle_stats(Udid(d));
    EXPECT_EQ(s.connections_open, 0) << Udid(d);
    EXPECT_EQ(s.files_open, 0) << Udid(d);
    EXPECT_EQ(s.locks_held, 0) << Udid(d);
  }
}

}  // namespace
}  // namespace tarn_fs_test
