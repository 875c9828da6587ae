// Music as a person browses it: artists, each artist's albums, an album's
// tracks; and playlists as their own section with their tracks. Both lists
// are read once over the chosen device's session and indexed on a worker;
// the flat table of every track stays the music page's own view.
// Albums are shown without artwork: the library does not expose it yet.
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

namespace tarn::desktop {

class MusicBrowser : public QWidget, public DevicePage {
  Q_OBJECT
 public:
  struct Album {
    QString title;
    uint64_t year = 0;
    std::vector<plist_t> tracks;  // by disc and track number
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

 signals:
  void Loaded(int artists);

 private:
  void ShowArtist(int row);
  void ShowAlbum(int row);
  void ShowPlaylist(int row);
  static void Fill(QStandardItemModel &model, QTableView *view, const std::vector<plist_t> &tracks, bool numbered);

  std::shared_ptr<DeviceLink> link_;
  std::shared_ptr<const Library> library_;
  QTabWidget *sections_;
  QListWidget *artists_;
  QListWidget *albums_;
  QTableView *tracks_;
  QStandardItemModel track_model_;
  QListWidget *playlists_;
  QTableView *list_tracks_;
  QStandardItemModel list_model_;
  QLabel *status_;
  bool loaded_ = false;
  int generation_ = 0;
};

}  // namespace tarn::desktop
