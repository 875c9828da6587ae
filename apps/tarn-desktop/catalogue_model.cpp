#include "catalogue_model.h"

#include "apps/common/naming.h"

namespace tarn::desktop {
namespace {

using Field = CatalogueModel::Field;

std::vector<Field> FieldsOf(Kind kind) {
  switch (kind) {
    case Kind::kPlaylists: return {Field::kPlaylist, Field::kTracks, Field::kTime};
    case Kind::kRecordings: return {Field::kLabel, Field::kRecorded, Field::kTime, Field::kSize, Field::kPath};
    case Kind::kBooks: return {Field::kCatalogue, Field::kTitle, Field::kAuthor, Field::kGenre, Field::kPath};
    case Kind::kCamera:
    case Kind::kPictures: return {Field::kPath, Field::kSize, Field::kModified};
    default: return {Field::kTitle, Field::kArtist, Field::kAlbum, Field::kGenre, Field::kTime, Field::kSize};
  }
}

const char *HeaderOf(Field field) {
  switch (field) {
    case Field::kTitle: return QT_TRANSLATE_NOOP("CatalogueModel", "Title");
    case Field::kArtist: return QT_TRANSLATE_NOOP("CatalogueModel", "Artist");
    case Field::kAlbum: return QT_TRANSLATE_NOOP("CatalogueModel", "Album");
    case Field::kGenre: return QT_TRANSLATE_NOOP("CatalogueModel", "Genre");
    case Field::kTime: return QT_TRANSLATE_NOOP("CatalogueModel", "Time");
    case Field::kSize: return QT_TRANSLATE_NOOP("CatalogueModel", "Size");
    case Field::kPlaylist: return QT_TRANSLATE_NOOP("CatalogueModel", "Playlist");
    case Field::kTracks: return QT_TRANSLATE_NOOP("CatalogueModel", "Tracks");
    case Field::kLabel: return QT_TRANSLATE_NOOP("CatalogueModel", "Label");
    case Field::kRecorded: return QT_TRANSLATE_NOOP("CatalogueModel", "Recorded");
    case Field::kPath: return QT_TRANSLATE_NOOP("CatalogueModel", "Path");
    case Field::kCatalogue: return QT_TRANSLATE_NOOP("CatalogueModel", "Catalogue");
    case Field::kAuthor: return QT_TRANSLATE_NOOP("CatalogueModel", "Author");
    case Field::kModified: return QT_TRANSLATE_NOOP("CatalogueModel", "Modified");
  }
  return "";
}

uint64_t PlaylistMillis(plist_t playlist) {
  uint64_t millis = 0;
  for (plist_t item : ArrayItems(DictArray(playlist, "item"))) millis += DictUint(item, "time");
  return millis;
}


}  // namespace

const std::vector<PageKind> &PageKinds() {
  static const std::vector<PageKind> kinds = [] {
    std::vector<PageKind> out;
    for (const app::KindInfo &info : app::Kinds()) {
      const char *title = "";
      switch (info.kind) {
        case Kind::kMusic: title = QT_TRANSLATE_NOOP("Kinds", "Music"); break;
        case Kind::kMovies: title = QT_TRANSLATE_NOOP("Kinds", "Movies"); break;
        case Kind::kPodcasts: title = QT_TRANSLATE_NOOP("Kinds", "Podcasts"); break;
        case Kind::kTvShows: title = QT_TRANSLATE_NOOP("Kinds", "TV Shows"); break;
        case Kind::kAudiobooks: title = QT_TRANSLATE_NOOP("Kinds", "Audiobooks"); break;
        case Kind::kRingtones: title = QT_TRANSLATE_NOOP("Kinds", "Ringtones"); break;
        case Kind::kPlaylists: title = QT_TRANSLATE_NOOP("Kinds", "Playlists"); break;
        case Kind::kRecordings: title = QT_TRANSLATE_NOOP("Kinds", "Voice Memos"); break;
        case Kind::kBooks: title = QT_TRANSLATE_NOOP("Kinds", "Books"); break;
        case Kind::kCamera: title = QT_TRANSLATE_NOOP("Kinds", "Camera Roll"); break;
        case Kind::kPictures: title = QT_TRANSLATE_NOOP("Kinds", "Pictures"); break;
      }
      out.push_back({info.kind, info.name, title});
    }
    return out;
  }();
  return kinds;
}

std::vector<CatalogueModel::Row> CatalogueModel::RowsOf(Kind kind, plist_t root, plist_t items) {
  std::vector<Row> rows;
  if (items != nullptr) {
    for (plist_t item : ArrayItems(items)) rows.push_back({item, false});
  } else if (kind == Kind::kBooks) {
    for (plist_t catalogue : ArrayItems(root)) {
      const bool purchased = DictString(catalogue, "catalog") == QLatin1String("PurchaseBook");
      for (plist_t item : ArrayItems(DictArray(catalogue, "item"))) rows.push_back({item, purchased});
    }
  } else if (kind == Kind::kPlaylists) {
    // The first playlist is the master playlist: the library itself.
    const std::vector<plist_t> all = ArrayItems(root);
    for (size_t i = 1; i < all.size(); ++i) rows.push_back({all[i], false});
  } else {
    const std::vector<plist_t> all = ArrayItems(DictArray(root, "item"));
    rows.reserve(all.size());
    for (plist_t item : all) rows.push_back({item, false});
  }
  return rows;
}

std::vector<QString> CatalogueModel::Haystacks(Kind kind, plist_t list, plist_t items) {
  const std::vector<Field> fields = FieldsOf(kind);
  const std::vector<Row> rows = RowsOf(kind, list, items);
  std::vector<QString> out;
  out.reserve(rows.size());
  QString line;
  for (const Row &row : rows) {
    line.clear();
    for (size_t f = 0; f < fields.size(); ++f) {
      if (f > 0) line += QLatin1Char('\n');
      line += Display(kind, row, fields[f]).toString();
    }
    out.push_back(line.toCaseFolded());
  }
  return out;
}

void CatalogueModel::setList(Kind kind, SharedPlist list, plist_t items, std::vector<QString> haystacks) {
  beginResetModel();
  kind_ = kind;
  fields_ = FieldsOf(kind);
  rows_ = RowsOf(kind, static_cast<plist_t>(list.get()), items);
  list_ = std::move(list);
  members_of_ = items;
  keys_.assign(fields_.size(), {});
  haystacks_ = haystacks.size() == rows_.size() ? std::move(haystacks) : std::vector<QString>();
  endResetModel();
}

void CatalogueModel::clear() {
  beginResetModel();
  rows_.clear();
  list_.reset();
  members_of_ = nullptr;
  keys_.assign(fields_.size(), {});
  haystacks_.clear();
  endResetModel();
}

bool CatalogueModel::Less(int a, int b, int column) const {
  if (column < 0 || static_cast<size_t>(column) >= keys_.size()) return a < b;
  Keys &keys = keys_[static_cast<size_t>(column)];
  const Field field = fields_[static_cast<size_t>(column)];
  const bool numeric = field == Field::kTime || field == Field::kSize || field == Field::kTracks;
  if (!keys.made) {
    keys.made = true;
    if (numeric) keys.numbers.reserve(rows_.size());
    else keys.texts.reserve(rows_.size());
    for (const Row &row : rows_) {
      const QVariant key = SortKey(row, field);
      if (numeric) keys.numbers.push_back(key.toULongLong());
      else keys.texts.push_back(key.toString());
    }
  }
  const auto i = static_cast<size_t>(a), j = static_cast<size_t>(b);
  if (numeric) {
    if (keys.numbers[i] != keys.numbers[j]) return keys.numbers[i] < keys.numbers[j];
  } else if (const int c = keys.texts[i].compare(keys.texts[j]); c != 0) {
    return c < 0;
  }
  return a < b;
}

const QString &CatalogueModel::Haystack(int row) const {
  if (haystacks_.size() != rows_.size())
    haystacks_ = Haystacks(kind_, static_cast<plist_t>(list_.get()), members_of_);
  return haystacks_[static_cast<size_t>(row)];
}

int CatalogueModel::rowCount(const QModelIndex &parent) const {
  return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

int CatalogueModel::columnCount(const QModelIndex &parent) const {
  return parent.isValid() ? 0 : static_cast<int>(fields_.size());
}

QVariant CatalogueModel::Display(Kind kind, const Row &row, Field field) {
  plist_t item = row.item;
  switch (field) {
    case Field::kTitle: return DictString(item, "title");
    case Field::kArtist:
    case Field::kAuthor: return Known(item, "artist");
    case Field::kAlbum: return Known(item, "album");
    case Field::kGenre: return Known(item, "genre");
    case Field::kTime: return HumanDuration(kind == Kind::kPlaylists ? PlaylistMillis(item) : DictUint(item, "time"));
    case Field::kSize: return HumanSize(DictUint(item, "size"));
    case Field::kPlaylist: return DictString(item, "name");
    case Field::kTracks: return QString::number(DictUint(item, "number"));
    case Field::kLabel: return DictString(item, "name");
    case Field::kRecorded: return Q(app::RecordingTime(app::DictString(item, "title"), ":"));
    case Field::kPath: return DictString(item, "path");
    case Field::kCatalogue: return row.purchased ? tr("purchased") : tr("user");
    case Field::kModified: return DictString(item, "time");
  }
  return {};
}

QVariant CatalogueModel::SortKey(const Row &row, Field field) const {
  switch (field) {
    case Field::kTime:
      return QVariant::fromValue<qulonglong>(kind_ == Kind::kPlaylists ? PlaylistMillis(row.item) : DictUint(row.item, "time"));
    case Field::kSize: return QVariant::fromValue<qulonglong>(DictUint(row.item, "size"));
    case Field::kTracks: return QVariant::fromValue<qulonglong>(DictUint(row.item, "number"));
    default: return Display(row, field).toString().toCaseFolded();
  }
}

QVariant CatalogueModel::data(const QModelIndex &index, int role) const {
  if (!index.isValid() || static_cast<size_t>(index.row()) >= rows_.size()) return {};
  const Row &row = rows_[static_cast<size_t>(index.row())];
  const Field field = fields_[static_cast<size_t>(index.column())];
  switch (role) {
    case Qt::DisplayRole:
    case Qt::ToolTipRole: return Display(row, field);
    case kSortRole: return SortKey(row, field);
    case kItemRole: return QVariant::fromValue<quintptr>(reinterpret_cast<quintptr>(row.item));
    case Qt::TextAlignmentRole:
      if (field == Field::kTime || field == Field::kSize || field == Field::kTracks)
        return QVariant::fromValue<int>(Qt::AlignRight | Qt::AlignVCenter);
      return {};
    default: return {};
  }
}

QVariant CatalogueModel::headerData(int section, Qt::Orientation orientation, int role) const {
  if (orientation != Qt::Horizontal || role != Qt::DisplayRole || section < 0 ||
      static_cast<size_t>(section) >= fields_.size())
    return QAbstractTableModel::headerData(section, orientation, role);
  return tr(HeaderOf(fields_[static_cast<size_t>(section)]));
}

}  // namespace tarn::desktop
