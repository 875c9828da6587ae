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
// times (BENCHMARKS.md has the figures). Before libgpod sees the plain
// database, a walk over its records (itdb_check.h) makes sure that it can
// parse it; the stream's checksum is verified on a second thread while it
// does.
#include "musicdb/music_database.h"

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
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "common/error.h"
#include "common/raii.h"
#include "musicdb/itdb_check.h"
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
//
// For a parse with the device's artwork the layout also holds the host copy
// of the device's artwork folder (a link to it) and of its SysInfoExtended,
// which is where libgpod learns the cover formats it reads the .ithmb files
// by: without them it reads no artwork database.
class PlainDatabaseLayout {
 public:
  explicit PlainDatabaseLayout(const tarn::DeviceArtwork *artwork = nullptr) {
    GError *error = nullptr;
    char *root = g_dir_make_tmp("tarn-itdb-XXXXXX", &error);
    tarn::GErrorPtr owned_error(error);
    if (root == nullptr) return;
    root_ = root;
    g_free(root);
    itunes_ = root_ + "/iTunes_Control/iTunes";
    database_ = itunes_ + "/iTunesDB";
    if (g_mkdir_with_parents(itunes_.c_str(), 0700) != 0) return;
    if (artwork != nullptr) {
      artwork_ = root_ + "/iTunes_Control/Artwork";
      device_ = root_ + "/iTunes_Control/Device";
      if (::symlink(artwork->folder.c_str(), artwork_.c_str()) != 0 || ::mkdir(device_.c_str(), 0700) != 0) return;
      if (!artwork->sysinfo_extended.empty() &&
          ::symlink(artwork->sysinfo_extended.c_str(), (device_ + "/SysInfoExtended").c_str()) != 0)
        return;
    }
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
    if (!device_.empty()) {
      ::unlink(artwork_.c_str());
      ::unlink((device_ + "/SysInfoExtended").c_str());
      ::rmdir(device_.c_str());
    }
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

  int fd() const { return fd_; }

  // Gives back the inflated database once libgpod has parsed it; the rest
  // of the layout (the links to the artwork) stays for the covers' pixels.
  void DropDatabase() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    ::unlink(database_.c_str());
  }

 private:
  std::string root_, itunes_, database_, artwork_, device_;
  int fd_ = -1;
};

// The plain database, mapped for the walk, which also turns the chapter
// records into records libgpod passes over.
class Mapping {
 public:
  explicit Mapping(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0 || st.st_size <= 0) return;
    void *map = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) return;
    data_ = static_cast<unsigned char *>(map);
    size_ = static_cast<size_t>(st.st_size);
  }
  ~Mapping() {
    if (data_ != nullptr) ::munmap(data_, size_);
  }
  Mapping(const Mapping &) = delete;
  Mapping &operator=(const Mapping &) = delete;

  unsigned char *data() const { return data_; }
  size_t size() const { return size_; }

 private:
  unsigned char *data_ = nullptr;
  size_t size_ = 0;
};

// The compression flag lies at 0xA8 (16 bits), so a shorter header cannot
// hold it.
constexpr uint32_t kCompressionFlag = 0xA8;
constexpr uint32_t kMinHeaderLength = kCompressionFlag + 2;
// Far beyond the inflated database of the fullest device, and short of what
// a small file crafted to inflate without end would make us write out.
constexpr uint64_t kMaxInflatedLength = uint64_t{512} << 20;


// What InflateDatabase learnt of the stream.
struct Inflated {
  uint32_t header_length = 0;  // where the inflated part begins
  uint32_t adler = 0;          // the checksum the stream ends with
};

// Writes the plain form of the compressed database at `path` to `out`: its
// header as it stands, then the inflated stream, which is what libgpod's own
// inflation hands its parser. libgpod would take the file on trust: it reads
// the header's length fields without looking at the file's size (a total
// length past the end reads beyond its buffer, one below the header length
// wraps around to 4 GiB) and loops for ever on a stream that ends before
// zlib's end marker. So the header is checked against the file, and only a
// stream that reaches its end marker within the bound gives a database.
// The stream is inflated raw: zlib would compute the checksum of the
// output as it goes, while the caller verifies it beside libgpod's parse,
// on another processor.
bool InflateDatabase(const char *path, PlainDatabaseLayout &out, Inflated &result) {
  tarn::HostFile file(std::fopen(path, "rb"));
  struct stat st {};
  if (!file || ::fstat(::fileno(file.get()), &st) != 0) return false;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  unsigned char head[12];
  if (std::fread(head, 1, sizeof head, file.get()) != sizeof head || std::memcmp(head, "mhbd", 4) != 0) return false;
  const uint32_t header_length = tarn::Le32(head + 4), total_length = tarn::Le32(head + 8);
  // The stream's own header (2 bytes) and checksum (4) lie behind ours.
  if (header_length < kMinHeaderLength || header_length > size || total_length < header_length + 6 ||
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

  // The stream header: deflate, no preset dictionary, its check bits right.
  unsigned char stream[2];
  if (std::fread(stream, 1, 2, file.get()) != 2 || (stream[0] & 0x0f) != Z_DEFLATED || (stream[0] >> 4) > 7 ||
      (stream[1] & 0x20) != 0 || (stream[0] << 8 | stream[1]) % 31 != 0)
    return false;
  z_stream zs{};
  if (inflateInit2(&zs, -MAX_WBITS) != Z_OK) return false;
  // On the heap: a library that applications may load late must not
  // claim large thread-local blocks.
  constexpr size_t kIn = size_t{1} << 16, kOut = size_t{1} << 18;
  const std::unique_ptr<unsigned char[]> in(new unsigned char[kIn]), inflated_block(new unsigned char[kOut]);
  uint64_t left = total_length - header_length - 2, inflated = 0;
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
  // The checksum follows the end marker, big-endian.
  unsigned char trailer[4];
  size_t have = std::min<size_t>(zs.avail_in, sizeof trailer);
  std::memcpy(trailer, zs.next_in, have);
  inflateEnd(&zs);
  if (rc != Z_STREAM_END || inflated > kMaxInflatedLength) return false;
  if (have < sizeof trailer &&
      std::fread(trailer + have, 1, sizeof trailer - have, file.get()) != sizeof trailer - have)
    return false;
  result.header_length = header_length;
  result.adler = uint32_t{trailer[0]} << 24 | uint32_t{trailer[1]} << 16 | uint32_t{trailer[2]} << 8 | trailer[3];
  return true;
}

// The Adler-32 checksum of a buffer of `length` bytes once the byte at
// `at` has changed by `delta`: the first sum moves by delta, the second by
// delta for each byte from `at` to the end.
uint32_t AdlerAfterChange(uint32_t adler, uint64_t length, uint64_t at, int delta) {
  constexpr int64_t kBase = 65521;
  const auto mod = [](int64_t v) { return ((v % kBase) + kBase) % kBase; };
  const int64_t a = mod(int64_t{adler & 0xffff} + delta);
  const int64_t b = mod(int64_t{adler >> 16} + mod(delta) * mod(static_cast<int64_t>(length - at)));
  return static_cast<uint32_t>(b << 16 | a);
}

// The Adler-32 checksum of the file `fd` from `offset` to its end,
// computed on another thread while the caller goes on (inline where no
// thread can be had). It reads the file rather than a mapping of it, so
// that the pages it passes over do not stay in the process's memory.
class ChecksumBeside {
 public:
  ChecksumBeside(int fd, off_t offset) : fd_(fd), offset_(offset) {
    try {
      thread_ = std::thread([this] { Sum(); });
    } catch (const std::system_error &) {
      Sum();
    }
  }
  ~ChecksumBeside() {
    if (thread_.joinable()) thread_.join();
  }
  ChecksumBeside(const ChecksumBeside &) = delete;
  ChecksumBeside &operator=(const ChecksumBeside &) = delete;

  // The checksum, or nothing when the file could not be read.
  std::optional<uint32_t> Get() {
    if (thread_.joinable()) thread_.join();
    return sum_;
  }

 private:
  void Sum() {
    constexpr size_t kBlock = size_t{1} << 20;
    const std::unique_ptr<unsigned char[]> block(new unsigned char[kBlock]);
    uLong adler = adler32_z(0, nullptr, 0);
    for (off_t at = offset_;;) {
      const ssize_t n = ::pread(fd_, block.get(), kBlock, at);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return;
      if (n == 0) break;
      adler = adler32_z(adler, block.get(), static_cast<size_t>(n));
      at += n;
    }
    sum_ = static_cast<uint32_t>(adler);
  }

  int fd_;
  off_t offset_;
  std::optional<uint32_t> sum_;
  std::thread thread_;
};

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

namespace {

ItdbPtr Parse(const char *path) {
  GError *error = nullptr;
  ItdbPtr db(tarn::m_itdb_parse_file(path, &error));
  const GErrorPtr owned_error(error);
  return db;
}

}  // namespace

void SharedMusicDatabase::ParseAhead(const std::string &path) {
  if (!active_ || parsed_.count(path) != 0 || ahead_.count(path) != 0) return;
  try {
    ahead_.emplace(path, std::async(std::launch::async, [path] { return Parse(path.c_str()); }));
  } catch (const std::system_error &) {
    // No thread to be had: the reader parses it when it comes to it.
  }
}

MusicDatabase::MusicDatabase(const char *path) {
  if (shared_parses == nullptr || path == nullptr) {
    owned_ = Parse(path);
    db_ = owned_.get();
    return;
  }
  auto found = shared_parses->parsed_.find(path);
  if (found == shared_parses->parsed_.end()) {
    ItdbPtr db;
    const auto ahead = shared_parses->ahead_.find(path);
    if (ahead != shared_parses->ahead_.end()) {
      db = ahead->second.get();
      shared_parses->ahead_.erase(ahead);
    }
    if (!db) db = Parse(path);
    found = shared_parses->parsed_.emplace(path, std::move(db)).first;
  }
  db_ = found->second.get();
}

}  // namespace tarn

namespace {

// libgpod maps no artwork database larger than this, and none is.
constexpr size_t kLargestArtworkDatabase = size_t{64} << 20;

// Whether the ArtworkDB at `path` passes the walk that keeps libgpod's
// artwork parser within it.
bool ArtworkFileIsSound(const std::string &path) {
  tarn::HostFile file(std::fopen(path.c_str(), "rb"));
  struct stat st {};
  if (!file || ::fstat(::fileno(file.get()), &st) != 0 || st.st_size <= 0 ||
      static_cast<uint64_t>(st.st_size) > kLargestArtworkDatabase)
    return false;
  std::vector<unsigned char> bytes(static_cast<size_t>(st.st_size));
  return std::fread(bytes.data(), 1, bytes.size(), file.get()) == bytes.size() &&
         tarn::ArtworkDatabaseIsSound(bytes.data(), bytes.size());
}

// The parse proper; m_itdb_parse_file records why it gave nothing. With
// `artwork`, libgpod also reads the device's artwork database, and the
// layout is handed to `keep` instead of being removed: libgpod reads a
// cover's pixels only when one is asked for, through the layout's links to
// the .ithmb files, so the parse's device needs it for as long as covers
// are read.
Itdb_iTunesDB *ParseMusicDatabase(const char *path, GError **error, const tarn::DeviceArtwork *artwork = nullptr,
                                  std::shared_ptr<void> *keep = nullptr) {
  // A missing file is no database; libgpod would otherwise say so less
  // clearly.
  if (!g_file_test(path, G_FILE_TEST_IS_REGULAR)) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_NOENT, "no music database at %s", path);
    return nullptr;
  }
  // An artwork database libgpod would stumble over is left out, and so are
  // the formats: told of formats without a database, libgpod would make an
  // artwork folder in the layout and leak the name it looked for. The
  // tracks then read as having covers that cannot be found.
  if (artwork != nullptr && !ArtworkFileIsSound(artwork->folder + "/ArtworkDB")) artwork = nullptr;
  auto owned_layout = std::make_shared<PlainDatabaseLayout>(artwork);
  PlainDatabaseLayout &layout = *owned_layout;
  if (!layout.ok()) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_FAILED, "cannot prepare a parse of %s", path);
    return nullptr;
  }
  Inflated inflated;
  if (!InflateDatabase(path, layout, inflated)) {
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, "%s is no sound compressed music database", path);
    return nullptr;
  }
  std::vector<tarn::TrackChapters> chapters;
  uint32_t expected = inflated.adler;
  {
    const Mapping map(layout.fd());
    if (map.data() == nullptr || !tarn::PlainDatabaseIsSound(map.data(), map.size(), &chapters)) {
      g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, "%s is no sound compressed music database", path);
      return nullptr;
    }
    // libgpod is kept away from chapter data (it loses every chapter title
    // it decodes): the records become records of a type it passes over, and
    // the walk's reading of them is attached to the tracks below.
    const uint64_t body = map.size() - inflated.header_length;
    for (const tarn::TrackChapters &c : chapters) {
      for (size_t at = c.record + 12; at < c.record + 16; ++at) {
        expected = AdlerAfterChange(expected, body, at - inflated.header_length, -map.data()[at]);
        map.data()[at] = 0;
      }
    }
  }
  ChecksumBeside checksum(layout.fd(), inflated.header_length);
  Itdb_iTunesDB *db = itdb_parse(layout.root().c_str(), error);
  if (checksum.Get() != expected) {
    if (db != nullptr) itdb_free(db);
    if (error != nullptr && *error != nullptr) g_clear_error(error);
    g_set_error(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, "%s fails its checksum", path);
    return nullptr;
  }
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
  if (keep != nullptr) {
    layout.DropDatabase();
    *keep = std::move(owned_layout);
  } else {
    // The layout is gone once we return: the database must not point at it.
    itdb_set_mountpoint(db, nullptr);
  }
  g_free(db->filename);
  db->filename = g_strdup(path);
  return db;
}

}  // namespace

namespace tarn {

Itdb_iTunesDB *m_itdb_parse_file(const char *path, GError **error) {
  if (path == nullptr) {
    g_return_if_fail_warning(nullptr, "m_itdb_parse_file", "filename");
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "No music database path was given.");
    return nullptr;
  }
  GError *own = nullptr;
  Itdb_iTunesDB *db = ParseMusicDatabase(path, error ? error : &own);
  const tarn::GErrorPtr owned(own);
  if (db == nullptr) {
    const GError *why = error ? *error : own;
    tarn::SetDatabaseError(path, why ? why->message : "");
  }
  return db;
}

std::shared_ptr<const TrackCovers> TrackCovers::Read(const char *path, const DeviceArtwork &artwork) {
  GError *error = nullptr;
  std::shared_ptr<void> layout;
  ItdbPtr db(ParseMusicDatabase(path, &error, &artwork, &layout));
  const GErrorPtr owned(error);
  if (!db) {
    tarn::SetDatabaseError(path, error ? error->message : "");
    return nullptr;
  }
  std::shared_ptr<TrackCovers> covers(new TrackCovers);
  covers->layout_ = std::move(layout);
  // The cover formats the pixels are read by belong to the parse's device:
  // it is taken from the parse (which frees an empty one in its place).
  covers->device_ = db->device;
  db->device = itdb_device_new();
  // Tracks of one album name one picture (mhii_link); it is kept once.
  std::unordered_map<guint32, size_t> by_link;
  for (GList *t = db->tracks; t != nullptr; t = t->next) {
    auto *track = static_cast<Itdb_Track *>(t->data);
    Entry entry;
    if (itdb_track_has_thumbnails(track)) {
      const auto [at, added] = by_link.try_emplace(track->mhii_link, covers->pictures_.size());
      if (added || track->mhii_link == 0) {
        at->second = covers->pictures_.size();
        covers->pictures_.emplace_back(itdb_artwork_duplicate(track->artwork));
      }
      entry = {Cover::kPicture, at->second};
    } else {
      // 1 is libgpod's "has artwork" (2 none): such a track without a
      // thumbnail means an artwork database libgpod could not read.
      entry.cover = track->has_artwork == 1 ? Cover::kUnreadable : Cover::kNone;
    }
    covers->tracks_.emplace(track->id, entry);
  }
  return covers;
}

TrackCovers::~TrackCovers() {
  pictures_.clear();
  if (device_ != nullptr) itdb_device_free(device_);
}

TrackCovers::Cover TrackCovers::Find(uint64_t track_id, GObjectPtr<GdkPixbuf> *picture) const {
  const auto found = tracks_.find(track_id);
  if (found == tracks_.end()) return Cover::kNoSuchTrack;
  if (found->second.cover != Cover::kPicture) return found->second.cover;
  // libgpod's reading of the pixels is not known to be safe from two
  // threads at once over one device.
  const std::lock_guard<std::mutex> lock(mutex_);
  // The largest size the device keeps (-1, -1).
  picture->reset(
      static_cast<GdkPixbuf *>(itdb_artwork_get_pixbuf(device_, pictures_[found->second.picture].get(), -1, -1)));
  return *picture ? Cover::kPicture : Cover::kUnreadable;
}

}  // namespace tarn

extern "C" {

TARN_API Itdb_iTunesDB *m_itdb_parse_file(const char *path, GError **error) {
  const tarn::ApiCall api_call;
  return tarn::m_itdb_parse_file(path, error);
}

}  // extern "C"
