// The window: the attached devices on the left, each with its sections
// (overview, music, videos, podcasts, books, photos, files), the chosen
// section on the right, and the running transfer along the bottom. While the
// chosen device cannot be opened (locked, not trusted, unplugged, ...) a
// state page says what to do, and the window tries again by itself.
//
// Adding a page (for example a photo grid, a music browser, an "Apps" page):
//  - a view inside an existing section, beside its tables:
//      window.AddView("photos", new PhotoGrid(...), tr("Grid"), /*first=*/true);
//    a section holding several views shows them as tabs;
//  - a section of its own, listed under every device with a Go menu entry
//    and a shortcut (Ctrl+8 is kept free for "apps"):
//      window.AddSection({"apps", tr("&Apps"), QKeySequence(Qt::CTRL | Qt::Key_8)}, new AppsPage(...));
// A page that implements DevicePage (device_page.h) is told of the chosen
// device (its DeviceLink: one held connection, so reading costs no new
// secure session), is activated when shown with the device open, and is
// told when writing is not allowed (a sync with another computer). Give it
// a context menu (Qt::ActionsContextMenu) and a Menu key path, and call
// PrepareList (pages.h) on its lists: the keyboard and accessibility tests
// walk every section.
#pragma once

#include <functional>
#include <memory>

#include <QLabel>
#include <QMainWindow>
#include <QProgressBar>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QTabWidget>
#include <QTimer>
#include <QTreeWidget>
#include <QUrl>

#include "apps_page.h"
#include "files_page.h"
#include "jobs.h"
#include "music_browser.h"
#include "pages.h"
#include "photos_page.h"

namespace tarn::desktop {

class MainWindow : public QMainWindow {
  Q_OBJECT
 public:
  struct SectionInfo {
    QString key;     // "music"; also its object name's stem and the remembered place
    QString title;   // "&Music": the mnemonic is the Go menu's
    QKeySequence shortcut;
  };

  explicit MainWindow(QWidget *parent = nullptr);
  ~MainWindow() override;

  // Adds a section after the others (before none: the order is the
  // sidebar's). `page` becomes the window's.
  void AddSection(const SectionInfo &info, QWidget *page);
  // Adds a view to a section's tabs; `first` puts it before the others.
  void AddView(const QString &section, QWidget *view, const QString &title, bool first = false);
  // Shows a section ("overview", "music", ...) of the chosen device.
  void ShowSection(const QString &key);
  // Shows the section holding `page` (a section or one of its views) and the page.
  void ShowPage(QWidget *page);
  QString currentSection() const { return section_; }
  QStringList sectionKeys() const;
  QWidget *section(const QString &key) const;
  // Every page and view, in the sidebar's order.
  QList<QWidget *> allPages() const;

  QTreeWidget *devices() { return sidebar_; }
  QStackedWidget *stack() { return stack_; }
  StatePage *statePage() { return state_page_; }
  OverviewPage *overview() { return overview_; }
  CataloguePage *page(Kind kind);
  FilesPage *files() { return files_; }
  PhotosPage *photos() { return photos_; }
  MusicBrowser *music() { return music_; }
  AppsPage *apps() { return apps_; }
  QString udid() const { return udid_; }
  bool opened() const { return opened_; }
  bool syncing() const { return syncing_; }
  Transfer *transfer() { return transfer_.get(); }
  QLabel *transferResult() { return result_; }
  QPushButton *retryButton() { return retry_; }
  QPushButton *openFolderButton() { return open_folder_; }
  // The sidebar row of a device (its top row), or null.
  QTreeWidgetItem *DeviceItem(const QString &udid) const;

  // Shows a device's sections (empty: none) and reads it afresh.
  void ChooseDevice(const QString &udid);
  // Opens the current device again, reading its databases afresh (F5).
  void Refresh();
  // Asks the chosen device to trust this computer again (TarnPairDevice).
  void PairAgain();
  // Starts a transfer unless one runs already.
  bool StartTransfer(Transfer::Direction direction, std::vector<TransferItem> items);
  bool StartExport(app::ExportRequest request);
  // Starts the last transfer again (after it was cut off).
  bool RetryTransfer();
  // Imports the camera roll's new pictures into `folder`, as `tarn import photos`.
  bool StartImport(const QString &folder, bool jpeg);
  // Exports a page's selected rows (all shown rows when none is selected)
  // into `folder`, as `tarn export` would.
  bool ExportPage(Kind kind, const QString &folder);
  // The Export button: asks for a folder, and first whether to export the
  // whole page when nothing is selected.
  void AskExport(Kind kind);
  // Exports a page's selected rows into the window's own drag folder and
  // answers the files there, for a drop target to copy; empty when the
  // export failed or was cancelled.
  QList<QUrl> StageForDrag(Kind kind);
  // Polls the attached devices now instead of at the next tick.
  void PollDevices();
  // Asks the device now whether it syncs with another computer.
  void CheckSync();
  // How long the window waits before it tries a device again in `state`.
  static int RetryDelayMs(app::DeviceState state);

 signals:
  void DevicesChanged(const QStringList &udids);
  void DeviceOpened(const QString &udid, bool reachable);
  // The chosen device's state changed (kReady once it is open).
  void StateChanged(tarn::app::DeviceState state);
  void SyncingChanged(bool syncing);
  void TransferFinished(const tarn::desktop::TransferResult &result);
  // Enter on rows or files: these host files are opened with the desktop's programs.
  void Opening(const QList<QUrl> &files);

 protected:
  void closeEvent(QCloseEvent *event) override;

 private:
  struct Section {
    SectionInfo info;
    QWidget *page;
    QTabWidget *views;  // null for a single page
    QAction *action;
  };
  void BuildActions();
  void OnDevices(const QStringList &udids, const QString &why_none);
  void AddDeviceItem(const QString &udid);
  void Open();
  void ShowState(app::DeviceState state, const QString &detail = {});
  void SetSyncing(bool syncing);
  void ActivateCurrent();
  void ForEachPage(const std::function<void(DevicePage *)> &call);
  void ShowTransfer(quint64 done, quint64 total, const QString &current);
  bool Begin(std::unique_ptr<Transfer> transfer);
  void DragOut(Kind kind);
  void OpenRows(Kind kind);
  void OpenDeviceFile(const QString &path);
  void RememberPlace();
  QWidget *CurrentPage() const;

  QSplitter *split_;
  QTreeWidget *sidebar_;
  QStackedWidget *stack_;
  StatePage *state_page_;
  QLabel *notice_;  // why writing is off (a sync)
  OverviewPage *overview_;
  std::vector<CataloguePage *> catalogue_;
  FilesPage *files_;
  std::vector<Section> sections_;
  QMenu *go_menu_ = nullptr;
  QString section_ = "overview";
  PhotosPage *photos_;
  MusicBrowser *music_;
  AppsPage *apps_;
  QWidget *transfer_bar_;
  QProgressBar *progress_;
  QLabel *current_;
  QPushButton *cancel_;
  QLabel *result_;
  QPushButton *retry_;
  QPushButton *open_folder_;
  QString export_folder_;
  std::function<std::unique_ptr<Transfer>()> again_;  // the last transfer, to retry
  QTimer poll_;
  QTimer retry_timer_;
  QTimer sync_timer_;
  bool polling_ = false;
  bool sync_asking_ = false;
  bool pairing_ = false;  // a Pair Again waits for the person's Trust
  QStringList attached_;
  QString udid_;
  std::shared_ptr<DeviceLink> link_;  // the chosen device's session
  bool opened_ = false;
  bool syncing_ = false;
  app::DeviceState state_ = app::DeviceState::kNoDevice;
  int generation_ = 0;
  std::unique_ptr<Transfer> transfer_;
};

}  // namespace tarn::desktop
