// tarn apps and tarn --app: the list, every file command in an app's
// Documents with the same rules as on the media partition, the refusals,
// and a connection lost in the middle of an upload into an app.
#include "tool_fixture.h"

namespace tarn_apps_test {
namespace {

constexpr const char *kPlayer = "org.example.player";

class AppDocumentsTest : public ToolTest {
 protected:
  void SetUp() override {
    json d = Description();
    d["apps"] = json::parse(R"([
      {"identifier": "org.example.player", "name": "Player", "version": "2.4", "file_sharing": true,
       "documents": [{"path": "/film.mp4", "content": "the film as it was\n"}]},
      {"identifier": "org.example.notes", "name": "Notes", "version": "1.0", "file_sharing": false}])");
    tarn::testing::build_image(d, image());
    fs::create_directories(host(""));
    Serve(image());
  }
  fs::path Documents(const std::string &rel = "") const {
    return fs::path(image()) / "apps" / kPlayer / "Documents" / rel;
  }
  Result App(std::vector<std::string> args) const {
    args.insert(args.begin(), {"--app", kPlayer});
    return Tarn(args);
  }
};

TEST_F(AppDocumentsTest, ListsTheAppsAsATableAndAsJson) {
  Result r = Tarn({"apps"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out,
            "Identifier          Name    Version  Files\n"
            "org.example.notes   Notes   1.0      no\n"
            "org.example.player  Player  2.4      yes\n");
  r = Tarn({"apps", "--json"});
  ASSERT_EQ(r.code, 0) << r.err;
  const json list = json::parse(r.out);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1], json::parse(R"({"identifier": "org.example.player", "name": "Player", "version": "2.4",
                                     "file_sharing": true})"));
  r = Tarn({"apps", "--xml"});
  EXPECT_NE(r.out.find("<key>file_sharing</key>"), std::string::npos) << r.out;
}

TEST_F(AppDocumentsTest, FileCommandsWorkInTheAppsDocuments) {
  WriteAll(host("new film.mkv"), std::string(300000, 'f'));
  struct Step {
    std::vector<std::string> args;
    std::string out;  // expected standard output, "*" for any
  } const steps[] = {
      {{"ls"}, "film.mp4\n"},
      {{"ls", "/"}, "Documents/\n"},
      {{"push", host("new film.mkv"), "."}, "*"},
      {{"mkdir", "-p", "Films/2024"}, ""},
      {{"mv", "new film.mkv", "Films/2024/"}, "*"},
      {{"find", "/Documents", "MKV"}, "/Documents/Films/2024/new film.mkv\n"},
      {{"stat", "Films/2024/new film.mkv"}, "*"},
      {{"pull", "/Documents/Films", host("back")}, "*"},
      {{"rm", "-r", "Films"}, ""},
  };
  for (const Step &step : steps) {
    const Result r = App(step.args);
    EXPECT_EQ(r.code, 0) << step.args[0] << ": " << r.err;
    if (step.out != "*") {
      EXPECT_EQ(r.out, step.out) << step.args[0];
    }
  }
  EXPECT_EQ(ReadAll(host("back/2024/new film.mkv")), std::string(300000, 'f'));
  EXPECT_FALSE(fs::exists(Documents("Films")));
  EXPECT_EQ(ReadAll(Documents("film.mp4")), "the film as it was\n");
  EXPECT_FALSE(fs::exists(fs::path(image()) / "media/Documents")) << "nothing went to the media partition";
}

TEST_F(AppDocumentsTest, RefusalsSayWhyAndEndWithTheirOwnCodes) {
  struct Case {
    std::vector<std::string> args;
    int code;
    std::string says;
  } const cases[] = {
      {{"--app", "org.example.notes", "ls"}, 14, "does not share files with computers"},
      {{"--app", "org.example.gone", "ls"}, 14, "No app \"org.example.gone\" is installed"},
      {{"--app", kPlayer, "rm", "-r", "."}, 2, "refusing to remove the app's Documents folder"},
      {{"--app", kPlayer, "rm", "-r", "/Documents/x/.."}, 2, "refusing to remove the app's Documents folder"},
      {{"--app", kPlayer, "mv", "/Documents", "/Elsewhere"}, 2, "cannot move the app's Documents folder"},
      {{"--app", kPlayer, "list", "music"}, 2, "--app works with ls"},
  };
  for (const Case &c : cases) {
    const Result r = Tarn(c.args);
    EXPECT_EQ(r.code, c.code) << c.args[2] << ": " << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
  }
  EXPECT_TRUE(fs::is_directory(Documents()));
}

TEST_F(AppDocumentsTest, AConnectionLostInTheMiddleOfAnUploadLeavesTheOldFile) {
  WriteAll(host("film.mp4"), std::string(1 << 20, 'n'));
  // The cut falls inside the upload's data, well after the vend and the checks.
  sim->set_option(kUdid, "drop_after_bytes", "400000");
  const Result r = App({"push", host("film.mp4"), "film.mp4"});
  EXPECT_EQ(r.code, 10) << r.err;
  EXPECT_NE(r.err.find("device disconnected after 0 of 1 files"), std::string::npos) << r.err;
  EXPECT_EQ(ReadAll(Documents("film.mp4")), "the film as it was\n") << "the target is replaced only when whole";
  sim->clear_faults(kUdid);
  // The next push replaces it whole.
  ASSERT_EQ(App({"push", host("film.mp4"), "film.mp4"}).code, 0);
  EXPECT_EQ(ReadAll(Documents("film.mp4")), std::string(1 << 20, 'n'));
}

}  // namespace
}  // namespace tarn_apps_test
