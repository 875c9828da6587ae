// The camera roll (photo database, else the camera folder) and the walk
// over the synced-picture folders.
#include <fcntl.h>
#include <sys/stat.h>

#include "catalogue_fixture.h"

namespace tarn_catalogue_test {
namespace {

constexpr const char *kSeparator = "..................................\n";
// 2011-03-13 07:06:40 UTC.
constexpr int64_t kMarch2011 = 1300000000;

json File(const std::string &path, uint64_t size, int64_t mtime = kMarch2011) {
  return {{"path", path}, {"size", size}, {"mtime", mtime}};
}

json Folder(const std::string &path) { return {{"path", path}, {"dir", true}}; }

TEST_F(CatalogueTest, CameraRollListsThePhotoDatabaseRowsSizedAndDatedOnTheDevice) {
  const tarn::testing::ScopedTimeZone zone(kNineEast);
  ASSERT_EQ(Start({{"photos",
                    {{"rows",
                      {{{"directory", "DCIM/100APPLE"}, {"filename", "IMG_0001.JPG"}},
                       {{"directory", "DCIM/100APPLE"}, {"filename", "IMG_0002.MOV"}}}}}},
                   // A file the database does not list is not part of the roll.
                   {"files",
                    {File("/DCIM/100APPLE/IMG_0001.JPG", 300), File("/DCIM/100APPLE/IMG_0002.MOV", 4000, 1),
                     File("/DCIM/100APPLE/IMG_0003.PNG", 50)}}}),
            0);
  // The epoch itself is a time like any other.
  const timespec epoch[2] = {{0, 0}, {0, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, media("/DCIM/100APPLE/IMG_0001.JPG").c_str(), epoch, 0), 0);

  sim->enable_log(kUdid, true);
  Plist result(Quiet([&] { return GetCameraPVList(device, 0, 0); }));
  EXPECT_EQ(Text(result.get()),
            "{number:2,total:4300,item:["
            "{size:300,path:\"/DCIM/100APPLE/IMG_0001.JPG\",time:\"1970/01/01 09:00:00\"},"
            "{size:4000,path:\"/DCIM/100APPLE/IMG_0002.MOV\",time:\"1970/01/01 09:00:01\"}]}");
  EXPECT_EQ(output.rfind(std::string("GetCameraPVList\n") + kSeparator + "the xml_doc:\n", 0), 0u) << output;
  EXPECT_TRUE(output.ends_with("</plist>\n\nGetCameraPVList END\n")) << output;
  EXPECT_EQ(output.find("GetUserPictureListFromDevice"), std::string::npos) << output;

  const InfoRequests info = LoggedInfoRequests();
  const std::vector<std::string> listed = {"/DCIM/100APPLE/IMG_0001.JPG", "/DCIM/100APPLE/IMG_0002.MOV"};
  EXPECT_EQ(info.all, listed);
  EXPECT_EQ(info.locked, listed) << "files sized without the sync lock";
  ExpectIdle("the camera roll from its database");
}

TEST_F(CatalogueTest, CameraRollWithoutUsableDatabaseWalksTheCameraFolder) {
  const tarn::testing::ScopedTimeZone zone(kNineEast);
  const json camera_files = {File("/DCIM/100APPLE/IMG_0001.JPG", 10), File("/DCIM/100APPLE/Sub/b.mov", 20),
                             File("/DCIM/100APPLE/notes.txt", 5), File("/DCIM/100APPLE/.hidden.png", 7)};
  const std::string walked =
      "{number:3,total:37,item:["
      "{size:7,path:\"/DCIM/100APPLE/.hidden.png\",time:\"2011/03/13 16:06:40\"},"
      "{size:10,path:\"/DCIM/100APPLE/IMG_0001.JPG\",time:\"2011/03/13 16:06:40\"},"
      "{size:20,path:\"/DCIM/100APPLE/Sub/b.mov\",time:\"2011/03/13 16:06:40\"}]}";
  const std::string walk_line = "GetUserPictureListFromDevice\n";
  const struct {
    const char *what;
    json description;
    std::string expected, console;
  } cases[] = {
      // Straight to the folder: no database, so no separator line either.
      {"no photo database", {{"files", camera_files}}, walked, "GetCameraPVList\n" + walk_line},
      {"a photo database without rows",
       {{"photos", {{"rows", json::array()}}}, {"files", camera_files}},
       walked,
       "GetCameraPVList\n" + std::string(kSeparator) + walk_line},
      {"a photo database whose files are gone",
       {{"photos", {{"rows", {{{"directory", "DCIM/100APPLE"}, {"filename", "IMG_9999.JPG"}}}}}},
        {"files", camera_files}},
       walked,
       "GetCameraPVList\n" + std::string(kSeparator) + walk_line},
      {"neither a database nor a camera folder", {{"files", {Folder("/DCIM")}}}, "null",
       "GetCameraPVList\n" + walk_line},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    Reset();
    ASSERT_EQ(Start(c.description), 0);
    sim->enable_log(kUdid, true);
    Plist result(Quiet([&] { return GetCameraPVList(device, 0, 0); }));
    EXPECT_EQ(TextByPath(result.get()), c.expected);
    EXPECT_EQ(output, c.console);
    const InfoRequests info = LoggedInfoRequests();
    EXPECT_EQ(info.locked, info.all) << "the walk ran without the sync lock";
    ExpectIdle(c.what);
  }
}

TEST_F(CatalogueTest, PictureWalkKeepsPictureExtensionsAnyCaseAndTriesOtherNamesAsFolders) {
  const tarn::testing::ScopedTimeZone zone(kNineEast);
  ASSERT_EQ(Start({{"files",
                    {
                        // Pictures: the extension, lower-cased, occurs in
                        // ".jpg;.jpeg;.gif;.png;.mov;".
                        File("/Photos/Thumbs/IMG_0001.JPG", 1),
                        File("/Photos/Thumbs/clip.MOV", 2),
                        File("/Photos/Thumbs/a.jpe", 4),
                        File("/Photos/Thumbs/b.mo", 8),
                        File("/Photos/Thumbs/c.g", 16),
                        File("/Photos/Thumbs/.jpg", 32),
                        File("/Photos/Thumbs/Sub/Deeper/d.Png", 64),
                        // Not pictures.
                        File("/Photos/Thumbs/image.tiff", 1000),
                        File("/Photos/Thumbs/notes.txt", 1000),
                        File("/Photos/Thumbs/photo.", 1000),
                        // Skipped with everything in them: a hidden folder
                        // and one whose name ends in '.'.
                        File("/Photos/Thumbs/.secret/e.jpg", 1000),
                        File("/Photos/Thumbs/album./f.jpg", 1000),
                        // The other two folders add to the same list.
                        File("/PhotoStreamsData/stream/g.gif", 128),
                        File("/PhotoData/Sync/100SYNCD/h.jpeg", 256, 1),
                    }}}),
            0);
  sim->enable_log(kUdid, true);
  Plist result(Quiet([&] { return GetUserPictureListFromDevice(device); }));
  // Folder by folder, each in the device's own listing order.
  const std::vector<std::string> paths = Column(result.get(), "path");
  const char *folders[] = {"/Photos/", "/PhotoStreamsData/", "/PhotoData/"};
  size_t folder = 0;
  for (const std::string &path : paths) {
    while (folder < 3 && path.rfind(folders[folder], 0) != 0) ++folder;
    EXPECT_LT(folder, 3u) << path << " out of its folder's turn";
  }
  EXPECT_EQ(TextByPath(result.get()),
            "{number:9,total:511,item:["
            "{size:256,path:\"/PhotoData/Sync/100SYNCD/h.jpeg\",time:\"1970/01/01 09:00:01\"},"
            "{size:128,path:\"/PhotoStreamsData/stream/g.gif\",time:\"2011/03/13 16:06:40\"},"
            "{size:32,path:\"/Photos/Thumbs/.jpg\",time:\"2011/03/13 16:06:40\"},"
            "{size:1,path:\"/Photos/Thumbs/IMG_0001.JPG\",time:\"2011/03/13 16:06:40\"},"
            "{size:64,path:\"/Photos/Thumbs/Sub/Deeper/d.Png\",time:\"2011/03/13 16:06:40\"},"
            "{size:4,path:\"/Photos/Thumbs/a.jpe\",time:\"2011/03/13 16:06:40\"},"
            "{size:8,path:\"/Photos/Thumbs/b.mo\",time:\"2011/03/13 16:06:40\"},"
            "{size:16,path:\"/Photos/Thumbs/c.g\",time:\"2011/03/13 16:06:40\"},"
            "{size:2,path:\"/Photos/Thumbs/clip.MOV\",time:\"2011/03/13 16:06:40\"}]}");
  EXPECT_EQ(output, "GetUserPictureListFromDevice\n");
  const InfoRequests info = LoggedInfoRequests();
  EXPECT_EQ(info.locked, info.all) << "the walk ran without the sync lock";

  // One folder's walk on its own, over an open connection: each missing
  // argument is refused before anything is walked or added up.
  ASSERT_EQ(TarnHoldConnection(device), 0);
  afc_client_t afc = TarnHeldClient(device);
  Plist items(plist_new_array());
  uint64_t total = 0;
  EXPECT_EQ(GetDirAllPicture(nullptr, items.get(), "/Photos/Thumbs", &total), 0);
  EXPECT_EQ(TarnLastError()->code, TARN_E_INVALID_ARGUMENT);
  EXPECT_EQ(GetDirAllPicture(afc, nullptr, "/Photos/Thumbs", &total), 0);
  EXPECT_EQ(TarnLastError()->code, TARN_E_INVALID_ARGUMENT);
  EXPECT_EQ(GetDirAllPicture(afc, items.get(), nullptr, &total), 0);
  EXPECT_EQ(TarnLastError()->code, TARN_E_INVALID_ARGUMENT);
  EXPECT_EQ(GetDirAllPicture(afc, items.get(), "/Photos/Thumbs", nullptr), 0);
  EXPECT_EQ(TarnLastError()->code, TARN_E_INVALID_ARGUMENT);
  EXPECT_EQ(plist_array_get_size(items.get()), 0u);
  EXPECT_EQ(total, 0u);
  EXPECT_EQ(GetDirAllPicture(afc, items.get(), "/Photos/Thumbs", &total), 0);
  EXPECT_EQ(plist_array_get_size(items.get()), 7u);
  EXPECT_EQ(total, 127u);
  TarnReleaseConnection(device);
  ExpectIdle("the picture walk");
}

TEST_F(CatalogueTest, UserPictureListIsNullEvenWithAPhotoDatabase) {
  ASSERT_EQ(Start({{"files", {File("/Photos/Thumbs/IMG_0001.JPG", 10),
                              {{"path", "/Photos/Photo Database"}, {"content", "not read"}}}}}),
            0);
  ASSERT_NE(plist_dict_get_item(device->dbInfo, "UserPictureDb"), nullptr);
  Plist result(Quiet([&] { return GetUserPictureList(device, 0, 0); }));
  EXPECT_EQ(result.get(), nullptr);
  EXPECT_EQ(output, "");
}

// The row callbacks are exported, so an application may call them with
// what SQLite would never pass: a row without a context or without columns
// is passed over before anything in it is read.
TEST(RowCallbacks, RowsWithoutAContextOrColumnsAreSkipped) {
  char path[] = "/DCIM/100APPLE/IMG_0001.JPG";
  char *row[] = {path, path, path, path};
  for (auto callback : {CameraPictureCallback, RecordingDbCallback}) {
    EXPECT_EQ(callback(nullptr, 4, row, nullptr), 0);
    EXPECT_EQ(callback(nullptr, 0, row, nullptr), 0);
  }
}

}  // namespace
}  // namespace tarn_catalogue_test
