// The tarn tool driven as a user drives it, against the simulator.
#include <algorithm>
#include <chrono>
#include <thread>

#include "tool_fixture.h"

namespace tarn_apps_test {
namespace {

// One line on standard error, in the tool's own voice.
void ExpectOneErrorLine(const Result &r, const std::string &fragment) {
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(r.err.rfind("tarn: ", 0), 0u) << r.err;
  EXPECT_NE(r.err.find(fragment), std::string::npos) << r.err;
}

void ExpectFailure(const Result &r, int code, const std::string &fragment) {
  EXPECT_EQ(r.code, code) << r.err;
  ExpectOneErrorLine(r, fragment);
}

struct Failure {
  std::vector<std::string> args;
  int code;
  const char *fragment;
};

TEST(ToolCommandLine, HelpAndVersionAnswerOnEveryLevelAndMistakesAreUsageErrors) {
  const std::map<std::string, std::string> env = {{"USBMUXD_SOCKET_ADDRESS", "UNIX:/nonexistent/socket"}};
  for (const std::vector<std::string> &args : {std::vector<std::string>{"--help"}, {"-h"}, {"ls", "--help"},
                                                {"export", "-h"}, {"pull", "a", "--help"}, {"--version"},
                                                {"list", "--version"}}) {
    const Result r = RunTool(args, env);
    EXPECT_EQ(r.code, 0) << args[0];
    EXPECT_EQ(r.out.rfind(args.back() == "--version" ? "tarn " : "Usage: tarn", 0), 0u) << r.out;
  }
  EXPECT_NE(RunTool({"ls", "--help"}, env).out.find("--depth N"), std::string::npos);
  for (const Failure &c : std::vector<Failure>{{{"frobnicate"}, 2, "unknown command"},
                                               {{"ls", "--bogus"}, 2, "unknown option --bogus"},
                                               {{"pull", "/a"}, 2, "missing arguments"},
                                               {{"list", "music", "--json", "--xml"}, 2, "exclude"},
                                               {{"list", "videos"}, 2, "unknown kind"},
                                               {{"-u"}, 2, "needs a value"}}) {
    const Result r = RunTool(c.args, env);
    ExpectFailure(r, c.code, c.fragment);
    EXPECT_EQ(r.out, "") << c.args[0];
  }
}

TEST_F(ToolTest, EachWayOfNotReachingADeviceHasItsOwnExitCode) {
  {
    tarn::testing::Simulator none({}, false);
    ExpectFailure(RunTool({"info"}, {{"USBMUXD_SOCKET_ADDRESS", none.env_value()}, {"XDG_CACHE_HOME", cache()}}), 3,
                  "no device attached");
  }
  for (const char *command : {"devices", "info"})
    ExpectFailure(RunTool({command}, {{"USBMUXD_SOCKET_ADDRESS", "UNIX:/nonexistent/socket"}, {"XDG_CACHE_HOME", cache()}}),
                  13, "usbmux daemon (usbmuxd) cannot be reached");
  ExpectFailure(Tarn({"-u", "0000-NOT-THERE", "ls", "/"}), 4, "0000-NOT-THERE not found");

  tarn::testing::TempDir second;
  tarn::testing::build_image({}, second.path());
  sim->attach({second.path(), "00008030-00A11CE000000002", {}});
  ExpectFailure(Tarn({"ls", "/"}), 5, "-u");
  Result r = Tarn({"devices"});
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find(std::string(kUdid) + "  Test Phone\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("00008030-00A11CE000000002"), std::string::npos) << r.out;
  sim->detach("00008030-00A11CE000000002");

  sim->set_option(kUdid, "refuse_handshake", "1");
  for (const auto &args : {std::vector<std::string>{"ls", "/"}, {"list", "music"}})
    ExpectFailure(Tarn(args), 6, "The pairing with Test Phone is no longer valid");
  sim->clear_faults(kUdid);
  sim->set_option(kUdid, "refuse_afc", "1");
  ExpectFailure(Tarn({"info"}), 6, "Test Phone refused to start its file service");
}

TEST_F(ToolTest, ListingsReadForPeopleAndForScriptsWithoutTheLibrarysConsoleLines) {
  Result r = Tarn({"list", "music", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const json music = json::parse(r.out);  // nothing but JSON on standard output
  ASSERT_EQ(music["item"].size(), Tracks().size());
  EXPECT_EQ(music["number"], Tracks().size());
  for (const Track &t : Tracks()) {
    const auto it = std::find_if(music["item"].begin(), music["item"].end(),
                                 [&](const json &item) { return item["path"] == t.file; });
    ASSERT_NE(it, music["item"].end()) << t.file;
    EXPECT_EQ((*it)["title"], t.title);
    EXPECT_EQ((*it)["time"], t.length_ms);
    EXPECT_EQ((*it)["size"], TrackContent(t).size());
  }

  r = Tarn({"list", "music"});
  ASSERT_EQ(r.code, 0);
  EXPECT_NE(r.out.find("Harbour Nights"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("1:02:03"), std::string::npos) << r.out;  // 3,723,000 ms
  EXPECT_NE(r.out.find("\n5 tracks, 22.0 KiB, 1:07:24\n"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("(None)"), std::string::npos) << "a missing artist is shown as nothing";
  EXPECT_EQ(r.out.find("GetMusicList"), std::string::npos) << r.out;
  EXPECT_EQ(r.err, "");

  r = Tarn({"-v", "list", "playlists", "--xml"});
  ASSERT_EQ(r.code, 0);
  EXPECT_EQ(r.out.rfind("<?xml", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("<string>Road/Trip</string>"), std::string::npos);
  EXPECT_EQ(r.out.find("GetPlayList"), std::string::npos);
  EXPECT_NE(r.err.find("GetPlayList"), std::string::npos) << "the library's lines go to stderr with -v";

  r = Tarn({"list", "playlists"});
  EXPECT_NE(r.out.find("Road/Trip"), std::string::npos) << r.out;
  r = Tarn({"list", "books"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "No books on this device.\n");

  r = Tarn({"info"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out.rfind("Test Phone\n", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("Storage         59.6 GiB, 20.0 GiB free"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  ["), std::string::npos) << "the storage bar";
  EXPECT_EQ(r.out.find("\033["), std::string::npos) << "no colours off a terminal";
  const json info = json::parse(Tarn({"info", "--json"}).out);
  EXPECT_EQ(info["Catacity"], 64000000000u);
  EXPECT_EQ(info["DeviceName"], "Test Phone");
}

TEST_F(ToolTest, FilesMoveBothWaysByteForByteAndFailuresSayWhy) {
  const std::string data = tarn::testing::Bytes(300000);
  WriteAll(host("up.bin"), data);

  Result r = Tarn({"mkdir", "-p", "/Transfer/In"});
  ASSERT_EQ(r.code, 0) << r.err;
  r = Tarn({"push", host("up.bin"), "/Transfer/In"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "") << "no progress bar off a terminal";
  EXPECT_EQ(ReadAll(media("/Transfer/In/up.bin")), data);

  r = Tarn({"pull", "/Transfer", host("")});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(ReadAll(host("Transfer/In/up.bin")), data);
  r = Tarn({"pull", "/iTunes_Control/Music/F01/BBBB.m4a", host("one.m4a")});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(ReadAll(host("one.m4a")), TrackContent(Tracks()[1]));
  EXPECT_EQ(fs::last_write_time(host("one.m4a")), fs::last_write_time(media("/iTunes_Control/Music/F01/BBBB.m4a")));

  r = Tarn({"ls", "-R", "/Transfer"});
  EXPECT_EQ(r.out, "In/\nIn/up.bin\n");
  r = Tarn({"stat", "/Transfer/In/up.bin"});
  EXPECT_NE(r.out.find("300000 bytes"), std::string::npos) << r.out;
  r = Tarn({"find", "/", "UP.BIN"});
  EXPECT_EQ(r.out, "/Transfer/In/up.bin\n") << r.err;
  r = Tarn({"find", "/", "UP.BIN", "--case-sensitive"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
  ASSERT_EQ(Tarn({"mv", "/Transfer/In/up.bin", "/Transfer/moved.bin"}).code, 0);
  EXPECT_TRUE(fs::exists(media("/Transfer/moved.bin")));

  for (const Failure &c : std::vector<Failure>{
           {{"pull", "/no/such/file", host("x")}, 7, "/no/such/file: no such file"},
           {{"ls", "/nowhere"}, 7, "no such file or directory on the device"},
           {{"push", host("missing.bin"), "/Transfer"}, 8, "no such file"},
           {{"pull", "/Transfer/moved.bin", host("nodir/x.bin")}, 8, "no such directory"},
           // A directory that nobody, not even root, can create files in.
           {{"pull", "/Transfer/moved.bin", "/proc"}, 8, "cannot write /proc/moved.bin"},
           {{"mkdir", "/Transfer"}, 9, "already exists"},
           {{"mv", "/Transfer/moved.bin", "/Transfer/In"}, 0, ""},
           {{"rm", "/Transfer"}, 1, "not empty (use rm -r)"},
           {{"mkdir", "-p", "/iTunes_Control/Music/F01/BBBB.m4a/x"}, 7, "BBBB.m4a: not a directory"},
           {{"mkdir", "/iTunes_Control/Music/F01/BBBB.m4a/x"}, 7, "BBBB.m4a: not a directory"},
           {{"push", host(""), "/iTunes_Control/Music/F01/BBBB.m4a"}, 9, "a directory cannot be pushed onto it"},
           {{"ls", ""}, 2, "empty"},
           {{"-u", "", "ls"}, 2, "needs a device identifier"},
           {{"pull", "/iTunes_Control", ""}, 2, "empty"},
           {{std::string("-u") + kUdid, "ls", "/iTunes_Control/Music/F01"}, 0, ""},
       }) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1]);
    r = Tarn(c.args);
    if (c.code != 0) ExpectFailure(r, c.code, c.fragment);
    else EXPECT_EQ(r.code, 0) << r.err;
  }
  EXPECT_TRUE(fs::exists(media("/Transfer/In/moved.bin")));
  ExpectFailure(RunTool({"ls", "/"}, {{"USBMUXD_SOCKET_ADDRESS", "UNIX:" + host("no-socket")}}), 13, "usbmuxd");
  ASSERT_EQ(Tarn({"rm", "-r", "/Transfer"}).code, 0);
  EXPECT_FALSE(fs::exists(media("/Transfer")));
}

TEST_F(ToolTest, CtrlCCancelsAPullKeepingNothingAndReleasingTheDevice) {
  WriteAll(media("/Big/big.bin"), std::string(4 << 20, 'b'));
  // 64 blocks at 40 ms each: seconds of transfer to interrupt.
  sim->set_option(kUdid, "latency_us", "40000");
  ToolProcess tool({"pull", "/Big/big.bin", host("big.bin")}, Env());
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  // The download's temporary file: a hidden name beside the target.
  auto partial = [&] { return tarn::testing::PartialsBelow(host("")).largest; };
  while (partial() < (256u << 10) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_GE(partial(), 256u << 10) << "the pull never started: " << tool.Poll().err;
  tool.Signal(SIGINT);
  ExpectFailure(tool.Wait(), 130, "cancelled");
  EXPECT_FALSE(fs::exists(host("big.bin")));
  EXPECT_TRUE(fs::is_empty(host(""))) << "the temporary file is removed";
  sim->set_option(kUdid, "latency_us", "0");
  tarn::testing::ExpectIdle(*sim, kUdid, "a cancelled pull");
  EXPECT_LT(sim->stats(kUdid).total("FileRead"), 60u) << "the transfer stopped early";
}

TEST_F(ToolTest, ExportGivesTheLibraryBackUnderReadableNamesWithPlaylistsAndResumes) {
  const fs::path out = host("export");
  Result r = Tarn({"export", "music", out.string()});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "5 tracks: 5 copied (22.0 KiB), 0 already there\n");

  // Every file under the name a person gave it, with its own bytes and time.
  std::map<std::string, std::string> content_to_name;
  for (const auto &entry : fs::recursive_directory_iterator(out))
    if (entry.is_regular_file() && entry.path().filename() != ".tarn-export.json") content_to_name[ReadAll(entry.path())] = fs::relative(entry.path(), out).string();
  ASSERT_EQ(content_to_name.size(), Tracks().size());
  std::map<std::string, std::string> name_of;  // track id -> exported name
  for (const Track &t : Tracks()) name_of[t.id] = content_to_name[TrackContent(t)];
  EXPECT_EQ(name_of["t2"], "Mira Okafor/Paper Moons/Harbour Nights.m4a");
  EXPECT_EQ(name_of["t4"], "Orquesta del Sur/Lanterns/AC_DC_ Live_.mp3");
  EXPECT_EQ(name_of["t5"], "Unknown Artist/Unknown Album/Field Notes.mp3");
  const std::set<std::string> intros = {name_of["t1"], name_of["t3"]};
  EXPECT_EQ(intros, (std::set<std::string>{"Mira Okafor/Paper Moons/Intro.mp3",
                                           "Mira Okafor/Paper Moons/Intro (2).mp3"}));
  for (const Track &t : Tracks())
    EXPECT_EQ(fs::last_write_time(out / name_of[t.id]), fs::last_write_time(media(t.file))) << t.id;

  // A partial export names each file as the whole one does.
  r = Tarn({"export", "music", host("intros"), "--match", "INTRO"});
  ASSERT_EQ(r.code, 0) << r.err;
  for (const char *id : {"t1", "t3"})
    EXPECT_EQ(ReadAll(fs::path(host("intros")) / name_of[id]), TrackContent(Tracks()[id[1] - '1'])) << id;
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(host("intros")), fs::recursive_directory_iterator()), 5)
      << "two files, their two directories and the export's record";

  r = Tarn({"export", "playlists", out.string()});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "5 playlist tracks: 0 copied (0 B), 5 already there, 2 playlists written\n");
  auto members = [&](const std::string &file) {
    std::vector<std::string> paths;
    std::istringstream in(ReadAll(out / file));
    std::string line;
    EXPECT_TRUE(std::getline(in, line) && line == "#EXTM3U") << file;
    while (std::getline(in, line))
      if (!line.empty() && line[0] != '#') paths.push_back(line);
    return paths;
  };
  EXPECT_EQ(members("Road_Trip.m3u8"),
            (std::vector<std::string>{name_of["t4"], name_of["t1"], name_of["t3"], name_of["t2"]}));
  EXPECT_EQ(members("Quiet.m3u8"), (std::vector<std::string>{name_of["t5"], name_of["t3"]}));
  EXPECT_NE(ReadAll(out / "Road_Trip.m3u8").find("#EXTINF:3723,Orquesta del Sur - AC/DC: Live?\n"),
            std::string::npos);

  // An interrupted export is finished by running it again: what is there
  // with its size stays, what is missing or cut short is copied.
  fs::remove(out / name_of["t2"]);
  fs::resize_file(out / name_of["t4"], 10);
  r = Tarn({"export", "music", out.string()});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, r.out.find('(')), "5 tracks: 2 copied ");
  EXPECT_EQ(ReadAll(out / name_of["t4"]), TrackContent(Tracks()[3]));
  EXPECT_EQ(ReadAll(out / name_of["t2"]), TrackContent(Tracks()[1]));
  r = Tarn({"export", "music", out.string()});
  EXPECT_EQ(r.out, "5 tracks: 0 copied (0 B), 5 already there\n");

  // A file the catalogue lists but the device lost is named, not fatal.
  fs::remove(media(Tracks()[4].file));
  fs::remove(out / name_of["t5"]);
  r = Tarn({"export", "music", out.string()});
  EXPECT_EQ(r.code, 0);
  EXPECT_NE(r.err.find("EEEE.mp3 is listed in the catalogue but missing"), std::string::npos) << r.err;

  WriteAll(host("a-file"), "x");
  ExpectFailure(Tarn({"export", "music", host("a-file/x")}), 8, "cannot write to");
}

TEST_F(ToolTest, TheWorkingDirectoryIsPerDeviceAndNeverTrustsAnInterruptedCopy) {
  const fs::path work = fs::path(cache()) / "tarn" / kUdid;
  ASSERT_EQ(Tarn({"list", "music"}).code, 0);
  ASSERT_TRUE(fs::exists(work / "iTunesCDB"));
  const std::string good = ReadAll(work / "iTunesCDB");

  // --refresh reads the device afresh, as does a run after an
  // initialisation that never finished.
  fs::resize_file(work / "iTunesCDB", 100);
  Result r = Tarn({"--refresh", "list", "music", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(json::parse(r.out)["item"].size(), Tracks().size());
  EXPECT_EQ(ReadAll(work / "iTunesCDB"), good);

  fs::resize_file(work / "iTunesCDB", 100);
  std::ofstream(work / ".tarn-workdir", std::ios::trunc) << "incomplete\n";
  r = Tarn({"list", "music", "--json"});
  EXPECT_EQ(json::parse(r.out)["item"].size(), Tracks().size());

  // A device whose music database changed is read afresh without --refresh.
  json fewer = Description();
  fewer["music"]["tracks"].erase(fewer["music"]["tracks"].size() - 1);
  fewer["music"]["playlists"] = json::array();
  tarn::testing::build_image(fewer, dir.path() + "/fewer");
  fs::copy_file(dir.path() + "/fewer/media/iTunes_Control/iTunes/iTunesCDB", media("/iTunes_Control/iTunes/iTunesCDB"),
                fs::copy_options::overwrite_existing);
  fs::last_write_time(media("/iTunes_Control/iTunes/iTunesCDB"), fs::file_time_type::clock::now() + std::chrono::hours(1));
  r = Tarn({"list", "music", "--json"});
  EXPECT_EQ(json::parse(r.out)["item"].size(), Tracks().size() - 1) << r.err;

  // --workdir takes an empty directory of the user's; one holding files the
  // tool did not write (a stale "iTunesCDB" would be read as the device's)
  // is neither used nor emptied.
  const fs::path mine = host("mine");
  fs::create_directories(mine);
  r = Tarn({"--workdir", mine.string(), "list", "music", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(fs::exists(mine / "iTunesCDB"));
  const fs::path theirs = host("theirs");
  WriteAll(theirs / "iTunesCDB", "not the device's");
  for (const char *refresh : {"--refresh", "--no-progress"})
    ExpectFailure(Tarn({"--workdir", theirs.string(), refresh, "list", "music"}), 8, "not a tarn working directory");
  EXPECT_EQ(ReadAll(theirs / "iTunesCDB"), "not the device's");
}

}  // namespace
}  // namespace tarn_apps_test
