// Fuzz target: the purchases plist reader, the file as input (read as binary
// or XML the way the music list chooses), against a well-behaved device that
// answers every file-size question.
#include "fake_device.h"
#include "input_file.h"
#include "list_checks.h"
#include "tarn/tarn_device.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  tarn_fuzz::SilenceStdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const tarn_fuzz::InputFile file("TrackData.plist");
  const char *path = file.Write(data, size);
  PodDevice *device = CreatePodDevice("00008030-000FUZZ0000DEV1");
  plist_t items = plist_new_array();
  uint64_t total = 0;
  const uint32_t n =
      GetPurchaseMusicListFromPlist(device, path, items, &total, IsBinPlist(path) ? plist_from_bin : plist_from_xml);
  if (n != plist_array_get_size(items)) tarn_fuzz::Broken("purchases", "count is not the items appended");
  uint64_t sum = 0;
  for (uint32_t i = 0; i < n; ++i) sum += tarn_fuzz::UintOf(plist_array_get_item(items, i), "size", "purchases");
  if (sum != total) tarn_fuzz::Broken("purchases", "byte counter is not the sum of the sizes");
  plist_free(items);
  FreePodDevice(device);
  tarn_fuzz::ExpectAllReleased("GetPurchaseMusicListFromPlist");
  return 0;
}
