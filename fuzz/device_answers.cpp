// Fuzz target: every exported operation that talks to the device, against a
// device whose every answer comes from the fuzz input (error codes, file
// information and device information vectors, directory listings, file
// handles, file data, lockdown values). Besides memory errors it catches
//  - a connection, lockdown client, file handle or lock kept after a call;
//  - a host file written outside the directory an operation was given.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "fake_device.h"
#include "tarn/tarn_device.h"

namespace fs = std::filesystem;

namespace {

constexpr const char *kUdid = "00008030-000FUZZ0000DEV1";

fs::path g_root;  // holds only "target" (operations write below it) and "up"

fs::path Target() { return g_root / "target"; }

void ResetHost() {
  std::error_code ec;
  fs::remove_all(Target(), ec);
  fs::create_directories(Target());
}

// The device may name files as it likes; nothing may land beside "target".
void ExpectNothingBeside(const char *after) {
  for (const auto &e : fs::directory_iterator(g_root)) {
    const std::string name = e.path().filename().string();
    if (name != "target" && name != "up") {
      std::fprintf(stderr, "%s wrote %s outside its host directory\n", after, e.path().c_str());
      std::abort();
    }
  }
}

int Progress(uint64_t, uint64_t, int, void *user) {
  auto *data = static_cast<FuzzedDataProvider *>(user);
  return data->ConsumeIntegralInRange<int>(0, 15) == 0;
}

void FreeList(plist_t list) {
  if (list) plist_free(list);
}

// The catalogue lists of an initialised handle, over the databases the
// device handed to InitDevice.
void ListEverything(PodDevice *device) {
  const PodListFunction lists[] = {GetMusicList,     GetMovieList,     GetPodcastList, GetTvshowList,
                                   GetAudioBookList, GetRingtonesList, GetPlayList,    GetRecordingList,
                                   GetBookList,      GetCameraPVList,  GetUserPictureList};
  for (PodListFunction list : lists) FreeList(list(device, 0, 0));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tarn_fuzz::SilenceStdout();
  char tmpl[] = "/tmp/tarn-fuzz-device-XXXXXX";
  if (!mkdtemp(tmpl)) std::abort();
  g_root = tmpl;
  fs::create_directories(Target());
  std::atexit([] {
    std::error_code ec;
    fs::remove_all(g_root, ec);
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  FuzzedDataProvider data(bytes, size);
  const int op = data.ConsumeIntegralInRange<int>(0, 16);
  const std::string path = data.ConsumeRandomLengthString(64);
  const char *p = path.c_str();
  tarn_fuzz::UseAnswers(&data);
  PodDevice *device = CreatePodDevice(kUdid);
  device->userData = &data;
  const std::string host_file = (Target() / "file").string();
  const std::string host_dir = (Target() / "dir").string();

  switch (op) {
    case 0: FreeList(GetDevicesId()); break;
    case 1: {
      char **info = GetDirOrFileInfo(device, p);
      // The vector may have holes where the device left keys out.
      for (int i = 0; i < 5; ++i) g_free(info[i]);
      g_free(info);
      break;
    }
    case 2: (void)IsDirExist(device, p); break;
    case 3: (void)IsFileExist(device, p); break;
    case 4: (void)MakeDir(device, p); break;
    case 5: {
      PodDir *root = GetPodDir(device, p, data.ConsumeIntegralInRange<uint32_t>(0, 3));
      FreePodDir(root, 1, root);
      break;
    }
    case 6: FreeSearchResult(SearchFile(device, p, data.ConsumeRandomLengthString(8).c_str())); break;
    case 7: (void)DeleteDir(device, p); break;
    case 8: (void)DeleteFile(device, p); break;
    case 9: (void)RenamePath(device, p, "/renamed"); break;
    case 10: CopyFileFromDeviceToNative(device, p, host_file.c_str(), Progress); break;
    case 11: {
      std::ofstream(g_root / "up", std::ios::binary) << data.ConsumeRandomLengthString(200000);
      (void)CopyFileFromNativeToDevice(device, (g_root / "up").c_str(), p, Progress);
      break;
    }
    case 12: CopyDeviceDirectory(device, p, host_dir.c_str()); break;
    case 13:
      fs::create_directories(host_dir);
      if (InitDevice(device, host_dir.c_str()) == 0) ListEverything(device);
      break;
    case 14:
      fs::create_directories(host_dir);
      if (InitDevice(device, host_dir.c_str()) == 0) FreeList(GetDeviceInfo(device));
      break;
    case 15: FreeList(GetUserPictureListFromDevice(device)); break;
    case 16: FreeList(GetCameraPVList(device, 0, 0)); break;
  }
  FreePodDevice(device);
  tarn_fuzz::UseAnswers(nullptr);
  static const char *const kNames[] = {
      "GetDevicesId", "GetDirOrFileInfo", "IsDirExist", "IsFileExist", "MakeDir", "GetPodDir",
      "SearchFile", "DeleteDir", "DeleteFile", "RenamePath", "CopyFileFromDeviceToNative",
      "CopyFileFromNativeToDevice", "CopyDeviceDirectory", "InitDevice and the lists",
      "InitDevice and GetDeviceInfo", "GetUserPictureListFromDevice", "GetCameraPVList"};
  tarn_fuzz::ExpectAllReleased(kNames[op]);
  ExpectNothingBeside(kNames[op]);
  ResetHost();
  return 0;
}
