// The apps on a device as both programs show them: the library's list
// (TarnListApps) read into rows, and where an app's shared files live.
#pragma once

#include <string>
#include <vector>

#include "apps/common/owners.h"
#include "apps/common/session.h"

namespace tarn::app {

// The folder of an app's shared files, as the device presents it to a
// handle made for the app; relative device paths count from it.
inline constexpr const char *kAppDocuments = "/Documents";

struct AppEntry {
  std::string identifier;  // bundle identifier, what --app and the Apps page take
  std::string name;
  std::string version;
  bool file_sharing = false;
  std::string icon_png;  // empty when not asked for or the device gave none
};

// The library's list as it returns it (for --json and --xml), over the
// session's connection; fails with the library's reason.
PlistPtr AppList(Session &session, bool icons);
// Rows of such a list, in its order (by name).
std::vector<AppEntry> AppEntries(plist_t list);

}  // namespace tarn::app
