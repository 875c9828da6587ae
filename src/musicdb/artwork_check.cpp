// The walk over an ArtworkDB that keeps libgpod's artwork parser on its
// feet: the same records in the same order, each held to the bounds of its
// parent before libgpod would rely on it.
#include <cstring>
#include <optional>
#include <type_traits>

#include "musicdb/itdb_check.h"

namespace {

// The sizes of the headers libgpod reads the fields of; a shorter header
// it would pass over, but none that a device writes is that short.
constexpr size_t kMhfd = 68, kMhsd = 16, kList = 12, kMhii = 52, kMhod = 24, kMhodString = 36, kMhni = 36,
                 kMhif = 24;

int64_t I32(const unsigned char *p) { return static_cast<int32_t>(tarn::Le32(p)); }

struct Record {
  size_t header;  // header length
  size_t total;   // total length (the header's for a list, which has none)
};

// The walk over one file, from the mhfd record that heads it.
class Walk {
 public:
  Walk(const unsigned char *data, size_t size) : data_(data), size_(size) {}

  bool Sound() {
    const auto mhfd = Header(0, size_, "mhfd", kMhfd, true);
    if (!mhfd || mhfd->total != size_) return false;
    const int64_t children = I32(data_ + 20);
    size_t at = mhfd->header;
    for (int64_t i = 0; i < children; ++i) {
      const auto mhsd = Header(at, size_, "mhsd", kMhsd, true);
      // A section with nothing behind its header hands its list parser a
      // null context.
      if (!mhsd || mhsd->header >= mhsd->total) return false;
      const size_t end = at + mhsd->total, list = at + mhsd->header;
      const int index = static_cast<int16_t>(data_[at + 12] | data_[at + 13] << 8);
      bool ok = false;
      switch (index) {
        case 1: ok = List(list, end, "mhli", [this](size_t p, size_t e) { return Image(p, e); }); break;
        case 2: ok = List(list, end, "mhla", nullptr); break;
        case 3:
          ok = List(list, end, "mhlf", [this](size_t p, size_t e) {
            const auto mhif = Header(p, e, "mhif", kMhif, true);
            return mhif ? std::optional<size_t>(mhif->total) : std::nullopt;
          });
          break;
        default: return false;
      }
      if (!ok) return false;
      at = end;
    }
    return true;
  }

 private:
  // The record `id` at `at`, its header and total lengths within `end`.
  std::optional<Record> Header(size_t at, size_t end, const char *id, size_t least, bool total) const {
    if (at >= end || end - at < least || std::memcmp(data_ + at, id, 4) != 0) return std::nullopt;
    const int64_t header = I32(data_ + at + 4);
    if (header < static_cast<int64_t>(least) || header > static_cast<int64_t>(end - at)) return std::nullopt;
    if (!total) return Record{static_cast<size_t>(header), static_cast<size_t>(header)};
    const int64_t length = I32(data_ + at + 8);
    if (length < header || length > static_cast<int64_t>(end - at)) return std::nullopt;
    return Record{static_cast<size_t>(header), static_cast<size_t>(length)};
  }

  // A list of `count` items behind its header, each ending before `end`.
  // Without an item parser the list must be empty.
  template <typename Item>
  bool List(size_t at, size_t end, const char *id, Item item) const {
    const auto list = Header(at, end, id, kList, false);
    if (!list) return false;
    const int64_t count = I32(data_ + at + 8);
    if (count < 0) return false;
    size_t p = at + list->header;
    for (int64_t i = 0; i < count && p < end; ++i) {
      if constexpr (std::is_same_v<Item, std::nullptr_t>) {
        return false;
      } else {
        const std::optional<size_t> length = item(p, end);
        if (!length) return false;
        p += *length;
      }
    }
    return true;
  }

  // An image (mhii) and its thumbnails: container records (mhod of type 2)
  // holding an mhni, which holds the ithmb file's name as a string record.
  std::optional<size_t> Image(size_t at, size_t end) const {
    const auto mhii = Header(at, end, "mhii", kMhii, true);
    if (!mhii) return std::nullopt;
    const size_t image_end = at + mhii->total;
    const int64_t children = I32(data_ + at + 12);
    size_t p = at + mhii->header;
    for (int64_t i = 0; i < children && p < image_end; ++i) {
      const auto mhod = Header(p, image_end, "mhod", kMhod, true);
      if (!mhod) return std::nullopt;
      const int type = static_cast<int16_t>(data_[p + 12] | data_[p + 13] << 8);
      if (type == 2 && !Thumbnail(p + mhod->header, p + mhod->total)) return std::nullopt;
      p += mhod->total;
    }
    return mhii->total;
  }

  bool Thumbnail(size_t at, size_t end) const {
    if (at >= end) return true;  // libgpod finds no thumbnail there
    const auto mhni = Header(at, end, "mhni", kMhni, true);
    if (!mhni) return false;
    // The name of the .ithmb file: libgpod keeps a thumbnail without one,
    // and complains each time its pixels are asked for.
    const size_t name = at + mhni->header, name_end = at + mhni->total;
    const auto mhod = Header(name, name_end, "mhod", kMhod, true);
    if (!mhod || mhod->total < kMhodString) return false;
    if (static_cast<int16_t>(data_[name + 12] | data_[name + 13] << 8) != 3) return false;
    const int64_t length = I32(data_ + name + 24);
    return length >= 0 && length <= static_cast<int64_t>(mhod->total - kMhodString);
  }

  const unsigned char *data_;
  size_t size_;
};

}  // namespace

namespace tarn {

bool ArtworkDatabaseIsSound(const unsigned char *data, size_t size) {
  return data != nullptr && Walk(data, size).Sound();
}

}  // namespace tarn
