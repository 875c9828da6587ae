// The catalogue's own calls. Each exported catalogue function of the same
// name is a thin wrapper around one of these; the library calls these, so
// that a catalogue read inside another call (the counts of GetDeviceInfo,
// the purchases inside the music list) adds to that call's reason record
// and never goes through a global symbol.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <gpod/itdb.h>
#include <libimobiledevice/afc.h>
#include <plist/plist.h>

#include "tarn/tarn_device.h"

namespace tarn {

class SqliteSchema;

// The kinds of track list, as the list functions and ReadTrackDbTypeCdb
// number them. Voice memos are a kind only in a phone's music library.
enum TrackKind : uint32_t {
  kMusicKind = 0,
  kMovieKind = 1,
  kPodcastKind = 2,
  kTvShowKind = 3,
  kAudioBookKind = 4,
  kRingtoneKind = 5,
  kVoiceMemoKind = 7,
  kNoKind = 0xFFFFFFFF,
};

// Music, movies and the other track kinds from the copied music database.
int IsMatchTrackType(Itdb_Track *track, uint32_t kind);
plist_t ReadTrackDbTypeCdb(const char *path, uint32_t kind);
plist_t GetMusicList(PodDevice *device);
plist_t GetMovieList(PodDevice *device);
uint32_t GetPurchaseMusicListFromPlist(PodDevice *device, const char *path, plist_t items, uint64_t *total,
                                       PodPlistParser parser);

plist_t ReadPlaylistDbTypeCdb(const char *path);

// The same lists from a phone's music library (MediaLibrary.sqlitedb).
// The kind of a library item, from its media-type bits and its folder.
uint32_t LibraryKindOf(int64_t media_type, const std::string &path);
// The SELECT the library's lists run: every item with its names, whatever
// the schema holds (a field the database lacks reads as NULL, a name table
// it lacks is not joined). Exposed for the benchmark's floor.
std::string LibraryTrackQuery(SqliteSchema &schema);
plist_t ReadTrackDbTypeSQLITE(const char *path, uint32_t kind);
plist_t ReadPlaylistDbTypeSQLITE(const char *path);
// The bytes of each kind's list, in one read of the library: what the
// lists' totals would say, for the storage breakdown.
std::map<uint32_t, uint64_t> ReadLibraryTotalsSQLITE(const char *path);
// The cover the library names for the item `id` (its persistent id), as
// the name relative to the artwork folder that the library holds ("" when
// it names none). False, with the reason recorded, when the library cannot
// be read or holds no such item.
bool ReadLibraryArtwork(const char *path, uint64_t id, std::string *relative);
// The device path of a cover named `relative` in the library, or "" when
// that name would lead out of the artwork folder.
std::string ArtworkDevicePath(const std::string &relative);
// The voice memos a computer synced into the library, as recording items.
plist_t ReadRecordingsFromLibrarySQLITE(const char *path);

plist_t ReadBookFromPLIST(const char *path, const char *catalog, const char *prefix, PodPlistParser parser);
plist_t ReadBookDbTypePLIST(const char *path, const char *name);

char *GetFormatedRecordingTime(const char *source, char *dest);
int IsMatchRecordingPath(const char *path);
plist_t ReadRecordingDbTypeSQLITE(PodDevice *device, const char *path);
plist_t ReadRecordingDbTypeCdb(const char *path);

// Pictures found by walking device folders (the camera roll's fallback and
// the synced pictures).
int GetDirAllPicture(afc_client_t client, plist_t items, const char *folder, uint64_t *total);
plist_t GetPictureListFromDevice(PodDevice *device, const char **folders, int32_t count);
plist_t ReadUserPictureDbTypeCdb();

plist_t ReadCameraDbTypeSQLITE(PodDevice *device, const char *path);
plist_t ReadCameraDbTypeFromDevice(PodDevice *device);
plist_t GetCameraPVList(PodDevice *device);

}  // namespace tarn
