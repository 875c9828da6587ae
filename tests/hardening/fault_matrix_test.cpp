// The fault matrix: every exported operation that reaches the device, run
// once healthy to count its file-conduit requests, then once with the
// connection dropped at each of those requests in turn, and once each with
// the handshake refused and the file-conduit service refused. Every run must
// come back in bounded time with the documented failure result (or, for a
// drop after the decisive answer, the success result), leave the data it
// touched consistent, and leave nothing open on the device.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <set>

#include "catalogue_image.h"

namespace tarn_fs_test {
namespace {

// How a run is broken: the connection dropped at request index `drop`
// (0-based), or, with drop < 0, a connection that never comes up.
struct Fault {
  int drop = -1;
  std::string option;  // "refuse_handshake" or "refuse_afc" when drop < 0
  bool refused() const { return drop < 0; }
  // The answer to request `index` (0-based) arrived.
  bool answered(int index) const { return drop > index; }
  std::string Describe() const {
    return refused() ? option : "the connection dropped at request " + std::to_string(drop);
  }
};

struct Operation {
  const char *name;
  std::function<void()> prepare;  // restores what a previous run changed
  std::function<void(const Fault &)> run;
};

bool IsPrefixOf(const std::string &part, const std::string &whole) {
  return part.size() <= whole.size() && whole.compare(0, part.size(), part) == 0;
}

// Every file a copy left below `dir` holds the start of its device twin.
void ExpectPrefixCopies(const fs::path &dir, const Image &image, const std::string &device_dir) {
  if (!fs::exists(dir)) return;
  for (auto &e : fs::recursive_directory_iterator(dir)) {
    if (!e.is_regular_file()) continue;
    const std::string rel = fs::relative(e.path(), dir).string();
    EXPECT_TRUE(IsPrefixOf(ReadAll(e.path()), ReadAll(image.media(device_dir + "/" + rel)))) << rel;
  }
}

// The counts a snapshot root carries match the records below it.
void CountRecords(const PodDir *dir, int &dirs, int &files) {
  for (const PodFile *f = dir->first_file; f; f = f->next_file) ++files;
  for (const PodDir *d = dir->first_dir; d; d = d->next_dir) {
    ++dirs;
    CountRecords(d, dirs, files);
  }
}

std::set<std::string> SearchPaths(PodSearchItem *first) {
  std::set<std::string> out;
  for (PodSearchItem *i = first; i; i = i->next)
    out.insert(i->kind ? static_cast<PodDir *>(i->record)->path : static_cast<PodFile *>(i->record)->path);
  return out;
}

class FaultMatrixTest : public DeviceFsTest {
 protected:
  uint64_t Requests() {
    uint64_t n = 0;
    for (const auto &[op, count] : sim->stats(kUdid).requests) n += count;
    return n;
  }

  // Runs one operation through every fault; returns the number of runs.
  int RunMatrix(const Operation &op) {
    SCOPED_TRACE(op.name);
    op.prepare();
    sim->reset_stats(kUdid);
    Quietly([&] { op.run(Fault{1 << 30, ""}); });
    const int requests = static_cast<int>(Requests());
    EXPECT_GT(requests, 0) << "a healthy run made no file-conduit request";
    ExpectIdle(std::string(op.name) + " healthy");
    std::printf("%s: %d requests\n", op.name, requests);

    std::vector<Fault> faults;
    for (int n = 0; n < requests; ++n) faults.push_back(Fault{n, ""});
    faults.push_back(Fault{-1, "refuse_handshake"});
    faults.push_back(Fault{-1, "refuse_afc"});
    for (const Fault &f : faults) {
      SCOPED_TRACE(f.Describe());
      op.prepare();
      if (f.refused()) {
        sim->set_option(kUdid, f.option, "1");
      } else if (f.drop == 0) {
        // drop_after_requests=0 means no drop; a byte limit below the first
        // request's size drops the connection before that request.
        sim->set_option(kUdid, "drop_after_bytes", "1");
      } else {
        sim->set_option(kUdid, "drop_after_requests", std::to_string(f.drop));
      }
      const auto start = std::chrono::steady_clock::now();
      Quietly([&] { op.run(f); });
      EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << "took too long";
      sim->clear_faults(kUdid);
      ExpectIdle(std::string(op.name) + " under " + f.Describe());
    }
    return static_cast<int>(faults.size());
  }

  // The library's console lines are dropped; gtest writes its failure
  // messages to the same stream, so a run that failed shows its output.
  static void Quietly(const std::function<void()> &call) {
    const bool failed_before = HasFailure();
    const std::string out = Console(call);
    if (HasFailure() && !failed_before) std::fputs(out.c_str(), stderr);
  }
};

TEST_F(FaultMatrixTest, EveryFileSystemOperationFailsCleanlyAtEveryRequest) {
  const std::string big = Bytes(300000), small = Bytes(70000, 2);
  image.File("/t/a/f1", big);
  image.File("/t/a/b/f2", small);
  image.File("/t/a/b/c/f3", "3");
  image.File("/com.apple.itunes.lock_sync", "");
  const std::string upload = Bytes(150000, 4);
  WriteAll(image.host("up"), upload);
  Start();
  const std::set<std::string> all_found = {"/t/a/f1", "/t/a/b/f2", "/t/a/b/c/f3"};

  const Operation ops[] = {
      {"GetDirOrFileInfo", [] {},
       [&](const Fault &f) {
         char **info = GetDirOrFileInfo(device, "/t/a/f1");
         // One request: either the whole answer or nothing.
         EXPECT_EQ(info[TARN_INFO_KIND] != nullptr, f.answered(0));
         if (info[TARN_INFO_KIND]) {
           EXPECT_STREQ(info[TARN_INFO_SIZE], "300000");
         }
         FreeFileInfo(info);
       }},
      {"IsDirExist", [] {}, [&](const Fault &f) { EXPECT_EQ(IsDirExist(device, "/t/a"), f.answered(0) ? 1 : 0); }},
      // Open, then close: the open's answer decides.
      {"IsFileExist", [] {}, [&](const Fault &f) { EXPECT_EQ(IsFileExist(device, "/t/a/f1"), f.answered(0) ? 1 : 0); }},
      // Lock-file open, lock, make directory, unlock, close.
      {"MakeDir", [&] { fs::remove_all(image.media("/t/new")); },
       [&](const Fault &f) {
         EXPECT_EQ(MakeDir(device, "/t/new/d"), f.answered(0) ? 0 : 1);
         EXPECT_EQ(fs::is_directory(image.media("/t/new/d")), f.answered(2));
       }},
      {"CopyFileFromDeviceToNative", [&] { fs::remove(image.host("f1")); },
       [&](const Fault &) {
         CopyFileFromDeviceToNative(device, "/t/a/f1", image.host("f1").c_str(), nullptr);
         if (fs::exists(image.host("f1"))) {
           EXPECT_TRUE(IsPrefixOf(ReadAll(image.host("f1")), big));
         }
       }},
      {"CopyFileFromNativeToDevice", [&] { fs::remove(image.media("/t/up")); },
       [&](const Fault &f) {
         EXPECT_EQ(CopyFileFromNativeToDevice(device, image.host("up").c_str(), "/t/up", nullptr),
                   f.answered(0) ? 0 : 1);
         if (fs::exists(image.media("/t/up"))) {
           EXPECT_TRUE(IsPrefixOf(ReadAll(image.media("/t/up")), upload));
         }
       }},
      {"CopyDeviceDirectory", [&] { fs::remove_all(image.host("tree")); },
       [&](const Fault &) {
         CopyDeviceDirectory(device, "/t/a", image.host("tree").c_str());
         ExpectPrefixCopies(image.host("tree"), image, "/t/a");
         for (auto &e : fs::directory_iterator(image.host()))
           EXPECT_TRUE(e.path().filename() == "tree" || e.path().filename() == "up" || e.path().filename() == "f1")
               << e.path();
       }},
      {"GetPodDir", [] {},
       [&](const Fault &f) {
         PodDir *root = GetPodDir(device, "/t", 0);
         ASSERT_NE(root, nullptr);
         int dirs = 0, files = 0;
         CountRecords(root, dirs, files);
         EXPECT_EQ(root->dir_count, dirs);
         EXPECT_EQ(root->file_count, files);
         if (f.refused()) {
           EXPECT_EQ(dirs + files, 0);
         }
         FreePodDir(root, 1, root);
       }},
      {"SearchFile", [] {},
       [&](const Fault &f) {
         PodSearchItem *found = SearchFile(device, "/t", "f");
         const std::set<std::string> paths = SearchPaths(found);
         FreeSearchResult(found);
         for (auto &p : paths) EXPECT_TRUE(all_found.count(p)) << p;
         if (f.refused()) {
           EXPECT_TRUE(paths.empty());
         }
       }},
      // Never reports a failure; the rename happened or it did not.
      {"RenamePath",
       [&] {
         fs::remove(image.media("/t/r2"));
         image.File("/t/r1", "r");
       },
       [&](const Fault &f) {
         EXPECT_EQ(RenamePath(device, "/t/r1", "/t/r2"), 0);
         EXPECT_NE(fs::exists(image.media("/t/r1")), fs::exists(image.media("/t/r2")));
         EXPECT_EQ(fs::exists(image.media("/t/r2")), f.answered(0));
       }},
      {"DeleteFile", [&] { image.File("/t/gone", "g"); },
       [&](const Fault &f) {
         EXPECT_EQ(DeleteFile(device, "/t/gone"), f.answered(0) ? 0 : 1);
         EXPECT_EQ(fs::exists(image.media("/t/gone")), !f.answered(0));
       }},
      {"DeleteDir",
       [&] {
         image.File("/t/del/x", "x");
         image.File("/t/del/s/y", "y");
         image.File("/t/keep", "k");
       },
       [&](const Fault &f) {
         EXPECT_EQ(DeleteDir(device, "/t/del"), 0);
         EXPECT_TRUE(fs::exists(image.media("/t/keep")));
         if (f.refused()) {
           EXPECT_TRUE(fs::exists(image.media("/t/del/s/y")));
         }
       }},
  };
  int runs = 0;
  for (const Operation &op : ops) runs += RunMatrix(op);
  RecordProperty("fault_runs", runs);
  std::printf("fault matrix: %zu operations, %d runs\n", std::size(ops), runs);
}

// The catalogue operations that reach the device (the readers they are built
// on, purchases, recordings and camera-roll SQLite, ask through the same
// connection and are run through them). The lists read local
// copies that a healthy InitDevice made; InitDevice itself runs on a handle
// and a working directory of its own each time, and the lists are run on
// what it leaves, however little that is.
TEST_F(FaultMatrixTest, EveryCatalogueOperationFailsCleanlyAtEveryRequest) {
  AddCatalogue(image);
  Start();
  fs::create_directories(image.host("work"));
  Quietly([&] { ASSERT_EQ(InitDevice(device, image.host("work").c_str()), 0); });
  const std::string local_dbs[] = {"iTunesCDB", "TrackData.plist", "Books.plist", "Recordings.db", "Photos.sqlite"};
  for (const auto &name : local_dbs) ASSERT_TRUE(fs::exists(image.host("work/" + name))) << name;

  // The real phone's music database holds a voice recording, so the
  // recordings list would answer from it without asking the device; a handle
  // whose working directory lacks that copy takes the SQLite route, which
  // asks the device for every file's size.
  fs::create_directories(image.host("work-rec"));
  PodDevice *recordings = CreatePodDevice(kUdid);
  Quietly([&] { ASSERT_EQ(InitDevice(recordings, image.host("work-rec").c_str()), 0); });
  fs::remove(image.host("work-rec/iTunesCDB"));

  auto list = [&](plist_t (*fn)(PodDevice *, uint32_t, uint32_t), PodDevice *handle) {
    return [&, fn, handle](const Fault &) {
      plist_t result = fn(handle, 0, 0);
      ExpectConsistent(result);
      if (result) plist_free(result);
    };
  };
  // A list read by walking the device's folders: nothing when the file
  // conduit is refused.
  auto folder_walk = [&](plist_t (*fn)(PodDevice *)) {
    return [&, fn](const Fault &f) {
      plist_t result = fn(device);
      ExpectConsistent(result);
      if (f.refused()) {
        EXPECT_EQ(result, nullptr);
      }
      if (result) plist_free(result);
    };
  };
  const Operation ops[] = {
      {"InitDevice", [&] { fs::remove_all(image.host("init")); },
       [&](const Fault &f) {
         fs::create_directories(image.host("init"));
         PodDevice *fresh = CreatePodDevice(kUdid);
         // Only the connection and the handshake are fatal.
         EXPECT_EQ(InitDevice(fresh, image.host("init").c_str()), f.option == "refuse_handshake" ? 1 : 0);
         if (f.option == "refuse_afc") {
           ASSERT_NE(fresh->dbInfo, nullptr);
           EXPECT_EQ(plist_dict_get_size(fresh->dbInfo), 0u);
         }
         // A copy cut short is dropped with its temporary name: only the
         // databases' own names stay, and the lists answer consistently
         // from whatever is there.
         for (auto &e : fs::directory_iterator(image.host("init"))) {
           const std::string name = e.path().filename().string();
           bool known = false;
           for (const auto &db : local_dbs) known |= db == name;
           EXPECT_TRUE(known) << name;
         }
         if (fresh->dbInfo) {
           for (auto fn : {GetMusicList, GetMovieList, GetRecordingList, GetCameraPVList}) {
             plist_t result = fn(fresh, 0, 0);
             // Recordings read from the music database carry no total.
             ExpectConsistent(result, fn != GetRecordingList || (result && plist_dict_get_item(result, "total")));
             if (result) plist_free(result);
           }
           if (plist_t playlists = GetPlayList(fresh, 0, 0)) plist_free(playlists);
           if (plist_t books = GetBookList(fresh, 0, 0)) plist_free(books);
         }
         FreePodDevice(fresh);
       }},
      {"GetMusicList with purchases", [] {}, list(GetMusicList, device)},
      {"GetRecordingList from its own database", [] {}, list(GetRecordingList, recordings)},
      {"GetCameraPVList", [] {}, list(GetCameraPVList, device)},
      // The camera folder walk, which the list takes only when the photo
      // database gives nothing.
      {"ReadCameraDbTypeFromDevice", [] {}, folder_walk(ReadCameraDbTypeFromDevice)},
      {"GetUserPictureListFromDevice", [] {}, folder_walk(GetUserPictureListFromDevice)},
      {"GetDeviceInfo", [] {},
       [&](const Fault &f) {
         plist_t info = GetDeviceInfo(device);
         EXPECT_EQ(info == nullptr, f.option == "refuse_handshake");
         if (info) plist_free(info);
       }},
  };
  int runs = 0;
  for (const Operation &op : ops) runs += RunMatrix(op);
  FreePodDevice(recordings);
  std::printf("catalogue fault matrix: %zu operations, %d runs\n", std::size(ops), runs);
}

// A device multiplexer of our own, for GetDevicesId: the device list is the
// one exchange that never reaches a device, so the simulator cannot break
// it. Each connection is answered by `serve`, given the socket.
class FakeMultiplexer {
 public:
  explicit FakeMultiplexer(std::function<void(int)> serve) : serve_(std::move(serve)) {
    path_ = dir_.path() + "/mux";
    listener_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
    EXPECT_EQ(::listen(listener_, 8), 0);
    if (const char *old = std::getenv("USBMUXD_SOCKET_ADDRESS")) old_env_ = old;
    ::setenv("USBMUXD_SOCKET_ADDRESS", ("UNIX:" + path_).c_str(), 1);
    thread_ = std::thread([this] {
      while (!stop_) {
        pollfd p{listener_, POLLIN, 0};
        if (::poll(&p, 1, 50) != 1) continue;
        const int fd = ::accept(listener_, nullptr, nullptr);
        if (fd < 0) continue;
        serve_(fd);
        ::close(fd);
      }
    });
  }
  ~FakeMultiplexer() {
    stop_ = true;
    thread_.join();
    ::close(listener_);
    if (old_env_.empty()) {
      ::unsetenv("USBMUXD_SOCKET_ADDRESS");
    } else {
      ::setenv("USBMUXD_SOCKET_ADDRESS", old_env_.c_str(), 1);
    }
  }

  // Reads one request (header and payload); its tag, or 0 when the client
  // left.
  static uint32_t ReadRequest(int fd) {
    uint32_t header[4];
    if (::recv(fd, header, sizeof(header), MSG_WAITALL) != sizeof(header) || header[0] < sizeof(header)) return 0;
    std::string payload(header[0] - sizeof(header), '\0');
    if (::recv(fd, payload.data(), payload.size(), MSG_WAITALL) != static_cast<ssize_t>(payload.size())) return 0;
    return header[3];
  }
  // A plist message answering the request with `tag`: length, version 1,
  // message type 8 (plist), tag.
  static std::string Message(uint32_t tag, const std::string &payload, uint32_t claimed = 0) {
    const uint32_t header[4] = {claimed ? claimed : static_cast<uint32_t>(16 + payload.size()), 1, 8, tag};
    return std::string(reinterpret_cast<const char *>(header), sizeof(header)) + payload;
  }
  static void Send(int fd, const std::string &bytes) { (void)!::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

 private:
  tarn::testing::TempDir dir_;
  std::string path_, old_env_;
  int listener_ = -1;
  std::function<void(int)> serve_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// The device list's exchange cut at every point, and answered with what no
// multiplexer sends: the list is null and comes back in bounded time. The
// whole answer, which shows that the fake is heard at all, goes first:
// after one failed list libusbmuxd asks with "Listen" instead, for the rest
// of the process.
TEST(DeviceListFaults, GetDevicesIdGivesNullWhenTheMultiplexerBreaksOff) {
  const std::string answer = [] {
    plist_t props = Dict({{"ConnectionType", plist_new_string("USB")},
                          {"DeviceID", plist_new_uint(7)},
                          {"LocationID", plist_new_uint(0x14100007)},
                          {"ProductID", plist_new_uint(0x12a8)},
                          {"SerialNumber", plist_new_string(kUdid)}});
    plist_t device = Dict({{"DeviceID", plist_new_uint(7)},
                           {"MessageType", plist_new_string("Attached")},
                           {"Properties", props}});
    plist_t list = plist_new_array();
    plist_array_append_item(list, device);
    return PlistBytes(Dict({{"DeviceList", list}}), false);
  }();
  using M = FakeMultiplexer;
  struct Case {
    const char *what;
    std::function<void(int)> serve;
    bool listed;
  } cases[] = {
      {"the whole answer",
       [&](int fd) {
         if (uint32_t tag = M::ReadRequest(fd)) M::Send(fd, M::Message(tag, answer));
       },
       true},
      {"closed before the request", [](int) {}, false},
      {"closed after the request", [](int fd) { M::ReadRequest(fd); }, false},
      // libusbmuxd gives up after five seconds of silence.
      {"silence after the request",
       [](int fd) {
         char byte;
         if (M::ReadRequest(fd)) (void)::recv(fd, &byte, 1, 0);  // until the client gives up
       },
       false},
      {"half an answer",
       [&](int fd) {
         if (uint32_t tag = M::ReadRequest(fd)) M::Send(fd, M::Message(tag, answer).substr(0, 16 + answer.size() / 2));
       },
       false},
      {"an answer that is no property list",
       [](int fd) {
         if (uint32_t tag = M::ReadRequest(fd)) M::Send(fd, M::Message(tag, std::string(64, '\x7f')));
       },
       false},
      {"an answer that claims two gigabytes",
       [&](int fd) {
         if (uint32_t tag = M::ReadRequest(fd)) M::Send(fd, M::Message(tag, answer, 0x7ffffff0u));
       },
       false},
  };
  int runs = 0;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    M mux(c.serve);
    const auto start = std::chrono::steady_clock::now();
    plist_t ids = Quiet(GetDevicesId);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << "took too long";
    EXPECT_EQ(ids != nullptr, c.listed);
    if (ids) {
      ASSERT_EQ(plist_array_get_size(ids), 1u);
      char *id = nullptr;
      plist_get_string_val(plist_array_get_item(ids, 0), &id);
      EXPECT_STREQ(id, kUdid);
      std::free(id);
      plist_free(ids);
    }
    ++runs;
  }
  std::printf("device list faults: 1 operation, %d runs\n", runs);
}

}  // namespace
}  // namespace tarn_fs_test
