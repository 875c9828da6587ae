// The browser of the device's media partition: folders are read when they
// are first opened, on a worker; downloads, uploads (also by dropping
// files on the tree), new folders, renames, deletes and searches.
#pragma once

#include <QLineEdit>
#include <QTreeWidget>
#include <QWidget>

#include "jobs.h"

namespace tarn::desktop {

class FilesPage : public QWidget {
  Q_OBJECT
 public:
  explicit FilesPage(QWidget *parent = nullptr);
  void SetDevice(std::shared_ptr<DeviceLink> link);  // null: none
  void Refresh();

  QTreeWidget *tree() { return tree_; }
  QLineEdit *search() { return search_; }
  // The item of a device path among those loaded, or null.
  QTreeWidgetItem *Find(const QString &path) const;
  // Opens a folder (loading it when needed).
  void Expand(const QString &path);
  QStringList SelectedPaths() const;
  // The folder new files go to: the selected folder, the selected file's
  // folder, or the root.
  QString TargetFolder() const;

  // The operations, without dialogs; the buttons ask first and call these.
  void MakeFolder(const QString &parent, const QString &name);
  void RenameTo(const QString &path, const QString &name);
  void Remove(const QStringList &paths);
  void StartSearch(const QString &text);

 signals:
  void TransferRequested(tarn::desktop::Transfer::Direction direction, std::vector<tarn::desktop::TransferItem> items);
  void FolderLoaded(const QString &path);
  void OperationDone(const QString &message);
  void SearchDone(int results);

 protected:
  void dragEnterEvent(QDragEnterEvent *event) override;
  void dropEvent(QDropEvent *event) override;
  bool eventFilter(QObject *watched, QEvent *event) override;

 private:
  void Load(QTreeWidgetItem *item);
  bool Loaded(QTreeWidgetItem *item) const;
  void SetLoaded(QTreeWidgetItem *item, bool loaded);
  void AskDownload();
  void AskUpload();
  void AskNewFolder();
  void AskRename();
  void AskDelete();
  void UploadFiles(const QStringList &host_paths, const QString &folder);
  void ReloadFolder(const QString &path);
  QTreeWidgetItem *NewItem(QTreeWidgetItem *parent, const QString &name, const QString &path, bool is_dir,
                           uint64_t size, int64_t mtime);

  std::shared_ptr<DeviceLink> link_;
  QTreeWidget *tree_;
  QLineEdit *search_;
  QTreeWidget *results_;
  bool root_loaded_ = false;
  int generation_ = 0;
};

}  // namespace tarn::desktop
