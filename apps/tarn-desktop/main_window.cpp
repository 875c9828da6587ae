#include "main_window.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDrag>
#include <QEventLoop>
#include <QFileDialog>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QSettings>
#include <QStandardPaths>
#include <QStatusBar>
#include <QUrl>
#include <QVBoxLayout>

namespace tarn::desktop {

MainWindow::MainWindow(QWidget *parent) : QMainWindow(parent) {
  setObjectName("mainWindow");
  setWindowTitle(tr("Tarn"));
  auto *central = new QWidget(this);
  auto *layout = new QVBoxLayout(central);
  split_ = new QSplitter(Qt::Horizontal, central);
  devices_ = new QListWidget(split_);
  devices_->setObjectName("devices");
  devices_->setAccessibleName(tr("Devices"));
  devices_->setMinimumWidth(180);
  pages_ = new QTabWidget(split_);
  pages_->setObjectName("pages");
  pages_->setAccessibleName(tr("Pages of the device"));
  pages_->setUsesScrollButtons(true);
  overview_ = new OverviewPage(pages_);
  pages_->addTab(overview_, tr("Overview"));
  for (const PageKind &kind : PageKinds()) {
    auto *page = new CataloguePage(kind, pages_);
    catalogue_.push_back(page);
    connect(page, &CataloguePage::ExportRequested, this, &MainWindow::AskExport);
    connect(page, &CataloguePage::DragRequested, this, &MainWindow::DragOut);
    pages_->addTab(page, tr(kind.title));
  }
  files_ = new FilesPage(pages_);
  pages_->addTab(files_, tr("Files"));
  // The Apps page (apps_page.h says how it plugs in): its copies are the
  // window's transfers, to and from the chosen app's Documents.
  apps_ = new AppsPage(pages_);
  pages_->addTab(apps_, tr("Apps"));
  apps_->SetTransferStarter([this](const QString &app, Transfer::Direction direction, std::vector<TransferItem> items) {
    auto transfer = std::make_unique<Transfer>(udid_, direction, std::move(items));
    transfer->SetApp(app);
    return Begin(std::move(transfer));
  });
  connect(this, &MainWindow::TransferFinished, apps_, &AppsPage::TransferDone);
  split_->addWidget(devices_);
  split_->addWidget(pages_);
  split_->setStretchFactor(1, 1);
  layout->addWidget(split_, 1);

  transfer_bar_ = new QWidget(central);
  auto *bar = new QHBoxLayout(transfer_bar_);
  bar->setContentsMargins(0, 0, 0, 0);
  current_ = new QLabel(transfer_bar_);
  current_->setObjectName("transferCurrent");
  progress_ = new QProgressBar(transfer_bar_);
  progress_->setObjectName("progress");
  progress_->setAccessibleName(tr("Transfer progress"));
  progress_->setRange(0, 1000);
  cancel_ = new QPushButton(tr("&Cancel"), transfer_bar_);
  cancel_->setObjectName("cancel");
  cancel_->setAccessibleName(tr("Cancel the transfer"));
  bar->addWidget(current_, 1);
  bar->addWidget(progress_, 2);
  bar->addWidget(cancel_);
  transfer_bar_->hide();
  layout->addWidget(transfer_bar_);
  result_ = new QLabel(central);
  result_->setObjectName("transferResult");
  result_->setWordWrap(true);
  result_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  layout->addWidget(result_);
  setCentralWidget(central);

  connect(devices_, &QListWidget::currentItemChanged, this, [this](QListWidgetItem *item) {
    const QString udid = item != nullptr ? item->data(Qt::UserRole).toString() : QString();
    if (udid != udid_) ChooseDevice(udid);
  });
  connect(pages_, &QTabWidget::currentChanged, this, &MainWindow::LoadCurrentPage);
  connect(cancel_, &QPushButton::clicked, this, [this] {
    if (transfer_) transfer_->Cancel();
  });
  connect(files_, &FilesPage::TransferRequested, this, &MainWindow::StartTransfer);
  connect(files_, &FilesPage::OperationDone, this, [this](const QString &text) { statusBar()->showMessage(text); });
  BuildActions();

  QSettings settings;
  restoreGeometry(settings.value("window/geometry").toByteArray());
  if (!split_->restoreState(settings.value("window/split").toByteArray())) split_->setSizes({190, 910});
  if (!settings.contains("window/geometry")) resize(1100, 700);

  poll_.setInterval(1000);
  connect(&poll_, &QTimer::timeout, this, &MainWindow::PollDevices);
  poll_.start();
  PollDevices();
}

MainWindow::~MainWindow() {
  QSettings settings;
  settings.setValue("window/geometry", saveGeometry());
  settings.setValue("window/split", split_->saveState());
}

void MainWindow::BuildActions() {
  QMenu *menu = menuBar()->addMenu(tr("&Device"));
  QAction *refresh = menu->addAction(tr("&Refresh"), this, &MainWindow::Refresh);
  refresh->setShortcut(QKeySequence::Refresh);
  QAction *quit = menu->addAction(tr("&Quit"), this, &QWidget::close);
  quit->setShortcut(QKeySequence::Quit);
  QMenu *edit = menuBar()->addMenu(tr("&Edit"));
  QAction *copy = edit->addAction(tr("&Copy"), this, [this] {
    if (auto *page = qobject_cast<CataloguePage *>(pages_->currentWidget())) page->CopySelection();
  });
  copy->setShortcut(QKeySequence::Copy);
  copy->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  addAction(copy);
  QAction *find = edit->addAction(tr("&Find"), this, [this] {
    if (auto *page = qobject_cast<CataloguePage *>(pages_->currentWidget())) page->filter()->setFocus();
    else if (pages_->currentWidget() == files_) files_->search()->setFocus();
  });
  find->setShortcut(QKeySequence::Find);
}

CataloguePage *MainWindow::page(Kind kind) {
  for (CataloguePage *p : catalogue_)
    if (p->kind().kind == kind) return p;
  return nullptr;
}

void MainWindow::PollDevices() {
  if (polling_) return;
  polling_ = true;
  RunInBackground(this, [] { return AttachedDevices(); }, [this](const QStringList &udids) {
    polling_ = false;
    OnDevices(udids);
  });
}

void MainWindow::OnDevices(const QStringList &udids) {
  bool changed = false;
  for (int i = devices_->count() - 1; i >= 0; --i) {
    if (udids.contains(devices_->item(i)->data(Qt::UserRole).toString())) continue;
    delete devices_->takeItem(i);
    changed = true;
  }
  for (const QString &udid : udids) {
    bool known = false;
    for (int i = 0; i < devices_->count() && !known; ++i) known = devices_->item(i)->data(Qt::UserRole) == udid;
    if (known) continue;
    auto *item = new QListWidgetItem(udid, devices_);
    item->setData(Qt::UserRole, udid);
    item->setToolTip(udid);
    changed = true;
    // Each newly seen device is asked its name on a worker of its own.
    RunInBackground(
        this,
        [udid] {
          // Asked without a secure session: listing a device costs it none.
          const std::string name = app::DeviceName(udid.toStdString());
          app::RememberDeviceName(udid.toStdString(), name);
          return Q(name);
        },
        [this, udid](const QString &name) {
          for (int i = 0; i < devices_->count(); ++i) {
            QListWidgetItem *item = devices_->item(i);
            if (item->data(Qt::UserRole) == udid && !name.isEmpty()) item->setText(name);
          }
        });
  }
  if (!changed) return;
  if (!udid_.isEmpty() && !udids.contains(udid_)) {
    ChooseDevice({});
    overview_->Show(nullptr, {app::kDeviceNotFound, TARN_E_NO_DEVICE,
                              tr("The device was unplugged. Plug it in again to go on.").toStdString()});
  }
  if (udid_.isEmpty() && devices_->count() > 0 && devices_->currentItem() == nullptr) devices_->setCurrentRow(0);
  emit DevicesChanged(udids);
}

void MainWindow::ChooseDevice(const QString &udid) {
  udid_ = udid;
  opened_ = false;
  const int generation = ++generation_;
  link_ = udid.isEmpty() ? nullptr : std::make_shared<DeviceLink>(udid);
  for (CataloguePage *p : catalogue_) p->Clear();
  files_->SetDevice(link_);
  apps_->SetDevice(udid);
  if (pages_->currentWidget() == apps_) apps_->Load();
  if (udid.isEmpty()) {
    overview_->Show(nullptr, {app::kNoDevice, TARN_OK, tr("No device is chosen. Plug in a device and choose it on the left.").toStdString()});
    return;
  }
  overview_->ShowLoading();
  struct Opened {
    SharedPlist info;
    Reason why;
  };
  link_->Run(
      this,
      [udid](app::Session &session) {
        Opened out;
        try {
          session.InitCatalogue();
          out.info = Share(PlistPtr(GetDeviceInfo(session.device())));
          if (!out.info) out.why = LastReason(udid, QObject::tr("The device %1 cannot be reached.").arg(udid));
        } catch (const app::Failure &failure) {
          out.why = failure;
        }
        return out;
      },
      [this, generation, udid](const Opened &out) {
        if (generation != generation_) return;
        overview_->Show(static_cast<plist_t>(out.info.get()), out.why);
        opened_ = out.info != nullptr;
        for (int i = 0; i < devices_->count(); ++i) {
          QListWidgetItem *item = devices_->item(i);
          if (item->data(Qt::UserRole) != udid) continue;
          if (opened_) item->setText(DictString(static_cast<plist_t>(out.info.get()), "DeviceName"));
          item->setToolTip(opened_ ? udid : Text(out.why));
        }
        if (opened_) LoadCurrentPage();
        emit DeviceOpened(udid, opened_);
      });
}

void MainWindow::LoadCurrentPage() {
  if (pages_->currentWidget() == apps_) apps_->Load();
  auto *page = qobject_cast<CataloguePage *>(pages_->currentWidget());
  if (page != nullptr && opened_ && !page->loaded()) page->Load(link_);
}

void MainWindow::Refresh() { ChooseDevice(udid_); }

bool MainWindow::StartTransfer(Transfer::Direction direction, std::vector<TransferItem> items) {
  return Begin(std::make_unique<Transfer>(udid_, direction, std::move(items)));
}

bool MainWindow::StartExport(app::ExportRequest request) {
  return Begin(std::make_unique<Transfer>(udid_, std::move(request)));
}

bool MainWindow::Begin(std::unique_ptr<Transfer> transfer) {
  if ((transfer_ && transfer_->Running()) || udid_.isEmpty()) {
    statusBar()->showMessage(tr("Wait for the running transfer to end, or cancel it."));
    return false;
  }
  transfer_ = std::move(transfer);
  const Transfer::Direction direction = transfer_->direction();
  connect(transfer_.get(), &Transfer::Progress, this, &MainWindow::ShowTransfer);
  connect(transfer_.get(), &Transfer::Finished, this, [this, direction](const TransferResult &result) {
    transfer_bar_->hide();
    result_->setText(result.Summary());
    result_->setToolTip(result.failed.join('\n'));
    if (direction == Transfer::Direction::kUpload) files_->Refresh();
    emit TransferFinished(result);
  });
  result_->clear();
  progress_->setValue(0);
  current_->clear();
  transfer_bar_->show();
  transfer_->Start();
  return true;
}

bool MainWindow::ExportPage(Kind kind, const QString &folder) {
  CataloguePage *page = this->page(kind);
  if (page == nullptr || !page->loaded()) return false;
  app::ExportRequest request;
  request.kind = kind;
  request.host_dir = folder.toStdString();
  // Playlists are picked by name, everything else by its file on the device.
  const char *key = kind == Kind::kPlaylists ? "name" : "path";
  for (plist_t item : page->SelectedItems()) request.only.insert(app::DictString(item, key));
  if (request.only.empty()) return false;
  return StartExport(std::move(request));
}

void MainWindow::AskExport(Kind kind) {
  QSettings settings;
  const QString folder = QFileDialog::getExistingDirectory(this, tr("Export to"), settings.value("export/folder").toString());
  if (folder.isEmpty()) return;
  settings.setValue("export/folder", folder);
  if (!ExportPage(kind, folder)) statusBar()->showMessage(tr("Nothing to export on this page."));
}

QList<QUrl> MainWindow::StageForDrag(Kind kind) {
  // One folder per device in the cache, with its own export manifest, so
  // that rows dragged a second time are not copied again.
  const QString folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + "/drag/" + udid_;
  TransferResult result;
  bool finished = false;
  QEventLoop wait;
  auto done = connect(this, &MainWindow::TransferFinished, &wait, [&](const TransferResult &r) {
    result = r;
    finished = true;
    wait.quit();
  });
  // The copy runs on a worker like any export, with the progress bar and
  // its cancel button; the window keeps answering meanwhile.
  if (ExportPage(kind, folder) && !finished) wait.exec();
  disconnect(done);
  QList<QUrl> urls;
  // What could not be copied is named in the result line; the rest goes.
  if (!finished || result.cancelled) return urls;
  for (const QString &file : result.files) urls << QUrl::fromLocalFile(file);
  return urls;
}

void MainWindow::DragOut(Kind kind) {
  const QList<QUrl> urls = StageForDrag(kind);
  if (urls.isEmpty()) return;
  auto *data = new QMimeData;
  data->setUrls(urls);
  auto *drag = new QDrag(this);
  drag->setMimeData(data);
  drag->exec(Qt::CopyAction);
}

void MainWindow::ShowTransfer(quint64 done, quint64 total, const QString &current) {
  progress_->setValue(total == 0 ? 0 : static_cast<int>(1000.0 * static_cast<double>(done) / static_cast<double>(total)));
  progress_->setFormat(HumanSize(done) + " / " + HumanSize(total));
  current_->setText(current);
}

void MainWindow::closeEvent(QCloseEvent *event) {
  if (transfer_ && transfer_->Running()) {
    const auto answer = QMessageBox::question(this, tr("Transfer running"),
                                              tr("A transfer is still running. Cancel it and close?"),
                                              QMessageBox::Yes | QMessageBox::No, QMessageBox::No);
    if (answer != QMessageBox::Yes) {
      event->ignore();
      return;
    }
    // The worker removes its partial file before it reports back.
    QEventLoop wait;
    connect(transfer_.get(), &Transfer::Finished, &wait, &QEventLoop::quit);
    transfer_->Cancel();
    if (transfer_->Running()) wait.exec();
  }
  event->accept();
}

}  // namespace tarn::desktop
