// The readers take host paths: each fuzz input is written to a file of the
// process's own, which lives until the process ends.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace tarn_fuzz {

class InputFile {
 public:
  // name is the file's base name; readers that pick their catalogue from
  // the name (the books) need it.
  explicit InputFile(const char *name) {
    char tmpl[] = "/tmp/tarn-fuzz-input-XXXXXX";
    if (!mkdtemp(tmpl)) std::abort();
    dir_ = tmpl;
    path_ = dir_ + "/" + name;
  }
  ~InputFile() {
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  InputFile(const InputFile &) = delete;
  InputFile &operator=(const InputFile &) = delete;

  const char *Write(const uint8_t *data, size_t size) const {
    FILE *f = std::fopen(path_.c_str(), "wb");
    if (!f || (size && std::fwrite(data, 1, size, f) != size)) std::abort();
    std::fclose(f);
    return path_.c_str();
  }
  const std::string &dir() const { return dir_; }

 private:
  std::string dir_, path_;
};

}  // namespace tarn_fuzz
