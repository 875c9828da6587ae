// Export: a catalogue's files copied out of the device under names a person
// recognises, and playlists as .m3u8 files that point at them.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "apps/common/catalogue.h"
#include "apps/common/session.h"
#include "apps/common/transfer.h"

namespace tarn::app {

struct ExportRequest {
  Kind kind = Kind::kMusic;
  std::string host_dir;
  // Only items whose title, artist, album, name or file name contains this,
  // ignoring case (for playlists: the playlist's name); empty for all.
  std::string match;
  // When not empty, only the items with these device paths (a selection of
  // catalogue rows); for playlists, only the playlists with these names.
  std::set<std::string> only;
};

struct ExportReport {
  bool nothing_listed = false;  // the device has no list of this kind
  size_t wanted = 0, copied = 0, skipped = 0, playlists = 0;
  size_t in_cloud = 0;  // asked for, but kept only in iCloud: no file on the phone to copy
  uint64_t bytes = 0;
  std::set<std::string> missing;      // listed in the catalogue, absent on the device
  std::vector<Failure> failed;        // "<device path>: <reason>", per file that could not be copied
  std::vector<std::string> notes;     // what a person should hear about, in order
  // Below the target directory: each file that holds a requested item (or
  // playlist) once the export is done, copied now or already there.
  std::vector<std::string> files;
  bool cancelled = false;
};

// Runs an export over an initialised session (Session::InitCatalogue()).
// Fails with kHostPath when the target cannot be written.
ExportReport Export(Session &session, const ExportRequest &request, const TransferHooks &hooks);

}  // namespace tarn::app
