// Import of new photos: the camera roll's pictures and videos that no
// earlier import brought over, copied into a folder of the person's choice
// under YEAR/MONTH of when each was taken, with the export's record
// (.tarn-export.json) and its whole-file writes. What the record names is
// never copied again, even when the person has since moved the file away;
// a file the record does not name is never replaced.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/common/owners.h"
#include "apps/common/session.h"
#include "apps/common/transfer.h"

namespace tarn::app {

struct ImportRequest {
  std::string host_dir;
  // HEIC pictures written as JPEG for programs that do not read HEIC; one
  // that cannot be decoded is kept as it is, with a note.
  bool heic_to_jpeg = false;
};

struct ImportReport {
  bool nothing_listed = false;  // the device has no camera roll
  size_t listed = 0;            // pictures and videos in the roll
  size_t copied = 0;            // files written now (a Live Photo's video counts apart)
  size_t already = 0;           // imported before
  size_t converted = 0;         // HEIC written as JPEG
  size_t in_cloud = 0;          // kept only in iCloud: not on the phone to copy
  uint64_t bytes = 0;
  std::vector<Failure> failed;
  std::vector<std::string> notes;
  std::vector<std::string> files;  // below the folder: the files written now
  bool cancelled = false;
};

// "2023/07" for a catalogue item: from "taken" where the phone's photo
// library gives it, else from the list's local "time"; "Undated" otherwise.
std::string DateFolder(plist_t item);

// Runs an import over an initialised session (Session::InitCatalogue()).
// Fails with kHostPath when the folder cannot be written.
ImportReport ImportPhotos(Session &session, const ImportRequest &request, const TransferHooks &hooks);

}  // namespace tarn::app
