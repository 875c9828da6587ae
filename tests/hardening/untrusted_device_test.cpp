// A device that is not to be trusted, beyond what the simulator can serve:
// file information of every shape (an odd number of strings, sizes that are
// no numbers, an error that still hands out a vector), listings with
// enormous counts, names no file system holds or that would lead a walk out
// of its directory, trees deeper than any walk goes and trees that fan out
// without end. This program stands in front of libimobiledevice for three
// requests; whatever a test does not rewrite goes to the simulator.
#include <dlfcn.h>

#include <chrono>
#include <climits>
#include <optional>
#include <set>

#include "../devicefs/fs_fixture.h"

namespace {

// One answer of the device: its error code and its strings (none: the
// answer carried no payload, and libimobiledevice hands out no vector).
struct Answer {
  afc_error_t error = AFC_E_SUCCESS;
  std::optional<std::vector<std::string>> strings;
};
// Returns the answer for a path, or nothing to let the simulator answer.
using Rewrite = std::function<std::optional<Answer>(const std::string &path)>;

Rewrite g_info, g_listing;

// Built as libimobiledevice builds it: malloc'd vector of strdup'd strings.
char **Vector(const std::vector<std::string> &items) {
  auto **v = static_cast<char **>(std::malloc((items.size() + 1) * sizeof(char *)));
  for (size_t i = 0; i < items.size(); ++i) v[i] = strdup(items[i].c_str());
  v[items.size()] = nullptr;
  return v;
}

afc_error_t Answered(const Rewrite &rewrite, const char *real_name, afc_client_t client, const char *path,
                     char ***out) {
  if (rewrite && path) {
    if (std::optional<Answer> a = rewrite(path)) {
      *out = a->strings ? Vector(*a->strings) : nullptr;
      return a->error;
    }
  }
  using Fn = afc_error_t (*)(afc_client_t, const char *, char ***);
  const auto real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, real_name));
  return real(client, path, out);
}

}  // namespace

extern "C" afc_error_t afc_get_file_info(afc_client_t client, const char *path, char ***info) {
  return Answered(g_info, "afc_get_file_info", client, path, info);
}

extern "C" afc_error_t afc_read_directory(afc_client_t client, const char *path, char ***list) {
  return Answered(g_listing, "afc_read_directory", client, path, list);
}

namespace tarn_fs_test {
namespace {

using Strings = std::vector<std::string>;

bool Under(const std::string &path, const std::string &dir) { return path.rfind(dir + "/", 0) == 0; }

class UntrustedDeviceTest : public DeviceFsTest {
 protected:
  void TearDown() override {
    g_info = nullptr;
    g_listing = nullptr;
    DeviceFsTest::TearDown();
  }
};

struct ProgressLog {
  uint64_t total = 0, done = 0;
  int finals = 0;
};

int LogProgress(uint64_t total, uint64_t done, int finished, void *user) {
  auto *log = static_cast<ProgressLog *>(user);
  log->total = total;
  log->done = done;
  log->finals += finished;
  return 0;
}

TEST_F(UntrustedDeviceTest, FileInformationOfEveryShapeIsReadSlotBySlot) {
  image.File("/k/f", "12345");
  Start();
  const std::optional<std::string> none;
  struct Case {
    const char *what;
    Answer answer;
    std::optional<std::string> slots[TARN_INFO_VALUES];
    uint64_t total;  // what the download reports as the file's size
  } cases[] = {
      {"a key without its value", {AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFREG", "st_size"}},
       {"S_IFREG", none, none, none, none}, 0},
      {"a size that is no number", {AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFREG", "st_size", "12abc"}},
       {"S_IFREG", "12abc", none, none, none}, 12},
      {"a negative size", {AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFREG", "st_size", "-1"}},
       {"S_IFREG", "-1", none, none, none}, ULLONG_MAX},
      {"a size beyond 64 bits", {AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFREG", "st_size", "99999999999999999999999"}},
       {"S_IFREG", "99999999999999999999999", none, none, none}, ULLONG_MAX},
      {"times of every length",
       {AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFREG", "st_mtime", "", "st_birthtime", std::string(40, '9')}},
       {"S_IFREG", none, "", none, std::string(31, '9')}, 0},
      {"a repeated key", {AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFDIR", "st_ifmt", "S_IFREG", "st_blocks", "x"}},
       {"S_IFREG", none, none, "x", none}, 0},
      {"an empty key alone", {AFC_E_SUCCESS, Strings{""}}, {none, none, none, none, none}, 0},
      {"success without a payload", {AFC_E_SUCCESS, std::nullopt}, {none, none, none, none, none}, 0},
      {"an error that hands out a vector", {AFC_E_OBJECT_NOT_FOUND, Strings{"st_ifmt", "S_IFREG"}},
       {none, none, none, none, none}, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    g_info = [&](const std::string &path) -> std::optional<Answer> {
      if (path == "/k/f") return c.answer;
      return std::nullopt;
    };
    char **info = GetDirOrFileInfo(device, "/k/f");
    for (int i = 0; i < TARN_INFO_VALUES; ++i)
      EXPECT_EQ(info[i] ? std::optional<std::string>(info[i]) : none, c.slots[i]) << "slot " << i;
    EXPECT_EQ(info[TARN_INFO_VALUES], nullptr);
    FreeFileInfo(info);

    // The claimed size only feeds the progress total: the bytes the device
    // delivers are what is copied, whatever it claimed.
    fs::remove(image.host("f"));
    ProgressLog log;
    device->userData = &log;
    Quiet([&] { CopyFileFromDeviceToNative(device, "/k/f", image.host("f").c_str(), LogProgress); });
    if (c.slots[TARN_INFO_KIND]) {
      EXPECT_EQ(ReadAll(image.host("f")), "12345");
      EXPECT_EQ(log.total, c.total);
      EXPECT_EQ(log.done, 5u);
      EXPECT_EQ(log.finals, 1);
    } else {
      EXPECT_FALSE(fs::exists(image.host("f"))) << "a path the device did not describe was copied";
      EXPECT_EQ(log.finals, 0);
    }
  }
  ExpectIdle("file information of every shape");
}

// A cover whose file the device says is small but that keeps coming: the
// copy stops at the bound a cover may have, whatever the device claimed,
// and the host file stays as it was.
TEST_F(UntrustedDeviceTest, ACoverThatDeliversMoreThanItsBoundIsNotCopied) {
  image.Add(nlohmann::ordered_json::parse(R"({"media_library": {"tracks": [
    {"id": "t", "title": "T", "artist": "A", "album": "B", "artwork": "jpeg", "artwork_size": 20000000}]}})"));
  Start();
  ASSERT_EQ(Quiet([&] { return InitDevice(device, image.host().c_str()); }), 0);
  const std::unique_ptr<void, decltype(&plist_free)> music(Quiet([&] { return GetMusicList(device, 0, 0); }),
                                                           &plist_free);
  ASSERT_TRUE(music) << TarnLastError()->message;
  uint64_t id = 0;
  plist_get_uint_val(plist_dict_get_item(plist_array_get_item(plist_dict_get_item(music.get(), "item"), 0), "id"), &id);
  g_info = [](const std::string &path) -> std::optional<Answer> {
    if (Under(path, "/iTunes_Control/iTunes/Artwork/Originals"))
      return Answer{AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFREG", "st_size", "1000"}};
    return std::nullopt;
  };
  const std::string cover = image.host("cover").string();
  WriteAll(cover, "earlier");
  EXPECT_EQ(Quiet([&] { return TarnCopyArtwork(device, id, cover.c_str()); }), 1);
  EXPECT_EQ(TarnLastError()->code, TARN_E_DEVICE) << TarnLastError()->message;
  EXPECT_NE(std::string(TarnLastError()->message).find("holds more than"), std::string::npos);
  EXPECT_EQ(ReadAll(cover), "earlier");
  ExpectIdle("the cover copy");
}

// The answers InitDevice weighs before it copies a database: a success
// without any information (found by fuzzing: it was read as a vector) and
// sizes of every shape. A database is taken when the device may hold
// something in it, and then copied whole.
TEST_F(UntrustedDeviceTest, InitDeviceTakesOnlyDatabasesTheDeviceDescribes) {
  const std::string db = "/iTunes_Control/iTunes/iTunesCDB";
  image.File(db, "cdb bytes");
  Start();
  struct Case {
    const char *what;
    std::optional<Strings> strings;
    bool taken;
  } cases[] = {
      {"success without a payload", std::nullopt, false},
      {"a size of zero", Strings{"st_ifmt", "S_IFREG", "st_size", "0"}, false},
      {"a size that is no number", Strings{"st_ifmt", "S_IFREG", "st_size", "none"}, false},
      {"a key without its value", Strings{"st_ifmt", "S_IFREG", "st_size"}, true},
      {"a size beyond 64 bits", Strings{"st_ifmt", "S_IFREG", "st_size", "99999999999999999999999"}, true},
      {"no size at all", Strings{"st_ifmt", "S_IFREG"}, true},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    g_info = [&](const std::string &path) -> std::optional<Answer> {
      if (path == db) return Answer{AFC_E_SUCCESS, c.strings};
      return std::nullopt;
    };
    fs::remove_all(image.host("init"));
    fs::create_directories(image.host("init"));
    PodDevice *fresh = CreatePodDevice(kUdid);
    EXPECT_EQ(Quiet([&] { return InitDevice(fresh, image.host("init").c_str()); }), 0);
    ASSERT_NE(fresh->dbInfo, nullptr);
    EXPECT_EQ(plist_dict_get_item(fresh->dbInfo, "TrackDb") != nullptr, c.taken);
    if (c.taken) {
      EXPECT_EQ(ReadAll(image.host("init/iTunesCDB")), "cdb bytes");
    }
    for (auto &e : fs::directory_iterator(image.host("init"))) {
      EXPECT_TRUE(c.taken && e.path().filename() == "iTunesCDB") << e.path();
    }
    FreePodDevice(fresh);
    ExpectIdle(c.what);
  }
}

// A listing of `count` synthetic names below dir, each a file of one byte,
// answered without asking the simulator.
void SyntheticListing(const std::string &dir, int count) {
  auto names = std::make_shared<Strings>(Strings{".", ".."});
  for (int i = 0; i < count; ++i) names->push_back("n" + std::to_string(i));
  g_listing = [dir, names](const std::string &path) -> std::optional<Answer> {
    if (path == dir) return Answer{AFC_E_SUCCESS, *names};
    return std::nullopt;
  };
  g_info = [dir](const std::string &path) -> std::optional<Answer> {
    if (Under(path, dir)) return Answer{AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFREG", "st_size", "1"}};
    return std::nullopt;
  };
}

TEST_F(UntrustedDeviceTest, AnEnormousListingIsReadInFullWithoutSlowingDown) {
  image.Dir("/big");
  Start();
  constexpr int kNames = 100000;
  SyntheticListing("/big", kNames);
  testing::internal::CaptureStdout();
  const auto start = std::chrono::steady_clock::now();

  PodDir *root = GetPodDir(device, "/big", 0);
  EXPECT_EQ(root->file_count, kNames);
  FreePodDir(root, 1, root);

  PodSearchItem *found = SearchFile(device, "/big", "n99999");
  ASSERT_NE(found, nullptr);
  EXPECT_STREQ(static_cast<PodFile *>(found->record)->path, "/big/n99999");
  EXPECT_EQ(found->next, nullptr);
  FreeSearchResult(found);

  testing::internal::GetCapturedStdout();
  // Linear work: a walk that rescans its lists per entry takes minutes.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
  ExpectIdle("an enormous listing");
}

TEST_F(UntrustedDeviceTest, NamesNoFileSystemHoldsStayInsideTheCopy) {
  image.File("/n/real", "r");
  Start();
  const std::string long_name(5000, 'L');
  const Strings odd = {long_name, "line\nbreak", "\xff\xfe", " ", "-", "~", "*", "$HOME"};
  g_listing = [&](const std::string &path) -> std::optional<Answer> {
    if (path != "/n/") return std::nullopt;
    Strings names = {".", "..", "real"};
    names.insert(names.end(), odd.begin(), odd.end());
    return Answer{AFC_E_SUCCESS, names};
  };
  // The odd names are files of the device whose content is that of "real".
  g_info = [&](const std::string &path) -> std::optional<Answer> {
    for (const auto &n : odd) {
      if (path == "/n/" + n) return Answer{AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFREG", "st_size", "1"}};
    }
    return std::nullopt;
  };
  Quiet([&] { CopyDeviceDirectory(device, "/n", image.host("copy").c_str()); });
  EXPECT_EQ(ReadAll(image.host("copy/real")), "r");
  for (auto &e : fs::directory_iterator(image.host())) EXPECT_EQ(e.path().filename(), "copy");
  ExpectIdle("a copy of odd names");
}

TEST_F(UntrustedDeviceTest, ATreeThatFansOutWithoutEndEndsEveryWalk) {
  image.Dir("/fan");
  Start();
  // Every directory holds two directories: 2^64 of them down to the depth
  // bound, as a device whose links lead back up would present.
  g_listing = [](const std::string &path) -> std::optional<Answer> {
    if (path == "/fan" || Under(path, "/fan")) return Answer{AFC_E_SUCCESS, Strings{".", "..", "a", "b"}};
    return std::nullopt;
  };
  long asked = 0;
  g_info = [&asked](const std::string &path) -> std::optional<Answer> {
    if (!Under(path, "/fan")) return std::nullopt;
    ++asked;
    return Answer{AFC_E_SUCCESS, Strings{"st_ifmt", "S_IFDIR"}};
  };
  testing::internal::CaptureStdout();
  const auto start = std::chrono::steady_clock::now();
  PodSearchItem *found = SearchFile(device, "/fan", "nothing");
  EXPECT_EQ(found, nullptr);
  FreeSearchResult(found);
  testing::internal::GetCapturedStdout();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(120));
  EXPECT_EQ(asked, TARN_MAX_WALK_ENTRIES) << "entries visited";
  ExpectIdle("a walk of an endless tree");
}

TEST_F(UntrustedDeviceTest, ListedNamesThatLeaveTheirDirectoryAreSkippedByEveryWalk) {
  image.File("/a/x", "x");
  image.File("/a/sub/y", "y");
  image.File("/escape", "outside");
  Start();
  // Each would point above or beside the directory being walked, or at it.
  const Strings hostile = {"", ".", "..", "../escape", "sub/../../escape", "/escape"};
  g_listing = [&](const std::string &path) -> std::optional<Answer> {
    Strings names = path == "/a" ? Strings{".", "..", "x", "sub"} : Strings{".", "..", "y"};
    if (path != "/a" && path != "/a/sub") return std::nullopt;
    names.insert(names.end(), hostile.begin(), hostile.end());
    return Answer{AFC_E_SUCCESS, names};
  };
  Quiet([&] { CopyDeviceDirectory(device, "/a", image.host("copy").c_str()); });
  std::set<std::string> beside, copied;
  for (auto &e : fs::directory_iterator(image.host())) beside.insert(e.path().filename().string());
  for (auto &e : fs::recursive_directory_iterator(image.host("copy")))
    copied.insert(fs::relative(e.path(), image.host("copy")).string());
  EXPECT_EQ(beside, std::set<std::string>{"copy"}) << "written beside the host directory";
  EXPECT_EQ(copied, (std::set<std::string>{"x", "sub", "sub/y"}));

  PodDir *root = Quiet([&] { return GetPodDir(device, "/a", 0); });
  EXPECT_EQ(root->dir_count, 1);
  EXPECT_EQ(root->file_count, 2);
  Quiet([&] { FreePodDir(root, 1, root); });
  PodSearchItem *found = Quiet([&] { return SearchFile(device, "/a", "escape"); });
  EXPECT_EQ(found, nullptr);
  FreeSearchResult(found);

  EXPECT_EQ(Quiet([&] { return DeleteDir(device, "/a"); }), 0);
  EXPECT_FALSE(fs::exists(image.media("/a")));
  EXPECT_EQ(ReadAll(image.media("/escape")), "outside") << "a delete reached beyond its directory";
  ExpectIdle("walks over hostile names");
}

// A tree deeper than the walk's bound, as a device whose links lead back up
// presents it: every recursive walk reads down to the bound and no further.
TEST_F(UntrustedDeviceTest, ATreeDeeperThanTheBoundIsReadDownToItAndNoFurther) {
  std::string dir = "/deep";
  image.File(dir + "/f", "0");
  for (int level = 1; level <= TARN_MAX_WALK_DEPTH + 16; ++level) {
    dir += "/d";
    image.File(dir + "/f", std::to_string(level));
  }
  Start();
  testing::internal::CaptureStdout();

  // Directories down to the bound are recorded; the last one is not read,
  // so the files below level TARN_MAX_WALK_DEPTH - 1 are not either.
  PodDir *root = GetPodDir(device, "/deep", 0);
  EXPECT_EQ(root->dir_count, TARN_MAX_WALK_DEPTH);
  EXPECT_EQ(root->file_count, TARN_MAX_WALK_DEPTH);
  EXPECT_EQ(Depth(root), TARN_MAX_WALK_DEPTH);
  FreePodDir(root, 1, root);

  PodSearchItem *found = SearchFile(device, "/deep", "f");
  int hits = 0;
  for (PodSearchItem *i = found; i; i = i->next) ++hits;
  FreeSearchResult(found);
  EXPECT_EQ(hits, TARN_MAX_WALK_DEPTH);

  CopyDeviceDirectory(device, "/deep", image.host("copy").c_str());
  int deepest = 0, files = 0;
  for (auto it = fs::recursive_directory_iterator(image.host("copy")); it != fs::recursive_directory_iterator(); ++it) {
    deepest = std::max(deepest, it.depth());
    if (it->is_regular_file()) ++files;
  }
  EXPECT_EQ(files, TARN_MAX_WALK_DEPTH);
  EXPECT_LT(deepest, TARN_MAX_WALK_DEPTH);

  // What lies beyond the bound is not seen, so its directories cannot be
  // emptied and stay; everything the walk saw above them is removed.
  EXPECT_EQ(DeleteDir(device, "/deep"), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_FALSE(fs::exists(image.media("/deep/f")));
  EXPECT_TRUE(fs::exists(image.media("/deep/d")));
  ExpectIdle("walks of a deep tree");
}

}  // namespace
}  // namespace tarn_fs_test
