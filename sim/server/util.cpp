#include "util.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace devsim {

void Fd::reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

bool read_full(int fd, void* buf, size_t n) {
  auto* p = static_cast<char*>(buf);
  while (n > 0) {
    ssize_t r = ::recv(fd, p, n, 0);
    if (r < 0 && errno == ENOTSOCK) r = ::read(fd, p, n);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    p += r;
    n -= static_cast<size_t>(r);
  }
  return true;
}

bool write_full(int fd, const void* buf, size_t n) {
  iovec iov{const_cast<void*>(buf), n};
  return writev_full(fd, &iov, 1);
}

bool writev_full(int fd, iovec* iov, int count) {
  // sendmsg rather than writev so that a vanished peer is an error, not SIGPIPE.
  while (count > 0) {
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    ssize_t w = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    auto done = static_cast<size_t>(w);
    while (count > 0 && done >= iov->iov_len) {
      done -= iov->iov_len;
      ++iov;
      --count;
    }
    if (count > 0) {
      iov->iov_base = static_cast<char*>(iov->iov_base) + done;
      iov->iov_len -= done;
    }
  }
  return true;
}

void stall(int fd) {
  char sink[4096];
  while (::recv(fd, sink, sizeof sink, 0) > 0) {
  }
}

void sleep_us(uint64_t us) {
  if (us) std::this_thread::sleep_for(std::chrono::microseconds(us));
}

std::string random_uuid() {
  unsigned char b[16];
  Fd r(::open("/dev/urandom", O_RDONLY | O_CLOEXEC));
  if (!r.valid() || ::read(r.get(), b, sizeof b) != static_cast<ssize_t>(sizeof b))
    for (size_t i = 0; i < sizeof b; ++i) b[i] = static_cast<unsigned char>(i * 37 + ::getpid());
  char s[37];
  std::snprintf(s, sizeof s, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12],
                b[13], b[14], b[15]);
  return s;
}

std::string plist_xml(plist_t p) {
  char* xml = nullptr;
  uint32_t len = 0;
  plist_to_xml(p, &xml, &len);
  std::string out(xml ? xml : "", xml ? len : 0);
  free(xml);
  return out;
}

Plist plist_parse(const char* data, size_t size) {
  plist_t p = nullptr;
  if (size >= 8 && std::memcmp(data, "bplist00", 8) == 0)
    plist_from_bin(data, static_cast<uint32_t>(size), &p);
  else
    plist_from_xml(data, static_cast<uint32_t>(size), &p);
  return Plist(p);
}

std::optional<std::string> dict_string(plist_t dict, const char* key) {
  if (!dict || plist_get_node_type(dict) != PLIST_DICT) return std::nullopt;
  plist_t n = plist_dict_get_item(dict, key);
  if (!n || plist_get_node_type(n) != PLIST_STRING) return std::nullopt;
  char* s = nullptr;
  plist_get_string_val(n, &s);
  std::string out(s ? s : "");
  free(s);
  return out;
}

std::optional<uint64_t> dict_uint(plist_t dict, const char* key) {
  if (!dict || plist_get_node_type(dict) != PLIST_DICT) return std::nullopt;
  plist_t n = plist_dict_get_item(dict, key);
  if (!n || plist_get_node_type(n) != PLIST_UINT) return std::nullopt;
  uint64_t v = 0;
  plist_get_uint_val(n, &v);
  return v;
}

bool parse_u64(std::string_view s, uint64_t& out) {
  if (s.empty()) return false;
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
  return ec == std::errc() && p == s.data() + s.size();
}

}  // namespace devsim
