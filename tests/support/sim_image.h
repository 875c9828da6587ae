// Builds bare simulator images for tests that need an ad-hoc tree without
// the image builder: "<root>/media/..." plus an optional device.json.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace tarn::testing {

struct ImageEntry {
  std::string path;      // relative to media/, e.g. "iTunes_Control/Music/F00/a.mp3"
  bool is_dir = false;   // a directory (parents are always created)
  std::string content;   // file bytes; when empty, `size` bytes of sim_pattern()
  uint64_t size = 0;
  bool sparse = false;   // with content empty: a hole of `size` bytes instead of the pattern
  int64_t mtime = 0;     // seconds since the epoch; 0 leaves the current time
  std::string link;      // when set, a symbolic link to this target

  // Shorthands (GCC 12 warns on partial designated initializers).
  static ImageEntry file(std::string p, std::string data, int64_t mtime = 0) {
    ImageEntry e;
    e.path = std::move(p);
    e.content = std::move(data);
    e.mtime = mtime;
    return e;
  }
  static ImageEntry patterned(std::string p, uint64_t size, bool sparse = false) {
    ImageEntry e;
    e.path = std::move(p);
    e.size = size;
    e.sparse = sparse;
    return e;
  }
  static ImageEntry directory(std::string p, int64_t mtime = 0) {
    ImageEntry e;
    e.path = std::move(p);
    e.is_dir = true;
    e.mtime = mtime;
    return e;
  }
  static ImageEntry symlink(std::string p, std::string target) {
    ImageEntry e;
    e.path = std::move(p);
    e.link = std::move(target);
    return e;
  }
};

// The byte at `offset` of a patterned file; lets tests check data without
// keeping a copy.
inline char sim_pattern(uint64_t offset) {
  return static_cast<char>((offset * 131 + (offset >> 12) * 7 + 17) & 0xff);
}

// Writes the tree under <root>/media and, when device_json is not empty,
// <root>/device.json. Throws std::runtime_error on any failure.
inline void make_sim_image(const std::string& root, const std::vector<ImageEntry>& entries,
                           const std::string& device_json = "") {
  namespace fs = std::filesystem;
  fs::path media = fs::path(root) / "media";
  fs::create_directories(media);
  if (!device_json.empty()) {
    std::ofstream(fs::path(root) / "device.json") << device_json;
  }
  for (const auto& e : entries) {
    fs::path p = media / e.path;
    fs::create_directories(p.parent_path());
    if (!e.link.empty()) {
      fs::create_symlink(e.link, p);
      continue;  // link times are left alone
    }
    if (e.is_dir) {
      fs::create_directories(p);
    } else {
      std::ofstream out(p, std::ios::binary | std::ios::trunc);
      if (!out) throw std::runtime_error("cannot create " + p.string());
      if (!e.content.empty()) {
        out << e.content;
      } else if (!e.sparse) {
        std::string chunk;
        for (uint64_t off = 0; off < e.size; off += chunk.size()) {
          chunk.resize(static_cast<size_t>(std::min<uint64_t>(e.size - off, 1 << 16)));
          for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = sim_pattern(off + i);
          out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        }
      }
      out.close();
      if (e.content.empty() && e.sparse) fs::resize_file(p, e.size);
    }
    if (e.mtime) {
      timespec ts[2] = {{static_cast<time_t>(e.mtime), 0}, {static_cast<time_t>(e.mtime), 0}};
      if (::utimensat(AT_FDCWD, p.c_str(), ts, 0) != 0)
        throw std::runtime_error("cannot set the time of " + p.string());
    }
  }
}

// A private directory removed with everything in it at the end of scope.
class TempDir {
 public:
  explicit TempDir(const std::filesystem::path& base = std::filesystem::temp_directory_path()) {
    std::string tmpl = (base / "tarn-test-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace tarn::testing
