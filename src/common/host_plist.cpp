#include "common/host_plist.h"

#include <cstdint>
#include <cstdio>
#include <vector>

namespace tarn {

PlistPtr ParseHostPlist(const char *path, PodPlistParser parser) {
  HostFile file(path ? std::fopen(path, "rb") : nullptr);
  if (!file || parser == nullptr) return nullptr;
  const int64_t size = GetFileSize(path);
  if (size <= 0 || size > UINT32_MAX) return nullptr;
  // One byte more than the file, zeroed: the XML parser may read a
  // terminator.
  std::vector<char> bytes(static_cast<size_t>(size) + 1, '\0');
  if (std::fread(bytes.data(), 1, static_cast<size_t>(size), file.get()) != static_cast<size_t>(size)) return nullptr;
  plist_t root = nullptr;
  parser(bytes.data(), static_cast<uint32_t>(size), &root);
  return PlistPtr(root);
}

}  // namespace tarn
