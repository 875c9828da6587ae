// Device images for tests, all built by tarn-mkimage from JSON descriptions
// (sim/mkimage/README.md has the format), and the folders they live in.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace tarn::testing {

// A private directory removed with everything in it at the end of scope.
class TempDir {
 public:
  explicit TempDir(const std::filesystem::path &base = std::filesystem::temp_directory_path()) {
    std::string tmpl = (base / "tarn-test-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

// Builds the image described by `description` into `dir`. Objects keep the
// order they were written in (a plain nlohmann::json converts, but sorts its
// keys); an empty description gives an empty image. `dir` must not exist or
// be empty. Relative "source" files are taken relative to the project's
// root. Throws std::runtime_error with the builder's message.
void build_image(const nlohmann::ordered_json& description, const std::string& dir);

// The path of a shipped description: sim/images/<name>.json.
std::string shipped_description(const std::string& name);

// A shipped description, parsed.
nlohmann::ordered_json load_description(const std::string& name);

// The path of a real device database in the shared test data, e.g.
// realdata("iphone-a.itunescdb"), below the folder that the TARN_SHARED_DIR
// configure option names.
std::string realdata(const std::string& file);
// Any file of the shared real data, by its path below realdata/, e.g.
// realdata_file("medialibrary/MediaLibrary.sqlitedb").
std::string realdata_file(const std::string& relative);

}  // namespace tarn::testing
