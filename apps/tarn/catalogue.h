// The catalogue kinds that list and export accept, and how each is fetched.
#pragma once

#include <string>

#include "owners.h"
#include "session.h"

namespace tarn::cli {

enum class Kind {
  kMusic, kMovies, kPodcasts, kTvShows, kAudiobooks, kRingtones,
  kPlaylists, kRecordings, kBooks, kCamera, kPictures,
};

struct KindSpec {
  const char *name;  // as typed on the command line
  Kind kind;
  const char *noun;  // "tracks", "books", ... for messages
};

// Fails with kExitUsage for an unknown name.
const KindSpec &FindKind(const std::string &name);
bool IsTrackKind(Kind kind);

// The library's list for the kind; null when the device has none.
PlistPtr FetchList(Session &session, Kind kind);

// The entries of a list of that kind that a person would count: books over
// both catalogues, playlists without the master playlist. 0 for null.
size_t CountItems(plist_t list, Kind kind);

}  // namespace tarn::cli
