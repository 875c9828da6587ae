// Small building blocks shared by the simulator: owned descriptors and
// plists, whole-buffer socket I/O, and plist helpers.
#pragma once

#include <plist/plist.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace devsim {

// An owned file descriptor; closing happens exactly once, in the destructor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& o) noexcept : fd_(o.release()) {}
  Fd& operator=(Fd&& o) noexcept {
    if (this != &o) {
      reset();
      fd_ = o.release();
    }
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    int f = fd_;
    fd_ = -1;
    return f;
  }
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

struct PlistFree {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using Plist = std::unique_ptr<void, PlistFree>;

// Reads exactly n bytes; false on end of stream or error.
bool read_full(int fd, void* buf, size_t n);
// Writes all bytes (never raises SIGPIPE); false when the peer is gone.
bool write_full(int fd, const void* buf, size_t n);
bool writev_full(int fd, struct iovec* iov, int count);

// A request that is never answered: holds the connection until the client
// gives up (its receive timeout) or the simulator shuts the socket down.
void stall(int fd);
// Waits us microseconds; 0 returns at once.
void sleep_us(uint64_t us);
// A fresh identifier in the 8-4-4-4-12 upper-case form phones and usbmuxd use.
std::string random_uuid();

std::string plist_xml(plist_t p);
Plist plist_parse(const char* data, size_t size);  // XML or binary
std::optional<std::string> dict_string(plist_t dict, const char* key);
std::optional<uint64_t> dict_uint(plist_t dict, const char* key);

// "UNIX:..." helpers and small parsing.
bool parse_u64(std::string_view s, uint64_t& out);

}  // namespace devsim
