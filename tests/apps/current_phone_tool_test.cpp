// tarn on a current phone: its music library and photo library, tracks and
// pictures kept only in iCloud, and what the phone keeps out of reach.
#include "tool_fixture.h"

namespace tarn_apps_test {
namespace {

class CurrentPhoneToolTest : public ToolTest {
 protected:
  void SetUp() override {
    json d;
    d["device"] = {{"UniqueDeviceID", kUdid}, {"DeviceName", "Today Phone"}, {"ProductVersion", "17.5.1"}};
    d["media_library"] = json::parse(R"J({"wal_tracks": 1, "legacy_cdb": true, "tracks": [
      {"id": "a", "title": "On the Phone", "artist": "Ana", "album": "One", "size": 1200,
       "location": "iTunes_Control/Music/F01/AAAA.m4a", "file": true},
      {"id": "b", "title": "In the Cloud", "artist": "Ana", "album": "One", "size": 900},
      {"id": "c", "title": "Newest", "artist": "Ben", "album": "Two", "size": 800,
       "location": "iTunes_Control/Music/F02/CCCC.m4a", "file": true}]})J");
    d["photo_library"] = json::parse(R"J({"ios": 17, "assets": [
      {"directory": "DCIM/100APPLE", "filename": "IMG_0001.JPG", "kind": "photo", "taken": 1700000000, "size": 500},
      {"directory": "DCIM/100APPLE", "filename": "IMG_0002.HEIC", "kind": "photo", "taken": 1700000100, "size": 700, "cloud": true}]})J");
    tarn::testing::build_image(d, image());
    fs::create_directories(host(""));
    Serve(image());
  }
};

TEST_F(CurrentPhoneToolTest, ListsExportsAndSaysWhatIsOnlyInICloudOrOutOfReach) {
  sim->reset_stats(kUdid);
  Result music = Tarn({"list", "music"});
  ASSERT_EQ(music.code, 0) << music.err;
  EXPECT_EQ(sim->stats(kUdid).tls_sessions, 1u) << "the library and its log copied in the command's one session";
  EXPECT_NE(music.out.find("Newest"), std::string::npos) << "the track only in the log is listed";
  EXPECT_NE(music.out.find("iCloud"), std::string::npos) << music.out;
  EXPECT_NE(music.out.find("3 tracks"), std::string::npos) << music.out;

  Result camera = Tarn({"list", "camera"});
  ASSERT_EQ(camera.code, 0) << camera.err;
  EXPECT_NE(camera.out.find("IMG_0002.HEIC  iCloud"), std::string::npos) << camera.out;

  Result out = Tarn({"export", "music", host("music")});
  ASSERT_EQ(out.code, 0) << out.err;
  EXPECT_NE(out.out.find("2 copied"), std::string::npos) << out.out;
  EXPECT_NE(out.out.find("1 only in iCloud"), std::string::npos) << out.out;
  EXPECT_TRUE(fs::exists(host("music/Ana/One/On the Phone.m4a")));

  // Voice memos live in their app on such a phone: the answer says so and
  // where to get them, not that there are none.
  Result memos = Tarn({"list", "recordings"});
  EXPECT_EQ(memos.code, 0);
  EXPECT_EQ(memos.out.find("No recordings"), std::string::npos) << memos.out;
  EXPECT_NE(memos.out.find("Voice Memos app"), std::string::npos) << memos.out;
}

}  // namespace
}  // namespace tarn_apps_test
