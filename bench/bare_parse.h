// The floor of the music-database rows: libgpod's own parse of a device
// layout's database, with nothing of the library around it.
#pragma once

#include <gpod/itdb.h>

#include <string>

#include "bench_util.h"

namespace tarn::bench {

// Seconds of one itdb_parse of the database below the mount point `media`.
inline double BareParseSeconds(const std::string &media) {
  return Seconds([&] {
    Itdb_iTunesDB *db = itdb_parse(media.c_str(), nullptr);
    if (db) itdb_free(db);
  });
}

}  // namespace tarn::bench
