#include "thumbnails.h"

#include <algorithm>
#include <atomic>

#include <QBuffer>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QStandardPaths>

#include "apps/common/host_file.h"
#include "apps/common/picture.h"

namespace tarn::desktop {
namespace {

// Requests beyond these many were for pictures scrolled past long ago; they
// are dropped and asked again should they come back into sight.
constexpr size_t kMaxWanted = 240;
// Files per job on the held session: a screenful in a few jobs, and little
// for a page switch to wait behind.
constexpr size_t kBatch = 6;
// An original larger than this is not read for a thumbnail.
constexpr quint64 kLargestOriginal = 64ull << 20;

}  // namespace

bool PhotoEntry::video() const { return kind == QLatin1String("video"); }

QImage DecodePicture(const QString &file, bool heic, int side) {
  QImage image;
  if (heic) {
    try {
      // An embedded thumbnail serves when its shorter side is three
      // quarters of what is wanted: no one sees the difference in the grid.
      const app::RgbImage rgb = app::DecodeHeic(file.toStdString(), side * 3 / 4);
      image = QImage(rgb.pixels.data(), rgb.width, rgb.height, rgb.width * 3, QImage::Format_RGB888).copy();
    } catch (const app::Failure &) {
      return {};
    }
  } else {
    QImageReader reader(file);
    reader.setAutoTransform(true);
    const QSize size = reader.size();
    // JPEG decodes straight to a smaller size, at a fraction of the work.
    if (size.isValid() && (size.width() > side || size.height() > side))
      reader.setScaledSize(size.scaled(side, side, Qt::KeepAspectRatio));
    image = reader.read();
  }
  if (!image.isNull() && (image.width() > side || image.height() > side))
    image = image.scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation);
  return image;
}

ThumbnailCache::ThumbnailCache(QObject *parent) : QObject(parent) {
  memory_.setMaxCost(48 * 1024);
  decoders_.setMaxThreadCount(std::max(2, QThread::idealThreadCount()));
}

ThumbnailCache::~ThumbnailCache() {
  ++generation_;
  decoders_.waitForDone();
}

void ThumbnailCache::SetDevice(const std::shared_ptr<DeviceLink> &link) {
  ++generation_;
  link_ = link;
  memory_.clear();
  wanted_.clear();
  asked_.clear();
  unavailable_.clear();
  fetching_ = decoding_ = 0;
  const QString root = QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + "/thumbnails";
  folder_ = link ? root + '/' + link->udid() : QString();
  // Kept within its limit when a device is chosen, off the window's thread.
  // The photo grid and the music browser each keep a cache over the same
  // folder and are told of the device together: the folder is walked once
  // for both, not again within a minute.
  static std::atomic<qint64> last_prune{0};
  const qint64 now = QDateTime::currentMSecsSinceEpoch();
  qint64 before = last_prune.load();
  if (link && now - before > 60000 && last_prune.compare_exchange_strong(before, now))
    decoders_.start([root] { Prune(root, kDiskLimit); });
}

int ThumbnailCache::Prune(const QString &root, qint64 limit) {
  struct File {
    QString path;
    qint64 size;
    QDateTime used;
  };
  std::vector<File> files;
  qint64 total = 0;
  QDirIterator it(root, QDir::Files | QDir::NoSymLinks, QDirIterator::Subdirectories);
  while (it.hasNext()) {
    const QFileInfo info(it.next());
    files.push_back({info.filePath(), info.size(), info.lastModified()});
    total += info.size();
  }
  if (total <= limit) return 0;
  std::sort(files.begin(), files.end(), [](const File &a, const File &b) { return a.used < b.used; });
  int removed = 0;
  for (const File &f : files) {
    if (total <= limit / 4 * 3) break;
    if (QFile::remove(f.path)) {
      total -= f.size;
      ++removed;
    }
  }
  return removed;
}

void ThumbnailCache::SetMemoryLimit(qint64 bytes) { memory_.setMaxCost(static_cast<int>(bytes / 1024)); }

QString ThumbnailCache::KeyOf(const PhotoEntry &entry) {
  QCryptographicHash hash(QCryptographicHash::Sha1);
  hash.addData((entry.path + '\n' + QString::number(entry.size) + '\n' + entry.time).toUtf8());
  return QString::fromLatin1(hash.result().toHex());
}

QImage ThumbnailCache::Get(const PhotoEntry &entry) {
  if (const QImage *image = memory_.object(entry.path)) return *image;
  if (!link_ || asked_.contains(entry.path) || unavailable_.contains(entry.path)) return {};
  if (entry.thumbnail.isEmpty() && (entry.video() || entry.cloud)) {
    unavailable_.insert(entry.path);
    return {};
  }
  asked_.insert(entry.path);
  const QString cached = folder_ + '/' + KeyOf(entry) + ".jpg";
  if (QFileInfo::exists(cached)) {
    Decode(entry, cached, false, true);
  } else {
    wanted_.push_front(entry);
    Pump();
  }
  return {};
}

void ThumbnailCache::Pump() {
  while (wanted_.size() > kMaxWanted) {
    asked_.remove(wanted_.back().path);
    wanted_.pop_back();
  }
  if (fetching_ > 0 || wanted_.empty() || !link_) return;
  std::vector<PhotoEntry> batch;
  while (!wanted_.empty() && batch.size() < kBatch) {
    batch.push_back(wanted_.front());
    wanted_.pop_front();
  }
  fetching_ = static_cast<int>(batch.size());
  const int generation = generation_;
  link_->Run(
      this,
      [batch, folder = folder_](app::Session &session) {
        std::vector<Fetched> out;
        try {
          QDir().mkpath(folder);
          const std::filesystem::path beside = std::filesystem::path(folder.toStdString()) / "source";
          for (const PhotoEntry &entry : batch) {
            Fetched fetched{entry, {}, false};
            // The phone's own thumbnail first; the picture itself when the
            // phone made none. A cover is the library's to find.
            std::vector<std::pair<QString, bool>> sources;
            if (entry.track != 0) sources.emplace_back(entry.path, false);
            if (!entry.thumbnail.isEmpty()) sources.emplace_back(entry.thumbnail, false);
            if (entry.track == 0 && !entry.video() && !entry.cloud && entry.size <= kLargestOriginal)
              sources.emplace_back(entry.path, app::IsHeic(entry.path.toStdString()));
            for (const auto &[source, heic] : sources) {
              const std::string temp = app::CreateTemporaryBeside(beside).string();
              if (entry.track != 0)
                TarnCopyArtwork(session.device(), entry.track, temp.c_str());
              else
                _CopyFileFromDeviceToNative(session.device(), session.client(), source.toUtf8().constData(),
                                            temp.c_str(), nullptr);
              const TarnErrorCode code = TarnLastError()->code;
              if (code == TARN_OK && QFileInfo(QString::fromStdString(temp)).size() > 0) {
                fetched.file = QString::fromStdString(temp);
                fetched.heic = heic;
                break;
              }
              QFile::remove(QString::fromStdString(temp));
              // A lost connection fails every file after it alike.
              if (app::BreaksConnection(code)) return out;
            }
            out.push_back(std::move(fetched));
          }
        } catch (const app::Failure &) {
          // The device cannot be reached or the cache written: what was
          // fetched is shown, the rest asked again when next in sight.
        }
        return out;
      },
      [this, generation, batch](const std::vector<Fetched> &out) {
        if (generation != generation_) {
          for (const Fetched &f : out)
            if (!f.file.isEmpty()) QFile::remove(f.file);
          return;
        }
        fetching_ = 0;
        for (const Fetched &f : out) {
          if (f.file.isEmpty()) Deliver(generation, f.entry.path, {}, false);
          else Decode(f.entry, f.file, f.heic, false);
        }
        // What the job did not get to is asked again when next in sight.
        for (size_t i = out.size(); i < batch.size(); ++i) asked_.remove(batch[i].path);
        Pump();
      });
}

void ThumbnailCache::Decode(const PhotoEntry &entry, const QString &file, bool heic, bool cached) {
  ++decoding_;
  const int generation = generation_;
  const QString target = folder_ + '/' + KeyOf(entry) + ".jpg";
  decoders_.start([this, generation, path = entry.path, file, heic, cached, target] {
    const QImage image = DecodePicture(file, heic, kSide);
    if (cached) {
      // A use renews the file's time: the disk cache is pruned by it.
      QFile used(file);
      if (used.open(QIODevice::ReadWrite)) used.setFileTime(QDateTime::currentDateTime(), QFileDevice::FileModificationTime);
    } else {
      QFile::remove(file);
      if (!image.isNull()) {
        QByteArray bytes;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        image.save(&buffer, "JPEG", 85);
        try {
          app::WriteWhole(target.toStdString(), bytes.toStdString());
        } catch (const app::Failure &) {
          // No disk cache: the thumbnail is read from the phone next time.
        }
      }
    }
    QMetaObject::invokeMethod(this, [this, generation, path, image] { Deliver(generation, path, image, true); },
                              Qt::QueuedConnection);
  });
}

void ThumbnailCache::Deliver(int generation, const QString &path, const QImage &image, bool decoded) {
  if (generation != generation_) return;
  if (decoded) --decoding_;
  asked_.remove(path);
  if (image.isNull()) {
    unavailable_.insert(path);
  } else {
    const int cost = std::max(1, static_cast<int>(image.sizeInBytes() / 1024));
    memory_.insert(path, new QImage(image), cost);
  }
  emit Ready(path);
  Pump();
}

}  // namespace tarn::desktop
