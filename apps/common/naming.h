// Host file names for what comes off a device: safe on common host file
// systems, readable, and never two entries for one name.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tarn::app {

// `name` as one path component: separators, characters that Windows and
// macOS file systems reject, control characters and invalid UTF-8 become
// '_'; leading dots (hidden or "..") and trailing dots and blanks go; long
// names are cut at a character boundary. Empty results become `fallback`.
std::string SafeName(std::string_view name, std::string_view fallback);

// The extension of a device path (".mp3"), made safe; empty when none.
std::string Extension(std::string_view device_path);

// The last component of a device path.
std::string BaseName(std::string_view device_path);

// A recording's title is the start of its file name, its time of
// recording ("20220601 093012"); this gives "2022-06-01 09:30:12" with
// `separator` between the parts of the time, or the title as it is.
std::string RecordingTime(const std::string &title, const char *separator);

// Hands out relative host paths. Names are compared case-folded, since a
// host file system may not tell "Intro" from "intro": the second of two
// equal names in a directory gets " (2)" before its extension. Directories
// keep the spelling that came first. The same sequence of claims always
// gives the same paths, so a repeated export finds its earlier files.
class NameRegistry {
 public:
  // `occupied`, when given, passes over names that are taken outside the
  // registry (a person's own file); `displaced` tells whether it did.
  std::string Claim(const std::vector<std::string> &dirs, const std::string &stem, const std::string &ext,
                    const std::function<bool(const std::string &)> &occupied = {}, bool *displaced = nullptr);
  // Marks a path as handed out (one found in an export's record).
  void Reserve(const std::string &path);

 private:
  std::string Directory(const std::vector<std::string> &dirs);
  std::map<std::string, std::string> dir_spelling_;  // folded path -> first spelling
  std::set<std::string> taken_;                      // folded relative paths
};

}  // namespace tarn::app
