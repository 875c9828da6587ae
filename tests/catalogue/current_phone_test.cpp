// Current phones through the simulator: the music library and the photo
// library as the phone keeps them (SQLite with write-ahead logs whose
// newest rows live only in the log), copied by InitDevice and read by the
// catalogue lists.
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <chrono>
#include <thread>

#include "catalogue_fixture.h"

namespace tarn_catalogue_test {
namespace {

bool Bool(plist_t dict, const char *key) {
  uint8_t v = 0;
  plist_get_bool_val(plist_dict_get_item(dict, key), &v);
  return v != 0;
}

size_t Count(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++n;
  return n;
}

// Five tracks, the last two only in the log, one of them in the cloud; a
// ringtone; a stale compressed database beside the library.
json Library(const char *form) {
  return json::parse(std::string(R"J({"media_library": {"form": ")J") + form + R"J(", "wal_tracks": 2, "legacy_cdb": true,
    "tracks": [
      {"id": "a", "title": "Alpha", "artist": "Ana", "album": "One", "size": 100, "location": "iTunes_Control/Music/F01/AAAA.mp3", "file": true, "play_count": 4, "rating": 80},
      {"id": "b", "title": "Bravo", "artist": "Ben", "size": 200, "location": "iTunes_Control/Music/F02/BBBB.mp3", "file": true},
      {"id": "r", "title": "Ring", "size": 30, "location": "iTunes_Control/Ringtones/RRRR.m4r", "file": true},
      {"id": "d", "title": "Delta (new)", "size": 400, "location": "iTunes_Control/Music/F04/DDDD.mp3", "file": true, "purchased": true},
      {"id": "e", "title": "Echo (cloud)", "size": 500}],
    "playlists": [{"name": "Road", "tracks": ["d", "a", "d"]}, {"name": "Trips", "kind": "folder"},
                  {"name": "Inside", "parent": "Trips", "tracks": ["b"]}]}})J");
}

TEST_F(CatalogueTest, AModernPhonesMusicIsItsLibraryWithTheRowsOnlyInTheLog) {
  for (const char *form : {"rows", "blob"}) {
    SCOPED_TRACE(form);
    Reset();
    ASSERT_EQ(Start(Library(form)), 0);
    ASSERT_TRUE(fs::exists(media("/iTunes_Control/iTunes/MediaLibrary.sqlitedb-wal")));
    // One self-contained local copy; the stale compressed database is
    // copied (the entry names it) but never read.
    EXPECT_TRUE(fs::exists(work() + "/MediaLibrary.sqlitedb"));
    EXPECT_FALSE(fs::exists(work() + "/MediaLibrary.sqlitedb-wal"));
    Plist music(Quiet([&] { return GetMusicList(device, 0, 0); }));
    ASSERT_TRUE(music) << TarnLastError()->message;
    EXPECT_EQ(Column(music.get(), "title"),
              (std::vector<std::string>{"Alpha", "Bravo", "Delta (new)", "Echo (cloud)"}));
    EXPECT_EQ(Uint(music.get(), "total"), 700u);
    plist_t items = plist_dict_get_item(music.get(), "item");
    plist_t alpha = plist_array_get_item(items, 0), echo = plist_array_get_item(items, 3);
    EXPECT_EQ(Str(alpha, "path"), "/iTunes_Control/Music/F01/AAAA.mp3");
    EXPECT_EQ(Uint(alpha, "plays"), 4u);
    EXPECT_EQ(Uint(alpha, "rating"), 80u);
    EXPECT_TRUE(Bool(plist_array_get_item(items, 2), "purchased"));
    EXPECT_TRUE(Bool(echo, "cloud"));
    EXPECT_EQ(Str(echo, "path"), "");
    Plist tones(Quiet([&] { return GetRingtonesList(device, 0, 0); }));
    EXPECT_EQ(Column(tones.get(), "title"), std::vector<std::string>{"Ring"});

    Plist playlists(Quiet([&] { return GetPlayList(device, 0, 0); }));
    ASSERT_TRUE(playlists);
    const std::vector<std::string> seen = PlaylistLines(playlists.get());
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.front().substr(seen.front().find(':')), ":library::Alpha,Bravo,Ring,Delta (new),Echo (cloud),");
    EXPECT_EQ(std::vector<std::string>(seen.begin() + 1, seen.end()),
              (std::vector<std::string>{"Inside:user:Trips:Bravo,", "Road:user::Delta (new),Alpha,Delta (new),",
                                        "Trips:folder::"}));
    ExpectIdle("the catalogue");
  }
}

TEST_F(CatalogueTest, TheLibraryCopyFollowsThePhoneAndAChangingOneIsNeverUsed) {
  ASSERT_EQ(Start(Library("rows"), {"latency_us=1000"}), 0);
  const std::string wal = media("/iTunes_Control/iTunes/MediaLibrary.sqlitedb-wal");
  // A copy still current is kept: nothing of the library is copied again,
  // also when only the shared-memory index changed (every reader on the
  // phone changes it; SQLite rebuilds it from the log).
  const struct timespec later[2] = {{0, UTIME_OMIT}, {1800000000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (wal.substr(0, wal.size() - 4) + "-shm").c_str(), later, 0), 0);
  std::string again = Console([&] { EXPECT_EQ(InitDevice(device, work().c_str()), 0); });
  EXPECT_EQ(Count(again, "begin CopyDeviceFile"), 0u);

  // The phone writing its log all the while: every copy is torn, none is
  // used, and the list says why rather than showing an older library.
  std::atomic<bool> writing{true};
  std::thread phone([&] {
    for (long ns = 1; writing; ++ns) {
      const struct timespec times[2] = {{0, UTIME_OMIT}, {1700000000 + ns, ns % 1000000000}};
      ::utimensat(AT_FDCWD, wal.c_str(), times, 0);
      std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
  });
  again = Console([&] { EXPECT_EQ(InitDevice(device, work().c_str()), 0); });
  writing = false;
  phone.join();
  EXPECT_EQ(TarnLastError()->code, TARN_E_DATABASE_UNREADABLE) << TarnLastError()->message;
  EXPECT_GE(Count(again, "begin CopyDeviceFile"), 6u) << "copied again after each change";
  EXPECT_FALSE(fs::exists(work() + "/MediaLibrary.sqlitedb"));
  Plist none(Quiet([&] { return GetMusicList(device, 0, 0); }));
  EXPECT_FALSE(none) << "never the stale compressed database";
  EXPECT_EQ(TarnLastError()->code, TARN_E_DATABASE_ABSENT);
  for (const auto &entry : fs::directory_iterator(work()))
    EXPECT_EQ(entry.path().filename().string().rfind(".tarn-copy", 0), std::string::npos) << entry.path();

  // Once the phone is done, the next initialisation copies it whole.
  ASSERT_EQ(Quiet([&] { return InitDevice(device, work().c_str()); }), 0);
  Plist music(Quiet([&] { return GetMusicList(device, 0, 0); }));
  ASSERT_TRUE(music);
  EXPECT_EQ(Uint(music.get(), "number"), 4u);
  ExpectIdle("the copies");
}

TEST_F(CatalogueTest, ATornLogOrAForeignCopyNeverGivesWrongRows) {
  // A file of the library's name that the phone did not give is no copy:
  // it is replaced, never read.
  fs::create_directories(work());
  std::ofstream(work() + "/MediaLibrary.sqlitedb") << "left here by someone else";
  ASSERT_EQ(Start(Library("rows")), 0);
  Plist music(Quiet([&] { return GetMusicList(device, 0, 0); }));
  ASSERT_TRUE(music) << TarnLastError()->message;
  EXPECT_EQ(Uint(music.get(), "number"), 4u);

  // The phone cut off in the middle of writing its log: the last frame is
  // torn. What the log holds up to its last whole commit is read, nothing
  // of the torn frame, and no error.
  const std::string wal = media("/iTunes_Control/iTunes/MediaLibrary.sqlitedb-wal");
  fs::resize_file(wal, fs::file_size(wal) - 100);
  ASSERT_EQ(Quiet([&] { return InitDevice(device, work().c_str()); }), 0);
  Plist torn(Quiet([&] { return GetMusicList(device, 0, 0); }));
  ASSERT_TRUE(torn) << TarnLastError()->message;
  const std::vector<std::string> all = {"Alpha", "Bravo", "Delta (new)", "Echo (cloud)"};
  for (const std::string &title : Column(torn.get(), "title"))
    EXPECT_NE(std::find(all.begin(), all.end(), title), all.end()) << title;
  EXPECT_GE(Uint(torn.get(), "number"), 2u) << "the rows of the main file stay";
}

TEST_F(CatalogueTest, VoiceMemosAndBooksOutOfReachSaySoInsteadOfLookingEmpty) {
  ASSERT_EQ(Start(Library("rows")), 0);
  for (auto list : {GetRecordingList, GetBookList}) {
    Plist none(Quiet([&] { return list(device, 0, 0); }));
    EXPECT_FALSE(none);
    EXPECT_EQ(TarnLastError()->code, TARN_E_NOT_REACHABLE);
    EXPECT_NE(std::string(TarnLastError()->message).find("app"), std::string::npos) << TarnLastError()->message;
  }
  // Memos a computer synced into the library are listed from it.
  Reset();
  json d = Library("rows");
  d["media_library"]["tracks"].push_back({{"id", "m"}, {"title", "Memo"}, {"media_type", 16}, {"size", 9},
                                           {"location", "iTunes_Control/Music/F05/MMMM.m4a"}, {"file", true}});
  ASSERT_EQ(Start(d), 0);
  Plist memos(Quiet([&] { return GetRecordingList(device, 0, 0); }));
  ASSERT_TRUE(memos);
  EXPECT_EQ(Column(memos.get(), "title"), std::vector<std::string>{"Memo"});
  EXPECT_EQ(Uint(memos.get(), "number"), 1u);
  EXPECT_EQ(Uint(memos.get(), "total"), 9u);
}

json Photos(const char *ios) {
  return json::parse(std::string(R"J({"photo_library": {"ios": )J") + ios + R"J(, "wal_assets": 1,
    "albums": [{"title": "Trip"}, {"title": "Gone", "trashed": true}],
    "assets": [
      {"directory": "DCIM/100APPLE", "filename": "IMG_0001.HEIC", "kind": "photo", "taken": 1700000000, "width": 4032, "height": 3024, "size": 1000, "albums": ["Trip", "Gone"]},
      {"directory": "DCIM/100APPLE", "filename": "IMG_0002.HEIC", "kind": "live", "taken": 1700000100, "size": 2000},
      {"directory": "DCIM/100APPLE", "filename": "IMG_0003.MOV", "kind": "video", "taken": 1700000200, "duration": 12.5, "size": 3000},
      {"directory": "DCIM/100APPLE", "filename": "IMG_0004.JPG", "kind": "photo", "taken": 1700000300, "size": 4000, "trashed": true},
      {"directory": "DCIM/100APPLE", "filename": "IMG_0005.JPG", "kind": "photo", "taken": 1700000400, "size": 5000, "hidden": true},
      {"directory": "DCIM/101APPLE", "filename": "IMG_0006.HEIC", "kind": "photo", "taken": 1700000500, "size": 6000, "cloud": true, "albums": ["Trip"]},
      {"directory": "DCIM/101APPLE", "filename": "IMG_0007.PNG", "kind": "screenshot", "taken": 1699999999, "size": 7000}]}})J");
}

TEST_F(CatalogueTest, TheCameraRollOfAPhotoLibraryEitherAssetTable) {
  for (const char *ios : {"17", "13"}) {
    SCOPED_TRACE(ios);
    Reset();
    ASSERT_EQ(Start(Photos(ios)), 0);
    ASSERT_TRUE(fs::exists(media("/PhotoData/Photos.sqlite-wal")));
    Plist roll(Quiet([&] { return GetCameraPVList(device, 0, 0); }));
    ASSERT_TRUE(roll) << TarnLastError()->message;
    // Oldest first; Recently Deleted and hidden left out; the cloud-only
    // original marked, sized 0 and not counted.
    EXPECT_EQ(Column(roll.get(), "path"),
              (std::vector<std::string>{"/DCIM/101APPLE/IMG_0007.PNG", "/DCIM/100APPLE/IMG_0001.HEIC",
                                        "/DCIM/100APPLE/IMG_0002.HEIC", "/DCIM/100APPLE/IMG_0003.MOV",
                                        "/DCIM/101APPLE/IMG_0006.HEIC"}));
    EXPECT_EQ(Column(roll.get(), "kind"), (std::vector<std::string>{"screenshot", "photo", "live", "video", "photo"}));
    EXPECT_EQ(Uint(roll.get(), "total"), 1000u + 2000 + 3000 + 7000);
    plist_t items = plist_dict_get_item(roll.get(), "item");
    plist_t first = plist_array_get_item(items, 1), live = plist_array_get_item(items, 2);
    plist_t video = plist_array_get_item(items, 3), cloud = plist_array_get_item(items, 4);
    EXPECT_EQ(Uint(first, "taken"), 1700000000u);
    EXPECT_EQ(Uint(first, "width"), 4032u);
    EXPECT_EQ(Text(plist_dict_get_item(first, "albums")), "[\"Trip\"]");
    EXPECT_EQ(Str(live, "live_video"), "/DCIM/100APPLE/IMG_0002.MOV");
    EXPECT_EQ(Uint(video, "duration"), 12500u);
    EXPECT_TRUE(Bool(cloud, "cloud"));
    EXPECT_FALSE(Bool(first, "cloud"));
    EXPECT_EQ(Uint(cloud, "size"), 0u);
    EXPECT_EQ(Str(first, "thumbnail"), "/PhotoData/Thumbnails/V2/DCIM/100APPLE/IMG_0001.HEIC/5005.JPG");
    ExpectIdle("the camera roll");
  }
}

// A library whose entity table names no album entity: the album table is
// the one candidate that holds both an album and an asset column, not the
// first that holds either.
TEST_F(CatalogueTest, AlbumsOfALibraryWhoseEntityTableNamesNone) {
  json d = Photos("17");
  d["photo_library"].erase("wal_assets");
  before_serving = [&] {
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(media("/PhotoData/Photos.sqlite").c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, "UPDATE Z_PRIMARYKEY SET Z_NAME = 'Album' WHERE Z_NAME = 'GenericAlbum';"
                               "CREATE TABLE Z_1ASSETS (Z_1KEYWORDS INTEGER, Z_3ASSETS INTEGER);",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
  };
  ASSERT_EQ(Start(d), 0);
  Plist roll(Quiet([&] { return GetCameraPVList(device, 0, 0); }));
  ASSERT_TRUE(roll) << TarnLastError()->message;
  plist_t first = plist_array_get_item(plist_dict_get_item(roll.get(), "item"), 1);
  EXPECT_EQ(Str(first, "path"), "/DCIM/100APPLE/IMG_0001.HEIC");
  EXPECT_EQ(Text(plist_dict_get_item(first, "albums")), "[\"Trip\"]");
}

TEST_F(CatalogueTest, StorageUseOfACurrentPhoneComesFromItsLibraries) {
  json d = Library("rows");
  d["photo_library"] = Photos("17")["photo_library"];
  ASSERT_EQ(Start(d), 0);
  Plist info(Quiet([&] { return GetDeviceInfo(device); }));
  ASSERT_TRUE(info);
  EXPECT_EQ(Uint(info.get(), "Audio"), 700u);
  EXPECT_EQ(Uint(info.get(), "Photos"), 13000u);
}

}  // namespace
}  // namespace tarn_catalogue_test
