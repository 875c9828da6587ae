#include "main_window.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QDrag>
#include <QEventLoop>
#include <QFileInfo>
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

namespace {

constexpr int kUdidRole = Qt::UserRole;
constexpr int kSectionRole = Qt::UserRole + 1;

// The catalogue kinds of each section, in the order of its tabs.
std::vector<Kind> KindsOf(const QString &section) {
  if (section == "music") return {Kind::kMusic, Kind::kPlaylists, Kind::kRingtones, Kind::kRecordings};
  if (section == "videos") return {Kind::kMovies, Kind::kTvShows};
  if (section == "podcasts") return {Kind::kPodcasts};
  if (section == "books") return {Kind::kBooks, Kind::kAudiobooks};
  if (section == "photos") return {Kind::kCamera, Kind::kPictures};
  return {};
}

}  // namespace

MainWindow::MainWindow(QWidget *parent) : QMainWindow(parent) {
  setObjectName("mainWindow");
  setWindowTitle(tr("Tarn"));
  auto *central = new QWidget(this);
  auto *layout = new QVBoxLayout(central);
  split_ = new QSplitter(Qt::Horizontal, central);
  sidebar_ = new QTreeWidget(split_);
  sidebar_->setObjectName("devices");
  sidebar_->setAccessibleName(tr("Devices and their sections"));
  sidebar_->setHeaderHidden(true);
  sidebar_->setMinimumWidth(180);
  sidebar_->setTabKeyNavigation(false);
  auto *right = new QWidget(split_);
  auto *right_layout = new QVBoxLayout(right);
  right_layout->setContentsMargins(0, 0, 0, 0);
  notice_ = new QLabel(right);
  notice_->setObjectName("notice");
  notice_->setWordWrap(true);
  notice_->setFocusPolicy(Qt::TabFocus);
  notice_->setStyleSheet("QLabel { background: #fff4ce; color: #3b2f00; padding: 6px; }");
  notice_->hide();
  right_layout->addWidget(notice_);
  stack_ = new QStackedWidget(right);
  stack_->setObjectName("pages");
  right_layout->addWidget(stack_, 1);
  state_page_ = new StatePage(stack_);
  stack_->addWidget(state_page_);
  connect(state_page_, &StatePage::PairRequested, this, &MainWindow::PairAgain);
  connect(state_page_, &StatePage::RetryRequested, this, [this] {
    if (pairing_) PairAgain();
    else Open();
  });

  overview_ = new OverviewPage(stack_);
  AddSection({"overview", tr("&Overview"), QKeySequence(Qt::CTRL | Qt::Key_1)}, overview_);
  const std::vector<std::pair<SectionInfo, int>> catalogue_sections = {
      {{"music", tr("&Music"), QKeySequence(Qt::CTRL | Qt::Key_2)}, 0},
      {{"videos", tr("&Videos"), QKeySequence(Qt::CTRL | Qt::Key_3)}, 0},
      {{"podcasts", tr("&Podcasts"), QKeySequence(Qt::CTRL | Qt::Key_4)}, 0},
      {{"books", tr("&Books"), QKeySequence(Qt::CTRL | Qt::Key_5)}, 0},
      {{"photos", tr("P&hotos"), QKeySequence(Qt::CTRL | Qt::Key_6)}, 0}};
  for (const auto &[info, unused] : catalogue_sections) {
    auto *views = new QTabWidget(stack_);
    views->setObjectName(info.key + "Section");
    views->setAccessibleName(QString(info.title).remove('&'));
    views->setTabBarAutoHide(true);
    AddSection(info, views);
    for (Kind kind : KindsOf(info.key)) {
      for (const PageKind &page_kind : PageKinds()) {
        if (page_kind.kind != kind) continue;
        auto *page = new CataloguePage(page_kind, views);
        catalogue_.push_back(page);
        connect(page, &CataloguePage::ExportRequested, this, &MainWindow::AskExport);
        connect(page, &CataloguePage::DragRequested, this, &MainWindow::DragOut);
        connect(page, &CataloguePage::OpenRequested, this, &MainWindow::OpenRows);
        AddView(info.key, page, tr(page_kind.title));
      }
    }
  }
  // The camera roll as pictures and the music by artist and album, first
  // in their sections; the tables stay beside them.
  photos_ = new PhotosPage(stack_);
  connect(photos_, &PhotosPage::ImportRequested, this, &MainWindow::StartImport);
  AddView("photos", photos_, tr("Pictures"), /*first=*/true);
  music_ = new MusicBrowser(stack_);
  AddView("music", music_, tr("Artists"), /*first=*/true);
  files_ = new FilesPage(stack_);
  AddSection({"files", tr("&Files"), QKeySequence(Qt::CTRL | Qt::Key_7)}, files_);
  // The apps that share files with computers, and their Documents: its
  // copies are the window's transfers (apps_page.h says how it plugs in).
  apps_ = new AppsPage(stack_);
  AddSection({"apps", tr("&Apps"), QKeySequence(Qt::CTRL | Qt::Key_8)}, apps_);
  apps_->SetTransferStarter([this](const QString &app, Transfer::Direction direction, std::vector<TransferItem> items) {
    auto transfer = std::make_unique<Transfer>(udid_, direction, std::move(items));
    transfer->SetApp(app);
    return Begin(std::move(transfer));
  });
  connect(this, &MainWindow::TransferFinished, apps_, &AppsPage::TransferDone);
  split_->addWidget(sidebar_);
  split_->addWidget(right);
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
  progress_->setAccessibleDescription(tr("No transfer yet"));
  cancel_ = new QPushButton(tr("&Cancel"), transfer_bar_);
  cancel_->setObjectName("cancel");
  cancel_->setAccessibleName(tr("Cancel the transfer"));
  bar->addWidget(current_, 1);
  bar->addWidget(progress_, 2);
  bar->addWidget(cancel_);
  transfer_bar_->hide();
  layout->addWidget(transfer_bar_);
  auto *result_bar = new QHBoxLayout;
  result_ = new QLabel(central);
  result_->setObjectName("transferResult");
  result_->setWordWrap(true);
  result_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  retry_ = new QPushButton(tr("&Retry"), central);
  retry_->setObjectName("retryTransfer");
  retry_->setAccessibleName(tr("Retry the transfer"));
  retry_->hide();
  open_folder_ = new QPushButton(tr("&Open Folder"), central);
  open_folder_->setObjectName("openFolder");
  open_folder_->setAccessibleName(tr("Open the folder the files were copied to"));
  open_folder_->hide();
  result_bar->addWidget(result_, 1);
  result_bar->addWidget(retry_);
  result_bar->addWidget(open_folder_);
  layout->addLayout(result_bar);
  setCentralWidget(central);

  connect(sidebar_, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem *item) {
    if (item == nullptr) return;
    const QString udid = item->data(0, kUdidRole).toString();
    const QString key = item->data(0, kSectionRole).toString();
    if (udid != udid_) ChooseDevice(udid);
    if (!key.isEmpty()) ShowSection(key);
  });
  connect(cancel_, &QPushButton::clicked, this, [this] {
    if (transfer_) transfer_->Cancel();
  });
  connect(retry_, &QPushButton::clicked, this, &MainWindow::RetryTransfer);
  connect(open_folder_, &QPushButton::clicked, this,
          [this] { QDesktopServices::openUrl(QUrl::fromLocalFile(export_folder_)); });
  connect(files_, &FilesPage::TransferRequested, this, &MainWindow::StartTransfer);
  connect(files_, &FilesPage::OpenRequested, this, &MainWindow::OpenDeviceFile);
  connect(files_, &FilesPage::OperationDone, this, [this](const QString &text) {
    statusBar()->showMessage(text, 15000);
    // A refusal may be the first sign of a sync.
    CheckSync();
  });
  connect(this, &MainWindow::Opening, this, [](const QList<QUrl> &files) {
    for (const QUrl &file : files) QDesktopServices::openUrl(file);
  });
  BuildActions();
  InstallContextMenuKeys();

  QSettings settings;
  restoreGeometry(settings.value("window/geometry").toByteArray());
  if (!split_->restoreState(settings.value("window/split").toByteArray())) split_->setSizes({200, 900});
  if (!settings.contains("window/geometry")) resize(1100, 700);
  // Where the person was: the section and its tab.
  const QString place = settings.value("place/section").toString();
  if (section(place) != nullptr) section_ = place;
  for (Section &s : sections_)
    if (s.views != nullptr) s.views->setCurrentIndex(settings.value("place/view/" + s.info.key, 0).toInt());
  ShowState(app::DeviceState::kNoDevice);

  retry_timer_.setSingleShot(true);
  connect(&retry_timer_, &QTimer::timeout, this, [this] {
    if (pairing_) PairAgain();
    else Open();
  });
  sync_timer_.setInterval(4000);
  connect(&sync_timer_, &QTimer::timeout, this, &MainWindow::CheckSync);
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
    if (auto *page = qobject_cast<CataloguePage *>(CurrentPage())) page->CopySelection();
  });
  copy->setShortcut(QKeySequence::Copy);
  copy->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  addAction(copy);
  QAction *find = edit->addAction(tr("&Find"), this, [this] {
    if (auto *page = qobject_cast<CataloguePage *>(CurrentPage())) page->filter()->setFocus();
    else if (CurrentPage() == files_) files_->search()->setFocus();
  });
  find->setShortcut(QKeySequence::Find);
  go_menu_ = menuBar()->addMenu(tr("&Go"));
  for (Section &s : sections_) {
    s.action = go_menu_->addAction(s.info.title, this, [this, key = s.info.key] { ShowSection(key); });
    s.action->setShortcut(s.info.shortcut);
  }
}

void MainWindow::AddSection(const SectionInfo &info, QWidget *page) {
  if (page->objectName().isEmpty()) page->setObjectName(info.key + "Page");
  page->setParent(stack_);
  stack_->addWidget(page);
  auto *views = qobject_cast<QTabWidget *>(page);
  if (views != nullptr) {
    connect(views, &QTabWidget::currentChanged, this, [this, views, key = info.key](int index) {
      QSettings().setValue("place/view/" + key, index);
      if (stack_->currentWidget() == views) ActivateCurrent();
    });
  }
  QAction *action = nullptr;
  if (go_menu_ != nullptr) {
    action = go_menu_->addAction(info.title, this, [this, key = info.key] { ShowSection(key); });
    action->setShortcut(info.shortcut);
  }
  sections_.push_back({info, page, views, action});
  // Every device already listed gets the new section too.
  for (int i = 0; i < sidebar_->topLevelItemCount(); ++i) {
    QTreeWidgetItem *device = sidebar_->topLevelItem(i);
    auto *child = new QTreeWidgetItem(device, {QString(info.title).remove('&')});
    child->setData(0, kUdidRole, device->data(0, kUdidRole));
    child->setData(0, kSectionRole, info.key);
  }
  if (auto *device_page = dynamic_cast<DevicePage *>(page); device_page != nullptr && link_)
    device_page->SetDevice(link_);
}

void MainWindow::AddView(const QString &key, QWidget *view, const QString &title, bool first) {
  for (Section &s : sections_) {
    if (s.info.key != key || s.views == nullptr) continue;
    if (first) s.views->insertTab(0, view, title);
    else s.views->addTab(view, title);
    if (auto *device_page = dynamic_cast<DevicePage *>(view); device_page != nullptr && link_)
      device_page->SetDevice(link_);
    return;
  }
}

QStringList MainWindow::sectionKeys() const {
  QStringList keys;
  for (const Section &s : sections_) keys << s.info.key;
  return keys;
}

QWidget *MainWindow::section(const QString &key) const {
  for (const Section &s : sections_)
    if (s.info.key == key) return s.page;
  return nullptr;
}

QList<QWidget *> MainWindow::allPages() const {
  QList<QWidget *> pages;
  for (const Section &s : sections_) {
    if (s.views == nullptr) pages << s.page;
    else
      for (int i = 0; i < s.views->count(); ++i) pages << s.views->widget(i);
  }
  return pages;
}

QWidget *MainWindow::CurrentPage() const {
  for (const Section &s : sections_)
    if (s.info.key == section_) return s.views != nullptr ? s.views->currentWidget() : s.page;
  return nullptr;
}

void MainWindow::ShowSection(const QString &key) {
  QWidget *page = section(key);
  if (page == nullptr) return;
  section_ = key;
  RememberPlace();
  // The sidebar follows, without choosing again.
  if (QTreeWidgetItem *device = DeviceItem(udid_)) {
    for (int i = 0; i < device->childCount(); ++i) {
      if (device->child(i)->data(0, kSectionRole).toString() != key) continue;
      const QSignalBlocker quiet(sidebar_);
      sidebar_->setCurrentItem(device->child(i));
    }
  }
  if (!opened_) return;
  stack_->setCurrentWidget(page);
  ActivateCurrent();
}

void MainWindow::ShowPage(QWidget *page) {
  for (const Section &s : sections_) {
    if (s.page == page) return ShowSection(s.info.key);
    if (s.views != nullptr && s.views->indexOf(page) >= 0) {
      s.views->setCurrentWidget(page);
      return ShowSection(s.info.key);
    }
  }
}

void MainWindow::RememberPlace() {
  QSettings settings;
  settings.setValue("place/section", section_);
  if (!udid_.isEmpty()) settings.setValue("place/device", udid_);
}

void MainWindow::ActivateCurrent() {
  if (!opened_) return;
  if (auto *page = dynamic_cast<DevicePage *>(CurrentPage())) page->Activate();
}

void MainWindow::ForEachPage(const std::function<void(DevicePage *)> &call) {
  for (QWidget *page : allPages())
    if (auto *device_page = dynamic_cast<DevicePage *>(page)) call(device_page);
}

CataloguePage *MainWindow::page(Kind kind) {
  for (CataloguePage *p : catalogue_)
    if (p->kind().kind == kind) return p;
  return nullptr;
}

QTreeWidgetItem *MainWindow::DeviceItem(const QString &udid) const {
  for (int i = 0; i < sidebar_->topLevelItemCount(); ++i)
    if (sidebar_->topLevelItem(i)->data(0, kUdidRole).toString() == udid) return sidebar_->topLevelItem(i);
  return nullptr;
}

void MainWindow::PollDevices() {
  if (polling_) return;
  polling_ = true;
  struct Attached {
    QStringList udids;
    QString why_none;
  };
  RunInBackground(
      this,
      [] {
        Attached out;
        std::string why;
        for (const std::string &id : app::AttachedDevices(&why)) out.udids << Q(id);
        out.why_none = Q(why);
        return out;
      },
      [this](const Attached &out) {
        polling_ = false;
        OnDevices(out.udids, out.why_none);
      });
}

void MainWindow::AddDeviceItem(const QString &udid) {
  auto *item = new QTreeWidgetItem(sidebar_, {udid});
  item->setData(0, kUdidRole, udid);
  item->setToolTip(0, udid);
  for (const Section &s : sections_) {
    auto *child = new QTreeWidgetItem(item, {QString(s.info.title).remove('&')});
    child->setData(0, kUdidRole, udid);
    child->setData(0, kSectionRole, s.info.key);
  }
  // Each newly seen device is asked its name on a worker of its own.
  RunInBackground(
      this,
      [udid] {
        // Asked without a secure session: listing a device costs it none,
        // and a locked or untrusted phone answers too.
        const std::string name = app::DeviceName(udid.toStdString());
        app::RememberDeviceName(udid.toStdString(), name);
        return Q(name);
      },
      [this, udid](const QString &name) {
        QTreeWidgetItem *item = DeviceItem(udid);
        if (item == nullptr || name.isEmpty()) return;
        item->setText(0, name);
        item->setData(0, Qt::AccessibleTextRole, name);
        // The state page named it by its identifier until now.
        if (udid == udid_ && !opened_ && state_ != app::DeviceState::kReady) state_page_->Show(state_, udid_);
      });
}

void MainWindow::OnDevices(const QStringList &udids, const QString &why_none) {
  const bool changed = udids != attached_;
  attached_ = udids;
  for (int i = sidebar_->topLevelItemCount() - 1; i >= 0; --i) {
    const QString udid = sidebar_->topLevelItem(i)->data(0, kUdidRole).toString();
    // The chosen device stays listed when unplugged: the window stays on it.
    if (udids.contains(udid) || udid == udid_) continue;
    const QSignalBlocker quiet(sidebar_);
    delete sidebar_->takeTopLevelItem(i);
  }
  for (const QString &udid : udids)
    if (DeviceItem(udid) == nullptr) AddDeviceItem(udid);
  if (!udid_.isEmpty()) {
    QTreeWidgetItem *item = DeviceItem(udid_);
    const bool back = udids.contains(udid_);
    if (!back && state_ != app::DeviceState::kUnplugged) {
      // Unplugged: say so, drop its session, and wait for it.
      ++generation_;
      retry_timer_.stop();
      sync_timer_.stop();
      opened_ = false;
      pairing_ = false;
      link_.reset();
      SetSyncing(false);
      ForEachPage([](DevicePage *page) { page->SetDevice(nullptr); });
      if (item != nullptr) item->setToolTip(0, tr("%1 (unplugged)").arg(udid_));
      ShowState(app::DeviceState::kUnplugged);
    } else if (back && state_ == app::DeviceState::kUnplugged) {
      if (item != nullptr) item->setToolTip(0, udid_);
      ChooseDevice(udid_);
    }
  } else if (!udids.isEmpty()) {
    // The device the person was on last time, else the first.
    const QString last = QSettings().value("place/device").toString();
    ChooseDevice(udids.contains(last) ? last : udids.front());
  } else {
    ShowState(why_none.isEmpty() ? app::DeviceState::kNoDevice : app::DeviceState::kNoUsbmuxd);
  }
  if (changed) emit DevicesChanged(udids);
}

void MainWindow::ChooseDevice(const QString &udid) {
  // An unplugged device the person leaves is no longer listed.
  if (!udid_.isEmpty() && udid_ != udid && !attached_.contains(udid_)) {
    const QSignalBlocker quiet(sidebar_);
    delete DeviceItem(udid_);
  }
  udid_ = udid;
  opened_ = false;
  pairing_ = false;
  ++generation_;
  retry_timer_.stop();
  sync_timer_.stop();
  link_ = udid.isEmpty() ? nullptr : std::make_shared<DeviceLink>(udid);
  // Lines about the last device's work would now mislead.
  result_->clear();
  retry_->hide();
  open_folder_->hide();
  statusBar()->clearMessage();
  SetSyncing(false);
  ForEachPage([this](DevicePage *page) {
    page->SetDevice(link_);
    page->SetWritable(true, {});
  });
  if (udid.isEmpty()) {
    ShowState(app::DeviceState::kNoDevice);
    return;
  }
  if (QTreeWidgetItem *item = DeviceItem(udid)) {
    const QSignalBlocker quiet(sidebar_);
    item->setExpanded(true);
    if (sidebar_->currentItem() == nullptr || sidebar_->currentItem()->data(0, kUdidRole).toString() != udid)
      sidebar_->setCurrentItem(item);
  }
  RememberPlace();
  Open();
}

int MainWindow::RetryDelayMs(app::DeviceState state) {
  switch (state) {
    // A person unlocking or tapping Trust should not wait long, and a phone
    // asked every two seconds spends nothing on a refused handshake.
    case app::DeviceState::kTrustPending:
    case app::DeviceState::kLocked: return 2000;
    default: return 5000;
  }
}

void MainWindow::Open() {
  if (!link_) return;
  retry_timer_.stop();
  const int generation = ++generation_;
  const QString udid = udid_;
  if (state_ != app::DeviceState::kLocked && state_ != app::DeviceState::kTrustPending &&
      state_ != app::DeviceState::kRefused) {
    state_page_->ShowReading(udid);
    stack_->setCurrentWidget(state_page_);
  }
  overview_->ShowLoading();
  struct Opened {
    SharedPlist info;
    Reason why;
    bool syncing = false;
  };
  link_->Run(
      this,
      [udid](app::Session &session) {
        Opened out;
        try {
          session.InitCatalogue();
          out.info = Share(PlistPtr(GetDeviceInfo(session.device())));
          if (!out.info) out.why = DeviceReason(udid, QObject::tr("The device %1 cannot be reached.").arg(udid));
          else out.syncing = session.Syncing();
        } catch (const app::Failure &failure) {
          out.why = failure;
        }
        return out;
      },
      [this, generation, udid](const Opened &out) {
        if (generation != generation_ || udid != udid_) return;
        overview_->Show(static_cast<plist_t>(out.info.get()), out.why);
        opened_ = out.info != nullptr;
        if (QTreeWidgetItem *item = DeviceItem(udid)) {
          if (opened_) {
            const QString name = DictString(static_cast<plist_t>(out.info.get()), "DeviceName");
            if (!name.isEmpty()) item->setText(0, name);
          }
          item->setToolTip(0, opened_ ? udid : Text(out.why));
        }
        if (!opened_) {
          const app::DeviceState state = app::StateOf(out.why.code);
          ShowState(state == app::DeviceState::kReady ? app::DeviceState::kOther : state, Text(out.why));
          // A state that clears by itself is looked at again; plugging in is
          // the poll's to notice.
          if (app::ClearsByItself(state_) && state_ != app::DeviceState::kUnplugged &&
              state_ != app::DeviceState::kNoUsbmuxd)
            retry_timer_.start(RetryDelayMs(state_));
          emit DeviceOpened(udid, false);
          return;
        }
        state_ = app::DeviceState::kReady;
        stack_->setCurrentWidget(section(section_));
        ShowSection(section_);
        SetSyncing(out.syncing);
        sync_timer_.start();
        emit StateChanged(state_);
        emit DeviceOpened(udid, true);
      });
}

void MainWindow::ShowState(app::DeviceState state, const QString &detail) {
  state_ = state;
  state_page_->Show(state, udid_, detail);
  stack_->setCurrentWidget(state_page_);
  emit StateChanged(state);
}

void MainWindow::PairAgain() {
  if (udid_.isEmpty()) return;
  pairing_ = true;
  retry_timer_.stop();
  const int generation = generation_;
  RunInBackground(
      this,
      [udid = udid_] {
        // A handle of its own: pairing needs no session, and the link's
        // handle may be busy with another job.
        PodDevice *device = CreatePodDevice(udid.toUtf8().constData());
        const bool paired = TarnPairDevice(device) == 0;
        const Reason why = paired ? Reason{} : DeviceReason(udid, QObject::tr("The device did not answer."));
        FreePodDevice(device);
        return why;
      },
      [this, generation](const Reason &why) {
        if (generation != generation_) return;
        if (!why.failed()) {
          pairing_ = false;
          Open();
          return;
        }
        const app::DeviceState state = app::StateOf(why.code);
        // Until Trust is tapped the phone answers "pending": ask again.
        if (state == app::DeviceState::kTrustPending || state == app::DeviceState::kLocked) {
          ShowState(state, Text(why));
          retry_timer_.start(RetryDelayMs(state));
          return;
        }
        pairing_ = false;
        ShowState(state, Text(why));
      });
}

void MainWindow::SetSyncing(bool syncing) {
  if (syncing == syncing_) return;
  syncing_ = syncing;
  const app::StateText text = app::DescribeState(app::DeviceState::kSyncing, udid_.toStdString());
  const QString why = syncing ? Q(text.heading) + ". " + Q(text.advice) : QString();
  notice_->setText(why);
  notice_->setAccessibleName(why);
  notice_->setVisible(syncing);
  ForEachPage([&](DevicePage *page) { page->SetWritable(!syncing, why); });
  emit SyncingChanged(syncing);
}

void MainWindow::CheckSync() {
  if (!opened_ || !link_ || sync_asking_) return;
  sync_asking_ = true;
  const int generation = generation_;
  link_->Run(
      this,
      [](app::Session &session) {
        try {
          return session.Syncing();
        } catch (const app::Failure &) {
          return false;
        }
      },
      [this, generation](bool syncing) {
        sync_asking_ = false;
        if (generation == generation_ && opened_) SetSyncing(syncing);
      });
}

void MainWindow::Refresh() {
  if (udid_.isEmpty()) PollDevices();
  else ChooseDevice(udid_);
}

bool MainWindow::StartTransfer(Transfer::Direction direction, std::vector<TransferItem> items) {
  const QString udid = udid_;
  auto again = [udid, direction, items] { return std::make_unique<Transfer>(udid, direction, items); };
  if (!Begin(again())) return false;
  again_ = again;
  return true;
}

bool MainWindow::StartExport(app::ExportRequest request) {
  const QString udid = udid_;
  export_folder_ = Q(request.host_dir);
  auto again = [udid, request] { return std::make_unique<Transfer>(udid, request); };
  if (!Begin(again())) return false;
  again_ = again;
  return true;
}

bool MainWindow::RetryTransfer() {
  if (!again_) return false;
  return Begin(again_());
}

bool MainWindow::StartImport(const QString &folder, bool jpeg) {
  return Begin(std::make_unique<Transfer>(udid_, app::ImportRequest{folder.toStdString(), jpeg}));
}

bool MainWindow::Begin(std::unique_ptr<Transfer> transfer) {
  if ((transfer_ && transfer_->Running()) || udid_.isEmpty()) {
    statusBar()->showMessage(tr("Wait for the running transfer to end, or cancel it."), 10000);
    return false;
  }
  transfer_ = std::move(transfer);
  const Transfer::Direction direction = transfer_->direction();
  connect(transfer_.get(), &Transfer::Progress, this, &MainWindow::ShowTransfer);
  connect(transfer_.get(), &Transfer::Finished, this, [this, direction](const TransferResult &result) {
    transfer_bar_->hide();
    result_->setText(result.Summary());
    result_->setToolTip(result.failed.join('\n'));
    // Cut off by a lost connection: the same again once it is back.
    retry_->setVisible(result.reason.status == app::kDisconnected || app::BreaksConnection(result.reason.code));
    open_folder_->setVisible(direction == Transfer::Direction::kExport && !result.cancelled &&
                             result.copied + result.skipped > 0);
    if (direction == Transfer::Direction::kUpload) files_->Refresh();
    emit TransferFinished(result);
  });
  result_->clear();
  retry_->hide();
  open_folder_->hide();
  progress_->setValue(0);
  progress_->setAccessibleDescription(tr("Starting"));
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
  CataloguePage *page = this->page(kind);
  if (page == nullptr || !page->loaded()) return;
  if (!page->HasSelection()) {
    const int rows = page->proxy()->rowCount();
    if (rows == 0) {
      statusBar()->showMessage(tr("Nothing to export on this page."), 10000);
      return;
    }
    uint64_t bytes = 0;
    for (plist_t item : page->SelectedItems()) bytes += DictUint(item, "size");
    QMessageBox box(QMessageBox::Question, tr("Export"),
                    tr("Nothing is selected. Export all %n shown item(s) (%1)?", nullptr, rows).arg(HumanSize(bytes)),
                    QMessageBox::NoButton, this);
    box.setObjectName("confirmExportAll");
    QPushButton *all = box.addButton(tr("Export &All"), QMessageBox::AcceptRole);
    all->setObjectName("confirm");
    QPushButton *no = box.addButton(QMessageBox::Cancel);
    box.setDefaultButton(no);
    box.exec();
    if (box.clickedButton() != all) return;
  }
  QSettings settings;
  const QString folder = QFileDialog::getExistingDirectory(this, tr("Export to"), settings.value("export/folder").toString());
  if (folder.isEmpty()) return;
  settings.setValue("export/folder", folder);
  if (!ExportPage(kind, folder)) statusBar()->showMessage(tr("Nothing to export on this page."), 10000);
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
  // The drag folder is the window's own, nothing to show a person.
  open_folder_->hide();
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

void MainWindow::OpenRows(Kind kind) {
  CataloguePage *page = this->page(kind);
  // Opening a whole page is an export, which asks first.
  if (page == nullptr || !page->HasSelection()) return;
  const QList<QUrl> urls = StageForDrag(kind);
  if (!urls.isEmpty()) emit Opening(urls.mid(0, 20));
}

void MainWindow::OpenDeviceFile(const QString &path) {
  const QString host =
      QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + "/open/" + udid_ + '/' + QFileInfo(path).fileName();
  auto opened = std::make_shared<QMetaObject::Connection>();
  if (!StartTransfer(Transfer::Direction::kDownload, {{path, host, false}})) return;
  *opened = connect(this, &MainWindow::TransferFinished, this, [this, host, opened](const TransferResult &result) {
    disconnect(*opened);
    if (result.copied > 0) emit Opening({QUrl::fromLocalFile(host)});
  });
}

void MainWindow::ShowTransfer(quint64 done, quint64 total, const QString &current) {
  progress_->setValue(total == 0 ? 0 : static_cast<int>(1000.0 * static_cast<double>(done) / static_cast<double>(total)));
  progress_->setFormat(HumanSize(done) + " / " + HumanSize(total));
  // What a reader says of the bar: how far, and of which file.
  progress_->setAccessibleDescription(tr("%1 of %2 copied, now %3").arg(HumanSize(done), HumanSize(total), current));
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
