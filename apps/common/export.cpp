#include "apps/common/export.h"

#include "apps/common/export_record.h"
#include "apps/common/host_file.h"

#include <glib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <deque>
#include <map>
#include <memory>
#include <iterator>
#include <set>
#include <sstream>
#include <system_error>
#include <tuple>

#include "apps/common/naming.h"
#include "apps/common/plist_view.h"
#include "apps/common/text.h"

namespace tarn::app {
namespace fs = std::filesystem;
namespace {

struct ExportItem {
  std::string device_path;
  std::string rel;     // host path below the export directory
  uint64_t size = 0;   // as the catalogue gives it; 0 when it gives none
  uint64_t millis = 0;
  std::string artist;
  std::string title;
  bool wanted = false;  // copied by this export, not only named
};

std::string StemOf(const std::string &device_path) {
  std::string base = BaseName(device_path);
  const size_t dot = base.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? base : base.substr(0, dot);
}

class Exporter {
 public:
  Exporter(Session &session, fs::path dir, ExportReport &report)
      : session_(session), dir_(dir), manifest_(dir, session.udid()), report_(report) {}

 private:
  std::set<std::string> in_cloud_;

 public:

  // Claims a name for one catalogue item of `kind`; `wanted` also queues
  // it for copying.
  const ExportItem *Add(Kind kind, plist_t item, bool wanted = true) {
    ExportItem e;
    e.device_path = DictString(item, "path");
    // A track or picture a current phone keeps only in iCloud has no file
    // here; it is counted so that the person hears why it was not copied.
    if (wanted && DictBool(item, "cloud")) {
      in_cloud_.insert(DictUint(item, "id") ? std::to_string(DictUint(item, "id")) : DictString(item, "path"));
      report_.in_cloud = in_cloud_.size();
    }
    if (e.device_path.empty()) return nullptr;  // a book without a file, a track without a path
    if (auto it = by_path_.find(e.device_path); it != by_path_.end()) {
      items_[it->second].wanted |= wanted;
      return &items_[it->second];
    }
    e.wanted = wanted;
    e.size = DictUint(item, "size");
    e.millis = DictUint(item, "time");
    e.artist = Known(DictString(item, "artist"));
    e.title = DictString(item, "title");
    const std::string ext = Extension(e.device_path);
    std::string stem = SafeName(e.title, SafeName(StemOf(e.device_path), "Untitled"));
    std::vector<std::string> dirs;
    switch (kind) {
      case Kind::kMusic:
      case Kind::kAudiobooks:
      case Kind::kPlaylists:
        dirs = {SafeName(e.artist, "Unknown Artist"), SafeName(Known(DictString(item, "album")), "Unknown Album")};
        break;
      case Kind::kPodcasts:
      case Kind::kTvShows:
        dirs = {SafeName(Known(DictString(item, "album")), "Unknown Show")};
        break;
      case Kind::kRecordings: {
        const std::string label = DictString(item, "name");
        stem = SafeName(label.empty() ? RecordingTime(e.title, ".") : label, "Recording");
        break;
      }
      case Kind::kCamera:
      case Kind::kPictures:
        stem = SafeName(StemOf(e.device_path), "Picture");
        break;
      default:
        break;
    }
    e.rel = Place(dirs, stem, ext, e.device_path, wanted);
    by_path_[e.device_path] = items_.size();
    items_.push_back(std::move(e));
    return &items_.back();
  }

  std::string ClaimPlaylist(const std::string &name) {
    return Place({}, SafeName(name, "Playlist"), ".m3u8", PlaylistKey(name), true);
  }

  // Copies what is not there yet. Returns false when cancelled.
  bool Copy(const TransferHooks &hooks) {
    std::vector<DownloadJob> jobs;
    for (const auto &item : items_) {
      if (!item.wanted) continue;
      ++report_.wanted;
      if (displaced_.count(item.rel) != 0) NoteDisplaced(item.rel);
      const fs::path host = dir_ / item.rel;
      std::error_code ec;
      const nlohmann::json *mine = manifest_.Find(item.rel, item.device_path);
      const uint64_t have = fs::is_regular_file(fs::symlink_status(host, ec)) ? fs::file_size(host, ec) : UINT64_MAX;
      const uint64_t recorded = mine != nullptr ? mine->value("size", UINT64_MAX) : UINT64_MAX - 1;
      // A file this export recorded, whole, with the catalogue's size, is
      // settled without asking the device.
      if (item.size != 0 && have == recorded && recorded == item.size) {
        ++report_.skipped;
        report_.files.push_back(item.rel);
        continue;
      }
      const PathInfo info = session_.Stat(item.device_path);
      if (!info.exists || info.is_dir) {
        report_.missing.insert(item.device_path);
        report_.notes.push_back(Printable(item.device_path) + " is listed in the catalogue but missing on the device");
        continue;
      }
      if (have == recorded && recorded == info.size && mine->value("mtime", int64_t{-1}) == info.mtime) {
        ++report_.skipped;
        report_.files.push_back(item.rel);
        continue;
      }
      jobs.push_back({item.device_path, host.string(), info.size, info.mtime});
    }
    uint64_t total = 0;
    for (const auto &job : jobs) total += job.size;
    Transfers transfers(session_, total, jobs.size(), hooks, false);
    // What was copied stays known as ours, however the batch ends.
    BatchReport end = DownloadBatch(transfers, jobs, hooks, [this] { manifest_.Save(); }, [&](const DownloadJob &job) {
      const Outcome outcome = transfers.Download(job);
      if (outcome == Outcome::kCopied) {
        ++report_.copied;
        const std::string rel = fs::relative(job.host_path, dir_).generic_string();
        manifest_.Record(rel, job.device_path, job.size, job.mtime);
        report_.files.push_back(rel);
      }
      return std::pair{outcome, job.device_path};
    });
    report_.failed.insert(report_.failed.end(), std::make_move_iterator(end.failed.begin()),
                          std::make_move_iterator(end.failed.end()));
    report_.cancelled = end.cancelled;
    report_.bytes = end.bytes;
    return !report_.cancelled;
  }

  // Writes a playlist unless the same text is there already.
  void WritePlaylist(const std::string &rel, const std::string &name,
                     const std::vector<const ExportItem *> &members) {
    std::ostringstream text;
    text << "#EXTM3U\n";
    for (const ExportItem *m : members) {
      if (report_.missing.count(m->device_path) != 0) continue;
      // Device text never starts a line of its own in the playlist.
      text << "#EXTINF:" << m->millis / 1000 << "," << Printable(m->artist.empty() ? "" : m->artist + " - ")
           << Printable(m->title) << "\n"
           // A line starting with '#' would be read as a comment.
           << (m->rel[0] == '#' ? "./" : "") << m->rel << "\n";
    }
    const fs::path path = dir_ / rel;
    report_.files.push_back(rel);
    std::ifstream old(path, std::ios::binary);
    std::ostringstream before;
    before << old.rdbuf();
    if (old && before.str() == text.str()) return;
    WriteWhole(path, text.str());
    if (displaced_.count(rel) != 0) NoteDisplaced(rel);
    manifest_.Record(rel, PlaylistKey(name), text.str().size(), 0);
    manifest_.Save();
    ++report_.playlists;
  }

 private:
  static std::string PlaylistKey(const std::string &name) { return "playlist:" + name; }

  // The host name of one exported file: where an earlier export of this
  // device put it, or a name of its own that no file of someone else's holds.
  std::string Place(const std::vector<std::string> &dirs, const std::string &stem, const std::string &ext,
                    const std::string &key, bool wanted) {
    const std::string earlier = manifest_.RelOf(key);
    std::error_code ec;
    if (!earlier.empty() && fs::symlink_status(dir_ / earlier, ec).type() == fs::file_type::regular) {
      names_.Reserve(earlier);
      return earlier;
    }
    bool displaced = false;
    const std::string rel = names_.Claim(
        dirs, stem, ext,
        [&](const std::string &candidate) {
          std::error_code e;
          return fs::symlink_status(dir_ / candidate, e).type() != fs::file_type::not_found &&
                 manifest_.Find(candidate, key) == nullptr;
        },
        &displaced);
    if (displaced) displaced_.insert(rel);
    (void)wanted;
    return rel;
  }

  void NoteDisplaced(const std::string &rel) {
    report_.notes.push_back("wrote " + Printable(rel) + ": a file that tarn did not export holds the first name " +
                            "chosen for it and is left alone");
  }

  Session &session_;
  fs::path dir_;
  std::set<std::string> displaced_;  // names given because a person's file held the first choice
  Manifest manifest_;
  NameRegistry names_;
  std::deque<ExportItem> items_;  // stable addresses: playlists keep pointers
  std::map<std::string, size_t> by_path_;
  ExportReport &report_;
};

std::string Folded(const std::string &text) {
  std::unique_ptr<gchar, decltype(&g_free)> folded(g_utf8_casefold(text.c_str(), -1), g_free);
  return folded ? std::string(folded.get()) : text;
}

// --match: whether any of the names a person would search for contains the
// text, ignoring case. Everything matches without the option.
class Filter {
 public:
  Filter(const std::string &text, const std::set<std::string> &only) : text_(Folded(text)), only_(only) {}
  bool Matches(plist_t item) const {
    if (!only_.empty() && only_.count(DictString(item, "path")) == 0 && only_.count(DictString(item, "name")) == 0)
      return false;
    if (text_.empty()) return true;
    for (const char *key : {"title", "artist", "album", "name"})
      if (Folded(DictString(item, key)).find(text_) != std::string::npos) return true;
    return Folded(BaseName(DictString(item, "path"))).find(text_) != std::string::npos;
  }

 private:
  std::string text_;
  std::set<std::string> only_;
};

}  // namespace

ExportReport Export(Session &session, const ExportRequest &request, const TransferHooks &hooks) {
  const fs::path dir = request.host_dir;
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec || !fs::is_directory(dir) || ::access(dir.c_str(), W_OK) != 0)
    Fail(kHostPath, "cannot write to " + dir.string());

  ExportReport report;
  Exporter exporter(session, dir, report);
  const Filter filter(request.match, request.only);
  if (request.kind == Kind::kPlaylists) {
    // Names come from the whole music list first, in its order, so that a
    // playlist points at the very files that "export music" gives; only the
    // members are copied.
    PlistPtr music = FetchList(session.device(), Kind::kMusic);
    for (plist_t item : ArrayItems(DictArray(music.get(), "item"))) exporter.Add(Kind::kMusic, item, false);
    PlistPtr playlists = FetchList(session.device(), Kind::kPlaylists);
    const std::vector<plist_t> all = ArrayItems(playlists.get());
    if (all.size() <= 1) {
      report.nothing_listed = true;
      return report;
    }
    std::vector<std::tuple<std::string, std::string, std::vector<const ExportItem *>>> files;
    // The first playlist is the master playlist: the library itself, not one
    // the user made.
    for (size_t p = 1; p < all.size(); ++p) {
      if (!filter.Matches(all[p])) continue;
      std::vector<const ExportItem *> members;
      for (plist_t item : ArrayItems(DictArray(all[p], "item")))
        if (const ExportItem *e = exporter.Add(Kind::kPlaylists, item)) members.push_back(e);
      const std::string name = DictString(all[p], "name");
      files.emplace_back(exporter.ClaimPlaylist(name), name, std::move(members));
    }
    if (!exporter.Copy(hooks)) return report;
    for (const auto &[rel, name, members] : files) exporter.WritePlaylist(rel, name, members);
    return report;
  }

  PlistPtr list = FetchList(session.device(), request.kind);
  if (!list) {
    report.nothing_listed = true;
    return report;
  }
  if (request.kind == Kind::kBooks) {
    for (plist_t catalogue : ArrayItems(list.get()))
      for (plist_t item : ArrayItems(DictArray(catalogue, "item")))
        exporter.Add(request.kind, item, filter.Matches(item));
  } else {
    // Every item is named, also those the match leaves out, so that a file
    // gets the same name in a partial export as in a whole one.
    for (plist_t item : ArrayItems(DictArray(list.get(), "item")))
      exporter.Add(request.kind, item, filter.Matches(item));
  }
  exporter.Copy(hooks);
  return report;
}

}  // namespace tarn::app
