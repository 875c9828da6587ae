#include "apps/common/catalogue.h"

#include <tarn/tarn_device.h>

#include "apps/common/failure.h"
#include "apps/common/naming.h"
#include "apps/common/plist_view.h"
#include "apps/common/text.h"

namespace tarn::app {
namespace {

// Times that the library gives as text ("2022/06/01 10:15:00") in the one
// form every table uses, LocalTime's "2022-06-01 10:15"; other text as it is.
std::string TableTime(const std::string &text) {
  static const char kShape[] = "dddd-dd-dd dd:dd";
  if (text.size() < sizeof kShape - 1) return text;
  std::string out = text.substr(0, sizeof kShape - 1);
  for (size_t i = 0; i < out.size(); ++i) {
    const bool digit = out[i] >= '0' && out[i] <= '9';
    if (kShape[i] == 'd' ? !digit : (kShape[i] == '-' ? out[i] != '/' && out[i] != '-' : out[i] != kShape[i]))
      return text;
    if (kShape[i] == '-') out[i] = '-';
  }
  return out;
}

// A file's size, or where it is when the phone has no copy of it: a
// current phone's library lists tracks and pictures kept only in iCloud.
std::string SizeCell(plist_t item) { return DictBool(item, "cloud") ? "iCloud" : HumanSize(DictUint(item, "size")); }

Rows TrackRows(plist_t list, const char *noun) {
  Rows rows{{{"#", Align::kRight}, {"Title", Align::kLeft, 40}, {"Artist", Align::kLeft, 28},
             {"Album", Align::kLeft, 28}, {"Genre", Align::kLeft, 16}, {"Time", Align::kRight},
             {"Size", Align::kRight}}, {}, ""};
  uint64_t millis = 0;
  size_t n = 0;
  for (plist_t item : ArrayItems(DictArray(list, "item"))) {
    millis += DictUint(item, "time");
    rows.cells.push_back({std::to_string(++n), DictString(item, "title"), Known(DictString(item, "artist")),
                          Known(DictString(item, "album")), Known(DictString(item, "genre")),
                          HumanDuration(DictUint(item, "time")), SizeCell(item)});
  }
  rows.summary = std::to_string(DictUint(list, "number")) + " " + noun + ", " + HumanSize(DictUint(list, "total")) +
                 ", " + HumanDuration(millis);
  return rows;
}

Rows PlaylistRows(plist_t list) {
  Rows rows{{{"Playlist", Align::kLeft, 40}, {"Tracks", Align::kRight}, {"Time", Align::kRight}}, {}, ""};
  for (plist_t playlist : ArrayItems(list)) {
    uint64_t millis = 0;
    for (plist_t item : ArrayItems(DictArray(playlist, "item"))) millis += DictUint(item, "time");
    rows.cells.push_back(
        {DictString(playlist, "name"), std::to_string(DictUint(playlist, "number")), HumanDuration(millis)});
  }
  rows.summary = std::to_string(ArrayItems(list).size()) + " playlists";
  return rows;
}

Rows RecordingRows(plist_t list) {
  Rows rows{{{"#", Align::kRight}, {"Label", Align::kLeft, 36}, {"Recorded", Align::kLeft, 24},
             {"Time", Align::kRight}, {"Size", Align::kRight}, {"Path"}}, {}, ""};
  uint64_t total = 0;
  for (plist_t item : ArrayItems(DictArray(list, "item"))) {
    total += DictUint(item, "size");
    rows.cells.push_back({std::to_string(DictUint(item, "id")), DictString(item, "name"),
                          TableTime(RecordingTime(DictString(item, "title"), ":")), HumanDuration(DictUint(item, "time")),
                          HumanSize(DictUint(item, "size")), DictString(item, "path")});
  }
  rows.summary = std::to_string(DictUint(list, "number")) + " recordings, " + HumanSize(total);
  return rows;
}

Rows BookRows(plist_t list) {
  Rows rows{{{"Catalogue"}, {"Title", Align::kLeft, 40}, {"Author", Align::kLeft, 28},
             {"Genre", Align::kLeft, 20}, {"Path"}}, {}, ""};
  for (plist_t catalogue : ArrayItems(list)) {
    const std::string name = DictString(catalogue, "catalog") == "PurchaseBook" ? "purchased" : "user";
    for (plist_t item : ArrayItems(DictArray(catalogue, "item")))
      rows.cells.push_back({name, DictString(item, "title"), Known(DictString(item, "artist")),
                            Known(DictString(item, "genre")), DictString(item, "path")});
  }
  rows.summary = std::to_string(rows.cells.size()) + " books";
  return rows;
}

Rows FileRows(plist_t list, const char *noun) {
  Rows rows{{{"Path"}, {"Size", Align::kRight}, {"Modified"}}, {}, ""};
  for (plist_t item : ArrayItems(DictArray(list, "item")))
    rows.cells.push_back({DictString(item, "path"), SizeCell(item), TableTime(DictString(item, "time"))});
  rows.summary = std::to_string(DictUint(list, "number")) + " " + noun + ", " + HumanSize(DictUint(list, "total"));
  return rows;
}

}  // namespace

const std::vector<KindInfo> &Kinds() {
  static const std::vector<KindInfo> kinds = {
      {"music", Kind::kMusic, "tracks"},          {"movies", Kind::kMovies, "movies"},
      {"podcasts", Kind::kPodcasts, "podcasts"},  {"tvshows", Kind::kTvShows, "TV shows"},
      {"audiobooks", Kind::kAudiobooks, "audiobooks"}, {"ringtones", Kind::kRingtones, "ringtones"},
      {"playlists", Kind::kPlaylists, "playlists"}, {"recordings", Kind::kRecordings, "recordings"},
      {"books", Kind::kBooks, "books"},           {"camera", Kind::kCamera, "camera-roll files"},
      {"pictures", Kind::kPictures, "pictures"},
  };
  return kinds;
}

const KindInfo &FindKind(const std::string &name) {
  for (const auto &info : Kinds())
    if (name == info.name) return info;
  Fail(kUsage, "unknown kind '" + name + "' (see tarn --help)");
}

const KindInfo &InfoOf(Kind kind) {
  for (const auto &info : Kinds())
    if (info.kind == kind) return info;
  return Kinds().front();
}

bool IsTrackKind(Kind kind) {
  return kind == Kind::kMusic || kind == Kind::kMovies || kind == Kind::kPodcasts || kind == Kind::kTvShows ||
         kind == Kind::kAudiobooks || kind == Kind::kRingtones;
}

PlistPtr FetchList(PodDevice *d, Kind kind) {
  switch (kind) {
    case Kind::kMusic: return PlistPtr(GetMusicList(d, 0, 0));
    case Kind::kMovies: return PlistPtr(GetMovieList(d, 0, 0));
    case Kind::kPodcasts: return PlistPtr(GetPodcastList(d, 0, 0));
    case Kind::kTvShows: return PlistPtr(GetTvshowList(d, 0, 0));
    case Kind::kAudiobooks: return PlistPtr(GetAudioBookList(d, 0, 0));
    case Kind::kRingtones: return PlistPtr(GetRingtonesList(d, 0, 0));
    case Kind::kPlaylists: return PlistPtr(GetPlayList(d, 0, 0));
    case Kind::kRecordings: return PlistPtr(GetRecordingList(d, 0, 0));
    case Kind::kBooks: return PlistPtr(GetBookList(d, 0, 0));
    case Kind::kCamera: return PlistPtr(GetCameraPVList(d, 0, 0));
    case Kind::kPictures: return PlistPtr(GetUserPictureListFromDevice(d));
  }
  return nullptr;
}

size_t CountItems(plist_t list, Kind kind) {
  size_t n = 0;
  if (kind == Kind::kBooks) {
    for (plist_t catalogue : ArrayItems(list)) n += ArrayItems(DictArray(catalogue, "item")).size();
  } else if (kind == Kind::kPlaylists) {
    // The master playlist is the library itself, there on every device.
    n = ArrayItems(list).size() > 1 ? ArrayItems(list).size() - 1 : 0;
  } else {
    n = ArrayItems(DictArray(list, "item")).size();
  }
  return n;
}

Rows RowsOf(plist_t list, Kind kind) {
  switch (kind) {
    case Kind::kPlaylists: return PlaylistRows(list);
    case Kind::kRecordings: return RecordingRows(list);
    case Kind::kBooks: return BookRows(list);
    case Kind::kCamera:
    case Kind::kPictures: return FileRows(list, InfoOf(kind).noun);
    default: return TrackRows(list, InfoOf(kind).noun);
  }
}

}  // namespace tarn::app
