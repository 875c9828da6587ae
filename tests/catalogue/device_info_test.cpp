// GetDeviceInfo: identity from lockdown, storage from the file conduit and
// from the byte totals of the music, movie and camera-roll lists.
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
    if (&c != &cases[0]) continue;
    // The lines of the three lists it totals, in order, inside its own.
    size_t at = 0;
    for (const char *line :
         {"GetDeviceInfo\n", "GetAudioList\n", "GetVideoList\n", "GetCameraPVList\n", "GetCameraPVList END\n",
          "GetDeviceInfo end..\n..................................\nthe xml_doc:\n", "<key>Catacity</key>"}) {
      const size_t found = output.find(line, at);
      ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line << "\n" << output;
      at = found + 1;
    }
    EXPECT_EQ(output.rfind("GetDeviceInfo\n", 0), 0u) << output;
  }

  PodDevice *absent = CreatePodDevice("ffffffffffffffffffffffffffffffffffffffff");
  EXPECT_EQ(Quiet([&] { return GetDeviceInfo(absent); }), nullptr);
  EXPECT_EQ(output, "GetDeviceInfo\n");
  FreePodDevice(absent);
}

}  // namespace
}  // namespace tarn_catalogue_test
