// Music databases crafted to get past zlib's checksum: the damage lies in the
// plain database, which is then deflated as a device would. libgpod's parser
// takes such a file on trust (it reads past buffers, spins on zero lengths,
// and on some damage crashes in its own error path), so the parse must
// refuse each of them, and still read every real database in full.
#include <gpod/itdb.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <csignal>

#include <cstring>
#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "musicdb/itdb_check.h"
#include "images.h"
#include "tarn/tarn_device.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
using tarn::testing::ReadAll;
using tarn::testing::WriteAll;

uint32_t Le32(const std::string &s, size_t at) {
  uint32_t v = 0;
  std::memcpy(&v, s.data() + at, 4);
  return v;
}
void PutLe32(std::string &s, size_t at, uint32_t v) { std::memcpy(s.data() + at, &v, 4); }

// The plain database inside a device's compressed one.
std::string Inflate(const std::string &compressed) {
  const uint32_t header = Le32(compressed, 4);
  std::string out = compressed.substr(0, header);
  out[0xa8] = out[0xa9] = 0;
  z_stream zs{};
  EXPECT_EQ(inflateInit(&zs), Z_OK);
  zs.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(compressed.data() + header));
  zs.avail_in = static_cast<uInt>(compressed.size() - header);
  char block[1 << 16];
  int rc = Z_OK;
  while (rc == Z_OK) {
    zs.next_out = reinterpret_cast<Bytef *>(block);
    zs.avail_out = sizeof block;
    rc = inflate(&zs, Z_NO_FLUSH);
    out.append(block, sizeof block - zs.avail_out);
  }
  inflateEnd(&zs);
  EXPECT_EQ(rc, Z_STREAM_END);
  return out;
}

// The device's compressed form of a plain database, with a valid checksum
// whatever the plain database holds.
std::string Deflate(const std::string &plain) {
  const uint32_t header = Le32(plain, 4);
  uLongf packed = compressBound(plain.size() - header);
  std::string out(header + packed, '\0');
  std::memcpy(out.data(), plain.data(), header);
  EXPECT_EQ(compress2(reinterpret_cast<Bytef *>(out.data() + header), &packed,
                      reinterpret_cast<const Bytef *>(plain.data() + header), plain.size() - header, 1),
            Z_OK);
  out.resize(header + packed);
  PutLe32(out, 8, static_cast<uint32_t>(out.size()));
  out[0xa8] = 1;
  out[0xa9] = 0;
  return out;
}

// The walk's own verdict, without libgpod behind it: a refusal that is
// dropped must show in the plain build too, not only when AddressSanitizer
// sees libgpod read past the buffer.
bool Sound(const std::string &plain) {
  return tarn::PlainDatabaseIsSound(reinterpret_cast<const unsigned char *>(plain.data()), plain.size());
}

class CraftedMusicDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("tarn-crafted-" + std::to_string(::getpid()));
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // The compressed form of `plain`, parsed as the catalogue parses it.
  tarn::ItdbPtr Parse(const std::string &plain) {
    const fs::path path = dir_ / "iTunesCDB";
    WriteAll(path, Deflate(plain));
    GError *error = nullptr;
    tarn::ItdbPtr db(m_itdb_parse_file(path.c_str(), &error));
    if (error) g_error_free(error);
    return db;
  }

  fs::path dir_;
};

// The offset of the n-th record tagged `tag` after `from`.
size_t Find(const std::string &db, const char *tag, size_t from = 0, int n = 0) {
  size_t at = db.find(tag, from);
  while (n-- > 0 && at != std::string::npos) at = db.find(tag, at + 4);
  EXPECT_NE(at, std::string::npos) << tag;
  return at;
}

// The offset of the first section of `type`.
size_t Section(const std::string &db, uint32_t type) {
  for (size_t at = db.find("mhsd"); at != std::string::npos; at = db.find("mhsd", at + 4))
    if (Le32(db, at + 12) == type) return at;
  ADD_FAILURE() << "no section of type " << type;
  return 0;
}

TEST_F(CraftedMusicDatabaseTest, EveryRealDatabasePassesAndParsesWhole) {
  for (const char *name : {"iphone-a.itunescdb", "iphone-b.itunescdb", "ipod-c.itunescdb", "iphone-d-empty.itunescdb",
                           "iphone-e.itunescdb", "iphone-f.itunescdb"}) {
    SCOPED_TRACE(name);
    const std::string plain = Inflate(ReadAll(tarn::testing::realdata(name)));
    EXPECT_TRUE(tarn::PlainDatabaseIsSound(reinterpret_cast<const unsigned char *>(plain.data()), plain.size()));
    tarn::ItdbPtr db = Parse(plain);
    ASSERT_TRUE(db);
    // Every track record libgpod found is a track of the result.
    const size_t tracks = Le32(plain, Find(plain, "mhlt") + 8);
    EXPECT_EQ(itdb_tracks_number(db.get()), tracks);
  }
}

TEST_F(CraftedMusicDatabaseTest, DamageThatLibgpodTakesOnTrustGivesNull) {
  const std::string real = Inflate(ReadAll(tarn::testing::realdata("iphone-a.itunescdb")));
  ASSERT_TRUE(Parse(real));
  struct Case {
    const char *what;
    std::function<void(std::string &)> damage;
  } cases[] = {
      // libgpod reports this error twice and still returns a database
      // without its playlists.
      {"a playlist title reaching past the end, then the smart playlists",
       [](std::string &db) { PutLe32(db, Find(db, "mhod", Find(db, "mhyp", Section(db, 3))) + 8, 0x7fffffff); }},
      {"a playlist item of length 0", [](std::string &db) { PutLe32(db, Find(db, "mhip") + 8, 0); }},
      {"a playlist of length 0", [](std::string &db) { PutLe32(db, Find(db, "mhyp") + 8, 0); }},
      {"a playlist header shorter than its fields", [](std::string &db) { PutLe32(db, Find(db, "mhyp") + 4, 40); }},
      {"a playlist claiming an item more", [](std::string &db) {
         const size_t list = Find(db, "mhyp", Section(db, 3));
         PutLe32(db, list + 16, Le32(db, list + 16) + 1);
       }},
      {"a string longer than its record",
       [](std::string &db) { PutLe32(db, Find(db, "mhod", Find(db, "mhit")) + 28, 4096); }},
      {"a record header of length 0", [](std::string &db) { PutLe32(db, Find(db, "mhod", Find(db, "mhit")) + 4, 0); }},
      {"a track claiming more children than follow it", [](std::string &db) {
         const size_t track = Find(db, "mhit");
         PutLe32(db, track + 12, Le32(db, track + 12) + 1000);
       }},
      {"a track with its title twice", [](std::string &db) {
         const size_t first = Find(db, "mhod", Find(db, "mhit"));
         PutLe32(db, first + Le32(db, first + 8) + 12, Le32(db, first + 12));
       }},
      {"more sections than the file holds", [](std::string &db) { PutLe32(db, 20, Le32(db, 20) + 1); }},
      {"a section of length 0", [](std::string &db) { PutLe32(db, Section(db, 1) + 8, 0); }},
      {"a section header shorter than its fields", [](std::string &db) { PutLe32(db, Section(db, 1) + 4, 12); }},
      {"no track list", [](std::string &db) { std::memcpy(db.data() + Find(db, "mhlt"), "xxxx", 4); }},
      {"a track header shorter than its fields", [](std::string &db) { PutLe32(db, Find(db, "mhit") + 4, 0x90); }},
      {"smart rules without their tag", [](std::string &db) { db[Find(db, "SLst")] = 'X'; }},
      // The track section moved to the end of the file, so that the track
      // its list counts in excess would begin at the end of the file.
      {"a track list counting a track past the end of the file", [](std::string &db) {
         const size_t section = Section(db, 1), length = Le32(db, section + 8);
         const std::string tracks = db.substr(section, length);
         db.erase(section, length);
         db += tracks;
         const size_t list = Find(db, "mhlt", db.size() - length);
         PutLe32(db, list + 8, Le32(db, list + 8) + 1);
       }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    std::string db = real;
    c.damage(db);
    ASSERT_NE(db, real);
    EXPECT_FALSE(Sound(db));
    EXPECT_FALSE(Parse(db));
  }
}

// Oddities libgpod reads without harm pass, and the parse reads them as
// libgpod does: a refusal there would hide a whole device's music.
TEST_F(CraftedMusicDatabaseTest, OdditiesLibgpodReadsCleanlyPass) {
  const std::string real = Inflate(ReadAll(tarn::testing::realdata("iphone-a.itunescdb")));
  const uint32_t tracks = Le32(real, Find(real, "mhlt") + 8);
  struct Case {
    const char *what;
    std::function<void(std::string &)> change;
    uint32_t tracks;
  } cases[] = {
      // libgpod reads as many tracks as the list counts and no more.
      {"a damaged track behind the last one the list counts", [](std::string &db) {
         const size_t list = Find(db, "mhlt");
         const uint32_t count = Le32(db, list + 8);
         PutLe32(db, list + 8, count - 1);
         PutLe32(db, Find(db, "mhit", list, static_cast<int>(count) - 1) + 4, 0x90);
       }, tracks - 1},
      {"an empty playlist whose header holds just its fields", [](std::string &db) {
         size_t playlist = Find(db, "mhyp", Section(db, 3));
         while (Le32(db, playlist + 16) != 0) playlist = Find(db, "mhyp", playlist + 4);
         PutLe32(db, playlist + 4, 48);
       }, tracks},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    std::string db = real;
    c.change(db);
    EXPECT_TRUE(Sound(db));
    tarn::ItdbPtr parsed = Parse(db);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(itdb_tracks_number(parsed.get()), c.tracks);
  }
}

// The plain copy that libgpod parses cannot be written in full (here: the
// process may write no file larger than 4 KiB): the parse gives up at once
// rather than retry the write that failed.
TEST_F(CraftedMusicDatabaseTest, APlainCopyThatCannotBeWrittenGivesNull) {
  const fs::path path = dir_ / "iTunesCDB";
  WriteAll(path, ReadAll(tarn::testing::realdata("iphone-a.itunescdb")));
  const auto parse = [&path] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    alarm(10);
    GError *error = nullptr;
    Itdb_iTunesDB *db = m_itdb_parse_file(path.c_str(), &error);
    std::_Exit(db == nullptr && error != nullptr ? 0 : 1);
  };
  EXPECT_EXIT(parse(), ::testing::ExitedWithCode(0), "");
}

// What the fuzzer found, kept as it found it: each file gave a crash (or a
// leak) in libgpod before the parse learnt to refuse it.
TEST_F(CraftedMusicDatabaseTest, FuzzFindingsGiveNull) {
  const fs::path found = fs::path(TARN_SOURCE_DIR) / "fuzz/regressions/music_db_plain";
  int files = 0;
  for (const auto &entry : fs::directory_iterator(found)) {
    SCOPED_TRACE(entry.path().filename().string());
    EXPECT_FALSE(Parse(ReadAll(entry.path())));
    ++files;
  }
  EXPECT_GT(files, 0);
}

// Chapter titles survive the parse, the way libgpod's writer put them.
TEST_F(CraftedMusicDatabaseTest, ChapterDataIsKept) {
  tarn::ItdbPtr source(itdb_new());
  Itdb_Playlist *mpl = itdb_playlist_new("iPod", FALSE);
  itdb_playlist_set_mpl(mpl);
  itdb_playlist_add(source.get(), mpl, -1);
  for (const char *title : {"Book", "Song"}) {
    Itdb_Track *track = itdb_track_new();
    track->title = g_strdup(title);
    itdb_track_add(source.get(), track, -1);
    itdb_playlist_add_track(mpl, track, -1);
    if (std::strcmp(title, "Book") == 0) {
      itdb_chapterdata_add_chapter(track->chapterdata, 0, const_cast<gchar *>("Prologue"));
      itdb_chapterdata_add_chapter(track->chapterdata, 90000, const_cast<gchar *>("Chapitre été"));
    }
  }
  const fs::path plain = dir_ / "plain";
  GError *error = nullptr;
  ASSERT_TRUE(itdb_write_file(source.get(), plain.c_str(), &error)) << (error ? error->message : "");

  // The walk alone (nowhere to put the chapters) reads them just as well.
  EXPECT_TRUE(Sound(ReadAll(plain)));
  tarn::ItdbPtr db = Parse(ReadAll(plain));
  ASSERT_TRUE(db);
  ASSERT_EQ(itdb_tracks_number(db.get()), 2u);
  auto *book = static_cast<Itdb_Track *>(db->tracks->data);
  auto *song = static_cast<Itdb_Track *>(db->tracks->next->data);
  EXPECT_STREQ(book->title, "Book");
  ASSERT_NE(book->chapterdata, nullptr);
  ASSERT_EQ(g_list_length(book->chapterdata->chapters), 2u);
  auto *first = static_cast<Itdb_Chapter *>(book->chapterdata->chapters->data);
  auto *second = static_cast<Itdb_Chapter *>(book->chapterdata->chapters->next->data);
  EXPECT_STREQ(first->chaptertitle, "Prologue");
  EXPECT_EQ(first->startpos, 1u);  // a first chapter starts at 1
  EXPECT_STREQ(second->chaptertitle, "Chapitre été");
  EXPECT_EQ(second->startpos, 90000u);
  EXPECT_STREQ(song->title, "Song");
  ASSERT_NE(song->chapterdata, nullptr);
  EXPECT_EQ(song->chapterdata->chapters, nullptr);
}

}  // namespace
