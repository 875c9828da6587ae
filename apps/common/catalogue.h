// The catalogue kinds, how each is fetched from the library, and each list
// as rows of readable fields: the one table that every program shows.
#pragma once

#include <string>
#include <vector>

#include "apps/common/owners.h"

struct PodDevice;

namespace tarn::app {

enum class Kind {
  kMusic, kMovies, kPodcasts, kTvShows, kAudiobooks, kRingtones,
  kPlaylists, kRecordings, kBooks, kCamera, kPictures,
};

struct KindInfo {
  const char *name;  // as typed on tarn's command line
  Kind kind;
  const char *noun;  // "tracks", "books", ... for messages
};

// Every kind, in the order they are offered.
const std::vector<KindInfo> &Kinds();
// Fails with kUsage for an unknown name.
const KindInfo &FindKind(const std::string &name);
const KindInfo &InfoOf(Kind kind);
bool IsTrackKind(Kind kind);

// The library's list for the kind; null when the device has none.
PlistPtr FetchList(PodDevice *device, Kind kind);

// The entries of a list of that kind that a person would count: books over
// both catalogues, playlists without the master playlist. 0 for null.
size_t CountItems(plist_t list, Kind kind);

enum class Align { kLeft, kRight };
struct Column {
  std::string header;
  Align align = Align::kLeft;
  size_t max_width = 0;  // 0: no limit; a longer cell may be cut with "…"
};

// A list laid out for a person: the columns, one row of readable cells per
// item (in the list's order) and a closing line with the counts and totals.
struct Rows {
  std::vector<Column> columns;
  std::vector<std::vector<std::string>> cells;
  std::string summary;  // "5 tracks, 22.0 KiB, 1:07:24"
};
Rows RowsOf(plist_t list, Kind kind);

}  // namespace tarn::app
