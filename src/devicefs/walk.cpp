#include "common/helpers.h"
#include "devicefs/walk.h"

namespace tarn {

bool IsWalkableName(const char *name) {
  if (name == nullptr || name[0] == '\0') return false;
  if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) return false;
  return std::strchr(name, '/') == nullptr;
}

StrVec ListDirectory(afc_client_t client, const char *path) {
  char **names = nullptr;
  if (client == nullptr || path == nullptr) {
    SetError(TARN_E_INVALID_ARGUMENT, client ? "No device path was given." : "No file-service connection was given.");
    return StrVec();
  }
  // A failed listing may still have handed out a vector; it is released
  // either way.
  StrVec owned;
  const afc_error_t err = afc_read_directory(client, path, &names);
  owned.reset(names);
  if (err != AFC_E_SUCCESS) {
    owned.reset();
    SetAfcError(err, path);
  }
  return owned;
}

void ReportWalk(const std::string &dir, const WalkBudget &budget) {
  if (CurrentCode() == TARN_E_CONNECTION_LOST) {
    SetProgress(Reached{budget.visited(), 0});
  } else if (budget.cut) {
    const std::string bound = budget.left == 0 ? std::to_string(TARN_MAX_WALK_ENTRIES) + " entries"
                                               : std::to_string(TARN_MAX_WALK_DEPTH) + " levels";
    SetError(TARN_E_WALK_CUT,
             "The walk of \"" + dir + "\" stopped at its bound of " + bound + " after " +
                 std::to_string(budget.visited()) + " entries; what lies beyond was left out.",
             Reached{budget.visited(), 0});
  }
}

std::string StartDirectory(const char *dir, const char *name) {
  std::string path = ChildPath(dir ? dir : "", name, PathJoin::kConcatFilePath);
  if (path.find('/') == std::string::npos) path += '/';
  return path;
}

std::string ChildPath(const std::string &dir, const char *name, PathJoin join) {
  if (join == PathJoin::kConcatFilePath) {
    CString joined(tarn::ConcatFilePath(dir.c_str(), name));
    return joined ? std::string(joined.get()) : std::string();
  }
  std::string path;
  path.reserve(dir.size() + std::strlen(name) + 1);
  path.append(dir).append(1, '/').append(name);
  return path;
}

}  // namespace tarn
