// GetDeviceInfo: identity from lockdown, storage from the file conduit and
// from the byte totals of the music, movie and camera-roll lists, read
// through one parse of the music database.
#include "catalogue_fixture.h"

namespace tarn_catalogue_test {
namespace {

// 1000 bytes of music, 2000 of movies and 300 of camera roll.
json MediaOnDevice(const json &device) {
  return {{"device", device},
          {"music",
           {{"tracks",
             {{{"title", "song"}, {"size", 1000}, {"media_type", 1}},
              {{"title", "film"}, {"size", 2000}, {"media_type", 2}}}}}},
          {"photos", {{"rows", {{{"directory", "DCIM/100APPLE"}, {"filename", "IMG_0001.JPG"}, {"size", 300}}}}}}};
}

const json kIdentity = {{"DeviceName", "Tarn Phone"}, {"ProductType", "iPhone12,1"}, {"ProductVersion", "15.7"},
                        {"SerialNumber", "F2LTEST0TARN"}};

json WithStorage(uint64_t total, uint64_t free_bytes) {
  json d = kIdentity;
  d["FSTotalBytes"] = total;
  d["FSFreeBytes"] = free_bytes;
  return d;
}

constexpr const char *kIdentityText =
    "{UniqueDeviceID:\"00008030-00CA7A10C0000001\",DeviceName:\"Tarn Phone\",Type:\"iPhone12,1\","
    "Version:\"15.7\",SerialNumber:\"F2LTEST0TARN\",";

TEST_F(CatalogueTest, DeviceInfoGivesIdentityAndStorageBrokenDownByMedia) {
  const struct {
    const char *what;
    json description;
    bool refuse_afc_after_init;
    std::string expected;
  } cases[] = {
      {"used space larger than the media", MediaOnDevice(WithStorage(1000000, 400000)), false,
       kIdentityText + std::string("Catacity:1000000,Available:400000,Audio:1000,Video:2000,Photos:300,Others:596700}")},
      // Not clamped at 0: 1000 - 900 - 3300 in 64-bit arithmetic.
      {"media larger than the used space", MediaOnDevice(WithStorage(1000, 900)), false,
       kIdentityText + std::string("Catacity:1000,Available:900,Audio:1000,Video:2000,Photos:300,"
                                   "Others:18446744073709548416}")},
      // Without the file conduit only the local copies count: the camera
      // roll needs the device to size its files.
      {"file conduit refused", MediaOnDevice(WithStorage(1000000, 400000)), true,
       kIdentityText + std::string("Audio:1000,Video:2000,Photos:0,Others:18446744073709548616}")},
      // What lockdown does not tell is left out.
      {"no name, serial number or database",
       {{"device", {{"ProductType", "iPod5,1"}, {"ProductVersion", "9.3"}, {"FSTotalBytes", 1000}, {"FSFreeBytes", 400}}}},
       false,
       "{UniqueDeviceID:\"00008030-00CA7A10C0000001\",Type:\"iPod5,1\",Version:\"9.3\",Catacity:1000,"
       "Available:400,Audio:0,Video:0,Photos:0,Others:600}"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    Reset();
    ASSERT_EQ(Start(c.description), 0);
    if (c.refuse_afc_after_init) sim->set_option(kUdid, "refuse_afc", "1");
    Plist info(Quiet([&] { return GetDeviceInfo(device); }));
    EXPECT_EQ(Text(info.get()), c.expected);
    ExpectIdle(c.what);
  }

  PodDevice *absent = CreatePodDevice("ffffffffffffffffffffffffffffffffffffffff");
  EXPECT_EQ(Quiet([&] { return GetDeviceInfo(absent); }), nullptr);
  EXPECT_EQ(output, "GetDeviceInfo\n");
  FreePodDevice(absent);
}

// GetDeviceInfo reads the music database once for its music and movie
// totals. Sharing that parse must change nothing a caller sees: the lines it
// prints are exactly those of its three lists, and nothing read during the
// call answers a later one.
json Music(const char *first_title, uint32_t audio_size, uint32_t movie_size) {
  json d = json::parse(R"({"music": {"tracks": []}, "photos": {"rows": []}})");
  d["music"]["tracks"] = json::array({
      {{"title", first_title}, {"media_type", 1}, {"size", audio_size}},
      {{"title", "Second"}, {"media_type", 1}, {"size", 1}},
      {{"title", "Film"}, {"media_type", 2}, {"size", movie_size}},
  });
  return d;
}

TEST_F(CatalogueTest, DeviceInfoPrintsExactlyWhatItsThreeListsPrint) {
  ASSERT_EQ(Start(Music("First", 300, 5000)), 0);
  std::string lists;
  for (auto list : {GetMusicList, GetMovieList, GetCameraPVList}) {
    Plist result(Quiet([&] { return list(device, 0, 0); }));
    lists += output;
  }
  Plist info(Quiet([&] { return GetDeviceInfo(device); }));
  ASSERT_NE(info.get(), nullptr);
  EXPECT_EQ(output.rfind("GetDeviceInfo\n" + lists + "GetDeviceInfo end..\n..................................\nthe xml_doc:\n", 0), 0u)
      << output;
  ExpectIdle("GetDeviceInfo");
}

TEST_F(CatalogueTest, NothingReadDuringDeviceInfoAnswersALaterCall) {
  ASSERT_EQ(Start(Music("First", 300, 5000)), 0);
  Plist before(Quiet([&] { return GetDeviceInfo(device); }));
  ASSERT_EQ(Uint(before.get(), "Audio"), 301u);
  ASSERT_EQ(Uint(before.get(), "Video"), 5000u);

  // The local copy is replaced between calls: every later call reads the
  // new file.
  tarn::testing::TempDir other;
  tarn::testing::build_image(Music("Replaced", 7000, 9), other.path() + "/image");
  fs::copy_file(other.path() + "/image/media/iTunes_Control/iTunes/iTunesCDB", work() + "/iTunesCDB",
                fs::copy_options::overwrite_existing);

  Plist music(Quiet([&] { return GetMusicList(device, 0, 0); }));
  EXPECT_EQ(Column(music.get(), "title"), (std::vector<std::string>{"Replaced", "Second"}));
  Plist after(Quiet([&] { return GetDeviceInfo(device); }));
  EXPECT_EQ(Uint(after.get(), "Audio"), 7001u);
  EXPECT_EQ(Uint(after.get(), "Video"), 9u);
}

}  // namespace
}  // namespace tarn_catalogue_test
