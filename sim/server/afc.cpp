#include "afc.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>
#include <vector>

namespace devsim {

namespace {

// Operation codes and status codes as libimobiledevice's afc.c / afc.h use them.
enum : uint64_t {
  kStatus = 0x01,
  kData = 0x02,
  kReadDir = 0x03,
  kTruncate = 0x07,
  kRemovePath = 0x08,
  kMakeDir = 0x09,
  kGetFileInfo = 0x0A,
  kGetDevInfo = 0x0B,
  kFileOpen = 0x0D,
  kFileOpenRes = 0x0E,
  kFileRead = 0x0F,
  kFileWrite = 0x10,
  kFileSeek = 0x11,
  kFileTell = 0x12,
  kFileTellRes = 0x13,
  kFileClose = 0x14,
  kFileSetSize = 0x15,
  kRenamePath = 0x18,
  kFileLock = 0x1B,
  kMakeLink = 0x1C,
  kSetFileModTime = 0x1E,
  kRemovePathAndContents = 0x22,
};

enum : uint64_t {
  E_SUCCESS = 0,
  E_UNKNOWN = 1,
  E_NO_RESOURCES = 3,
  E_WRITE_ERROR = 5,
  E_INVALID_ARG = 7,
  E_NOT_FOUND = 8,
  E_IS_DIR = 9,
  E_PERM_DENIED = 10,
  E_NOT_SUPPORTED = 15,
  E_EXISTS = 16,
  E_BUSY = 17,
  E_NO_SPACE = 18,
  E_WOULD_BLOCK = 19,
  E_IO = 20,
  E_NO_MEM = 31,
  E_DIR_NOT_EMPTY = 33,
};

constexpr size_t kHeader = 40;
constexpr char kMagic[8] = {'C', 'F', 'A', '6', 'L', 'P', 'A', 'A'};
constexpr uint64_t kMaxHeaderData = 1 << 20;   // paths and small arguments
constexpr uint64_t kMaxRead = 16u << 20;       // a read answers at most this much
constexpr size_t kWriteChunk = 1 << 20;        // writes are streamed in pieces
constexpr int kMaxLinks = 40;

uint64_t afc_code(int err) {
  switch (err) {
    case ENOENT: case ENOTDIR: case ELOOP: return E_NOT_FOUND;
    case EISDIR: return E_IS_DIR;
    case EACCES: case EPERM: case EROFS: return E_PERM_DENIED;
    case EEXIST: return E_EXISTS;
    case ENOTEMPTY: return E_DIR_NOT_EMPTY;
    case ENOSPC: case EDQUOT: return E_NO_SPACE;
    case EBUSY: return E_BUSY;
    case EWOULDBLOCK: return E_WOULD_BLOCK;
    case EINVAL: case ENAMETOOLONG: case EXDEV: return E_INVALID_ARG;
    case EIO: return E_IO;
    case EILSEQ: return E_INVALID_ARG;  // a name that is not UTF-8
    case EMFILE: case ENFILE: return E_NO_RESOURCES;
    case ENOMEM: return E_NO_MEM;
    default: return E_UNKNOWN;
  }
}

Op op_of(uint64_t code) {
  switch (code) {
    case kGetDevInfo: return Op::GetDeviceInfo;
    case kGetFileInfo: return Op::GetFileInfo;
    case kReadDir: return Op::ReadDirectory;
    case kFileOpen: return Op::FileOpen;
    case kFileRead: return Op::FileRead;
    case kFileWrite: return Op::FileWrite;
    case kFileSeek: return Op::FileSeek;
    case kFileTell: return Op::FileTell;
    case kFileClose: return Op::FileClose;
    case kFileLock: return Op::FileLock;
    case kFileSetSize: return Op::FileSetSize;
    case kMakeDir: return Op::MakeDir;
    case kRemovePath: return Op::RemovePath;
    case kRenamePath: return Op::RenamePath;
    default: return Op::Other;
  }
}

inline uint64_t le64(const char* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return le64toh(v);
}
inline void put_le64(char* p, uint64_t v) {
  v = htole64(v);
  std::memcpy(p, &v, 8);
}

void split_into(std::string_view path, std::deque<std::string>& out, bool front) {
  std::vector<std::string> parts;
  size_t i = 0;
  while (i <= path.size()) {
    size_t j = path.find('/', i);
    if (j == std::string_view::npos) j = path.size();
    if (j > i) parts.emplace_back(path.substr(i, j - i));
    i = j + 1;
  }
  if (front)
    out.insert(out.begin(), parts.begin(), parts.end());
  else
    out.insert(out.end(), parts.begin(), parts.end());
}

std::string join(const std::vector<std::string>& parts) {
  std::string s;
  for (const auto& p : parts) {
    if (!s.empty()) s += '/';
    s += p;
  }
  return s.empty() ? "." : s;
}

// "/a//b/./c" -> "/a/b/c" for pattern matching (no link or ".." resolution:
// faults match what the client asked for).
std::string normalized(std::string_view p) {
  std::deque<std::string> parts;
  split_into(p, parts, false);
  std::string s;
  for (const auto& c : parts) {
    if (c == ".") continue;
    s += '/';
    s += c;
  }
  return s.empty() ? "/" : s;
}

}  // namespace

namespace {

std::string nfd(const std::string& s) {
  std::unique_ptr<gchar, decltype(&g_free)> n(
      g_utf8_normalize(s.data(), static_cast<gssize>(s.size()), G_NORMALIZE_NFD), g_free);
  return n ? std::string(n.get()) : s;
}

// APFS keeps a name as it was written but finds it in any Unicode
// normalisation: a decomposed "é" names the file created as a composed one.
std::optional<std::string> equivalent_name(int root, const std::string& dir, const std::string& name) {
  if (std::all_of(name.begin(), name.end(), [](char ch) { return (ch & 0x80) == 0; }))
    return std::nullopt;  // ASCII has a single form
  int dfd = ::openat(root, dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd < 0) return std::nullopt;
  std::unique_ptr<DIR, int (*)(DIR*)> d(::fdopendir(dfd), ::closedir);
  if (!d) {
    ::close(dfd);
    return std::nullopt;
  }
  const std::string want = nfd(name);
  while (dirent* e = ::readdir(d.get()))
    if (nfd(e->d_name) == want) return std::string(e->d_name);
  return std::nullopt;
}

}  // namespace

int RootResolver::resolve(std::string_view path, bool follow_last, std::string& rel,
                          bool missing_ok) const {
  std::vector<std::string> stack;
  std::deque<std::string> todo;
  split_into(path, todo, false);
  size_t first_missing = SIZE_MAX;
  int links = 0;
  auto more = [&] {
    return std::any_of(todo.begin(), todo.end(), [](const std::string& c) { return c != "."; });
  };
  while (!todo.empty()) {
    std::string c = std::move(todo.front());
    todo.pop_front();
    if (c == ".") continue;
    if (c == "..") {
      if (!stack.empty()) stack.pop_back();
      if (stack.size() <= first_missing) first_missing = SIZE_MAX;
      continue;
    }
    if (c.size() > NAME_MAX) return ENAMETOOLONG;
    if (!g_utf8_validate(c.data(), static_cast<gssize>(c.size()), nullptr)) return EILSEQ;
    bool has_more = more();
    if (first_missing != SIZE_MAX) {
      if (!missing_ok) return ENOENT;
      stack.push_back(std::move(c));
      continue;
    }
    stack.push_back(c);
    std::string cand = join(stack);
    stack.pop_back();
    struct stat st {};
    int found = ::fstatat(root_, cand.c_str(), &st, AT_SYMLINK_NOFOLLOW);
    if (found != 0 && errno == ENOENT) {
      if (auto other = equivalent_name(root_, join(stack), c)) {
        c = std::move(*other);
        stack.push_back(c);
        cand = join(stack);
        stack.pop_back();
        found = ::fstatat(root_, cand.c_str(), &st, AT_SYMLINK_NOFOLLOW);
      } else {
        errno = ENOENT;
      }
    }
    if (found != 0) {
      if (errno != ENOENT) return errno;
      if (has_more && !missing_ok) return ENOENT;
      first_missing = stack.size();
      stack.push_back(std::move(c));
      continue;
    }
    if (S_ISLNK(st.st_mode) && (has_more || follow_last)) {
      if (++links > kMaxLinks) return ELOOP;
      char target[PATH_MAX];
      ssize_t n = ::readlinkat(root_, cand.c_str(), target, sizeof target - 1);
      if (n <= 0) return ENOENT;
      std::string_view t(target, static_cast<size_t>(n));
      if (t.front() == '/') stack.clear();
      split_into(t, todo, true);
      continue;
    }
    if (has_more && !S_ISDIR(st.st_mode)) return ENOTDIR;
    stack.push_back(std::move(c));
  }
  rel = join(stack);
  return 0;
}

namespace {

struct Handle {
  Fd fd;
  std::string path;  // as the client named it when opening, for the log
  uint64_t pos = 0;
  bool readable = false, writable = false, append = false;
  bool locked = false;
};

class Session {
 public:
  Session(int sock, Device& dev, const std::string& root) : sock_(sock), dev_(dev), res_(-1) {
    root_.reset(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    res_ = RootResolver(root_.get());
  }
  ~Session() {
    for (auto& h : slots_) {
      if (!h) continue;
      if (h->locked) dev_.locks_held.fetch_sub(1);
      dev_.files_open.fetch_sub(1);
    }
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void run();

 private:
  bool send_packet(uint64_t op, const char* data, size_t len);
  bool send_status(uint64_t code) { return send_u64(kStatus, code); }
  bool send_u64(uint64_t op, uint64_t v) {
    char b[8];
    put_le64(b, v);
    return send_packet(op, b, 8);
  }
  bool drain(uint64_t n);
  bool receive(void* buf, size_t n);  // counts toward drop_after_bytes
  Handle* handle(uint64_t id) {
    return (id >= 1 && id <= slots_.size()) ? slots_[id - 1].get() : nullptr;
  }
  std::string_view arg_path(size_t offset) const {
    if (in_len_ <= offset) return {};
    const char* p = in_.data() + offset;
    return std::string_view(p, strnlen(p, in_len_ - offset));
  }
  bool injected(std::string_view path, uint64_t& code) const;
  bool dispatch(uint64_t op, uint64_t payload);

  bool do_read(Handle* h, uint64_t size);
  bool do_write(Handle* h, uint64_t payload);
  bool do_open(uint64_t mode, std::string_view path);
  bool do_close(uint64_t id);
  bool do_lock(Handle* h, uint64_t how);
  bool do_file_info(std::string_view path);
  bool do_read_dir(std::string_view path);
  bool do_dev_info();
  uint64_t make_dir(std::string_view path);
  uint64_t remove_path(std::string_view path, bool recursive);
  uint64_t remove_tree(const std::string& rel);

  int sock_;
  Device& dev_;
  Fd root_;
  RootResolver res_;
  std::vector<std::unique_ptr<Handle>> slots_;
  size_t open_count_ = 0;
  std::vector<char> in_;
  size_t in_len_ = 0;
  std::vector<char> out_;
  uint64_t packet_num_ = 0;

  std::shared_ptr<const Faults> faults_;
  uint64_t gen_ = 0;
  uint64_t requests_ = 0;  // since the faults last changed
  uint64_t bytes_ = 0;     // likewise, both directions
  bool dropped_ = false;
};

bool Session::send_packet(uint64_t op, const char* data, size_t len) {
  char hdr[kHeader];
  std::memcpy(hdr, kMagic, 8);
  // Short answers go out as one header part; data answers keep the header
  // alone in "this length", as devices do.
  bool small = (op != kData);
  put_le64(hdr + 8, kHeader + len);
  put_le64(hdr + 16, small ? kHeader + len : kHeader);
  put_le64(hdr + 24, packet_num_);
  put_le64(hdr + 32, op);
  iovec iov[2] = {{hdr, kHeader}, {const_cast<char*>(data), len}};
  size_t total = kHeader + len;
  if (faults_->drop_after_bytes && bytes_ + total > faults_->drop_after_bytes) {
    // The cable goes at exactly the limit, wherever that falls in the packet.
    size_t keep = static_cast<size_t>(faults_->drop_after_bytes - bytes_);
    if (keep > kHeader) {
      iov[1].iov_len = keep - kHeader;
      writev_full(sock_, iov, 2);
    } else if (keep > 0) {
      iov[0].iov_len = keep;
      writev_full(sock_, iov, 1);
    }
    dropped_ = true;
    return false;
  }
  bytes_ += total;
  return writev_full(sock_, iov, len ? 2 : 1);
}

bool Session::receive(void* buf, size_t n) {
  if (faults_->drop_after_bytes && bytes_ + n > faults_->drop_after_bytes) {
    // Take what the limit allows, then go: a drop in the middle of a request.
    size_t keep = static_cast<size_t>(faults_->drop_after_bytes - bytes_);
    if (keep) read_full(sock_, buf, keep);
    bytes_ += keep;
    dropped_ = true;
    return false;
  }
  if (!read_full(sock_, buf, n)) return false;
  bytes_ += n;
  return true;
}

bool Session::drain(uint64_t n) {
  char buf[4096];
  while (n > 0) {
    size_t k = std::min<uint64_t>(n, sizeof buf);
    if (!receive(buf, k)) return false;
    n -= k;
  }
  return true;
}

bool Session::injected(std::string_view path, uint64_t& code) const {
  if (faults_->afc_errors.empty() || path.empty()) return false;
  std::string raw(path), norm = normalized(path);
  for (const auto& [c, pattern] : faults_->afc_errors) {
    if (::fnmatch(pattern.c_str(), raw.c_str(), 0) == 0 ||
        ::fnmatch(pattern.c_str(), norm.c_str(), 0) == 0) {
      code = c;
      return true;
    }
  }
  return false;
}

void Session::run() {
  if (!root_.valid()) return;
  faults_ = dev_.faults();
  gen_ = dev_.fault_generation();
  in_.resize(4096);
  char hdr[kHeader];
  // Options changed while we waited count from the request that follows.
  auto refresh = [this](uint64_t counted) {
    if (uint64_t g = dev_.fault_generation(); g != gen_) {
      faults_ = dev_.faults();
      gen_ = g;
      requests_ = 0;
      bytes_ = counted;
    }
  };
  while (!dropped_) {
    refresh(0);
    if (!receive(hdr, kHeader)) return;
    refresh(kHeader);
    if (std::memcmp(hdr, kMagic, 8) != 0) return;
    uint64_t entire = le64(hdr + 8), this_len = le64(hdr + 16);
    packet_num_ = le64(hdr + 24);
    uint64_t op = le64(hdr + 32);
    if (this_len < kHeader || entire < this_len || this_len - kHeader > kMaxHeaderData) return;

    in_len_ = this_len - kHeader;
    if (in_.size() < in_len_ + 1) in_.resize(in_len_ + 1);
    if (in_len_ && !receive(in_.data(), in_len_)) return;
    in_[in_len_] = '\0';
    uint64_t payload = entire - this_len;

    ++requests_;
    if (faults_->drop_after_requests && requests_ > faults_->drop_after_requests) return;
    if (faults_->stall_after_requests && requests_ > faults_->stall_after_requests) return stall(sock_);
    sleep_us(faults_->latency_us);
    if (!dispatch(op, payload)) return;
  }
}

bool Session::dispatch(uint64_t code, uint64_t payload) {
  Op op = op_of(code);
  dev_.count(op);

  // The path a request concerns: its own argument, or the path its handle
  // was opened on.
  Handle* h = nullptr;
  std::string_view path;
  switch (code) {
    case kFileRead: case kFileWrite: case kFileSeek: case kFileTell: case kFileClose:
    case kFileLock: case kFileSetSize:
      h = in_len_ >= 8 ? handle(le64(in_.data())) : nullptr;
      if (h) path = h->path;
      break;
    case kFileOpen: case kTruncate: case kSetFileModTime: case kMakeLink:
      path = arg_path(8);
      break;
    default:
      path = arg_path(0);
  }
  if (dev_.logging()) dev_.log(op, path);

  uint64_t injected_code = 0;
  if (injected(path, injected_code) ||
      (code == kRenamePath && injected(arg_path(path.size() + 1), injected_code))) {
    if (payload && !drain(payload)) return false;
    return send_status(injected_code);
  }
  if (code != kFileWrite && payload && !drain(payload)) return false;

  auto need = [&](size_t n) { return in_len_ >= n; };
  // Truncate and set-modification-time carry a number, then the path, which
  // is resolved through a final link; apply(rel, number) gives 0 or an errno.
  auto with_number_and_path = [&](auto apply) {
    if (!need(9)) return send_status(E_INVALID_ARG);
    std::string rel;
    if (int e = res_.resolve(path, true, rel)) return send_status(afc_code(e));
    int err = apply(rel, le64(in_.data()));
    return send_status(err ? afc_code(err) : E_SUCCESS);
  };
  switch (code) {
    case kGetDevInfo: return do_dev_info();
    case kGetFileInfo: return do_file_info(path);
    case kReadDir: return do_read_dir(path);
    case kFileOpen:
      if (!need(9)) return send_status(E_INVALID_ARG);
      return do_open(le64(in_.data()), path);
    case kFileRead:
      if (!need(16)) return send_status(E_INVALID_ARG);
      if (!h) return send_status(E_INVALID_ARG);
      return do_read(h, le64(in_.data() + 8));
    case kFileWrite:
      if (!h) return drain(payload) && send_status(E_INVALID_ARG);
      return do_write(h, payload);
    case kFileSeek: {
      if (!h || !need(24)) return send_status(E_INVALID_ARG);
      uint64_t whence = le64(in_.data() + 8);
      auto off = static_cast<int64_t>(le64(in_.data() + 16));
      int64_t base = 0;
      if (whence == SEEK_CUR) {
        base = static_cast<int64_t>(h->pos);
      } else if (whence == SEEK_END) {
        struct stat st {};
        if (::fstat(h->fd.get(), &st) != 0) return send_status(afc_code(errno));
        base = st.st_size;
      } else if (whence != SEEK_SET) {
        return send_status(E_INVALID_ARG);
      }
      if (base + off < 0) return send_status(E_INVALID_ARG);
      h->pos = static_cast<uint64_t>(base + off);
      return send_status(E_SUCCESS);
    }
    case kFileTell:
      if (!h) return send_status(E_INVALID_ARG);
      return send_u64(kFileTellRes, h->pos);
    case kFileClose:
      if (!h) return send_status(E_INVALID_ARG);
      return do_close(le64(in_.data()));
    case kFileLock:
      if (!h || !need(16)) return send_status(E_INVALID_ARG);
      return do_lock(h, le64(in_.data() + 8));
    case kFileSetSize:
      if (!h || !need(16)) return send_status(E_INVALID_ARG);
      if (!h->writable) return send_status(E_PERM_DENIED);
      if (::ftruncate(h->fd.get(), static_cast<off_t>(le64(in_.data() + 8))) != 0)
        return send_status(afc_code(errno));
      return send_status(E_SUCCESS);
    case kMakeDir: return send_status(make_dir(path));
    case kRemovePath: return send_status(remove_path(path, false));
    case kRemovePathAndContents: return send_status(remove_path(path, true));
    case kRenamePath: {
      std::string_view to = arg_path(path.size() + 1);
      std::string from_rel, to_rel;
      if (path.empty() || to.empty()) return send_status(E_INVALID_ARG);
      if (int e = res_.resolve(path, false, from_rel)) return send_status(afc_code(e));
      if (int e = res_.resolve(to, false, to_rel)) return send_status(afc_code(e));
      if (from_rel == "." || to_rel == ".") return send_status(E_PERM_DENIED);
      if (::renameat(root_.get(), from_rel.c_str(), root_.get(), to_rel.c_str()) != 0)
        return send_status(afc_code(errno));
      return send_status(E_SUCCESS);
    }
    case kTruncate:
      return with_number_and_path([&](const std::string& rel, uint64_t size) {
        Fd f(::openat(root_.get(), rel.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!f.valid()) return errno;
        return ::ftruncate(f.get(), static_cast<off_t>(size)) != 0 ? errno : 0;
      });
    case kSetFileModTime:
      return with_number_and_path([&](const std::string& rel, uint64_t ns) {
        timespec ts[2];
        ts[0].tv_sec = ts[1].tv_sec = static_cast<time_t>(ns / 1000000000ull);
        ts[0].tv_nsec = ts[1].tv_nsec = static_cast<long>(ns % 1000000000ull);
        return ::utimensat(root_.get(), rel.c_str(), ts, AT_SYMLINK_NOFOLLOW) != 0 ? errno : 0;
      });
    case kMakeLink: {
      if (!need(9)) return send_status(E_INVALID_ARG);
      uint64_t type = le64(in_.data());
      std::string_view target = path, link = arg_path(8 + path.size() + 1);
      std::string link_rel, target_rel;
      if (target.empty() || link.empty()) return send_status(E_INVALID_ARG);
      if (int e = res_.resolve(link, false, link_rel)) return send_status(afc_code(e));
      if (type == 2) {
        // The target is stored as given; resolution keeps it inside the root.
        if (::symlinkat(std::string(target).c_str(), root_.get(), link_rel.c_str()) != 0)
          return send_status(afc_code(errno));
      } else if (type == 1) {
        if (int e = res_.resolve(target, true, target_rel)) return send_status(afc_code(e));
        if (::linkat(root_.get(), target_rel.c_str(), root_.get(), link_rel.c_str(), 0) != 0)
          return send_status(afc_code(errno));
      } else {
        return send_status(E_INVALID_ARG);
      }
      return send_status(E_SUCCESS);
    }
    default:
      return send_status(E_NOT_SUPPORTED);
  }
}

bool Session::do_dev_info() {
  uint64_t total = 0, free_bytes = 0, block = 0;
  dev_.fs_info(total, free_bytes, block);
  std::string s;
  auto add = [&](const char* k, const std::string& v) {
    s += k;
    s += '\0';
    s += v;
    s += '\0';
  };
  add("Model", dev_.model());
  add("FSTotalBytes", std::to_string(total));
  add("FSFreeBytes", std::to_string(free_bytes));
  add("FSBlockSize", std::to_string(block));
  return send_packet(kData, s.data(), s.size());
}

bool Session::do_file_info(std::string_view path) {
  std::string rel;
  if (path.empty()) return send_status(E_INVALID_ARG);
  if (int e = res_.resolve(path, false, rel)) return send_status(afc_code(e));
  struct statx sx {};
  if (::statx(root_.get(), rel.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
    return send_status(afc_code(errno));
  auto ns = [](const statx_timestamp& t) {
    return std::to_string(static_cast<uint64_t>(t.tv_sec) * 1000000000ull + t.tv_nsec);
  };
  const char* fmt = "S_IFREG";
  switch (sx.stx_mode & S_IFMT) {
    case S_IFDIR: fmt = "S_IFDIR"; break;
    case S_IFLNK: fmt = "S_IFLNK"; break;
    case S_IFIFO: fmt = "S_IFIFO"; break;
    case S_IFCHR: fmt = "S_IFCHR"; break;
    case S_IFBLK: fmt = "S_IFBLK"; break;
    case S_IFSOCK: fmt = "S_IFSOCK"; break;
    default: break;
  }
  std::string s;
  auto add = [&](const char* k, const std::string& v) {
    s += k;
    s += '\0';
    s += v;
    s += '\0';
  };
  add("st_size", std::to_string(sx.stx_size));
  add("st_blocks", std::to_string(sx.stx_blocks));
  add("st_nlink", std::to_string(sx.stx_nlink));
  add("st_ifmt", fmt);
  add("st_mtime", ns(sx.stx_mtime));
  add("st_birthtime", ns((sx.stx_mask & STATX_BTIME) ? sx.stx_btime : sx.stx_mtime));
  if ((sx.stx_mode & S_IFMT) == S_IFLNK) {
    char target[PATH_MAX];
    ssize_t n = ::readlinkat(root_.get(), rel.c_str(), target, sizeof target);
    if (n > 0) add("LinkTarget", std::string(target, static_cast<size_t>(n)));
  }
  return send_packet(kData, s.data(), s.size());
}

bool Session::do_read_dir(std::string_view path) {
  std::string rel;
  if (path.empty()) return send_status(E_INVALID_ARG);
  if (int e = res_.resolve(path, true, rel)) return send_status(afc_code(e));
  int dfd = ::openat(root_.get(), rel.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd < 0) return send_status(afc_code(errno));
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::fdopendir(dfd), ::closedir);
  if (!dir) {
    ::close(dfd);
    return send_status(E_NO_MEM);
  }
  struct stat dst {};
  ::fstat(dfd, &dst);
  // A phone's file system lists a directory in the order of its own index
  // (APFS: a hash of the name), never sorted; a hash seeded by the
  // directory keeps one directory's order stable from call to call.
  auto rank = [seed = static_cast<uint64_t>(dst.st_ino), sorted = faults_->sorted_listing](const std::string& n) {
    if (sorted) return uint64_t{0};  // ties fall back to the name
    uint64_t h = 1469598103934665603ull ^ seed;
    for (unsigned char ch : n) h = (h ^ ch) * 1099511628211ull;
    // FNV alone keeps names that differ in their last byte in byte order
    // for one seed in 32; a final mix spreads every bit.
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdull;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ull;
    h ^= h >> 33;
    return h;
  };
  std::vector<std::pair<uint64_t, std::string>> names;
  while (dirent* d = ::readdir(dir.get())) {
    if (std::strcmp(d->d_name, ".") == 0 || std::strcmp(d->d_name, "..") == 0) continue;
    names.emplace_back(rank(d->d_name), d->d_name);
  }
  std::sort(names.begin(), names.end());
  std::string s(".\0..\0", 5);
  for (const auto& n : names) {
    s += n.second;
    s += '\0';
  }
  return send_packet(kData, s.data(), s.size());
}

bool Session::do_open(uint64_t mode, std::string_view path) {
  int flags = 0;
  bool rd = false, wr = false, app = false;
  switch (mode) {
    case 1: flags = O_RDONLY; rd = true; break;
    case 2: flags = O_RDWR | O_CREAT; rd = wr = true; break;
    case 3: flags = O_WRONLY | O_CREAT | O_TRUNC; wr = true; break;
    case 4: flags = O_RDWR | O_CREAT | O_TRUNC; rd = wr = true; break;
    case 5: flags = O_WRONLY | O_CREAT; wr = app = true; break;
    case 6: flags = O_RDWR | O_CREAT; rd = wr = app = true; break;
    default: return send_status(E_INVALID_ARG);
  }
  if (path.empty()) return send_status(E_INVALID_ARG);
  if (open_count_ >= faults_->max_files) return send_status(E_NO_RESOURCES);
  std::string rel;
  if (int e = res_.resolve(path, true, rel)) return send_status(afc_code(e));
  if (rel == ".") return send_status(E_IS_DIR);
  Fd f(::openat(root_.get(), rel.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!f.valid()) return send_status(afc_code(errno));
  struct stat st {};
  if (::fstat(f.get(), &st) != 0) return send_status(afc_code(errno));
  if (S_ISDIR(st.st_mode)) return send_status(E_IS_DIR);
  auto h = std::make_unique<Handle>();
  h->fd = std::move(f);
  h->path = std::string(path);
  h->readable = rd;
  h->writable = wr;
  h->append = app;
  size_t slot = 0;
  while (slot < slots_.size() && slots_[slot]) ++slot;
  if (slot == slots_.size()) slots_.emplace_back();
  slots_[slot] = std::move(h);
  ++open_count_;
  dev_.files_open.fetch_add(1);
  return send_u64(kFileOpenRes, slot + 1);
}

bool Session::do_close(uint64_t id) {
  auto& slot = slots_[id - 1];
  if (slot->locked) dev_.locks_held.fetch_sub(1);
  dev_.files_open.fetch_sub(1);
  slot.reset();  // closing the descriptor also drops its flock
  --open_count_;
  return send_status(E_SUCCESS);
}

bool Session::do_lock(Handle* h, uint64_t how) {
  int kind;
  if (how & 8) kind = LOCK_UN;
  else if (how & 2) kind = LOCK_EX;
  else if (how & 1) kind = LOCK_SH;
  else return send_status(E_INVALID_ARG);
  // Another computer syncing the phone holds the sync lock the whole time.
  if (faults_->syncing && kind != LOCK_UN && normalized(h->path) == "/com.apple.itunes.lock_sync")
    return send_status(E_WOULD_BLOCK);
  // Each handle is its own open file description, so flock gives the
  // per-handle semantics a device has: a conflicting holder makes us answer
  // "would block" instead of waiting.
  if (::flock(h->fd.get(), kind | LOCK_NB) != 0) return send_status(afc_code(errno));
  bool now = kind != LOCK_UN;
  if (now != h->locked) {
    if (now) dev_.locks_held.fetch_add(1);
    else dev_.locks_held.fetch_sub(1);
    h->locked = now;
  }
  return send_status(E_SUCCESS);
}

// The bytes of a hole. Never written, so all its pages are the kernel's
// one zero page, whatever its size.
char g_hole_bytes[kMaxRead];

// How many of `size` bytes at `pos` lie in one hole of the file, or 0 when
// any of them is data (or past the end). The big files of the benchmarks
// are sparse; read through the file system, every 64 KiB of a hole cost the
// kernel a fresh page-cache folio to zero (the cache does not keep them
// here), and that zeroing was the largest single cost of serving several
// devices at once.
size_t hole_bytes(int fd, uint64_t pos, uint64_t size) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || pos >= static_cast<uint64_t>(st.st_size)) return 0;
  const uint64_t n = std::min<uint64_t>(size, static_cast<uint64_t>(st.st_size) - pos);
  const off_t data = ::lseek(fd, static_cast<off_t>(pos), SEEK_DATA);
  if (data < 0) return errno == ENXIO ? n : 0;  // ENXIO: only a hole up to the end
  return static_cast<uint64_t>(data) >= pos + n ? n : 0;
}

bool Session::do_read(Handle* h, uint64_t size) {
  if (!h->readable) return send_status(E_PERM_DENIED);
  size = std::min(size, kMaxRead);
  if (const size_t zeros = hole_bytes(h->fd.get(), h->pos, size)) {
    h->pos += zeros;
    return send_packet(kData, g_hole_bytes, zeros);
  }
  if (out_.size() < size) out_.resize(size);  // grows once, then reused
  size_t got = 0;
  while (got < size) {
    ssize_t n = ::pread(h->fd.get(), out_.data() + got, size - got, static_cast<off_t>(h->pos + got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return send_status(afc_code(errno));
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  h->pos += got;
  return send_packet(kData, out_.data(), got);
}

bool Session::do_write(Handle* h, uint64_t payload) {
  if (!h->writable) return drain(payload) && send_status(E_PERM_DENIED);
  if (h->append) {
    struct stat st {};
    if (::fstat(h->fd.get(), &st) == 0) h->pos = static_cast<uint64_t>(st.st_size);
  }
  if (out_.size() < kWriteChunk) out_.resize(kWriteChunk);
  uint64_t status = E_SUCCESS;
  while (payload > 0) {
    size_t k = static_cast<size_t>(std::min<uint64_t>(payload, kWriteChunk));
    if (!receive(out_.data(), k)) return false;
    payload -= k;
    if (status != E_SUCCESS) continue;  // keep the stream in step after a failure
    size_t done = 0;
    while (done < k) {
      ssize_t n = ::pwrite(h->fd.get(), out_.data() + done, k - done, static_cast<off_t>(h->pos));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        status = n < 0 ? afc_code(errno) : E_WRITE_ERROR;
        break;
      }
      done += static_cast<size_t>(n);
      h->pos += static_cast<uint64_t>(n);
    }
  }
  return send_status(status);
}

uint64_t Session::make_dir(std::string_view path) {
  std::string rel;
  if (path.empty()) return E_INVALID_ARG;
  if (int e = res_.resolve(path, true, rel, true)) return afc_code(e);
  if (rel == ".") return E_SUCCESS;
  // Create each missing ancestor in turn; an existing directory is fine.
  size_t pos = 0;
  while (pos != std::string::npos) {
    pos = rel.find('/', pos + 1);
    std::string prefix = rel.substr(0, pos);
    if (::mkdirat(root_.get(), prefix.c_str(), 0755) != 0) {
      if (errno != EEXIST) return afc_code(errno);
      struct stat st {};
      if (::fstatat(root_.get(), prefix.c_str(), &st, 0) != 0 || !S_ISDIR(st.st_mode))
        return E_EXISTS;
    }
  }
  return E_SUCCESS;
}

uint64_t Session::remove_tree(const std::string& rel) {
  struct stat st {};
  if (::fstatat(root_.get(), rel.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return afc_code(errno);
  if (S_ISDIR(st.st_mode)) {
    int dfd = ::openat(root_.get(), rel.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dfd < 0) return afc_code(errno);
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::fdopendir(dfd), ::closedir);
    if (!dir) {
      ::close(dfd);
      return E_NO_MEM;
    }
    std::vector<std::string> names;
    while (dirent* d = ::readdir(dir.get()))
      if (std::strcmp(d->d_name, ".") != 0 && std::strcmp(d->d_name, "..") != 0)
        names.emplace_back(d->d_name);
    dir.reset();
    for (const auto& n : names)
      if (uint64_t e = remove_tree(rel + "/" + n)) return e;
    if (::unlinkat(root_.get(), rel.c_str(), AT_REMOVEDIR) != 0) return afc_code(errno);
    return E_SUCCESS;
  }
  if (::unlinkat(root_.get(), rel.c_str(), 0) != 0) return afc_code(errno);
  return E_SUCCESS;
}

uint64_t Session::remove_path(std::string_view path, bool recursive) {
  std::string rel;
  if (path.empty()) return E_INVALID_ARG;
  if (int e = res_.resolve(path, false, rel)) return afc_code(e);
  if (rel == ".") return E_PERM_DENIED;
  if (recursive) return remove_tree(rel);
  if (::unlinkat(root_.get(), rel.c_str(), 0) == 0) return E_SUCCESS;
  if (errno != EISDIR) return afc_code(errno);
  if (::unlinkat(root_.get(), rel.c_str(), AT_REMOVEDIR) == 0) return E_SUCCESS;
  return (errno == ENOTEMPTY || errno == EEXIST) ? E_DIR_NOT_EMPTY : afc_code(errno);
}

}  // namespace

void serve_afc(int fd, Device& dev, const std::string& root) {
  Session s(fd, dev, root);
  s.run();
}

}  // namespace devsim
