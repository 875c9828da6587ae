// Purchased music: the purchases plist of the device, each purchase sized
// by asking the device for its file.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "catalogue/catalogue.h"
#include "catalogue/media_item.h"
#include "common/connection.h"
#include "common/error.h"
#include "common/host_plist.h"
#include "common/number.h"
#include "common/raii.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"

namespace tarn {

uint32_t GetPurchaseMusicListFromPlist(PodDevice *device, const char *path, plist_t items, uint64_t *total,
                                       PodPlistParser parser) {
  // A size of 0 is also libplist's answer for no node and for one that is
  // no dictionary.
  tarn::PlistPtr root = tarn::ParseHostPlist(path, parser);
  if (plist_dict_get_size(root.get()) == 0) return 0;
  plist_t purchases = plist_dict_get_item(root.get(), "contentInfoByXMLFilename");
  if (plist_dict_get_size(purchases) == 0) return 0;

  // Held for the whole loop, so that the device does not sync the files
  // away while we size them.
  const tarn::DeviceCall call(device, tarn::PolicyOf("GetPurchaseMusicListFromPlist"));
  uint32_t appended = 0;
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(purchases, &it);
  const std::unique_ptr<void, decltype(&std::free)> iter_owner(it, &std::free);
  for (;;) {
    plist_t entry = nullptr;
    // The keys are not needed, and reading one with a NUL inside would
    // abort in libplist.
    plist_dict_next_item(purchases, it, nullptr, &entry);
    if (entry == nullptr) break;
    // A purchase that names no file, or whose file the device no longer
    // has, is left out, so that "number" always counts the items.
    plist_t id = plist_dict_get_item(entry, "itemId");
    plist_t name_node = plist_dict_get_item(plist_dict_get_item(entry, "com.apple.iTunesStore.downloadInfo"),
                                            "mediaAssetFilename");
    if (id == nullptr || plist_get_node_type(name_node) != PLIST_STRING) continue;
    const tarn::CString name = tarn::StringOf(name_node);
    const std::string device_path = tarn::ChildPath("/Purchases", name.get(), tarn::PathJoin::kAlwaysSlash);
    tarn::FileInfo info;
    {
      const tarn::KeepReason quiet;
      info.reset(tarn::GetFileInfo(call.afc(), device_path.c_str()));
    }
    const char *size_text = info.get()[TARN_INFO_SIZE];
    if (size_text == nullptr) continue;
    const uint64_t size = tarn::DeviceNumber(size_text);
    plist_array_append_item(items, tarn::MediaItemFromPurchase(entry, device_path.c_str(), size));
    if (total) *total += size;
    ++appended;
  }
  return appended;
}

}  // namespace tarn

extern "C" {

TARN_API uint32_t GetPurchaseMusicListFromPlist(PodDevice *device, const char *path, plist_t items, uint64_t *total,
                                                PodPlistParser parser) {
  const tarn::ApiCall api_call;
  return tarn::GetPurchaseMusicListFromPlist(device, path, items, total, parser);
}

}  // extern "C"
