// Eight threads over four simulated devices, each thread with a handle of its
// own: transfers both ways, snapshots, searches, directory creation, device
// information and the catalogue lists over a real music database, all at the
// same time. Every thread must see its own device's data, and no device may
// hold anything once the threads are done. Run under ThreadSanitizer by
// scripts/test --tsan.
#include <atomic>
#include <thread>

#include "catalogue_image.h"

namespace tarn_fs_test {
namespace {

constexpr int kDevices = 4;
constexpr int kThreads = 8;
constexpr int kRounds = 3;

std::string Udid(int device) { return "00008030-0000TARNCC000" + std::to_string(device); }

// The catalogue lists a thread reads from its own initialised handle.
constexpr PodListFunction kLists[] = {GetMusicList, GetPlayList, GetRecordingList, GetBookList, GetCameraPVList};


// The item count of every list (the length of the playlist and catalogue
// arrays); read once by the main thread as the answer every thread must see
// too.
std::vector<uint64_t> ListCounts(PodDevice *device) {
  std::vector<uint64_t> counts;
  for (PodListFunction list : kLists) {
    plist_t result = list(device, 0, 0);
    const bool array = plist_get_node_type(result) == PLIST_ARRAY;
    counts.push_back(array ? plist_array_get_size(result) : Number(result));
    if (result) plist_free(result);
  }
  plist_t pictures = GetUserPictureListFromDevice(device);
  counts.push_back(Number(pictures));
  if (pictures) plist_free(pictures);
  return counts;
}

struct Device {
  Image image;
  std::string data;  // the content of /c/data on this device
  std::vector<uint64_t> counts;  // ListCounts of this device
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
  fs::create_directories(host / "work");
  if (InitDevice(device, (host / "work").c_str()) != 0) fail("InitDevice");

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
    if (!info[TARN_INFO_SIZE] || std::to_string(dev.data.size()) != info[TARN_INFO_SIZE]) fail("file information");
    FreeFileInfo(info);

    if (ListCounts(device) != dev.counts) fail("catalogue lists differ from a lone reader's");
    plist_t about = GetDeviceInfo(device);
    if (about == nullptr) fail("GetDeviceInfo");
    if (about) plist_free(about);
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
    AddCatalogue(dev->image);
    sims.push_back({dev->image.root().string(), Udid(d), {}});
    devices.push_back(std::move(dev));
  }
  tarn::testing::Simulator sim(sims);
  testing::internal::CaptureStdout();
  for (int d = 0; d < kDevices; ++d) {
    PodDevice *alone = CreatePodDevice(Udid(d).c_str());
    const fs::path work = devices[d]->image.host("alone");
    fs::create_directories(work);
    EXPECT_EQ(InitDevice(alone, work.c_str()), 0);
    devices[d]->counts = ListCounts(alone);
    FreePodDevice(alone);
  }
  testing::internal::GetCapturedStdout();
  // Every list has something to read, so a thread that reads nothing is seen.
  for (uint64_t n : devices[0]->counts) EXPECT_GT(n, 0u);

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
