#include "apps/common/host_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <random>
#include <system_error>

#include "apps/common/failure.h"

namespace tarn::app {
namespace fs = std::filesystem;

namespace {
constexpr const char *kPrefix = ".tarn-";
constexpr const char *kSuffix = ".part";
}  // namespace

std::string TemporaryName() {
  static std::mutex mutex;
  static std::mt19937_64 random{std::random_device{}()};
  unsigned long long bits;
  {
    const std::lock_guard<std::mutex> guard(mutex);
    bits = random() & 0xffffffffffffULL;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%s%012llx%s", kPrefix, bits, kSuffix);
  return text;
}

bool IsTemporaryName(const std::string &name) {
  return name.size() == 6 + 12 + 5 && name.rfind(kPrefix, 0) == 0 && name.compare(18, 5, kSuffix) == 0;
}

fs::path CreateTemporaryBeside(const fs::path &target) {
  const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
  for (int attempt = 0; attempt < 16; ++attempt) {
    const fs::path partial = dir / TemporaryName();
    const int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
      ::close(fd);
      return partial;
    }
    if (errno != EEXIST) break;
  }
  Fail(kHostPath, "cannot write " + target.string() + ": " + std::strerror(errno));
}

void WriteWhole(const fs::path &path, const std::string &bytes) {
  const fs::path partial = CreateTemporaryBeside(path);
  std::error_code ec;
  const int fd = ::open(partial.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  bool written = fd >= 0;
  for (size_t done = 0; written && done < bytes.size();) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    written = n > 0;
    if (written) done += static_cast<size_t>(n);
  }
  const int error = written ? 0 : errno;
  if (fd >= 0) ::close(fd);
  if (!written) {
    fs::remove(partial, ec);
    Fail(kHostPath, "cannot write " + path.string() + ": " + std::strerror(error));
  }
  fs::rename(partial, path, ec);
  if (ec) {
    fs::remove(partial, ec);
    Fail(kHostPath, "cannot write " + path.string() + ": " + ec.message());
  }
}

}  // namespace tarn::app
