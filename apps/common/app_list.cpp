#include "apps/common/app_list.h"

#include "apps/common/plist_view.h"

namespace tarn::app {

PlistPtr AppList(Session &session, bool icons) {
  session.Connect();
  PlistPtr list(TarnListApps(session.device(), icons ? 1 : 0));
  if (!list) FailWithReason(kFailed, "cannot list the apps of " + DeviceLabel(session.udid()));
  return list;
}

std::vector<AppEntry> AppEntries(plist_t list) {
  std::vector<AppEntry> entries;
  for (uint32_t i = 0; list != nullptr && i < plist_array_get_size(list); ++i) {
    plist_t item = plist_array_get_item(list, i);
    AppEntry entry;
    entry.identifier = DictString(item, "identifier");
    entry.name = DictString(item, "name");
    entry.version = DictString(item, "version");
    uint8_t sharing = 0;
    if (plist_t node = plist_dict_get_item(item, "file_sharing")) plist_get_bool_val(node, &sharing);
    entry.file_sharing = sharing != 0;
    if (plist_t node = plist_dict_get_item(item, "icon"); node != nullptr && plist_get_node_type(node) == PLIST_DATA) {
      char *png = nullptr;
      uint64_t size = 0;
      plist_get_data_val(node, &png, &size);
      CString owned(png);
      if (png != nullptr) entry.icon_png.assign(png, size);
    }
    entries.push_back(std::move(entry));
  }
  return entries;
}

}  // namespace tarn::app
