// The walk follows libgpod's parser record by record: the same sections in
// the same order, the same searches and the same ways of finding the next
// record (sometimes a record's header length, sometimes its total length,
// sometimes the end of its last child). Where libgpod would read outside
// the buffer, meet a zero length, or report an error, the walk says no.
// Where libgpod tolerates an oddity (a missing track record, a playlist
// that ends early) it goes on as libgpod does, so that every database
// libgpod reads cleanly still passes. A few rules are stricter than
// libgpod's, each where libgpod would spin in place or lose its way:
// records must lie inside the file and inside their parent, and each step
// of a loop must move forward.
#include "musicdb/itdb_check.h"

#include <glib.h>
#include <gpod/itdb.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

using Pos = int64_t;  // wide enough that no sum of 32-bit fields overflows
constexpr Pos kNotFound = -1;

// Each playlist is appended to a list that libgpod walks from its head, so
// the cost of a section grows with the square of its playlists; no device
// holds anywhere near this many.
constexpr uint32_t kMaxPlaylists = 10000;

enum MhodType : uint32_t {
  kPodcastUrl = 15,
  kPodcastRss = 16,
  kChapterData = 17,
  kSmartPrefs = 50,
  kSmartRules = 51,
  kPlaylistPosition = 100,
};

// The string records libgpod decodes (title, path, album, artist and the
// rest): a string header of 16 bytes, then the string.
bool IsStringMhod(uint32_t type) {
  switch (type) {
    case 1: case 2: case 3: case 4: case 5: case 6: case 8: case 9: case 12: case 13: case 14:
    case 18: case 19: case 20: case 21: case 22: case 23: case 24: case 27: case 28: case 29: case 30: case 31:
      return true;
    default:
      return false;
  }
}

class Walk {
 public:
  Walk(const unsigned char *data, size_t size, std::vector<tarn::TrackChapters> *chapters)
      : data_(data), size_(static_cast<Pos>(size)), chapters_(chapters) {}

  bool Database() {
    // libgpod reads header fields up to 0xAA.
    if (!In(0, 0xAA) || !Tag(0, "mhbd")) return false;
    Pos length = Le32(4);
    if (length < 32) return false;
    const uint32_t sections = Le32(20);
    Pos at = 0;
    Pos first[10];
    for (Pos &f : first) f = kNotFound;
    // libgpod looks for each section type it knows by walking the sections
    // from the first; a type it does not find costs a walk over them all.
    for (uint32_t i = 0; i < sections; ++i) {
      at += length;
      if (!In(at, 16) || !Tag(at, "mhsd")) return false;
      const Pos header = Le32(at + 4);
      length = Le32(at + 8);
      if (header < 16 || length < header || !In(at, length)) return false;
      const uint32_t type = Le32(at + 12);
      if (type < 10 && first[type] == kNotFound) first[type] = at;
    }
    if (first[1] == kNotFound || !Tracks(first[1])) return false;
    const Pos playlists = first[3] != kNotFound ? first[3] : first[2];
    if (playlists == kNotFound || !Playlists(playlists)) return false;
    return first[5] == kNotFound || Playlists(first[5]);
  }

 private:
  bool In(Pos at, Pos length) const { return at >= 0 && length >= 0 && at + length <= size_; }
  static bool Inside(Pos at, Pos length, Pos end) { return at >= 0 && length >= 0 && at + length <= end; }
  bool Tag(Pos at, const char (&tag)[5]) const { return std::memcmp(data_ + at, tag, 4) == 0; }
  uint32_t Le32(Pos at) const { return tarn::Le32(data_ + at); }
  uint32_t Be32(Pos at) const {
    const unsigned char *p = data_ + at;
    return uint32_t{p[3]} | uint32_t{p[2]} << 8 | uint32_t{p[1]} << 16 | uint32_t{p[0]} << 24;
  }
  uint16_t Be16(Pos at) const { return static_cast<uint16_t>(data_[at] << 8 | data_[at + 1]); }

  // libgpod's search for the next record tagged `tag` inside the section at
  // `section`, starting from the record at `start`: it steps over records
  // by their header lengths. `found` is kNotFound when the section ends
  // first. False where libgpod would fail.
  bool FindNext(const char (&tag)[5], Pos section, Pos start, Pos &found) const {
    if (!In(section, 12)) return false;
    const Pos section_length = Le32(section + 8);
    Pos offset = start - section;
    for (;;) {
      if (!In(section + offset, 8)) return false;
      const Pos step = Le32(section + offset + 4);
      // Every record's header holds at least its tag and two lengths.
      if (step < 12) return false;
      offset += step;
      if (offset >= section_length - 4) break;
      if (!In(section + offset, 4)) return false;
      if (Tag(section + offset, tag)) break;
    }
    found = offset >= section_length ? kNotFound : section + offset;
    return true;
  }

  // The list tagged `list` in the section at `section` and its records
  // tagged `record`, each walked by `each`, as libgpod reads the tracks
  // and the playlists: it stops, without an error, at the first place that
  // holds no such record. More than `most` records refuse the section.
  bool List(Pos section, const char (&list)[5], const char (&record)[5], uint32_t most, bool (Walk::*each)(Pos &)) {
    Pos head = kNotFound, at = kNotFound;
    if (!FindNext(list, section, section, head) || head == kNotFound || !In(head, 12)) return false;
    const uint32_t count = Le32(head + 8);
    if (!FindNext(record, section, head, at)) return false;
    for (uint32_t i = 0; i < count && at != kNotFound; ++i)
      if (i >= most || !(this->*each)(at)) return false;
    return true;
  }
  bool Tracks(Pos section) { return List(section, "mhlt", "mhit", UINT32_MAX, &Walk::Track); }
  bool Playlists(Pos section) { return List(section, "mhlp", "mhyp", kMaxPlaylists, &Walk::Playlist); }

  // A track record and its children; `at` moves to what follows the last
  // child, where libgpod looks for the next track.
  bool Track(Pos &at) {
    const size_t track = tracks_++;
    if (!In(at, 4)) return false;
    if (!Tag(at, "mhit")) {
      at = kNotFound;
      return true;
    }
    if (!In(at, 16)) return false;
    const Pos header = Le32(at + 4);
    if (header < 0x9c || !In(at, header)) return false;
    const uint32_t children = Le32(at + 12);
    Pos child = at + header;
    uint64_t seen = 0;
    for (uint32_t i = 0; i < children; ++i) {
      // libgpod would jump 4 GiB ahead over anything else.
      if (!In(child, 16) || !Tag(child, "mhod")) return false;
      // A track holds each string once: libgpod loses all but the last.
      const uint32_t type = Le32(child + 12);
      if (IsStringMhod(type) || type == kChapterData) {
        if (seen & uint64_t{1} << type) return false;
        seen |= uint64_t{1} << type;
      }
      tarn::ChapterdataPtr chapters;
      if (type == kChapterData && chapters_ != nullptr) chapters.reset(itdb_chapterdata_new());
      Pos length = 0;
      if (!Mhod(child, length, chapters.get())) return false;
      if (chapters)
        chapters_->push_back({track, static_cast<size_t>(child), std::move(chapters)});
      child += length;
    }
    at = child;
    return true;
  }

  bool Playlist(Pos &at) {
    if (!In(at, 4)) return false;
    if (!Tag(at, "mhyp")) {
      at = kNotFound;
      return true;
    }
    if (!In(at, 8)) return false;
    const Pos header = Le32(at + 4);
    if (header < 48 || !In(at, header)) return false;
    const Pos length = Le32(at + 8);
    if (length < header) return false;  // the next playlist would not lie ahead
    const uint32_t children = Le32(at + 12), items = Le32(at + 16);
    Pos child = at + header;
    if (!Children(child, children)) return false;
    // Unlike a missing playlist, a missing item is an error to libgpod.
    for (uint32_t i = 0; i < items; ++i)
      if (!Item(child)) return false;
    at += length;
    return true;
  }

  // A playlist item; `at` moves to where libgpod looks for the next one.
  bool Item(Pos &at) {
    if (!In(at, 8) || !Tag(at, "mhip")) return false;
    const Pos header = Le32(at + 4);
    if (header < 36 || !In(at, header)) return false;
    const Pos length = Le32(at + 8);
    const uint32_t children = Le32(at + 12);
    Pos child = at + header;
    if (!Children(child, children)) return false;
    // Old databases set an item's length to its header length; libgpod then
    // finds the next item behind the item's children.
    if (length == header && children > 0) {
      at = child;
      return true;
    }
    if (length < header) return false;
    at += length;
    return true;
  }

  // The children of a playlist or an item: libgpod stops, with a warning,
  // at the first that is no mhod.
  bool Children(Pos &child, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
      if (!In(child, 4)) return false;
      if (!Tag(child, "mhod")) break;
      Pos length = 0;
      if (!Mhod(child, length)) return false;
      child += length;
    }
    return true;
  }

  // An mhod at `at` (its tag already seen) and its `length`. Chapter data
  // is read into `chapters` when it is given.
  bool Mhod(Pos at, Pos &length, Itdb_Chapterdata *chapters = nullptr) {
    if (!In(at, 16)) return false;
    const Pos header = Le32(at + 4);
    length = Le32(at + 8);
    const uint32_t type = Le32(at + 12);
    if (header < 16 || length < header || !In(at, length)) return false;
    const Pos body = at + header, end = at + length;
    if (IsStringMhod(type)) {
      if (!Inside(body, 16, end)) return false;
      return Inside(body + 16, Le32(body + 4), end);
    }
    switch (type) {
      case kPodcastUrl:
      case kPodcastRss:
        return true;  // the whole body is the string
      case kChapterData:
        return Chapters(body, end, chapters);
      case kSmartPrefs:
        return Inside(body, 14, end);
      case kSmartRules:
        return SmartRules(body, end);
      case kPlaylistPosition:
        return length >= 28;
      default:
        return true;
    }
  }

  // Chapter data: three words, then big-endian atoms: "sean" holding
  // "chap" atoms, each with children ("name" among them), then "hedr".
  // Read into `into` as libgpod reads it, when it is given.
  bool Chapters(Pos at, Pos end, Itdb_Chapterdata *into) const {
    if (!Inside(at, 12, end)) return false;
    if (into != nullptr) {
      into->unk024 = Le32(at);
      into->unk028 = Le32(at + 4);
      into->unk032 = Le32(at + 8);
    }
    at += 12;
    if (!Inside(at, 8, end)) return false;
    if (!Tag(at + 4, "sean")) return true;
    if (!Inside(at, 16, end)) return false;
    // The count includes the "hedr" atom; libgpod subtracts it without
    // looking, so a count of zero wraps around.
    const uint32_t chapters = Be32(at + 12) - 1;
    at += 20;
    for (uint32_t i = 0; i < chapters; ++i) {
      // libgpod would look at the same place again for each chapter left.
      if (!Inside(at, 16, end) || !Tag(at + 4, "chap")) return false;
      const uint32_t start = Be32(at + 8), children = Be32(at + 12);
      at += 20;
      for (uint32_t j = 0; j < children; ++j) {
        if (!Inside(at, 8, end)) return false;
        const Pos child = Be32(at);
        if (Tag(at + 4, "name")) {
          if (!Inside(at, 22, end)) return false;
          const Pos units = Be16(at + 20);
          if (!Inside(at + 22, units * 2, end)) return false;
          if (into != nullptr) AddChapter(into, start, at + 22, units);
        }
        if (child < 8) return false;
        at += child;
      }
    }
    return Inside(at, 8, end);  // where libgpod looks for "hedr"
  }

  // A chapter titled by the big-endian UTF-16 string of `units` at `at`,
  // up to its first NUL; a title that is no valid UTF-16 gives no chapter.
  void AddChapter(Itdb_Chapterdata *into, uint32_t start, Pos at, Pos units) const {
    std::vector<gunichar2> title(static_cast<size_t>(units) + 1, 0);
    for (Pos i = 0; i < units; ++i)
      title[static_cast<size_t>(i)] = static_cast<gunichar2>(data_[at + 2 * i] << 8 | data_[at + 2 * i + 1]);
    gchar *utf8 = g_utf16_to_utf8(title.data(), -1, nullptr, nullptr, nullptr);
    if (utf8 == nullptr) return;
    itdb_chapterdata_add_chapter(into, start, utf8);
    g_free(utf8);
  }

  // Smart playlist rules: "SLst", a header of 136 bytes, then the rules,
  // each 56 bytes and its data (a string, or 68 bytes of values).
  bool SmartRules(Pos at, Pos end) const {
    if (!Inside(at, 136, end) || !Tag(at, "SLst")) return false;
    const uint32_t rules = Be32(at + 8);
    at += 136;
    for (uint32_t i = 0; i < rules; ++i) {
      if (!Inside(at, 56, end)) return false;
      Itdb_SPLRule rule{};
      rule.field = Be32(at);
      rule.action = Be32(at + 4);
      const Pos length = Be32(at + 52);
      if (!Inside(at + 56, length, end)) return false;
      if (itdb_splr_get_field_type(&rule) != ITDB_SPLFT_STRING && !Inside(at + 52, 72, end)) return false;
      at += 56 + length;
    }
    return true;
  }

  const unsigned char *data_;
  Pos size_;
  std::vector<tarn::TrackChapters> *chapters_;
  size_t tracks_ = 0;
};

}  // namespace

namespace tarn {

bool PlainDatabaseIsSound(const unsigned char *data, size_t size, std::vector<TrackChapters> *chapters) {
  if (data == nullptr) return false;
  return Walk(data, size, chapters).Database();
}

}  // namespace tarn
