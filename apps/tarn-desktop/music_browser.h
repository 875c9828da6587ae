// Music as a person browses it: artists, each artist's albums with their
// covers, an album's tracks; and playlists as their own section with their
// tracks. Both lists are read once over the chosen device's session and
// indexed on a worker; the flat table of every track stays the music
// page's own view. Covers come through the photo grid's thumbnail cache
// (over the same session, a few per job, kept on disk), only for the albums
// in sight, with a placeholder until they come or where there is none.
#pragma once

#include "device_page.h"

#include <memory>
#include <vector>

#include <QListWidget>
#include <QLabel>
#include <QStandardItemModel>
#include <QTabWidget>
#include <QTableView>
#include <QWidget>

#include "jobs.h"
#include "thumbnails.h"

namespace tarn::desktop {

class MusicBrowser : public QWidget, public DevicePage {
  Q_OBJECT
 public:
  struct Album {
    QString title;
    uint64_t year = 0;
    std::vector<plist_t> tracks;  // by disc and track number
    QString artwork;              // the cover's device path, or a name for the cover of an older
                                  // device's track; empty when there is none to ask for
    uint64_t artwork_track = 0;   // a track whose cover that is
  };
  struct Artist {
    QString name;
    std::vector<Album> albums;  // by year, then title
  };
  struct Library {
    SharedPlist music, playlists;
    std::vector<Artist> artists;  // by name, ignoring case
    std::vector<plist_t> lists;   // playlists a person made, without the library's own
  };
  // The index of both lists; runs on a worker.
  static std::shared_ptr<const Library> Index(SharedPlist music, SharedPlist playlists);

  explicit MusicBrowser(QWidget *parent = nullptr);
  void SetDevice(const std::shared_ptr<DeviceLink> &link) override;
  // Shown with the device open: reads what is not read yet.
  void Activate() override { Load(); }
  // Reads the lists once the device is open; nothing when loaded.
  void Load();
  bool loaded() const { return loaded_; }

  QListWidget *artists() { return artists_; }
  QListWidget *albums() { return albums_; }
  QListWidget *playlists() { return playlists_; }
  QTableView *tracks() { return tracks_; }
  QTableView *playlistTracks() { return list_tracks_; }
  QTabWidget *sections() { return sections_; }
  QLabel *cover() { return cover_; }
  ThumbnailCache *covers() { return covers_; }
  // Whether the album at `row` of the albums list shows its cover (not the
  // placeholder).
  bool ShowsCover(int row) const;

 signals:
  void Loaded(int artists);

 private:
  void ShowArtist(int row);
  void ShowAlbum(int row);
  void ShowPlaylist(int row);
  // The cover of an album when it is at hand; asks for it otherwise.
  QImage CoverOf(const Album &album);
  void CoverReady(const QString &path);
  void ShowCover(const Album *album);
  static void Fill(QStandardItemModel &model, QTableView *view, const std::vector<plist_t> &tracks, bool numbered);

  std::shared_ptr<DeviceLink> link_;
  std::shared_ptr<const Library> library_;
  QTabWidget *sections_;
  QListWidget *artists_;
  QListWidget *albums_;
  QLabel *cover_;
  QTableView *tracks_;
  ThumbnailCache *covers_;
  QIcon placeholder_;
  QStandardItemModel track_model_;
  QListWidget *playlists_;
  QTableView *list_tracks_;
  QStandardItemModel list_model_;
  QLabel *status_;
  bool loaded_ = false;
  int generation_ = 0;
};

}  // namespace tarn::desktop
