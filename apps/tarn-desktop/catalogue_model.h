// The catalogue pages' tables: a model over the library's own property
// list. Rows point into the list; nothing is copied per row, so the 50,000
// tracks of a full phone cost one pointer each on top of the list.
#pragma once

#include <vector>

#include <QAbstractTableModel>

#include "apps/common/catalogue.h"
#include "device.h"

namespace tarn::desktop {

using app::Kind;

// A catalogue page: its kind and the title on its tab.
struct PageKind {
  Kind kind;
  const char *key;    // as `tarn list` names it
  const char *title;
};
const std::vector<PageKind> &PageKinds();

class CatalogueModel : public QAbstractTableModel {
  Q_OBJECT
 public:
  // The raw value of a cell (a number, or folded text), for sorting.
  static constexpr int kSortRole = Qt::UserRole;
  // The item's dictionary, as a quintptr.
  static constexpr int kItemRole = Qt::UserRole + 1;

  explicit CatalogueModel(QObject *parent = nullptr) : QAbstractTableModel(parent) {}

  // Shows `list` (the library's result for `kind`). For a playlist's
  // members, `items` is the member array inside `list`. `haystacks`, when
  // given, are Haystacks(kind, list, items), made beforehand off the window's
  // thread; otherwise they are made at the first keystroke in a filter.
  void setList(Kind kind, SharedPlist list, plist_t items = nullptr, std::vector<QString> haystacks = {});
  // Every row's cells, case-folded and joined by line breaks: what a filter
  // looks in. Reads `list` only, so a worker may make them beside the list.
  static std::vector<QString> Haystacks(Kind kind, plist_t list, plist_t items = nullptr);
  void clear();

  Kind kind() const { return kind_; }
  plist_t item(int row) const { return rows_[static_cast<size_t>(row)].item; }
  // Items as a person counts them: playlists without the library's master list.
  int rowCount(const QModelIndex &parent = {}) const override;
  int columnCount(const QModelIndex &parent = {}) const override;
  QVariant data(const QModelIndex &index, int role) const override;
  QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

  // Row `a` before row `b` by `column`, on keys made once per column (the
  // first sort by it): numbers as numbers, text case-folded. Equal keys
  // keep the rows' own order, so sorted rows never trade places on a reload.
  bool Less(int a, int b, int column) const;
  // Row `row`'s line of Haystacks().
  const QString &Haystack(int row) const;

  enum class Field { kTitle, kArtist, kAlbum, kGenre, kTime, kSize, kPlaylist, kTracks, kLabel, kRecorded, kPath,
                     kCatalogue, kAuthor, kModified };

 private:
  struct Row {
    plist_t item;
    bool purchased;  // books: from the purchased catalogue
  };
  static std::vector<Row> RowsOf(Kind kind, plist_t root, plist_t items);
  static QVariant Display(Kind kind, const Row &row, Field field);
  QVariant Display(const Row &row, Field field) const { return Display(kind_, row, field); }
  QVariant SortKey(const Row &row, Field field) const;

  Kind kind_ = Kind::kMusic;
  SharedPlist list_;
  plist_t members_of_ = nullptr;  // setList's `items`
  std::vector<Row> rows_;
  std::vector<Field> fields_;
  struct Keys {
    bool made = false;
    std::vector<uint64_t> numbers;
    std::vector<QString> texts;
  };
  mutable std::vector<Keys> keys_;  // per column
  mutable std::vector<QString> haystacks_;
};

}  // namespace tarn::desktop
