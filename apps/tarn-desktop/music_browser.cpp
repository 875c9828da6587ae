#include "music_browser.h"

#include <algorithm>
#include <map>

#include <QHeaderView>
#include <QPainter>
#include <QPixmap>
#include <QSplitter>
#include <QVBoxLayout>

#include "apps/common/catalogue.h"
#include "pages.h"

namespace tarn::desktop {
namespace {

QString Name(plist_t item, const char *key, const QString &unknown) {
  const QString text = Known(item, key);
  return text.isEmpty() ? unknown : text;
}

QListWidget *List(const QString &name, QWidget *parent) {
  auto *list = new QListWidget(parent);
  list->setObjectName(name);
  list->setAccessibleName(name);
  list->setUniformItemSizes(true);
  return list;
}

// The keys of an older device's track items, which name no cover.
constexpr uint32_t kMediaItemKeys = 10;
// Pixels on the side of a cover in the albums list.
constexpr int kIconSide = 48;
// The role of an album item that holds its cover's device path.
constexpr int kCoverRole = Qt::UserRole + 1;

// What an album without a cover (or whose cover is still on its way) shows:
// a plain square with a note, so that the titles stay lined up.
QIcon Placeholder(const QPalette &palette) {
  QPixmap pixmap(kIconSide, kIconSide);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(palette.color(QPalette::Mid));
  painter.drawRoundedRect(QRectF(2, 2, kIconSide - 4, kIconSide - 4), 4, 4);
  painter.setPen(palette.color(QPalette::Light));
  QFont font = painter.font();
  font.setPixelSize(kIconSide / 2);
  painter.setFont(font);
  painter.drawText(pixmap.rect(), Qt::AlignCenter, QString(QChar(0x266A)));
  return QIcon(pixmap);
}

QTableView *Table(const QString &name, QStandardItemModel *model, QWidget *parent) {
  auto *view = new QTableView(parent);
  view->setObjectName(name);
  view->setAccessibleName(name);
  view->setModel(model);
  view->setSelectionBehavior(QAbstractItemView::SelectRows);
  view->setEditTriggers(QAbstractItemView::NoEditTriggers);
  view->setWordWrap(false);
  view->setTabKeyNavigation(false);
  view->verticalHeader()->hide();
  view->setSortingEnabled(true);
  return view;
}

}  // namespace

std::shared_ptr<const MusicBrowser::Library> MusicBrowser::Index(SharedPlist music, SharedPlist playlists) {
  auto library = std::make_shared<Library>();
  library->music = music;
  library->playlists = playlists;
  // Artist (the album's artist where the track names one) -> album -> tracks.
  std::map<QString, std::pair<QString, std::map<QString, Album>>> by_artist;  // folded name -> (name, albums)
  for (plist_t track : ArrayItems(DictArray(static_cast<plist_t>(music.get()), "item"))) {
    QString artist = Known(track, "album_artist");
    if (artist.isEmpty()) artist = Name(track, "artist", QObject::tr("Unknown Artist"));
    auto &entry = by_artist[artist.toCaseFolded()];
    if (entry.first.isEmpty()) entry.first = artist;
    const QString title = Name(track, "album", QObject::tr("Unknown Album"));
    Album &album = entry.second[title.toCaseFolded()];
    if (album.title.isEmpty()) album.title = title;
    album.year = std::max<uint64_t>(album.year, DictUint(track, "year"));
    album.tracks.push_back(track);
    // The album's cover is the first one a track of it names. An older
    // device's tracks name none (their items keep the ten keys of a media
    // item): the library is asked for the cover of the album's first track,
    // and answers whether there is one.
    if (album.artwork.isEmpty()) {
      album.artwork = DictString(track, "artwork");
      if (!album.artwork.isEmpty()) {
        album.artwork_track = DictUint(track, "id");
      } else if (plist_dict_get_size(track) == kMediaItemKeys) {
        album.artwork_track = DictUint(track, "id");
        album.artwork = QString("cover of track %1").arg(album.artwork_track);
      }
    }
  }
  for (auto &[folded, entry] : by_artist) {
    Artist artist{entry.first, {}};
    for (auto &[key, album] : entry.second) {
      std::stable_sort(album.tracks.begin(), album.tracks.end(), [](plist_t a, plist_t b) {
        return std::pair(DictUint(a, "disc"), DictUint(a, "track")) < std::pair(DictUint(b, "disc"), DictUint(b, "track"));
      });
      artist.albums.push_back(std::move(album));
    }
    std::stable_sort(artist.albums.begin(), artist.albums.end(),
                     [](const Album &a, const Album &b) { return a.year < b.year; });
    library->artists.push_back(std::move(artist));
  }
  // The first playlist is the library itself.
  const std::vector<plist_t> all = ArrayItems(static_cast<plist_t>(playlists.get()));
  if (all.size() > 1) library->lists.assign(all.begin() + 1, all.end());
  return library;
}

MusicBrowser::MusicBrowser(QWidget *parent) : QWidget(parent) {
  setObjectName("musicBrowser");
  auto *layout = new QVBoxLayout(this);
  sections_ = new QTabWidget(this);
  sections_->setObjectName("musicSections");

  auto *by_artist = new QSplitter(Qt::Horizontal, sections_);
  artists_ = List(tr("Artists"), by_artist);
  albums_ = List(tr("Albums"), by_artist);
  albums_->setIconSize(QSize(kIconSide, kIconSide));
  // The album's tracks under its cover, shown larger.
  auto *album_pane = new QWidget(by_artist);
  auto *pane_layout = new QVBoxLayout(album_pane);
  pane_layout->setContentsMargins(0, 0, 0, 0);
  cover_ = new QLabel(album_pane);
  cover_->setObjectName("albumCover");
  cover_->setFixedSize(ThumbnailCache::kSide, ThumbnailCache::kSide);
  cover_->setAlignment(Qt::AlignCenter);
  pane_layout->addWidget(cover_);
  tracks_ = Table(tr("Tracks of the album"), &track_model_, album_pane);
  pane_layout->addWidget(tracks_, 1);
  by_artist->addWidget(artists_);
  by_artist->addWidget(albums_);
  by_artist->addWidget(album_pane);
  by_artist->setStretchFactor(2, 1);
  by_artist->setSizes({200, 220, 600});
  sections_->addTab(by_artist, tr("&Artists"));

  auto *by_list = new QSplitter(Qt::Horizontal, sections_);
  playlists_ = List(tr("Playlists"), by_list);
  list_tracks_ = Table(tr("Tracks of the playlist"), &list_model_, by_list);
  by_list->addWidget(playlists_);
  by_list->addWidget(list_tracks_);
  by_list->setStretchFactor(1, 1);
  by_list->setSizes({240, 780});
  sections_->addTab(by_list, tr("P&laylists"));
  layout->addWidget(sections_, 1);
  status_ = new QLabel(this);
  status_->setObjectName("status");
  status_->setWordWrap(true);
  layout->addWidget(status_);

  sections_->setAccessibleName(tr("Music by artist or by playlist"));
  // Every list sorts and has its menu, also from the keyboard, as every
  // other page's does.
  for (QAbstractItemView *view : std::initializer_list<QAbstractItemView *>{artists_, albums_, playlists_, tracks_,
                                                                            list_tracks_})
    PrepareList(view, this);

  covers_ = new ThumbnailCache(this);
  placeholder_ = Placeholder(palette());
  connect(covers_, &ThumbnailCache::Ready, this, &MusicBrowser::CoverReady);

  connect(artists_, &QListWidget::currentRowChanged, this, &MusicBrowser::ShowArtist);
  connect(albums_, &QListWidget::currentRowChanged, this, &MusicBrowser::ShowAlbum);
  connect(playlists_, &QListWidget::currentRowChanged, this, &MusicBrowser::ShowPlaylist);
}

void MusicBrowser::SetDevice(const std::shared_ptr<DeviceLink> &link) {
  ++generation_;
  link_ = std::move(link);
  covers_->SetDevice(link_);
  ShowCover(nullptr);
  loaded_ = false;
  library_.reset();
  artists_->clear();
  albums_->clear();
  playlists_->clear();
  track_model_.clear();
  list_model_.clear();
  status_->clear();
}

void MusicBrowser::Load() {
  if (loaded_ || !link_) return;
  const int generation = ++generation_;
  status_->setText(tr("Loading…"));
  struct Result {
    std::shared_ptr<const Library> library;
    Reason why;
  };
  link_->Run(
      this,
      [udid = link_->udid()](app::Session &session) {
        Result out;
        SharedPlist music = Share(app::FetchList(session.device(), app::Kind::kMusic));
        const TarnError *error = TarnLastError();
        if (!music && error->code != TARN_OK && error->code != TARN_E_DATABASE_ABSENT)
          out.why = DeviceReason(udid, QObject::tr("The music cannot be read."));
        SharedPlist playlists = Share(app::FetchList(session.device(), app::Kind::kPlaylists));
        out.library = Index(music, playlists);
        return out;
      },
      [this, generation](const Result &out) {
        if (generation != generation_) return;
        library_ = out.library;
        loaded_ = true;
        for (const Artist &artist : library_->artists) artists_->addItem(artist.name);
        for (plist_t list : library_->lists) playlists_->addItem(DictString(list, "name"));
        const int n = static_cast<int>(library_->artists.size());
        if (out.why.failed()) status_->setText(Text(out.why));
        else status_->setText(tr("%n artist(s)", nullptr, n) + ", " +
                              tr("%n playlist(s)", nullptr, static_cast<int>(library_->lists.size())));
        if (n > 0) artists_->setCurrentRow(0);
        if (!library_->lists.empty()) playlists_->setCurrentRow(0);
        emit Loaded(n);
      });
}

void MusicBrowser::ShowArtist(int row) {
  albums_->clear();
  if (!library_ || row < 0 || row >= static_cast<int>(library_->artists.size())) return;
  for (const Album &album : library_->artists[static_cast<size_t>(row)].albums) {
    auto *item = new QListWidgetItem(album.year > 0 ? QString("%1 (%2)").arg(album.title).arg(album.year) : album.title,
                                     albums_);
    item->setData(kCoverRole, album.artwork);
    const QImage image = CoverOf(album);
    item->setIcon(image.isNull() ? placeholder_ : QIcon(QPixmap::fromImage(image)));
  }
  if (albums_->count() > 0) albums_->setCurrentRow(0);
  else ShowCover(nullptr);
}

QImage MusicBrowser::CoverOf(const Album &album) {
  if (album.artwork.isEmpty()) return {};
  PhotoEntry entry;
  entry.path = album.artwork;
  entry.track = album.artwork_track;
  return covers_->Get(entry);
}

void MusicBrowser::CoverReady(const QString &path) {
  const int artist = artists_->currentRow();
  if (!library_ || artist < 0 || artist >= static_cast<int>(library_->artists.size())) return;
  const auto &albums = library_->artists[static_cast<size_t>(artist)].albums;
  for (int i = 0; i < albums_->count() && i < static_cast<int>(albums.size()); ++i) {
    QListWidgetItem *item = albums_->item(i);
    if (item->data(kCoverRole).toString() != path) continue;
    const QImage image = CoverOf(albums[static_cast<size_t>(i)]);
    if (!image.isNull()) item->setIcon(QIcon(QPixmap::fromImage(image)));
    if (i == albums_->currentRow()) ShowCover(&albums[static_cast<size_t>(i)]);
  }
}

void MusicBrowser::ShowCover(const Album *album) {
  const QImage image = album ? CoverOf(*album) : QImage();
  if (image.isNull()) {
    cover_->setPixmap(placeholder_.pixmap(kIconSide, kIconSide));
    cover_->setAccessibleName(album ? tr("No cover for %1").arg(album->title) : tr("No album"));
  } else {
    cover_->setPixmap(QPixmap::fromImage(image));
    cover_->setAccessibleName(tr("Cover of %1").arg(album->title));
  }
}

bool MusicBrowser::ShowsCover(int row) const {
  const QListWidgetItem *item = albums_->item(row);
  return item != nullptr && !item->icon().isNull() && item->icon().cacheKey() != placeholder_.cacheKey();
}

void MusicBrowser::ShowAlbum(int row) {
  const int artist = artists_->currentRow();
  if (!library_ || artist < 0 || row < 0) {
    track_model_.clear();
    ShowCover(nullptr);
    return;
  }
  const auto &albums = library_->artists[static_cast<size_t>(artist)].albums;
  if (row >= static_cast<int>(albums.size())) return;
  Fill(track_model_, tracks_, albums[static_cast<size_t>(row)].tracks, true);
  ShowCover(&albums[static_cast<size_t>(row)]);
}

void MusicBrowser::ShowPlaylist(int row) {
  if (!library_ || row < 0 || row >= static_cast<int>(library_->lists.size())) {
    list_model_.clear();
    return;
  }
  Fill(list_model_, list_tracks_, ArrayItems(DictArray(library_->lists[static_cast<size_t>(row)], "item")), false);
}

void MusicBrowser::Fill(QStandardItemModel &model, QTableView *view, const std::vector<plist_t> &tracks, bool numbered) {
  model.clear();
  model.setHorizontalHeaderLabels({numbered ? tr("#") : tr("Position"), tr("Title"), tr("Artist"), tr("Album"),
                                   tr("Time"), tr("Size")});
  int position = 0;
  for (plist_t track : tracks) {
    ++position;
    QList<QStandardItem *> cells;
    const uint64_t number = numbered ? DictUint(track, "track") : static_cast<uint64_t>(position);
    const auto cell = [](const QString &text, const QVariant &sort, bool right) {
      auto *item = new QStandardItem(text);
      item->setData(sort, Qt::UserRole);
      if (right) item->setTextAlignment(Qt::AlignRight | Qt::AlignVCenter);
      return item;
    };
    cells << cell(number > 0 ? QString::number(number) : QString(), QVariant::fromValue(number), true)
          << cell(DictString(track, "title"), DictString(track, "title"), false)
          << cell(Known(track, "artist"), Known(track, "artist"), false)
          << cell(Known(track, "album"), Known(track, "album"), false)
          << cell(HumanDuration(DictUint(track, "time")), QVariant::fromValue(DictUint(track, "time")), true)
          << cell(HumanSize(DictUint(track, "size")), QVariant::fromValue(DictUint(track, "size")), true);
    model.appendRow(cells);
  }
  model.setSortRole(Qt::UserRole);
  // Numbers, times and sizes are never cut; the title takes the rest.
  QHeaderView *header = view->horizontalHeader();
  header->setSectionResizeMode(QHeaderView::ResizeToContents);
  header->setSectionResizeMode(1, QHeaderView::Stretch);
}

}  // namespace tarn::desktop
