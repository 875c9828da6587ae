#include "apps/common/device_path.h"

#include <vector>

#include "apps/common/failure.h"

namespace tarn::app {

DevicePath NormaliseDevicePath(std::string_view text, std::string_view base) {
  if (text.empty()) Fail(kUsage, "an empty device path");
  std::string joined;
  if (text.front() != '/') {
    joined.append(base).append("/").append(text);
    return NormaliseDevicePath(joined);
  }
  std::vector<std::string_view> parts;
  std::string_view last;
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find('/', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view part = text.substr(start, end - start);
    start = end + 1;
    if (!part.empty()) last = part;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (parts.empty()) Fail(kUsage, std::string(text) + ": the path climbs above the root of the device");
      parts.pop_back();
      continue;
    }
    parts.push_back(part);
  }
  DevicePath out;
  out.dir_only = text.back() == '/' || last == "." || last == "..";
  // Built by appending: GCC 12 takes a chain of appends for an overlapping copy.
  for (const auto part : parts) {
    out.path.push_back('/');
    out.path.insert(out.path.end(), part.begin(), part.end());
  }
  if (out.path.empty()) out.path.push_back('/');
  return out;
}

std::string JoinDevicePath(const std::string &dir, const std::string &name) {
  return !dir.empty() && dir.back() == '/' ? dir + name : dir + "/" + name;
}

std::string DeviceParent(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos || slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace tarn::app
