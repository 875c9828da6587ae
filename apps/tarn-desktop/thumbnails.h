// Thumbnails for the photo grid and the music browser's album covers. Each
// comes from the phone's own thumbnail file where the photo library names
// one, else from the picture itself, and a cover through the library's
// TarnCopyArtwork; the
// files are read over the window's held session (DeviceLink) a few per job,
// so that a page switch never waits long behind them, and decoded on worker
// threads: HEIC through libheif, JPEG and PNG through Qt. Decoded thumbnails
// are kept on disk under the user's cache directory, named after the
// picture's path, size and time so that a changed picture is read again,
// and in memory up to a limit, so that a roll of 20,000 costs no more than a
// screenful or two.
#pragma once

#include <deque>
#include <memory>

#include <QCache>
#include <QDateTime>
#include <QHash>
#include <QImage>
#include <QObject>
#include <QSet>
#include <QString>
#include <QThreadPool>

#include "jobs.h"

namespace tarn::desktop {

// One picture or video of the grid, read off the library's list on a worker.
struct PhotoEntry {
  QString path;       // the original on the device
  QString thumbnail;  // the phone's own thumbnail file, or empty
  QString name;       // the original's file name
  QString time;       // the list's own time text: with the size, what tells a changed picture
  QDateTime taken;    // invalid when the list gives no time
  QString kind;       // "photo", "video", "live", "screenshot"; empty on older phones
  quint64 size = 0;
  quint64 duration = 0;  // milliseconds, for videos
  bool cloud = false;    // the original is only in iCloud
  // An album cover rather than a picture: the track whose cover it is (the
  // library finds the file by the track), `path` being the cover's device
  // path, which the tracks of one album share.
  quint64 track = 0;
  bool video() const;
};

// A picture file decoded to at most `side` pixels on its longer side:
// HEIC through libheif (its embedded thumbnail when that is large enough),
// the rest through Qt. Null when it is no picture either can read.
QImage DecodePicture(const QString &file, bool heic, int side);

class ThumbnailCache : public QObject {
  Q_OBJECT
 public:
  static constexpr int kSide = 160;  // pixels on the longer side

  explicit ThumbnailCache(QObject *parent = nullptr);
  ~ThumbnailCache() override;

  // Forgets what was asked of the previous device; null for none.
  void SetDevice(const std::shared_ptr<DeviceLink> &link);
  // The thumbnail when it is in memory; otherwise asks for it (once, the
  // latest requests first) and answers a null image until Ready.
  QImage Get(const PhotoEntry &entry);
  // Whether no thumbnail can be had for the entry (a video the phone made
  // none for, a picture only in iCloud, a file that is no picture).
  bool Unavailable(const QString &path) const { return unavailable_.contains(path); }
  void SetMemoryLimit(qint64 bytes);
  qint64 MemoryUsed() const { return static_cast<qint64>(memory_.totalCost()) * 1024; }
  int Pending() const { return static_cast<int>(wanted_.size()) + fetching_ + decoding_; }
  // Where thumbnails of the current device are kept on disk.
  QString Folder() const { return folder_; }
  static QString KeyOf(const PhotoEntry &entry);
  // What the thumbnails of every device may take on disk together; the
  // least recently shown go first once it is passed.
  static constexpr qint64 kDiskLimit = qint64{256} << 20;
  // Removes the least recently used files below `root` (by their time,
  // which a use renews) until they take at most three quarters of `limit`;
  // nothing while they fit. Returns how many it removed.
  static int Prune(const QString &root, qint64 limit);

 signals:
  void Ready(const QString &path);

 private:
  struct Fetched {
    PhotoEntry entry;
    QString file;  // the downloaded source, empty when none could be read
    bool heic = false;
  };
  void Pump();
  void Decode(const PhotoEntry &entry, const QString &file, bool heic, bool cached);
  void Deliver(int generation, const QString &path, const QImage &image, bool decoded);

  std::shared_ptr<DeviceLink> link_;
  QString folder_;
  int generation_ = 0;
  QCache<QString, QImage> memory_;  // cost in KiB
  std::deque<PhotoEntry> wanted_;   // front: asked last, shown now
  QSet<QString> asked_;             // wanted, fetching or decoding
  QSet<QString> unavailable_;
  int fetching_ = 0;
  int decoding_ = 0;
  QThreadPool decoders_;
};

}  // namespace tarn::desktop
