// The camera roll and the synced pictures as a grid of thumbnails, grouped
// by the day each picture was taken, with marks for videos (and their
// length), Live Photos and pictures kept only in iCloud; a double click or
// Enter opens a large preview; "Import new photos" copies what no earlier
// import copied into a folder by date, as `tarn import photos` does.
#pragma once

#include "device_page.h"

#include <memory>
#include <vector>

#include <QAbstractListModel>
#include <QCheckBox>
#include <QComboBox>
#include <QDialog>
#include <QLabel>
#include <QListView>
#include <QPushButton>
#include <QStyledItemDelegate>

#include "thumbnails.h"

namespace tarn::desktop {

// The grid's rows: a heading per day, then that day's pictures. The entries
// are read off the library's list on a worker; the model only points into
// them.
class PhotoModel : public QAbstractListModel {
  Q_OBJECT
 public:
  static constexpr int kHeadingRole = Qt::UserRole;  // bool: a day's heading
  static constexpr int kEntryRole = Qt::UserRole + 1;  // const PhotoEntry *, as quintptr

  struct Row {
    int entry = -1;  // index into the entries; -1 for a heading
    QString heading;
  };
  struct Content {
    std::vector<PhotoEntry> entries;
    std::vector<Row> rows;
  };
  // Entries from a camera roll or pictures list, newest first, under a
  // heading per day (local time). Runs on a worker.
  static std::shared_ptr<const Content> Build(plist_t list);

  PhotoModel(ThumbnailCache *cache, QObject *parent = nullptr);
  void SetContent(std::shared_ptr<const Content> content);
  const PhotoEntry *Entry(const QModelIndex &index) const;
  int Pictures() const { return content_ ? static_cast<int>(content_->entries.size()) : 0; }
  int rowCount(const QModelIndex &parent = {}) const override;
  QVariant data(const QModelIndex &index, int role) const override;
  Qt::ItemFlags flags(const QModelIndex &index) const override;

 private:
  ThumbnailCache *cache_;
  std::shared_ptr<const Content> content_;
  QHash<QString, int> row_of_;  // device path -> row
};

class PhotoDelegate : public QStyledItemDelegate {
  Q_OBJECT
 public:
  explicit PhotoDelegate(QListView *view);
  void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override;
  QSize sizeHint(const QStyleOptionViewItem &option, const QModelIndex &index) const override;

 private:
  QListView *view_;
};

// A large view of one picture: the thumbnail at once, the picture itself
// once it is read and decoded on a worker.
class PhotoPreview : public QDialog {
  Q_OBJECT
 public:
  PhotoPreview(const PhotoEntry &entry, const QImage &thumbnail, QWidget *parent = nullptr);
  void Load(const std::shared_ptr<DeviceLink> &link);
  QLabel *picture() { return picture_; }
  QLabel *note() { return note_; }
  bool full() const { return full_; }

 signals:
  void Decoded(bool full);

 protected:
  void resizeEvent(QResizeEvent *event) override;

 private:
  void ShowImage();
  PhotoEntry entry_;
  QImage image_;
  bool full_ = false;
  QLabel *picture_;
  QLabel *note_;
};

class PhotosPage : public QWidget, public DevicePage {
  Q_OBJECT
 public:
  explicit PhotosPage(QWidget *parent = nullptr);

  // The chosen device's session (null for none); clears the page.
  void SetDevice(const std::shared_ptr<DeviceLink> &link) override;
  // Shown with the device open: reads what is not read yet.
  void Activate() override { Load(); }
  // Reads the list once the device is open; does nothing when it is loaded.
  void Load();
  bool loaded() const { return loaded_; }

  enum class Source { kCamera, kPictures };
  void ShowSource(Source source);
  PhotoModel *model() { return &model_; }
  QListView *grid() { return grid_; }
  ThumbnailCache *thumbnails() { return &cache_; }
  QPushButton *importButton() { return import_; }
  QCheckBox *jpeg() { return jpeg_; }
  QLabel *status() { return status_; }
  // Opens the preview of a grid row; null for a heading.
  PhotoPreview *Preview(const QModelIndex &index);

 signals:
  void Loaded(int pictures);
  // Import the camera roll's new pictures into `folder`, HEIC as JPEG when
  // `jpeg`; the window runs it as a transfer.
  void ImportRequested(const QString &folder, bool jpeg);

 private:
  void AskImport();
  std::shared_ptr<DeviceLink> link_;
  ThumbnailCache cache_;
  PhotoModel model_;
  QComboBox *source_;
  QLabel *status_;
  QPushButton *import_;
  QCheckBox *jpeg_;
  QListView *grid_;
  bool loaded_ = false;
  int generation_ = 0;
};

}  // namespace tarn::desktop
