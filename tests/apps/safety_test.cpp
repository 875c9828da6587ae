// tarn loses nothing: no spelling of a path reaches the root, writes on
// either side are whole or absent, a person's own files are left alone, and
// text from a hostile device reaches neither the terminal nor a playlist raw.
#include <cctype>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "tool_fixture.h"

namespace tarn_apps_test {
namespace {

bool HasControl(const std::string &text) {
  for (const char c : text)
    if ((static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7f) return true;
  return false;
}

size_t Leftovers(const fs::path &dir) { return tarn::testing::PartialsBelow(dir).count; }

void ExpectCode(const Result &r, int code, const std::string &fragment) {
  EXPECT_EQ(r.code, code) << r.err;
  EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
}

TEST_F(ToolTest, RmNeverReachesTheRootHoweverItIsWritten) {
  struct Case {
    const char *path;
    const char *fragment;
  };
  for (const Case &c : std::vector<Case>{{"/.", "refusing to remove the root"},
                                         {".", "refusing to remove the root"},
                                         {"/./", "refusing to remove the root"},
                                         {"//.", "refusing to remove the root"},
                                         {"/iTunes_Control/./..", "refusing to remove the root"},
                                         {"/..", "climbs above the root"},
                                         {"..", "climbs above the root"},
                                         {"/../", "climbs above the root"},
                                         {"/iTunes_Control/../../x", "climbs above the root"}}) {
    for (const char *flag : {"-r", ""}) {
      std::vector<std::string> args = {"rm", c.path};
      if (flag[0] != '\0') args.insert(args.begin() + 1, flag);
      const Result r = Tarn(args);
      ExpectCode(r, 2, c.fragment);
      EXPECT_EQ(r.err.find("rm -r"), std::string::npos) << r.err;
    }
  }
  for (const Track &t : Tracks()) EXPECT_TRUE(fs::exists(media(t.file))) << t.file;
  // Normalised paths still reach what they name.
  EXPECT_EQ(Tarn({"ls", "//iTunes_Control/./Music/../Music/F01/"}).out, "BBBB.m4a\n");
  ExpectCode(Tarn({"rm", "/iTunes_Control/Music/F01/BBBB.m4a/"}), 7, "not a directory");
  ASSERT_EQ(Tarn({"rm", "-r", "/iTunes_Control/Music/F00/.."}).code, 0);
  EXPECT_FALSE(fs::exists(media("/iTunes_Control/Music")));
  EXPECT_TRUE(fs::exists(media("/iTunes_Control/iTunes")));
}

TEST_F(ToolTest, PushReplacesAFileOnlyWhenEveryByteIsThere) {
  const std::string target = Tracks()[1].file, original = TrackContent(Tracks()[1]);
  const std::string dir = fs::path(media(target)).parent_path();
  WriteAll(host("new.bin"), std::string(3 << 20, 'n'));
  // A device that fails the write, and a SIGTERM part-way: the old file
  // stays whole, no temporary file stays behind.
  sim->set_option(kUdid, "afc_error", "18:*/.tarn-*");  // no space left
  ExpectCode(Tarn({"push", host("new.bin"), target}), 11, "no space left for \"" + target + "\": free some space on it");
  EXPECT_EQ(ReadAll(media(target)), original);
  EXPECT_EQ(Leftovers(dir), 0u);
  sim->clear_faults(kUdid);

  sim->set_option(kUdid, "latency_us", "20000");
  ToolProcess tool({"push", host("new.bin"), target}, Env());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (Leftovers(dir) == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  tool.Signal(SIGTERM);
  ExpectCode(tool.Wait(), 143, "cancelled");
  sim->set_option(kUdid, "latency_us", "0");
  EXPECT_EQ(ReadAll(media(target)), original);
  EXPECT_EQ(Leftovers(dir), 0u);

  ASSERT_EQ(Tarn({"push", host("new.bin"), target}).code, 0);
  EXPECT_EQ(ReadAll(media(target)), std::string(3 << 20, 'n'));
  EXPECT_EQ(Leftovers(dir), 0u);
}

TEST_F(ToolTest, PullReplacesOnlyRegularFilesAndStopsWhenTheDeviceGoesAway) {
  const std::string track = Tracks()[1].file;
  ASSERT_EQ(::mkfifo(host("fifo").c_str(), 0644), 0);
  WriteAll(host("victim"), "mine");
  fs::create_symlink(host("victim"), host("link"));
  for (const char *name : {"fifo", "link"}) {
    ExpectCode(Tarn({"pull", track, host(name)}), 8, "refusing to replace");
    EXPECT_EQ(ReadAll(host("victim")), "mine");
  }
  EXPECT_TRUE(fs::is_fifo(host("fifo")));
  EXPECT_TRUE(fs::is_symlink(host("link")));
  WriteAll(host("keep"), "mine");
  for (const char *flag : {"-n", "--no-clobber"}) EXPECT_EQ(Tarn({"pull", flag, track, host("keep")}).code, 0);
  EXPECT_EQ(ReadAll(host("keep")), "mine");
  ASSERT_EQ(Tarn({"pull", track, host("keep")}).code, 0);
  EXPECT_EQ(ReadAll(host("keep")), TrackContent(Tracks()[1])) << "a regular file is replaced, as cp does";

  // Running a directory pull again fills in the same copy.
  for (int run = 0; run < 2; ++run) ASSERT_EQ(Tarn({"pull", "/iTunes_Control/Music", host("M2")}).code, 0);
  EXPECT_FALSE(fs::exists(host("M2/Music")));
  EXPECT_EQ(ReadAll(host("M2/F01/BBBB.m4a")), TrackContent(Tracks()[1]));

  sim->set_option(kUdid, "drop_after_bytes", "9000");
  const Result r = Tarn({"pull", "/iTunes_Control/Music", host("dropped")});
  EXPECT_EQ(r.code, 10) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_NE(r.err.find(" of 5 files"), std::string::npos) << r.err;
  for (const auto &entry : fs::recursive_directory_iterator(host("dropped")))
    EXPECT_NE(entry.path().filename().string().rfind(".tarn-", 0), 0u) << entry.path();
}

TEST_F(ToolTest, ExportReplacesOnlyWhatItRecordedAndLeavesAPersonsFilesAlone) {
  const fs::path out = host("export");
  const fs::path own = out / "Mira Okafor/Paper Moons/Harbour Nights.m4a";
  // The person's own file, of the very size of the track it would be named for.
  WriteAll(own, std::string(TrackContent(Tracks()[1]).size(), 'p'));
  WriteAll(out / "Quiet.m3u8", "my own playlist\n");
  Result r = Tarn({"export", "playlists", out.string()});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(ReadAll(own), std::string(TrackContent(Tracks()[1]).size(), 'p'));
  EXPECT_EQ(ReadAll(out / "Quiet.m3u8"), "my own playlist\n");
  EXPECT_EQ(ReadAll(out / "Mira Okafor/Paper Moons/Harbour Nights (2).m4a"), TrackContent(Tracks()[1]));
  EXPECT_NE(ReadAll(out / "Quiet (2).m3u8").find("#EXTM3U"), std::string::npos);
  EXPECT_NE(r.err.find("Harbour Nights (2).m4a"), std::string::npos) << r.err;
  r = Tarn({"export", "playlists", out.string()});
  EXPECT_EQ(r.out, "5 playlist tracks: 0 copied (0 B), 5 already there\n") << r.err;
}

// A device whose names and metadata are out to do harm.
class HostileTest : public ToolTest {
 protected:
  static constexpr const char *kHostile = "00008030-00A11CE0000000EE";
  void SetUp() override {
    tarn::testing::build_image(tarn::testing::load_description("hostile"), image());
    fs::create_directories(host(""));
    fs::create_symlink("lower.txt", media("/Hostile/link"));
    sim = std::make_unique<tarn::testing::Simulator>(std::vector<tarn::testing::SimDevice>{{image(), kHostile, {}}});
  }
};

TEST_F(HostileTest, NamesAndMetadataReachNoTerminalOrPlaylistRaw) {
  Result r = Tarn({"pull", "/Hostile", host("")});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(ReadAll(host("Hostile/" + std::string(251, 'L') + ".bin")), "a name of 255 bytes\n");
  for (const auto &args : std::vector<std::vector<std::string>>{
           {"ls", "-l", "/Hostile"}, {"list", "music"}, {"list", "playlists"}, {"find", "/Hostile", "name"}, {"info"}}) {
    r = Tarn(args);
    EXPECT_EQ(r.code, 0) << args[0] << r.err;
    EXPECT_FALSE(HasControl(r.out)) << args[0] << ": " << r.out;
  }
  const std::string long_listing = Tarn({"ls", "-l", "/Hostile"}).out;
  EXPECT_NE(long_listing.find("\nl "), std::string::npos) << long_listing;
  EXPECT_NE(long_listing.find("  link -> lower.txt\n"), std::string::npos) << long_listing;

  for (const char *kind : {"music", "playlists", "books"}) {
    WriteAll(host("list.xml"), Tarn({"list", kind, "--xml"}).out);
    EXPECT_EQ(std::system(("xmllint --noout " + host("list.xml")).c_str()), 0) << kind;
  }
  EXPECT_EQ(Tarn({"list", "books", "--json"}).out, "[]\n");
  // The camera roll of a current phone spans several folders.
  // One date format in every table.
  {
    const std::string out = Tarn({"list", "camera"}).out;
    const size_t name = out.find("IMG_0002.JPG ");
    ASSERT_NE(name, std::string::npos) << out;
    const std::string line = out.substr(name, out.find('\n', name) - name);
    // "IMG_0002.JPG   200 B  YYYY-MM-DD HH:MM": digits where the mask has 9.
    const std::string mask = "9999-99-99 99:99", tail = line.substr(line.find("200 B  ") + 7);
    bool matches = tail.size() == mask.size();
    for (size_t i = 0; matches && i < mask.size(); ++i)
      matches = mask[i] == '9' ? std::isdigit(static_cast<unsigned char>(tail[i])) != 0 : tail[i] == mask[i];
    EXPECT_TRUE(matches && line.find("200 B  ") != std::string::npos) << line;
  }
  r = Tarn({"export", "camera", host("camera")});
  EXPECT_EQ(r.out.substr(0, r.out.find(':')), "3 camera-roll files") << r.err;

  ASSERT_EQ(Tarn({"export", "playlists", host("out")}).code, 0);
  for (const auto &entry : fs::directory_iterator(host("out"))) {
    if (entry.path().extension() != ".m3u8") continue;
    std::istringstream in(ReadAll(entry.path()));
    int lines = 0;
    for (std::string line; std::getline(in, line); ++lines) {
      EXPECT_FALSE(HasControl(line)) << line;
      EXPECT_TRUE(line.empty() || line[0] == '#' || fs::exists(host("out/" + line))) << line;
    }
    EXPECT_EQ(lines, 5) << "a header and two lines per track";
  }
}

TEST_F(HostileTest, SearchesAndWalksSayWhatTheyFoundAndWhatTheyCouldNot) {
  struct Case {
    std::vector<std::string> args;
    std::string out;
  };
  for (const Case &c : std::vector<Case>{{{"find", "/Hostile", "upper"}, "/Hostile/Upper.TXT\n"},
                                         {{"find", "/Hostile", "Upper", "--case-sensitive"}, "/Hostile/Upper.TXT\n"},
                                         {{"find", "/Hostile", "upper", "--case-sensitive"}, ""},
                                         {{"find", "/Hostile", "TXT", "--case-sensitive"}, "/Hostile/Upper.TXT\n"}}) {
    const Result r = Tarn(c.args);
    EXPECT_EQ(r.out, c.out) << c.args[2] << r.err;
  }
  for (const auto &args : std::vector<std::vector<std::string>>{
           {"ls", "-R", "/Deep"}, {"find", "/Deep", "file"}, {"pull", "/Deep", host("deep")}})
    ExpectCode(Tarn(args), 1, "is incomplete");
}

// A damaged music database is not an empty library: the list fails with
// the reason; once the device's database is whole again, the stale local
// copy is not used.
TEST_F(ToolTest, ACorruptMusicDatabaseIsNoEmptyLibrary) {
  const std::string db = media("/iTunes_Control/iTunes/iTunesCDB");
  const std::string whole = ReadAll(db);
  WriteAll(db, "mhbd" + std::string(400, '\x7f'));
  const Result r = Tarn({"list", "music"});
  ExpectCode(r, 1, "could not be read");
  EXPECT_EQ(r.out.find("No music"), std::string::npos) << r.out;
  WriteAll(db, whole);
  fs::last_write_time(db, fs::last_write_time(db) + std::chrono::seconds(5));
  const Result again = Tarn({"list", "music"});
  EXPECT_EQ(again.code, 0) << again.err;
  EXPECT_NE(again.out.find("Harbour Nights"), std::string::npos) << again.out;
}

TEST_F(ToolTest, EachDeviceStateGetsItsReasonAndRemedyAndWritesWaitForAnotherComputersSync) {
  struct Case {
    const char *option;
    std::vector<std::string> args;
    int code;
    const char *fragment;
  };
  WriteAll(host("a.txt"), "a");
  for (const Case &c : std::vector<Case>{{"locked", {"info"}, 6, "tarn: Test Phone is locked with a passcode: unlock it and try again.\n"},
                                         {"stale_pairing", {"ls", "/"}, 6, "idevicepair unpair"},
                                         {"ssl_fail", {"list", "music"}, 6, "idevicepair unpair"},
                                         {"syncing", {"push", host("a.txt"), "/a.txt"}, 12, "syncing"},
                                         {"syncing", {"rm", Tracks()[0].file}, 12, "syncing"},
                                         {"syncing", {"mkdir", "/New"}, 12, "syncing"}}) {
    SCOPED_TRACE(std::string(c.option) + " " + c.args[0]);
    sim->set_option(kUdid, c.option, "1");
    ExpectCode(Tarn(c.args), c.code, c.fragment);
    sim->clear_faults(kUdid);
  }
  EXPECT_TRUE(fs::exists(media(Tracks()[0].file)));
  EXPECT_FALSE(fs::exists(media("/a.txt")));
  EXPECT_FALSE(fs::exists(media("/New")));
}

TEST(ToolBatch, ADirectoryPullOfAThousandFilesHoldsOneConnection) {
  tarn::testing::TempDir dir;
  tarn::testing::build_image({{"tree", {{"root", "/T"}, {"fanout", 10}, {"depth", 1}, {"files", 100}}}},
                             dir.path() + "/image");
  tarn::testing::Simulator sim({{dir.path() + "/image", kUdid, {}}});
  const std::map<std::string, std::string> env = {{"USBMUXD_SOCKET_ADDRESS", sim.env_value()},
                                                  {"XDG_CACHE_HOME", dir.path() + "/cache"}};
  sim.reset_stats(kUdid);
  const Result r = RunTool({"pull", "/T", dir.path() + "/T"}, env);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(dir.path() + "/T"), fs::recursive_directory_iterator()),
            1010);
  EXPECT_EQ(sim.stats(kUdid).tls_sessions, 1u);
}

}  // namespace
}  // namespace tarn_apps_test
