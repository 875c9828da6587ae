// InitDevice and the music catalogue against simulated devices whose
// databases libgpod, libplist and SQLite wrote.
#include <gpod/itdb.h>

#include <fstream>
#include <set>

#include "catalogue_fixture.h"

namespace tarn_catalogue_test {
namespace {

json Track(const char *id, const char *title, uint32_t type) {
  return {{"id", id}, {"title", title}, {"media_type", type}};
}

json PurchasesPlist() {
  return json::parse(R"({"contentInfoByXMLFilename": {
    "1.xml": {"itemId": 11, "itemName": "Bought One", "duration": 1000, "playlistArtistName": "A",
              "playlistName": "B", "genre": "G", "bitRate": 256, "discCount": 1,
              "com.apple.iTunesStore.downloadInfo": {"mediaAssetFilename": "1.m4a"}},
    "2.xml": {"itemId": 12, "com.apple.iTunesStore.downloadInfo": {"mediaAssetFilename": "2.m4a"}},
    "3.xml": {"itemId": 13, "itemName": "File gone",
              "com.apple.iTunesStore.downloadInfo": {"mediaAssetFilename": "gone.m4a"}},
    "4.xml": {"itemName": "No id", "com.apple.iTunesStore.downloadInfo": {"mediaAssetFilename": "1.m4a"}}}})");
}

TEST_F(CatalogueTest, InitDeviceRecordsEveryDatabaseInTableOrderAndCopiesEachOnce) {
  ASSERT_EQ(Start(json::parse(R"({
    "music": {"uncompressed": true, "locations": true, "tracks": [{"title": "t"}]},
    "purchases": {"format": "xml", "plist": {"contentInfoByXMLFilename": {}}},
    "books": {"books": {"Books": []}, "purchases": {"Books": []}},
    "photos": {"rows": []},
    "recordings": {"rows": []},
    "files": [{"path": "/Photos/Photo Database", "size": 0}]})")),
            0);
  // The empty photo database counts as missing.
  EXPECT_EQ(Text(device->dbInfo),
            "{TrackDb:[{Type:0,Path:\"/iTunes_Control/iTunes/iTunesCDB\"},{Type:1,Path:\"/iTunes_Control/iTunes/"
            "iTunesDB\"},{Type:2,Path:\"/iTunes_Control/iTunes/iTunes Library.itlp/Locations.itdb\"},{Type:3,"
            "Path:\"/Purchases/MobileDB/TrackData.plist\"}],BookDb:[{Type:0,Path:\"/iTunes_Control/iTunes/iTunesCDB\"},"
            "{Type:1,Path:\"/iTunes_Control/iTunes/iTunesDB\"},{Type:2,Path:\"/Books/Books.plist\"},{Type:3,Path:\"/"
            "Books/Purchases/Purchases.plist\"}],CameraDb:[{Type:0,Path:\"/PhotoData/Photos.sqlite\"}],RecordingDb:["
            "{Type:0,Path:\"/iTunes_Control/iTunes/iTunesCDB\"},{Type:1,Path:\"/iTunes_Control/iTunes/iTunesDB\"},"
            "{Type:2,Path:\"/iTunes_Control/iTunes/iTunes Library.itlp/Locations.itdb\"},{Type:3,Path:\"/Recordings/"
            "Recordings.db\"}]}");
  EXPECT_STREQ(device->hostDir, work().c_str());
  for (const char *name : {"iTunesCDB", "iTunesDB", "Locations.itdb", "TrackData.plist", "Books.plist",
                           "Purchases.plist", "Photos.sqlite", "Recordings.db"}) {
    EXPECT_TRUE(fs::exists(work() + "/" + name)) << name;
  }
  // Eight distinct files, each copied once although three tables name the
  // music databases.
  size_t copies = 0;
  for (size_t at = 0; (at = init_output.find("......begin CopyDeviceFile", at)) != std::string::npos; ++at) ++copies;
  EXPECT_EQ(copies, 8u);
  EXPECT_EQ(init_output.rfind("InitDevice\n", 0), 0u);
  ExpectIdle("InitDevice");

  // A copy already in the working directory is never copied again.
  std::ofstream(work() + "/iTunesCDB") << "kept";
  EXPECT_EQ(Quiet([&] { return InitDevice(device, work().c_str()); }), 0);
  EXPECT_EQ(output.find("......begin CopyDeviceFile"), std::string::npos) << output;
  EXPECT_EQ(ReadAll(work() + "/iTunesCDB"), "kept");
}

// A refused handshake or file conduit is part of the fault matrix.
TEST_F(CatalogueTest, InitDeviceOnDevicesWithFewDatabasesAndOnAnAbsentDevice) {
  const struct {
    const char *what;
    json description;
    const char *db_info;
  } cases[] = {
      {"no database at all", json::parse(R"({"files": [{"path": "/other.txt", "content": "x"}]})"), "{}"},
      // The type is the index in the path table, not renumbered.
      {"only the plain music database",
       {{"music", {{"compressed", false}, {"uncompressed", true}, {"tracks", {{{"title", "t"}}}}}}},
       "{TrackDb:[{Type:1,Path:\"/iTunes_Control/iTunes/iTunesDB\"}],BookDb:[{Type:1,Path:\"/iTunes_Control/"
       "iTunes/iTunesDB\"}],RecordingDb:[{Type:1,Path:\"/iTunes_Control/iTunes/iTunesDB\"}]}"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    Reset();
    EXPECT_EQ(Start(c.description), 0);
    EXPECT_EQ(Text(device->dbInfo), c.db_info);
    EXPECT_STREQ(device->hostDir, work().c_str());
    ExpectIdle(c.what);
  }
  PodDevice *absent = CreatePodDevice("ffffffffffffffffffffffffffffffffffffffff");
  EXPECT_EQ(Quiet([&] { return InitDevice(absent, "/tmp/x"); }), 1);
  EXPECT_STREQ(absent->hostDir, "/tmp/x");
  FreePodDevice(absent);
}

TEST_F(CatalogueTest, InitDeviceDropsACopyCutShortAndCopiesItWholeNextTime) {
  ASSERT_EQ(Start({{"music", {{"generate", {{"tracks", 3000}, {"seed", 5}}}}}}), 0);
  const uint64_t whole = fs::file_size(work() + "/iTunesCDB");
  ASSERT_GT(whole, 2u * 65536) << "the database must take several blocks";

  // Where a healthy initialisation reads the database's second block.
  const std::string again = dir.path() + "/again";
  fs::create_directories(again);
  sim->enable_log(kUdid, true);
  ASSERT_EQ(Quiet([&] { return InitDevice(device, again.c_str()); }), 0);
  const auto log = sim->request_log(kUdid);
  size_t reads = 0, second_read = 0;
  for (size_t i = 0; i < log.size() && second_read == 0; ++i) {
    if (log[i].op == "FileRead" && log[i].path == "/iTunes_Control/iTunes/iTunesCDB" && ++reads == 2) second_read = i;
  }
  ASSERT_GT(second_read, 0u);

  const std::string cut = dir.path() + "/cut";
  fs::create_directories(cut);
  sim->set_option(kUdid, "drop_after_requests", std::to_string(second_read));
  EXPECT_EQ(Quiet([&] { return InitDevice(device, cut.c_str()); }), 0);
  EXPECT_FALSE(fs::exists(cut + "/iTunesCDB")) << "a partial copy was kept";
  ExpectIdle("an initialisation cut short");

  sim->clear_faults(kUdid);
  EXPECT_EQ(Quiet([&] { return InitDevice(device, cut.c_str()); }), 0);
  EXPECT_NE(output.find("......begin CopyDeviceFile"), std::string::npos);
  ASSERT_TRUE(fs::exists(cut + "/iTunesCDB"));
  EXPECT_EQ(fs::file_size(cut + "/iTunesCDB"), whole);
}

TEST_F(CatalogueTest, EachListKeepsTheTracksWhoseWholeMediaTypeBelongsToIt) {
  ASSERT_EQ(Start({{"music",
                    {{"tracks", {Track("a", "audio", 0x1), Track("b", "music video", 0x20), Track("c", "movie", 0x2),
                                 Track("d", "video podcast", 0x6), Track("e", "tv", 0x40), Track("f", "zero", 0),
                                 Track("g", "combined", 0x60), Track("h", "three", 0x3), Track("i", "hidden", 0x400000),
                                 Track("j", "podcast", 0x4), Track("k", "book", 0x8), Track("l", "ring", 0x4000)}}}}}),
            0);
  using List = plist_t (*)(PodDevice *, uint32_t, uint32_t);
  const struct {
    const char *name;
    List list;
    std::vector<std::string> titles;
    const char *console;
  } lists[] = {
      {"music", GetMusicList, {"audio", "music video", "zero", "combined", "three"}, "GetAudioList\n"},
      {"movies", GetMovieList, {"movie"}, "GetVideoList\n"},
      {"podcasts", GetPodcastList, {"video podcast", "podcast"}, ""},
      {"tv", GetTvshowList, {"tv"}, ""},
      {"audiobooks", GetAudioBookList, {"book"}, ""},
      {"ringtones", GetRingtonesList, {"ring"}, ""},
  };
  for (const auto &l : lists) {
    SCOPED_TRACE(l.name);
    Plist result(Quiet([&] { return l.list(device, 0, 0); }));
    EXPECT_EQ(output, l.console);
    EXPECT_EQ(Column(result.get(), "title"), l.titles);
    EXPECT_EQ(Uint(result.get(), "number"), l.titles.size());
    // The reserved words change nothing.
    Plist again(Quiet([&] { return l.list(device, 5, 7); }));
    EXPECT_EQ(Text(again.get()), Text(result.get()));
  }
  ExpectIdle("track lists");
}

TEST_F(CatalogueTest, MediaItemsCarryTheTenKeysWithTheirSubstitutions) {
  ASSERT_EQ(Start(json::parse(R"({"music": {"tracks": [
    {"title": "Full", "artist": "Ar", "album": "Al", "genre": "Ge", "size": 300, "length": 61000, "rating": 80,
     "play_count": 7, "media_type": 1, "path": ":iTunes_Control:Music:F00:AB.mp3"},
    {"title": "", "artist": "", "media_type": 1, "size": 4294967295, "length": 4294967295},
    {"media_type": 1, "size": 2}]}})")),
            0);
  Plist result(Quiet([&] { return GetMusicList(device, 0, 0); }));
  EXPECT_EQ(output.rfind("GetAudioList\n", 0), 0u);
  plist_t items = plist_dict_get_item(result.get(), "item");
  ASSERT_EQ(plist_array_get_size(items), 3u);
  auto without_id = [](plist_t item) {
    Plist copy(plist_copy(item));
    plist_dict_remove_item(copy.get(), "id");
    return Text(copy.get());
  };
  EXPECT_EQ(Text(result.get()).find("{number:3,total:"), 0u) << "result keys in order";
  EXPECT_EQ(Text(plist_array_get_item(items, 0)).find("{id:"), 0u) << "id comes first";
  EXPECT_EQ(without_id(plist_array_get_item(items, 0)),
            "{size:300,path:\"/iTunes_Control/Music/F00/AB.mp3\",title:\"Full\",time:61000,artist:\"Ar\","
            "album:\"Al\",genre:\"Ge\",rating:80,plays:7}");
  // A negative 32-bit size and length widen with their sign; missing or
  // empty texts become "" (title, path) or "(None)".
  EXPECT_EQ(without_id(plist_array_get_item(items, 1)),
            "{size:18446744073709551615,path:\"\",title:\"\",time:18446744073709551615,artist:\"(None)\","
            "album:\"(None)\",genre:\"(None)\",rating:0,plays:0}");
  // 300 - 1 + 2, summed with the same widening.
  EXPECT_EQ(Uint(result.get(), "total"), 301u);
}

TEST_F(CatalogueTest, PurchasesFollowTheDatabaseTracksInBothPlistForms) {
  std::string first;
  for (const char *format : {"xml", "binary"}) {
    SCOPED_TRACE(format);
    Reset();
    json d = {{"music", {{"tracks", {{{"title", "db"}, {"size", 100}, {"media_type", 1}}}}}},
              {"purchases",
               {{"format", format},
                {"plist", PurchasesPlist()},
                {"files", {{{"name", "1.m4a"}, {"size", 300}}, {{"name", "2.m4a"}, {"size", 400}}}}}}};
    ASSERT_EQ(Start(d), 0);
    sim->enable_log(kUdid, true);
    Plist result(Quiet([&] { return GetMusicList(device, 0, 0); }));
    const InfoRequests info = LoggedInfoRequests();
    EXPECT_EQ(info.all.size(), 3u) << "one request per purchase that names a file";
    EXPECT_EQ(info.locked, info.all) << "purchases sized without the sync lock";
    EXPECT_EQ(Column(result.get(), "title"), (std::vector<std::string>{"db", "Bought One", ""}));
    EXPECT_EQ(Uint(result.get(), "number"), 3u);
    EXPECT_EQ(Uint(result.get(), "total"), 800u);
    plist_t bought = plist_array_get_item(plist_dict_get_item(result.get(), "item"), 1);
    EXPECT_EQ(Text(bought), "{id:11,size:300,path:\"/Purchases/1.m4a\",title:\"Bought One\",time:1000,artist:\"A\","
                            "album:\"B\",genre:\"G\",rating:256,plays:1}");
    if (first.empty()) first = Text(result.get());
    else EXPECT_EQ(Text(result.get()), first) << "XML and binary purchases differ";
    ExpectIdle("GetMusicList with purchases");
  }
}

TEST_F(CatalogueTest, PurchasesAloneMakeAMusicList) {
  ASSERT_EQ(Start({{"purchases", {{"plist", PurchasesPlist()}, {"files", {{{"name", "2.m4a"}, {"size", 5}}}}}}}), 0);
  Plist result(Quiet([&] { return GetMusicList(device, 0, 0); }));
  EXPECT_EQ(Text(result.get()),
            "{number:1,total:5,item:[{id:12,size:5,path:\"/Purchases/2.m4a\",title:\"\",time:0,artist:\"\",album:\"\","
            "genre:\"\",rating:0,plays:0}]}");
  Plist movies(Quiet([&] { return GetMovieList(device, 0, 0); }));
  EXPECT_EQ(movies.get(), nullptr);
}

TEST_F(CatalogueTest, PlaylistsListEveryMemberAsAFullItemInOrder) {
  ASSERT_EQ(Start(json::parse(R"({"music": {"master": "Phone", "tracks": [
      {"id": "a", "title": "A", "size": 1}, {"id": "b", "title": "B", "size": 2}, {"id": "c", "title": "C"}],
    "playlists": [{"name": "Mix", "tracks": ["c", "a"]}, {"name": "Empty", "tracks": []}, {"tracks": ["b"]}]}})")),
            0);
  Plist result(Quiet([&] { return GetPlayList(device, 0, 0); }));
  ASSERT_EQ(plist_array_get_size(result.get()), 4u);
  std::vector<std::string> summary;
  for (uint32_t i = 0; i < 4; ++i) {
    plist_t p = plist_array_get_item(result.get(), i);
    std::string s = Str(p, "name") + ":" + std::to_string(Uint(p, "number")) + ":";
    for (auto &t : Column(p, "title")) s += t + ",";
    summary.push_back(s);
    EXPECT_EQ(Text(p).find("{name:"), 0u);
  }
  EXPECT_EQ(summary, (std::vector<std::string>{"Phone:3:A,B,C,", "Mix:2:C,A,", "Empty:0:", ":1:B,"}));
  EXPECT_NE(output.find("playlists_number is 4\n"), std::string::npos);
  EXPECT_NE(output.find("GetPlayList END\n"), std::string::npos);
  EXPECT_EQ(output.rfind("GetPlayList\n", 0), 0u);
}

// The real databases: every track libgpod reads is listed, and the
// playlists are libgpod's. Which list a media type goes to is shown above
// with types chosen for it.
TEST_F(CatalogueTest, RealDatabasesListWhatLibgpodReads) {
  bool saw_non_ascii = false;
  for (const char *file : {"iphone-a.itunescdb", "iphone-b.itunescdb", "ipod-c.itunescdb",
                           "iphone-d-empty.itunescdb", "iphone-e.itunescdb", "iphone-f.itunescdb"}) {
    SCOPED_TRACE(file);
    Reset();
    ASSERT_EQ(Start({{"music", {{"source", tarn::testing::realdata(file)}}}}), 0);
    // Placed by the image builder and copied by InitDevice as it is.
    ASSERT_TRUE(ReadAll(work() + "/iTunesCDB") == ReadAll(tarn::testing::realdata(file)));
    std::unique_ptr<Itdb_iTunesDB, decltype(&itdb_free)> db(itdb_parse(media("").c_str(), nullptr), &itdb_free);
    ASSERT_TRUE(db);

    std::multiset<std::string> listed, read;
    for (const auto list : {GetMusicList, GetMovieList, GetPodcastList, GetTvshowList, GetAudioBookList, GetRingtonesList}) {
      Plist result(Quiet([&] { return list(device, 0, 0); }));
      for (const std::string &title : Column(result.get(), "title")) listed.insert(title);
    }
    for (GList *l = db->tracks; l; l = l->next) {
      auto *t = static_cast<Itdb_Track *>(l->data);
      const std::string title = t->title ? t->title : "";
      read.insert(title);
      for (const char c : title) saw_non_ascii |= (c & 0x80) != 0;
    }
    // Voice recordings and hidden tracks are on no list.
    EXPECT_TRUE(std::includes(read.begin(), read.end(), listed.begin(), listed.end()));
    EXPECT_GE(listed.size() * 10, read.size() * 9) << "most tracks are listed";
    Plist playlists(Quiet([&] { return GetPlayList(device, 0, 0); }));
    ASSERT_EQ(plist_array_get_size(playlists.get()), itdb_playlists_number(db.get()));
    uint32_t i = 0;
    for (GList *l = db->playlists; l; l = l->next, ++i) {
      auto *p = static_cast<Itdb_Playlist *>(l->data);
      plist_t got = plist_array_get_item(playlists.get(), i);
      EXPECT_EQ(Str(got, "name"), p->name ? p->name : "");
      EXPECT_EQ(Uint(got, "number"), g_list_length(p->members));
    }
  }
  ExpectIdle("lists of the real databases");
  EXPECT_TRUE(saw_non_ascii) << "no title beyond ASCII: UTF-8 text went untested";
}

}  // namespace
}  // namespace tarn_catalogue_test
