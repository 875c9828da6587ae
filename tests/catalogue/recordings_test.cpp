// Voice recordings from Recordings.db and from the music database.
#include <gpod/itdb.h>

#include <cstring>

#include "catalogue_fixture.h"

namespace tarn_catalogue_test {
namespace {

constexpr const char *kPhoneFolder = "/var/mobile/Media/Recordings/";

json Row(const std::string &name, const char *duration, const json &label, int size) {
  json row = {{"duration", duration}, {"path", kPhoneFolder + name}, {"label", label}};
  if (size >= 0) row["size"] = size;
  return row;
}

TEST_F(CatalogueTest, RecordingsDatabaseRowsBecomeNumberedItemsSizedOnTheDevice) {
  ASSERT_EQ(Start({{"recordings",
                    {{"rows",
                      {Row("abcdefghijklmnop.m4a", "12.3456", "Memo", 100),
                       {{"duration", "3"}, {"path", "/var/mobile/Media/Elsewhere/x.m4a"}, {"label", "not here"}},
                       Row("gone.m4a", "5", "file missing", -1), Row("a.m4a", "0.9999", nullptr, 20),
                       Row("20100102 030405.m4a", "61", "", 3)}}}}}),
            0);
  sim->enable_log(kUdid, true);
  Plist result(Quiet([&] { return GetRecordingList(device, 0, 0); }));
  // No music database beside it is no failure of this list.
  EXPECT_EQ(TarnLastError()->code, TARN_OK) << TarnLastError()->message;
  const InfoRequests info = LoggedInfoRequests();
  EXPECT_EQ(info.all.size(), 4u);
  EXPECT_EQ(info.locked, info.all) << "recordings sized without the sync lock";
  // Rows outside the recordings folder or without a file on the device are
  // left out, and the numbering does not skip them.
  EXPECT_EQ(Text(result.get()),
            "{number:3,total:123,item:["
            "{id:1,path:\"/Recordings/abcdefghijklmnop.m4a\",title:\"abcdefghijklmno\",time:12345,size:100,"
            "name:\"Memo\"},"
            "{id:2,path:\"/Recordings/a.m4a\",title:\"a.m4a\",time:999,size:20,name:\"\"},"
            "{id:3,path:\"/Recordings/20100102 030405.m4a\",title:\"20100102 030405\",time:61000,size:3,"
            "name:\"\"}]}");
  EXPECT_EQ(output.rfind("name is Memo\nname is (null)\nname is \nGetRecordingList END!!\n"
                         "..................................\nthe xml_doc:\n",
                         0),
            0u)
      << output;
  ExpectIdle("the recordings database");
}

TEST_F(CatalogueTest, RecordingsComeFromTheFirstDatabaseThatListsOne) {
  const json recording_track = {{"title", "Voice"}, {"path", ":Recordings:x.m4a"}, {"size", 4294967295u},
                                {"length", 2500}, {"media_type", 1}};
  const json music_track = {{"title", "Song"}, {"path", ":iTunes_Control:Music:F00:s.mp3"}, {"media_type", 1}};
  const json rows = {{"rows", {Row("r.m4a", "1", "Rec", 7)}}};
  const std::string end_line = "GetRecordingList END!!\n..................................\n";
  const struct {
    const char *what;
    json description;
    const char *expected;
    bool printed;  // the list's console lines; nothing without a recording database
  } cases[] = {
      {"music database before Recordings.db",
       {{"music", {{"tracks", {music_track, recording_track}}}}, {"recordings", rows}},
       // No "total" on this route; sizes and lengths widen with their sign.
       "{number:1,item:[{id:*,path:\"/Recordings/x.m4a\",title:\"Voice\",time:2500,size:18446744073709551615,"
       "name:\"\"}]}",
       true},
      {"music database without recordings lets Recordings.db answer",
       {{"music", {{"tracks", {music_track}}}}, {"recordings", rows}},
       "{number:1,total:7,item:[{id:1,path:\"/Recordings/r.m4a\",title:\"r.m4a\",time:1000,size:7,name:\"Rec\"}]}",
       true},
      {"only the plain music database, which is never read",
       {{"music", {{"compressed", false}, {"uncompressed", true}, {"tracks", {recording_track}}}}},
       "null",
       true},
      {"an empty Recordings.db", {{"recordings", {{"rows", json::array()}}}}, "null", true},
      {"no recording database at all", {{"books", {{"books", {{"Books", json::array()}}}}}}, "null", false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    Reset();
    ASSERT_EQ(Start(c.description), 0);
    Plist result(Quiet([&] { return GetRecordingList(device, 0, 0); }));
    std::string text = Text(result.get());
    // libgpod numbers the tracks itself.
    if (const auto at = text.find("{id:"); at != std::string::npos && text.find("total") == std::string::npos)
      text.replace(at + 4, text.find(',', at) - at - 4, "*");
    EXPECT_EQ(text, c.expected);
    EXPECT_TRUE(c.printed ? output.find(end_line) != std::string::npos : output.empty()) << output;
    ExpectIdle(c.what);
  }
}

TEST_F(CatalogueTest, RealPhoneDatabaseListsItsVoiceRecordingThroughTheMusicDatabase) {
  ASSERT_EQ(Start({{"music", {{"source", tarn::testing::realdata("iphone-a.itunescdb")}}}}), 0);
  std::unique_ptr<Itdb_iTunesDB, decltype(&itdb_free)> db(itdb_parse(media("").c_str(), nullptr), &itdb_free);
  ASSERT_TRUE(db);
  std::vector<std::string> expected;
  for (GList *l = db->tracks; l; l = l->next) {
    auto *t = static_cast<Itdb_Track *>(l->data);
    if (t->ipod_path && std::strstr(t->ipod_path, "Recordings")) expected.push_back(t->title ? t->title : "");
  }
  ASSERT_FALSE(expected.empty()) << "the phone's database holds a voice recording";

  Plist result(Quiet([&] { return GetRecordingList(device, 0, 0); }));
  ASSERT_NE(result.get(), nullptr) << output;
  EXPECT_EQ(Column(result.get(), "title"), expected);
  EXPECT_EQ(Uint(result.get(), "number"), expected.size());
  for (const auto &path : Column(result.get(), "path")) {
    EXPECT_NE(path.find("/Recordings/"), std::string::npos) << path;
    EXPECT_EQ(path.find(':'), std::string::npos) << path;
  }
  ExpectIdle("the real phone database");
}

}  // namespace
}  // namespace tarn_catalogue_test
