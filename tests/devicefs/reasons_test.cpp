// The reason beside each failure (TarnLastError): one table per family of
// reasons, each produced against the simulator and checked by code, detail
// and the words a person reads.
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <thread>

#include "fs_fixture.h"

namespace tarn_fs_test {
namespace {

using Call = std::function<void(PodDevice *)>;

struct Expect {
  TarnErrorCode code;
  std::string words;  // a part of the message
};

// Runs call with its console lines swallowed and checks the reason it left.
void ExpectReason(PodDevice *device, const Call &call, const Expect &want, const std::string &what) {
  SCOPED_TRACE(what);
  Quiet([&] { call(device); });
  const TarnError *e = TarnLastError();
  EXPECT_EQ(e->code, want.code) << e->message;
  EXPECT_NE(std::string(e->message).find(want.words), std::string::npos) << e->message;
}

class ReasonsTest : public DeviceFsTest {
 protected:
  std::string Host(const std::string &name) { return image.host(name).string(); }
};

const Call kOpen = [](PodDevice *d) {
  idevice_t idev = nullptr;
  afc_client_t afc = OpenIdeviceAndAfC(&idev, d->deviceId);
  // Releasing leaves the reason for the caller to read afterwards.
  CloseIdeviceAndAfC(afc, idev);
};
const Call kInit = [](PodDevice *d) { InitDevice(d, "/nonexistent/host"); };
const Call kExists = [](PodDevice *d) { IsFileExist(d, "/f"); };

TEST_F(ReasonsTest, AConnectionThatCannotBeMadeSaysWhy) {
  image.File("/f", "x");
  struct Row {
    std::vector<std::string> options;
    const char *udid;  // the handle's device
    Expect want;
    int lockdown_error;
  } rows[] = {
      {{"refuse_handshake=1", "version=14.0"}, kUdid, {TARN_E_PAIRING_INVALID, kUdid}, LOCKDOWN_E_INVALID_HOST_ID},
      // libimobiledevice answers a host ID the phone no longer knows by
      // pairing anew, which opens the Trust dialog.
      {{"stale_pairing=1"}, kUdid, {TARN_E_PAIRING_PENDING, "tap \"Trust\""}, LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING},
      {{"ssl_fail=1"}, kUdid, {TARN_E_PAIRING_INVALID, "secure handshake"}, LOCKDOWN_E_SSL_ERROR},
      {{"paired=0"}, kUdid, {TARN_E_PAIRING_PENDING, "tap \"Trust\""}, LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING},
      {{"paired=0", "pair_answer=denied"}, kUdid, {TARN_E_TRUST_DENIED, "not to trust"}, LOCKDOWN_E_USER_DENIED_PAIRING},
      {{"paired=0", "pair_answer=passcode"}, kUdid, {TARN_E_LOCKED, "unlock it"}, LOCKDOWN_E_PASSWORD_PROTECTED},
      {{"locked=1"}, kUdid, {TARN_E_LOCKED, kUdid}, LOCKDOWN_E_PASSWORD_PROTECTED},
      {{"refuse_afc=1", "version=14.0"}, kUdid, {TARN_E_SERVICE_REFUSED, "file service"}, LOCKDOWN_E_SERVICE_PROHIBITED},
      {{}, "00008030-0000NOTTHERE01", {TARN_E_NO_DEVICE, "00008030-0000NOTTHERE01 is not attached"}, 0},
      {{}, nullptr, {TARN_E_INVALID_ARGUMENT, "No device identifier"}, 0},
  };
  for (const Row &row : rows) {
    Start(row.options);
    PodDevice *handle = CreatePodDevice(row.udid);
    // A pairing costs libimobiledevice a new key of seconds; one entry
    // stands for all there.
    const bool pairs = !row.options.empty() && (row.options[0] == "paired=0" || row.options[0] == "stale_pairing=1");
    for (const Call &call : pairs ? std::vector<Call>{kOpen} : std::vector<Call>{kOpen, kInit, kExists}) {
      ExpectReason(handle, call, row.want, row.want.words);
      EXPECT_EQ(TarnLastError()->lockdown_error, row.lockdown_error);
    }
    FreePodDevice(handle);
    sim.reset();
    FreePodDevice(device);
    device = nullptr;
  }
  // No daemon listens at the socket at all.
  Start();
  {
    const tarn::testing::NoUsbmux none;
    for (const Call &call : {kOpen, kInit, kExists}) ExpectReason(device, call, {TARN_E_NO_USBMUXD, "cannot be reached"}, "no usbmuxd");
    ExpectReason(device, [](PodDevice *) { GetDevicesId(); }, {TARN_E_NO_USBMUXD, "usbmuxd"}, "device list");
  }
  // A call that succeeds clears what the last one left.
  ExpectReason(device, kExists, {TARN_OK, ""}, "after a failure");
}

TEST_F(ReasonsTest, FileServiceAndHostFailuresNameThePath) {
  image.File("/f", Bytes(200000));
  image.File("/locked", "x");
  image.File("/busy", "x");
  fs::create_directories(image.host());
  const std::string up = Host("up.bin");
  WriteAll(up, Bytes(100000));
  Start({"afc_error=10:/locked", "afc_error=18:/full", "afc_error=17:/busy"});
  struct Row {
    Call call;
    Expect want;
    int afc_error, host_errno;
  } rows[] = {
      {[](PodDevice *d) { DeleteFile(d, "/missing"); }, {TARN_E_NOT_FOUND, "\"/missing\" does not exist on the device"}, AFC_E_OBJECT_NOT_FOUND, 0},
      {[](PodDevice *d) { DeleteFile(d, "/locked"); }, {TARN_E_PERMISSION, "\"/locked\""}, AFC_E_PERM_DENIED, 0},
      {[&](PodDevice *d) { CopyFileFromNativeToDevice(d, up.c_str(), "/full", nullptr); }, {TARN_E_DEVICE_FULL, "no space left for \"/full\""}, AFC_E_NO_SPACE_LEFT, 0},
      {[](PodDevice *d) { RenamePath(d, "/busy", "/b2"); }, {TARN_E_FILE_SERVICE, "error 17"}, AFC_E_OBJECT_BUSY, 0},
      {[](PodDevice *d) { PodDir *r = GetPodDir(d, "/missing", 0); FreePodDir(r, 1, r); }, {TARN_E_NOT_FOUND, "/missing"}, AFC_E_OBJECT_NOT_FOUND, 0},
      // A file answers its information, then refuses to be listed.
      {[](PodDevice *d) { PodDir *r = GetPodDir(d, "/f", 0); FreePodDir(r, 1, r); }, {TARN_E_NOT_FOUND, "\"/f\""}, AFC_E_OBJECT_NOT_FOUND, 0},
      {[](PodDevice *d) { FreeSearchResult(SearchFile(d, "/f", "f")); }, {TARN_E_NOT_FOUND, "\"/f\""}, AFC_E_OBJECT_NOT_FOUND, 0},
      {[&](PodDevice *d) { CopyFileFromDeviceToNative(d, "/f", "/nonexistent/dir/f", nullptr); }, {TARN_E_NOT_FOUND, "on this computer"}, 0, ENOENT},
      {[](PodDevice *d) { CopyFileFromDeviceToNative(d, "/f", "/dev/full", nullptr); }, {TARN_E_HOST_IO, "after 0 of 200000 bytes"}, 0, ENOSPC},
      {[](PodDevice *d) { CopyFileFromNativeToDevice(d, "/nonexistent/up", "/g", nullptr); }, {TARN_E_NOT_FOUND, "/nonexistent/up"}, 0, ENOENT},
      {[](PodDevice *d) { PodDir *r = GetPodDir(d, "/", 0); FreePodDir(r, 1, r); }, {TARN_OK, ""}, 0, 0},
      {[&](PodDevice *d) { sim->set_option(kUdid, "syncing", "1"); CopyFileFromDeviceToNative(d, "/f", Host("f").c_str(), nullptr); },
       {TARN_E_SYNC_LOCK_BUSY, "syncing with another computer"}, 0, 0},
  };
  for (const Row &row : rows) {
    ExpectReason(device, row.call, row.want, row.want.words);
    EXPECT_EQ(TarnLastError()->afc_error, row.afc_error) << row.want.words;
    EXPECT_EQ(TarnLastError()->host_errno, row.host_errno) << row.want.words;
  }
}

// Cancelled, cut short, lost on the way: how far the call got.
TEST_F(ReasonsTest, TransfersAndWalksThatStopSayHowFarTheyGot) {
  constexpr uint64_t kSize = 1 << 20;
  image.File("/f", Bytes(kSize));
  std::string dir = "/deep";
  for (int level = 0; level < TARN_MAX_WALK_DEPTH + 4; ++level, dir += "/d") image.File(dir + "/f", "x");
  dir = "/Photos/Thumbs";
  for (int level = 0; level < TARN_MAX_WALK_DEPTH + 4; ++level, dir += "/d") image.File(dir + "/p.jpg", "x");
  const std::string up = Host("up.bin");
  WriteAll(up, Bytes(kSize));
  Start();
  static std::string shrink;  // the device file a progress callback cuts short
  shrink = image.media("/f").string();
  struct Row {
    std::vector<std::string> options;
    Call call;
    Expect want;
    uint64_t min_done, total;
  } rows[] = {
      {{}, [&](PodDevice *d) { CopyFileFromDeviceToNative(d, "/f", Host("c").c_str(), [](uint64_t, uint64_t, int, void *) { return 1; }); },
       {TARN_E_CANCELLED, "cancelled"}, 65536, kSize},
      {{}, [&](PodDevice *d) { CopyFileFromDeviceToNative(d, "/f", Host("s").c_str(), [](uint64_t, uint64_t, int, void *) { return truncate(shrink.c_str(), 65536 * 2); }); },
       {TARN_E_SHORT_COPY, "of its 1048576 bytes"}, 65536 * 2, kSize},
      {{"drop_after_bytes=300000"}, [&](PodDevice *d) { CopyFileFromDeviceToNative(d, "/f", Host("d").c_str(), nullptr); },
       {TARN_E_CONNECTION_LOST, "of 1048576 bytes"}, 65536, kSize},
      {{"drop_after_requests=5"}, [&](PodDevice *d) { CopyFileFromNativeToDevice(d, up.c_str(), "/u", nullptr); },
       {TARN_E_CONNECTION_LOST, "\"/u\""}, 65536, kSize},
      {{"drop_after_requests=40"}, [](PodDevice *d) { FreeSearchResult(SearchFile(d, "/deep", "f")); },
       {TARN_E_CONNECTION_LOST, "lost"}, 5, 0},
      {{}, [](PodDevice *d) { PodDir *r = GetPodDir(d, "/deep", 0); FreePodDir(r, 1, r); },
       {TARN_E_WALK_CUT, "64 levels"}, 2 * TARN_MAX_WALK_DEPTH - 1, 0},
      {{}, [](PodDevice *d) { FreeSearchResult(SearchFile(d, "/deep", "f")); }, {TARN_E_WALK_CUT, "\"/deep\""}, 2 * TARN_MAX_WALK_DEPTH - 1, 0},
      {{}, [&](PodDevice *d) { CopyDeviceDirectory(d, "/deep", Host("tree").c_str()); }, {TARN_E_WALK_CUT, "64 levels"}, 2 * TARN_MAX_WALK_DEPTH - 1, 0},
      {{}, [](PodDevice *d) { plist_free(GetUserPictureListFromDevice(d)); }, {TARN_E_WALK_CUT, "\"/Photos/Thumbs\""}, 2 * TARN_MAX_WALK_DEPTH - 1, 0},
      {{}, [](PodDevice *d) { DeleteDir(d, "/deep"); }, {TARN_E_WALK_CUT, "64 levels"}, 2 * TARN_MAX_WALK_DEPTH - 1, 0},
  };
  for (const Row &row : rows) {
    sim->clear_faults(kUdid);
    for (const std::string &o : row.options) {
      const size_t eq = o.find('=');
      sim->set_option(kUdid, o.substr(0, eq), o.substr(eq + 1));
    }
    ExpectReason(device, row.call, row.want, row.want.words);
    EXPECT_GE(TarnLastError()->done, row.min_done) << row.want.words;
    EXPECT_EQ(TarnLastError()->total, row.total) << row.want.words;
    WriteAll(image.media("/f"), Bytes(kSize));
  }
}


// A device that fills up in the middle of an upload: a file system of
// 64 KiB mounted below the media tree takes the first block and refuses
// the second.
TEST_F(ReasonsTest, ADeviceThatFillsUpDuringAnUploadSaysSo) {
  image.Dir("/small");
  const std::string small = image.media("/small").string();
  if (::geteuid() != 0 || std::system(("mount -t tmpfs -o size=64k tmpfs '" + small + "' 2>/dev/null").c_str()) != 0)
    GTEST_SKIP() << "no small file system can be mounted here";
  struct Unmount {
    std::string at;
    ~Unmount() { [[maybe_unused]] const int rc = std::system(("umount '" + at + "'").c_str()); }
  } unmount{small};
  const std::string up = Host("up.bin");
  WriteAll(up, Bytes(1 << 20));
  Start();
  ExpectReason(device, [&](PodDevice *d) { CopyFileFromNativeToDevice(d, up.c_str(), "/small/u", nullptr); },
               {TARN_E_DEVICE_FULL, "no space left for \"/small/u\""}, "full in mid-write");
  EXPECT_EQ(TarnLastError()->done, 65536u);
}

// The tool's batches: one connection, the sync lock taken once, and a lost
// connection seen after the file it broke.
TEST_F(ReasonsTest, ABatchLearnsOfABusyLockAndOfALostConnectionAfterEachFile) {
  for (int i = 0; i < 4; ++i) image.File("/b/f" + std::to_string(i), Bytes(100000, i));
  Start();
  idevice_t other_device = nullptr, batch_device = nullptr;
  afc_client_t other = OpenIdeviceAndAfC(&other_device, kUdid);
  const uint64_t held = TarnSyncLock(other);
  ASSERT_NE(held, 0u);
  EXPECT_EQ(TarnLastError()->code, TARN_OK);
  // Another computer syncing: the copy goes on without the lock, and says so.
  ExpectReason(device, [&](PodDevice *d) { CopyFileFromDeviceToNative(d, "/b/f0", Host("f0").c_str(), nullptr); },
               {TARN_E_SYNC_LOCK_BUSY, "syncing with another computer"}, "per-call copy");
  EXPECT_EQ(ReadAll(image.host("f0")), Bytes(100000, 0));
  afc_client_t batch = OpenIdeviceAndAfC(&batch_device, kUdid);
  ASSERT_NE(batch, nullptr);
  const uint64_t lock = TarnSyncLock(batch);
  EXPECT_NE(lock, 0u);
  EXPECT_EQ(TarnLastError()->code, TARN_E_SYNC_LOCK_BUSY);
  TarnSyncUnlock(other, held);
  // Released, and free for the next party while its holder stays connected.
  ExpectReason(device, [&](PodDevice *d) { CopyFileFromDeviceToNative(d, "/b/f0", Host("f0").c_str(), nullptr); },
               {TARN_OK, ""}, "after the release");
  CloseIdeviceAndAfC(other, other_device);

  testing::internal::CaptureStdout();
  _CopyFileFromDeviceToNative(nullptr, batch, "/b/f0", Host("g0").c_str(), nullptr);
  EXPECT_EQ(TarnLastError()->code, TARN_OK);
  // Info, open, one read; the second read finds the connection gone.
  sim->set_option(kUdid, "drop_after_requests", "3");
  int copied = 0;
  for (int i = 1; i < 4; ++i, ++copied) {
    _CopyFileFromDeviceToNative(nullptr, batch, ("/b/f" + std::to_string(i)).c_str(), Host("g").c_str(), nullptr);
    if (TarnLastError()->code == TARN_E_CONNECTION_LOST) break;
  }
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(copied, 0);
  EXPECT_EQ(TarnLastError()->done, 65536u);
  EXPECT_EQ(TarnLastError()->total, 100000u);
  EXPECT_NE(std::string(TarnLastError()->message).find("\"/b/f1\""), std::string::npos) << TarnLastError()->message;
  char **info = GetFileInfo(batch, "/b/f2");
  EXPECT_EQ(info[TARN_INFO_KIND], nullptr);
  FreeFileInfo(info);
  EXPECT_EQ(TarnLastError()->code, TARN_E_CONNECTION_LOST);
  TarnSyncUnlock(batch, lock);
  CloseIdeviceAndAfC(batch, batch_device);
}

TEST_F(ReasonsTest, ADatabaseThatCannotBeReadIsToldFromOneThatIsAbsent) {
  image.File("/iTunes_Control/iTunes/iTunesCDB", "no database, just bytes");
  image.File("/Books/Books.plist", "<?xml version=\"1.0\"?><plist><dict><key>Books</key>");
  Start();
  fs::create_directories(image.host("copies"));
  struct Row {
    Call call;
    Expect want;
  } rows[] = {
      {[](PodDevice *d) { plist_free(GetMusicList(d, 0, 0)); }, {TARN_E_DATABASE_UNREADABLE, "iTunesCDB"}},
      {[](PodDevice *d) { plist_free(GetPlayList(d, 0, 0)); }, {TARN_E_DATABASE_UNREADABLE, "cannot be read"}},
      {[](PodDevice *d) { plist_free(GetBookList(d, 0, 0)); }, {TARN_E_DATABASE_UNREADABLE, "Books.plist"}},
      {[](PodDevice *d) { plist_free(GetRecordingList(d, 0, 0)); }, {TARN_E_DATABASE_UNREADABLE, "iTunesCDB"}},
      {[](PodDevice *d) { plist_free(GetCameraPVList(d, 0, 0)); }, {TARN_OK, ""}},
  };
  for (bool present : {true, false}) {
    if (!present) {
      fs::remove_all(image.media("/iTunes_Control"));
      fs::remove_all(image.media("/Books"));
    }
    const std::string copies = Host(present ? "copies" : "none");
    fs::create_directories(copies);
    ExpectReason(device, [&](PodDevice *d) { EXPECT_EQ(InitDevice(d, copies.c_str()), 0); }, {TARN_OK, ""}, "init");
    for (const Row &row : rows) {
      const Expect want = present || row.want.code == TARN_OK ? row.want : Expect{TARN_E_DATABASE_ABSENT, "no database"};
      ExpectReason(device, row.call, want, want.words);
    }
  }
}

TEST_F(ReasonsTest, EachThreadSeesItsOwnReason) {
  image.File("/locked", "x");
  Start({"afc_error=10:/locked"});
  PodDevice *second = CreatePodDevice(kUdid);
  auto run = [](PodDevice *d, const char *path, TarnErrorCode want, int *mismatches) {
    for (int i = 0; i < 20; ++i) {
      IsFileExist(d, path);
      if (TarnLastError()->code != want || std::string(TarnLastError()->message).find(path) == std::string::npos)
        ++*mismatches;
    }
  };
  int missing = 0, denied = 0;
  testing::internal::CaptureStdout();
  // libusbmuxd names the program on its first message, unlocked: two first
  // messages at once leak one of the names. An application's first call is
  // on one thread; so is this one.
  IsFileExist(device, "/");
  std::thread a(run, device, "/missing", TARN_E_NOT_FOUND, &missing);
  std::thread b(run, second, "/locked", TARN_E_PERMISSION, &denied);
  a.join();
  b.join();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(missing, 0);
  EXPECT_EQ(denied, 0);
  FreePodDevice(second);
}

}  // namespace
}  // namespace tarn_fs_test
