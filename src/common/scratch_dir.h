// A private folder for host files being made, beside where they will end
// up: a file is written whole in here, then renamed into place (one
// rename, on the same file system), so that no reader ever sees half of
// one; whatever is left in the folder goes with it.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "common/error.h"

namespace tarn {

class ScratchDir {
 public:
  // Beside `near`, a host path whose directory must exist; on failure the
  // path is empty and the reason recorded.
  explicit ScratchDir(const std::string &near) {
    std::filesystem::path parent = std::filesystem::path(near).parent_path();
    if (parent.empty()) parent = ".";
    std::string templ = (parent / ".tarn-copy-XXXXXX").string();
    if (::mkdtemp(templ.data()) != nullptr) path_ = templ;
    else SetHostError(errno, templ.c_str());
  }
  ~ScratchDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;
  const std::string &path() const { return path_; }

  // Renames `made`, a file made in here, over `target`; false, with the
  // reason recorded, when it cannot be.
  static bool Place(const std::string &made, const std::string &target) {
    if (std::rename(made.c_str(), target.c_str()) == 0) return true;
    SetHostError(errno, target.c_str());
    return false;
  }

 private:
  std::string path_;
};

}  // namespace tarn
