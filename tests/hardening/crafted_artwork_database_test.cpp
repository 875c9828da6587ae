// Artwork databases damaged where libgpod trusts them: the lengths and
// counts of every record. libgpod's artwork parser asserts on some such
// damage (ending the process) and reads past its buffer on other, so each
// damaged file must either pass the walk and parse whole, or be left out of
// the parse; the real file must still give every cover.
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <gpod/itdb.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "images.h"
#include "musicdb/itdb_check.h"
#include "musicdb/music_database.h"
#include "test_util.h"

namespace {

namespace fs = std::filesystem;
using tarn::testing::ReadAll;
using tarn::testing::WriteAll;

class CraftedArtworkDatabase : public ::testing::Test {
 protected:
  void SetUp() override {
    tarn::testing::build_image(tarn::testing::load_description("ipod"), dir.path() + "/image");
    const std::string media = dir.path() + "/image/media/iTunes_Control";
    artwork.folder = dir.path() + "/Artwork";
    fs::copy(media + "/Artwork", artwork.folder);
    artwork.sysinfo_extended = media + "/Device/SysInfoExtended";
    database = media + "/iTunes/iTunesCDB";
    original = ReadAll(artwork.folder + "/ArtworkDB");
  }
  // The covers with the artwork as it now is: how many tracks give one
  // (each read to its pixels), or -1 when there is no database.
  int Covers() {
    const auto covers = tarn::TrackCovers::Read(database.c_str(), artwork);
    if (!covers) return -1;
    const tarn::ItdbPtr db(tarn::m_itdb_parse_file(database.c_str(), nullptr));
    int found = 0;
    for (GList *t = db->tracks; t != nullptr; t = t->next) {
      tarn::GObjectPtr<GdkPixbuf> pixbuf;
      if (covers->Find(static_cast<Itdb_Track *>(t->data)->id, &pixbuf) == tarn::TrackCovers::Cover::kPicture) {
        EXPECT_TRUE(pixbuf);
        ++found;
      }
    }
    return found;
  }
  void Write(const std::string &bytes) { WriteAll(artwork.folder + "/ArtworkDB", bytes); }

  tarn::testing::TempDir dir;
  tarn::DeviceArtwork artwork;
  std::string database, original;
};

TEST_F(CraftedArtworkDatabase, TheRealFilePassesAndGivesEveryCover) {
  EXPECT_TRUE(tarn::ArtworkDatabaseIsSound(reinterpret_cast<const unsigned char *>(original.data()),
                                           original.size()));
  EXPECT_GT(Covers(), 0);
}

TEST_F(CraftedArtworkDatabase, DamagedLengthsAndCountsNeverReachLibgpodsAssertions) {
  const int whole = Covers();
  ASSERT_GT(whole, 0);
  // Every record starts with "mh" at a 4-byte boundary; its header length,
  // total length (or count) and the count after it are what libgpod trusts.
  int records = 0, refused = 0;
  for (size_t at = 0; at + 16 <= original.size(); at += 4) {
    if (original.compare(at, 2, "mh") != 0) continue;
    ++records;
    for (size_t field : {4u, 8u, 12u}) {
      for (uint32_t value : {0u, 1u, 0xffffffffu, 0x7fffffffu, static_cast<uint32_t>(original.size() + 1)}) {
        std::string damaged = original;
        std::memcpy(damaged.data() + at + field, &value, 4);
        Write(damaged);
        SCOPED_TRACE(std::to_string(at + field) + " = " + std::to_string(value));
        const bool sound =
            tarn::ArtworkDatabaseIsSound(reinterpret_cast<const unsigned char *>(damaged.data()), damaged.size());
        const int covers = Covers();
        ASSERT_GE(covers, 0) << "the music database itself is untouched";
        if (!sound) {
          EXPECT_EQ(covers, 0);
          ++refused;
        }
      }
    }
  }
  EXPECT_GT(records, 10);
  EXPECT_GT(refused, 0);
  // Cut short anywhere: refused, never read past the end.
  for (size_t length = 0; length < original.size(); length += 29) {
    Write(original.substr(0, length));
    EXPECT_FALSE(tarn::ArtworkDatabaseIsSound(reinterpret_cast<const unsigned char *>(original.data()), length));
    EXPECT_EQ(Covers(), 0) << length;
  }
  Write(original);
  EXPECT_EQ(Covers(), whole);
}

}  // namespace
