// The window: the attached devices on the left, the pages of the chosen
// one on the right, and the running transfer along the bottom.
#pragma once

#include <memory>

#include <QLabel>
#include <QListWidget>
#include <QMainWindow>
#include <QProgressBar>
#include <QPushButton>
#include <QSplitter>
#include <QTabWidget>
#include <QTimer>
#include <QUrl>

#include "apps_page.h"
#include "files_page.h"
#include "jobs.h"
#include "pages.h"

namespace tarn::desktop {

class MainWindow : public QMainWindow {
  Q_OBJECT
 public:
  explicit MainWindow(QWidget *parent = nullptr);
  ~MainWindow() override;

  QListWidget *devices() { return devices_; }
  QTabWidget *pages() { return pages_; }
  OverviewPage *overview() { return overview_; }
  CataloguePage *page(Kind kind);
  FilesPage *files() { return files_; }
  AppsPage *apps() { return apps_; }
  QString udid() const { return udid_; }
  Transfer *transfer() { return transfer_.get(); }
  QLabel *transferResult() { return result_; }

  // Shows a device's pages (empty: none) and reads it afresh.
  void ChooseDevice(const QString &udid);
  // Chooses the current device again, reading its databases afresh (F5).
  void Refresh();
  // Starts a transfer unless one runs already.
  bool StartTransfer(Transfer::Direction direction, std::vector<TransferItem> items);
  bool StartExport(app::ExportRequest request);
  // Exports a page's selected rows (all shown rows when none is selected)
  // into `folder`, as `tarn export` would.
  bool ExportPage(Kind kind, const QString &folder);
  // Exports a page's selected rows into the window's own drag folder and
  // answers the files there, for a drop target to copy; empty when the
  // export failed or was cancelled.
  QList<QUrl> StageForDrag(Kind kind);
  // Polls the attached devices now instead of at the next tick.
  void PollDevices();

 signals:
  void DevicesChanged(const QStringList &udids);
  void DeviceOpened(const QString &udid, bool reachable);
  void TransferFinished(const tarn::desktop::TransferResult &result);

 protected:
  void closeEvent(QCloseEvent *event) override;

 private:
  void BuildActions();
  void OnDevices(const QStringList &udids);
  void LoadCurrentPage();
  void ShowTransfer(quint64 done, quint64 total, const QString &current);
  bool Begin(std::unique_ptr<Transfer> transfer);
  void AskExport(Kind kind);
  void DragOut(Kind kind);

  QSplitter *split_;
  QListWidget *devices_;
  QTabWidget *pages_;
  OverviewPage *overview_;
  std::vector<CataloguePage *> catalogue_;
  FilesPage *files_;
  AppsPage *apps_;
  QWidget *transfer_bar_;
  QProgressBar *progress_;
  QLabel *current_;
  QPushButton *cancel_;
  QLabel *result_;
  QTimer poll_;
  bool polling_ = false;
  QString udid_;
  std::shared_ptr<DeviceLink> link_;  // the chosen device's session
  bool opened_ = false;
  int generation_ = 0;
  std::unique_ptr<Transfer> transfer_;
};

}  // namespace tarn::desktop
