// The one way the catalogue parses a local copy of the compressed music
// database.
//
// libgpod inflates a compressed database only when it finds it under its
// compressed name in a device layout (itdb_parse on a mount point), and then
// it inflates the whole stream twice: once to learn the inflated size, once
// into a buffer of that size. It also takes the file on trust (see
// InflateDatabase), so the stream has to be inflated once before libgpod
// sees it anyway. That one inflation is kept: its output, behind the
// original header, is the plain database that libgpod then parses without
// inflating anything, so a parse inflates the stream once instead of three
// times (BENCHMARKS.md has the figures).
#include "device/music_database.h"

#include <fcntl.h>
#include <glib.h>
#include <glib/gstdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/raii.h"
#include "device/itdb_check.h"
#include "tarn/tarn_device.h"

namespace {

// A private, temporary device layout whose plain music database receives
// the inflated copy, removed with everything in it on every path. libgpod is
// given the layout (itdb_parse on a mount point), not the file alone
// (itdb_parse_file): without a mount point it shifts every track time by
// the host's time zone, so the same database would read differently on hosts
// in different zones. The database itself is an anonymous memory file where
// the kernel has them, reached through a link in the layout, so the inflated
// bytes never go to disk; elsewhere it is a file in the layout.
class PlainDatabaseLayout {
 public:
  PlainDatabaseLayout() {
    GError *error = nullptr;
    char *root = g_dir_make_tmp("tarn-itdb-XXXXXX", &error);
    tarn::GErrorPtr owned_error(error);
    if (root == nullptr) return;
    root_ = root;
    g_free(root);
    itunes_ = root_ + "/iTunes_Control/iTunes";
    database_ = itunes_ + "/iTunesDB";
    if (g_mkdir_with_parents(itunes_.c_str(), 0700) != 0) return;
    fd_ = ::memfd_create("tarn-itdb", MFD_CLOEXEC);
    if (fd_ >= 0) {
      const std::string memory = "/proc/self/fd/" + std::to_string(fd_);
      if (::access(memory.c_str(), R_OK) == 0 && ::symlink(memory.c_str(), database_.c_str()) == 0) return;
      ::close(fd_);
    }
    fd_ = ::open(database_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  }
  ~PlainDatabaseLayout() {
    if (fd_ >= 0) ::close(fd_);
    if (root_.empty()) return;
    ::unlink(database_.c_str());
    ::rmdir(itunes_.c_str());
    ::rmdir((root_ + "/iTunes_Control").c_str());
    ::rmdir(root_.c_str());
  }
  PlainDatabaseLayout(const PlainDatabaseLayout &) = delete;
  PlainDatabaseLayout &operator=(const PlainDatabaseLayout &) = delete;

  bool ok() const { return fd_ >= 0; }
  const std::string &root() const { return root_; }

  bool Write(const unsigned char *data, size_t n) {
    while (n > 0) {
      const ssize_t w = ::write(fd_, data, n);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) return false;
      data += w;
      n -= static_cast<size_t>(w);
    }
    return true;
  }

  // Whether what was written is a database libgpod may be given. The
  // tracks' chapter data goes to `chapters`, and its records in the copy
  // are turned into records of a type libgpod passes over.
  bool Sound(std::vector<tarn::TrackChapters> &chapters) const {
    struct stat st {};
    if (::fstat(fd_, &st) != 0 || st.st_size <= 0) return false;
    const size_t size = static_cast<size_t>(st.st_size);
    void *map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
    if (map == MAP_FAILED) return false;
    auto *data = static_cast<unsigned char *>(map);
    const bool sound = tarn::PlainDatabaseIsSound(data, size, &chapters);
    if (sound)
      for (const tarn::TrackChapters &c : chapters) std::memset(data + c.record + 12, 0, 4);
    ::munmap(map, size);
    return sound;
  }

 private:
  std::string root_, itunes_, database_;
  int fd_ = -1;
};

// The compression flag lies at 0xA8 (16 bits), so a shorter header cannot
// hold it.
constexpr uint32_t kCompressionFlag = 0xA8;
constexpr uint32_t kMinHeaderLength = kCompressionFlag + 2;
// Far beyond the inflated database of the fullest device, and short of what
// a small file crafted to inflate without end would make us write out.
constexpr uint64_t kMaxInflatedLength = uint64_t{512} << 20;

uint32_t Le32(const unsigned char *p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

// Writes the plain form of the compressed database at `path` to `out`: its
// header as it stands, then the inflated stream, which is what libgpod's own
// inflation hands its parser. libgpod would take the file on trust: it reads
// the header's length fields without looking at the file's size (a total
// length past the end reads beyond its buffer, one below the header length
// wraps around to 4 GiB) and loops for ever on a stream that ends before
// zlib's end marker. So the header is checked against the file, and only a
// stream that reaches its end marker within the bound gives a database.
bool InflateDatabase(const char *path, PlainDatabaseLayout &out) {
  tarn::HostFile file(std::fopen(path, "rb"));
  struct stat st {};
  if (!file || ::fstat(::fileno(file.get()), &st) != 0) return false;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  unsigned char head[12];
  if (std::fread(head, 1, sizeof head, file.get()) != sizeof head || std::memcmp(head, "mhbd", 4) != 0) return false;
  const uint32_t header_length = Le32(head + 4), total_length = Le32(head + 8);
  if (header_length < kMinHeaderLength || header_length > size || total_length < header_length ||
      total_length > size)
    return false;
  std::vector<unsigned char> header(header_length);
  std::memcpy(header.data(), head, sizeof head);
  if (std::fread(header.data() + sizeof head, 1, header_length - sizeof head, file.get()) !=
      header_length - sizeof head)
    return false;
  // The copy is plain: with the compression flag left set, libgpod would
  // warn about an unknown value there on every parse.
  std::fill(header.begin() + kCompressionFlag, header.begin() + kCompressionFlag + 2, 0);
  if (!out.Write(header.data(), header.size())) return false;

  z_stream zs{};
  if (inflateInit(&zs) != Z_OK) return false;
  // On the heap: a library that applications may load late must not
  // claim large thread-local blocks.
  constexpr size_t kIn = size_t{1} << 16, kOut = size_t{1} << 18;
  const std::unique_ptr<unsigned char[]> in(new unsigned char[kIn]), inflated_block(new unsigned char[kOut]);
  uint64_t left = total_length - header_length, inflated = 0;
  int rc = Z_OK;
  while (rc != Z_STREAM_END && inflated <= kMaxInflatedLength) {
    if (zs.avail_in == 0) {
      const size_t n = std::fread(in.get(), 1, static_cast<size_t>(std::min<uint64_t>(left, kIn)), file.get());
      if (n == 0) break;  // the stream ends before its end marker
      left -= n;
      zs.next_in = in.get();
      zs.avail_in = static_cast<uInt>(n);
    }
    zs.next_out = inflated_block.get();
    zs.avail_out = kOut;
    rc = inflate(&zs, Z_NO_FLUSH);
    if (rc != Z_OK && rc != Z_STREAM_END && !(rc == Z_BUF_ERROR && zs.avail_in == 0)) break;
    const size_t got = kOut - zs.avail_out;
    inflated += got;
    if (inflated <= kMaxInflatedLength && !out.Write(inflated_block.get(), got)) break;
  }
  inflateEnd(&zs);
  return rc == Z_STREAM_END && inflated <= kMaxInflatedLength;
}

// The active SharedMusicDatabase of this thread, if any.
thread_local tarn::SharedMusicDatabase *shared_parses = nullptr;

}  // namespace

namespace tarn {

SharedMusicDatabase::SharedMusicDatabase() {
  if (shared_parses != nullptr) return;
  shared_parses = this;
  active_ = true;
}

SharedMusicDatabase::~SharedMusicDatabase() {
  if (active_) shared_parses = nullptr;
}

MusicDatabase::MusicDatabase(const char *path) {
  auto parse = [path] {
    GError *error = nullptr;
    ItdbPtr db(m_itdb_parse_file(path, &error));
    GErrorPtr owned_error(error);
    return db;
  };
  if (shared_parses == nullptr || path == nullptr) {
    owned_ = parse();
    db_ = owned_.get();
    return;
  }
  auto found = shared_parses->parsed_.find(path);
  if (found == shared_parses->parsed_.end()) found = shared_parses->parsed_.emplace(path, parse()).first;
  db_ = found->second.get();
}

}  // namespace tarn

extern "C" {

TARN_API Itdb_iTunesDB *m_itdb_parse_file(const char *path, GError **error) {
  if (path == nullptr) {
    g_return_if_fail_warning(nullptr, "m_itdb_parse_file", "filename");
    return nullptr;
  }
  // A missing file is no database; libgpod would otherwise say so less
  // clearly.
  if (!g_file_test(path, G_FILE_TEST_IS_REGULAR)) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_NOENT, "no music database at %s", path);
    return nullptr;
  }
  PlainDatabaseLayout layout;
  if (!layout.ok()) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_FAILED, "cannot prepare a parse of %s", path);
    return nullptr;
  }
  std::vector<tarn::TrackChapters> chapters;
  if (!InflateDatabase(path, layout) || !layout.Sound(chapters)) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, "%s is no sound compressed music database", path);
    return nullptr;
  }
  Itdb_iTunesDB *db = itdb_parse(layout.root().c_str(), error);
  if (db == nullptr) return nullptr;
  // The tracks come out in the order of their records.
  auto next = chapters.begin();
  size_t index = 0;
  for (GList *t = db->tracks; t != nullptr && next != chapters.end(); t = t->next, ++index) {
    if (next->track != index) continue;
    auto *track = static_cast<Itdb_Track *>(t->data);
    if (track->chapterdata != nullptr) itdb_chapterdata_free(track->chapterdata);
    track->chapterdata = next->data.release();
    ++next;
  }
  // The layout is gone once we return: the database must not point at it.
  itdb_set_mountpoint(db, nullptr);
  g_free(db->filename);
  db->filename = g_strdup(path);
  return db;
}

}  // extern "C"
