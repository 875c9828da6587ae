#include "devicefs/walk.h"

namespace tarn {

bool IsWalkableName(const char *name) {
  if (name == nullptr || name[0] == '\0') return false;
  if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
  return std::strchr(name, '/') == nullptr;
}

StrVec ListDirectory(afc_client_t client, const char *path) {
  char **names = nullptr;
  if (client == nullptr || path == nullptr) return StrVec();
  // A failed listing may still have handed out a vector; it is released
  // either way.
  StrVec owned;
  const afc_error_t err = afc_read_directory(client, path, &names);
  owned.reset(names);
  if (err != AFC_E_SUCCESS) owned.reset();
  return owned;
}

std::string JoinDevicePath(const std::string &dir, const char *name, PathJoin join) {
  if (join == PathJoin::kConcatFilePath) {
    CString joined(ConcatFilePath(dir.c_str(), name));
    return joined ? std::string(joined.get()) : std::string();
  }
  std::string path;
  path.reserve(dir.size() + std::strlen(name) + 1);
  path.append(dir).append(1, '/').append(name);
  return path;
}

}  // namespace tarn
