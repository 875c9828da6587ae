// The browser of the device's media partition: folders are read when they
// are first opened, on a worker; downloads, uploads (also by dropping
// files on the tree), new folders, renames, deletes and searches.
#pragma once

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSet>
#include <QTreeWidget>
#include <QWidget>

#include "device_page.h"
#include "jobs.h"

namespace tarn::desktop {

// The folders a phone keeps its own data in: removing one loses what the
// phone's apps hold there (the photo library, the music library, ...), so
// the browser asks louder before it does.
bool PhoneFolder(const QString &path);

class FilesPage : public QWidget, public DevicePage {
  Q_OBJECT
 public:
  explicit FilesPage(QWidget *parent = nullptr);
  void SetDevice(const std::shared_ptr<DeviceLink> &link) override;  // null: none
  void SetWritable(bool writable, const QString &why) override;
  // Reads the folders again; those open stay open, the current row stays.
  void Refresh();

  QTreeWidget *tree() { return tree_; }
  QLineEdit *search() { return search_; }
  QTreeWidget *results() { return results_; }
  QPushButton *button(const char *name) const;
  QLabel *notice() { return notice_; }
  bool writable() const { return writable_; }
  // The item of a device path among those loaded, or null.
  QTreeWidgetItem *Find(const QString &path) const;
  // Opens a folder (loading it when needed).
  void Expand(const QString &path);
  // Opens the folders down to `path`, reading each in turn, and makes it
  // the current row: where a search result leads.
  void Reveal(const QString &path);
  // The selected paths: the search results' when they have the focus or
  // the tree has none selected, else the tree's.
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
  // Enter or a double click on a file: open it with the desktop's programs.
  void OpenRequested(const QString &device_path);
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
  void OpenCurrent(QTreeWidget *from);
  void UploadFiles(const QStringList &host_paths, const QString &folder);
  void ReloadFolder(const QString &path);
  QTreeWidgetItem *NewItem(QTreeWidgetItem *parent, const QString &name, const QString &path, bool is_dir,
                           uint64_t size, int64_t mtime);

  std::shared_ptr<DeviceLink> link_;
  QTreeWidget *tree_;
  QLineEdit *search_;
  QTreeWidget *results_;
  QLabel *notice_;
  std::vector<QWidget *> writers_;   // buttons that change the device
  std::vector<QAction *> writing_;   // and their menu entries
  bool writable_ = true;
  QSet<QString> reopen_;             // folders to open again as they are read
  QString current_;                  // the row to make current again once read
  bool root_loaded_ = false;
  int generation_ = 0;
};

}  // namespace tarn::desktop
