// The Apps page: the apps installed on the chosen device with their icons
// and names, and a file browser on the Documents of the one chosen. Files
// dropped from a file manager are uploaded into it, rows dragged out are
// downloaded first (into the window's cache) and dropped as files; the
// copies run as the window's transfers, with its progress bar and Cancel.
//
// How it plugs into the window (main_window.cpp):
//   apps_ = new AppsPage(parent);                 // placed in the "Apps" slot
//   apps_->SetTransferStarter([this](const QString &app, Transfer::Direction d,
//                                    std::vector<TransferItem> items) { ... Begin(transfer with SetApp(app)) ... });
//   connect(this, &MainWindow::TransferFinished, apps_, &AppsPage::TransferDone);
//   ChooseDevice(udid): apps_->SetDevice(udid);
//   when the page is shown: apps_->Load();
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <QListWidget>
#include <QPoint>
#include <QWidget>

#include "device_page.h"
#include "files_page.h"
#include "jobs.h"

namespace tarn::desktop {

class AppsPage : public QWidget, public DevicePage {
  Q_OBJECT
 public:
  // Starts a transfer to or from an app's Documents; false when another
  // transfer runs.
  using TransferStarter =
      std::function<bool(const QString &app, Transfer::Direction direction, std::vector<TransferItem> items)>;

  explicit AppsPage(QWidget *parent = nullptr);
  void SetTransferStarter(TransferStarter starter) { start_ = std::move(starter); }
  void SetDevice(const QString &udid);  // empty: none
  // As a page of the window: the chosen device's link (null: none), and
  // shown with the device open.
  // The list is read over the window's link (its held connection: no new
  // secure session); an app's Documents need a session of their own.
  void SetDevice(const std::shared_ptr<DeviceLink> &link) override {
    SetDevice(link ? link->udid() : QString());
    link_ = link;
  }
  void Activate() override { Load(); }
  // Reads the list of apps (with their icons) unless it is read already.
  void Load();
  bool loaded() const { return loaded_; }

  QListWidget *list() { return list_; }
  FilesPage *files() { return files_; }
  QString app() const { return app_; }
  // Shows the Documents of `app` (one that shares files) in the browser.
  void Choose(const QString &app);
  // Downloads the selected rows into the cache and gives their host files,
  // as a drag out hands them over; empty when nothing was copied.
  QList<QUrl> StageSelection();
  // Uploads files dropped beside the browser's rows into Documents (the
  // container's root holds nothing an app lets one write to); false when
  // no transfer started.
  bool UploadDropped(const QList<QUrl> &urls);

 public slots:
  void TransferDone(const tarn::desktop::TransferResult &result);

 signals:
  void AppsLoaded(int count);
  void TransferFinished(const tarn::desktop::TransferResult &result);

 protected:
  bool eventFilter(QObject *watched, QEvent *event) override;

 private:
  std::shared_ptr<DeviceLink> link_;  // the window's, for the list
  QString udid_;
  QString app_;
  bool loaded_ = false;
  int generation_ = 0;
  QListWidget *list_;
  FilesPage *files_;
  TransferStarter start_;
  QPoint press_;
};

}  // namespace tarn::desktop
