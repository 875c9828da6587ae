// A walk over a plain music database that goes where libgpod's parser goes
// and stops wherever it would stumble.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/raii.h"

namespace tarn {

// The little-endian 32-bit number at `p`, as the database stores its
// lengths and counts.
inline uint32_t Le32(const unsigned char *p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

// The chapter data of one track, read by the walk: libgpod's own reading
// of chapter data loses every chapter title it decodes, so the parse is
// given the database with these records disabled and the walk's reading
// is attached to the parsed tracks afterwards.
struct TrackChapters {
  size_t track;   // index of the track among the database's tracks
  size_t record;  // offset of the chapter-data record in the database
  ChapterdataPtr data;
};

// Whether libgpod can parse `data`, a plain music database (header first,
// nothing compressed), without meeting a record that reaches past the end,
// a length that makes no progress or a count it would loop on. libgpod
// reads the file on trust: its error paths leak what they had built, and
// on some damaged files report the same error twice and crash in glib. So
// the catalogue hands it only databases that pass this walk. The tracks'
// chapter data goes to `chapters` when it is given.
bool PlainDatabaseIsSound(const unsigned char *data, size_t size, std::vector<TrackChapters> *chapters = nullptr);

}  // namespace tarn

namespace tarn {

// Whether libgpod can read `data`, a device's ArtworkDB, without meeting a
// record whose lengths reach past its parent or the file: its artwork
// parser asserts (and so ends the process) on a header longer than what
// is left, reads past the end after a total length that is, and follows a
// list that has no room behind its header into a null context. Only an
// artwork database that passes this walk is shown to libgpod; album lists
// (photo albums, which an ArtworkDB does not hold) make it fail.
bool ArtworkDatabaseIsSound(const unsigned char *data, size_t size);

}  // namespace tarn
