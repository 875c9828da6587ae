// Commands over the catalogue: devices, info and list.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "catalogue.h"
#include "console.h"
#include "naming.h"
#include "render.h"

namespace tarn::cli {
namespace {

const KindSpec kKindSpecs[] = {
    {"music", Kind::kMusic, "tracks"},          {"movies", Kind::kMovies, "movies"},
    {"podcasts", Kind::kPodcasts, "podcasts"},  {"tvshows", Kind::kTvShows, "TV shows"},
    {"audiobooks", Kind::kAudiobooks, "audiobooks"}, {"ringtones", Kind::kRingtones, "ringtones"},
    {"playlists", Kind::kPlaylists, "playlists"}, {"recordings", Kind::kRecordings, "recordings"},
    {"books", Kind::kBooks, "books"},           {"camera", Kind::kCamera, "camera-roll files"},
    {"pictures", Kind::kPictures, "pictures"},
};

// ---------------------------------------------------------------- info

struct Share {
  const char *name;
  uint64_t bytes;
  const char *colour;  // ANSI background colour
  char letter;         // stands in for the colour off a terminal
};

// Cells per share by largest remainder, so the bar is always full width.
std::vector<int> Cells(const std::vector<Share> &shares, uint64_t capacity, int width) {
  std::vector<int> cells(shares.size(), 0);
  std::vector<std::pair<double, size_t>> remainders;
  int used = 0;
  for (size_t i = 0; i < shares.size(); ++i) {
    const double exact = capacity == 0 ? 0.0 : static_cast<double>(shares[i].bytes) / static_cast<double>(capacity) * width;
    cells[i] = static_cast<int>(exact);
    used += cells[i];
    remainders.emplace_back(exact - cells[i], i);
  }
  std::sort(remainders.begin(), remainders.end(), [](auto &a, auto &b) { return a.first > b.first; });
  for (size_t k = 0; used < width && k < remainders.size(); ++k, ++used) ++cells[remainders[k].second];
  return cells;
}

void PrintStorage(std::FILE *out, plist_t info) {
  const bool has_capacity = plist_dict_get_item(info, "Catacity") != nullptr;
  const uint64_t capacity = DictUint(info, "Catacity");
  const uint64_t free_bytes = std::min(DictUint(info, "Available"), capacity);
  const uint64_t audio = DictUint(info, "Audio"), video = DictUint(info, "Video"), photos = DictUint(info, "Photos");
  uint64_t others = DictUint(info, "Others");
  // The library subtracts without a floor: media totals larger than the
  // used space wrap "Others" round to nearly 2^64. Nothing is the truth.
  if (!has_capacity || others > capacity) others = 0;
  std::vector<Share> shares = {{"Audio", audio, "44", 'A'},   {"Video", video, "45", 'V'},
                               {"Photos", photos, "43", 'P'}, {"Others", others, "46", 'O'},
                               {"Free", free_bytes, "47", '.'}};
  if (!has_capacity) shares.pop_back();
  if (has_capacity) {
    std::fprintf(out, "Storage         %s, %s free\n", HumanSize(capacity).c_str(), HumanSize(free_bytes).c_str());
  } else {
    std::fprintf(out, "Storage         (capacity not reported)\n");
  }
  const bool colour = OutIsTerminal();
  if (has_capacity && capacity > 0) {
    const std::vector<int> cells = Cells(shares, capacity, 50);
    std::string bar;
    for (size_t i = 0; i < shares.size(); ++i) {
      if (cells[i] == 0) continue;
      if (colour) bar += "\033[" + std::string(shares[i].colour) + "m" + std::string(cells[i], ' ') + "\033[0m";
      else bar += std::string(static_cast<size_t>(cells[i]), shares[i].letter);
    }
    std::fprintf(out, "  [%s]\n", bar.c_str());
  }
  for (const auto &share : shares) {
    const std::string swatch =
        colour ? "\033[" + std::string(share.colour) + "m  \033[0m" : std::string(1, share.letter);
    std::string percent;
    if (has_capacity && capacity > 0) {
      char text[16];
      std::snprintf(text, sizeof text, "%5.1f%%", 100.0 * static_cast<double>(share.bytes) / static_cast<double>(capacity));
      percent = text;
    }
    std::fprintf(out, "  %s %-7s %11s  %s\n", swatch.c_str(), share.name, HumanSize(share.bytes).c_str(),
                 percent.c_str());
  }
}

// ---------------------------------------------------------------- list

void Render(std::FILE *out, const Args &args, plist_t list) {
  if (args.has("--xml")) std::fputs(PlistToXml(list).c_str(), out);
  else std::fprintf(out, "%s\n", PlistToJson(list).dump(2).c_str());
}

void TrackTable(std::FILE *out, plist_t list, const char *noun) {
  Table table({{"#", Table::kRight}, {"Title", Table::kLeft, 40}, {"Artist", Table::kLeft, 28},
               {"Album", Table::kLeft, 28}, {"Genre", Table::kLeft, 16}, {"Time", Table::kRight},
               {"Size", Table::kRight}});
  uint64_t millis = 0;
  size_t n = 0;
  for (plist_t item : ArrayItems(DictArray(list, "item"))) {
    millis += DictUint(item, "time");
    table.AddRow({std::to_string(++n), DictString(item, "title"), Known(DictString(item, "artist")),
                  Known(DictString(item, "album")), Known(DictString(item, "genre")), HumanDuration(DictUint(item, "time")),
                  HumanSize(DictUint(item, "size"))});
  }
  table.Print(out);
  std::fprintf(out, "%llu %s, %s, %s\n", static_cast<unsigned long long>(DictUint(list, "number")), noun,
               HumanSize(DictUint(list, "total")).c_str(), HumanDuration(millis).c_str());
}

void PlaylistTable(std::FILE *out, plist_t list) {
  Table table({{"Playlist", Table::kLeft, 40}, {"Tracks", Table::kRight}, {"Time", Table::kRight}});
  for (plist_t playlist : ArrayItems(list)) {
    uint64_t millis = 0;
    for (plist_t item : ArrayItems(DictArray(playlist, "item"))) millis += DictUint(item, "time");
    table.AddRow({DictString(playlist, "name"), std::to_string(DictUint(playlist, "number")), HumanDuration(millis)});
  }
  table.Print(out);
  std::fprintf(out, "%u playlists\n", plist_array_get_size(list));
}

void RecordingTable(std::FILE *out, plist_t list) {
  Table table({{"#", Table::kRight}, {"Label", Table::kLeft, 36}, {"Recorded", Table::kLeft, 24},
               {"Time", Table::kRight}, {"Size", Table::kRight}, {"Path"}});
  uint64_t total = 0;
  for (plist_t item : ArrayItems(DictArray(list, "item"))) {
    total += DictUint(item, "size");
    table.AddRow({std::to_string(DictUint(item, "id")), DictString(item, "name"),
                  RecordingTime(DictString(item, "title"), ":"), HumanDuration(DictUint(item, "time")),
                  HumanSize(DictUint(item, "size")), DictString(item, "path")});
  }
  table.Print(out);
  std::fprintf(out, "%llu recordings, %s\n", static_cast<unsigned long long>(DictUint(list, "number")),
               HumanSize(total).c_str());
}

void BookTable(std::FILE *out, plist_t list) {
  Table table({{"Catalogue"}, {"Title", Table::kLeft, 40}, {"Author", Table::kLeft, 28},
               {"Genre", Table::kLeft, 20}, {"Path"}});
  size_t n = 0;
  for (plist_t catalogue : ArrayItems(list)) {
    const std::string name = DictString(catalogue, "catalog") == "PurchaseBook" ? "purchased" : "user";
    for (plist_t item : ArrayItems(DictArray(catalogue, "item"))) {
      ++n;
      table.AddRow({name, DictString(item, "title"), Known(DictString(item, "artist")), Known(DictString(item, "genre")),
                    DictString(item, "path")});
    }
  }
  table.Print(out);
  std::fprintf(out, "%zu books\n", n);
}

void FileTable(std::FILE *out, plist_t list, const char *noun) {
  Table table({{"Path"}, {"Size", Table::kRight}, {"Modified"}});
  for (plist_t item : ArrayItems(DictArray(list, "item")))
    table.AddRow({DictString(item, "path"), HumanSize(DictUint(item, "size")), DictString(item, "time")});
  table.Print(out);
  std::fprintf(out, "%llu %s, %s\n", static_cast<unsigned long long>(DictUint(list, "number")), noun,
               HumanSize(DictUint(list, "total")).c_str());
}

}  // namespace

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

const KindSpec &FindKind(const std::string &name) {
  for (const auto &spec : kKindSpecs)
    if (name == spec.name) return spec;
  Fail(kExitUsage, "unknown kind '" + name + "' (see tarn --help)");
}

bool IsTrackKind(Kind kind) {
  return kind == Kind::kMusic || kind == Kind::kMovies || kind == Kind::kPodcasts || kind == Kind::kTvShows ||
         kind == Kind::kAudiobooks || kind == Kind::kRingtones;
}

PlistPtr FetchList(Session &session, Kind kind) {
  PodDevice *d = session.device();
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

int CmdDevices(const GlobalOptions &options, const Args &) {
  const std::vector<std::string> ids = AttachedDevices();
  if (ids.empty()) Fail(kExitNoDevice, "no device attached");
  for (const auto &id : ids) {
    std::string name = "(cannot be reached)";
    try {
      Session session(options, id);
      session.Connect();
      session.InitCatalogue();
      PlistPtr info(GetDeviceInfo(session.device()));
      if (info) name = DictString(info.get(), "DeviceName");
    } catch (const Failure &) {
      // A device that refuses us is still listed, with its identifier.
    }
    std::fprintf(Out(), "%s  %s\n", id.c_str(), name.c_str());
  }
  return kExitOk;
}

int CmdInfo(Session &session, const Args &args) {
  PlistPtr info(GetDeviceInfo(session.device()));
  if (!info) Fail(kExitUnreachable, "cannot reach device " + session.udid());
  std::FILE *out = Out();
  if (args.has("--json") || args.has("--xml")) {
    Render(out, args, info.get());
    return kExitOk;
  }
  std::fprintf(out, "%s\n", DictString(info.get(), "DeviceName").c_str());
  std::fprintf(out, "  Identifier    %s\n", DictString(info.get(), "UniqueDeviceID").c_str());
  std::fprintf(out, "  Type          %s\n", DictString(info.get(), "Type").c_str());
  std::fprintf(out, "  Version       %s\n", DictString(info.get(), "Version").c_str());
  std::fprintf(out, "  Serial number %s\n", DictString(info.get(), "SerialNumber").c_str());
  PrintStorage(out, info.get());
  return kExitOk;
}

int CmdList(Session &session, const Args &args) {
  const KindSpec &spec = FindKind(args.positional[0]);
  PlistPtr list = FetchList(session, spec.kind);
  std::FILE *out = Out();
  if (args.has("--json") || args.has("--xml")) {
    Render(out, args, list.get());
    return kExitOk;
  }
  if (CountItems(list.get(), spec.kind) == 0) {
    std::fprintf(out, "No %s on this device.\n", spec.noun);
    return kExitOk;
  }
  switch (spec.kind) {
    case Kind::kPlaylists: PlaylistTable(out, list.get()); break;
    case Kind::kRecordings: RecordingTable(out, list.get()); break;
    case Kind::kBooks: BookTable(out, list.get()); break;
    case Kind::kCamera:
    case Kind::kPictures: FileTable(out, list.get(), spec.noun); break;
    default: TrackTable(out, list.get(), spec.noun); break;
  }
  return kExitOk;
}

}  // namespace tarn::cli
