// GetDeviceInfo reads the music database once for its music and movie
// totals. Sharing that parse must change nothing a caller sees: the lines it
// prints are exactly those of its three lists, and nothing read during the
// call answers a later one.
#include <filesystem>

#include "catalogue_fixture.h"

namespace tarn_catalogue_test {
namespace {

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
  EXPECT_EQ(output.rfind("GetDeviceInfo\n" + lists + "GetDeviceInfo end..\n", 0), 0u) << output;
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
