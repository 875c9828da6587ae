#include "apps_page.h"

#include <QAction>
#include <QApplication>
#include <QDrag>
#include <QDropEvent>
#include <QEventLoop>
#include <QFileInfo>
#include <QLabel>
#include <QMimeData>
#include <QMouseEvent>
#include <QPixmap>
#include <QSplitter>
#include <QStandardPaths>
#include <QTreeWidget>
#include <QUrl>
#include <QVBoxLayout>

#include "apps/common/app_list.h"
#include "pages.h"

namespace tarn::desktop {

namespace {

constexpr int kIdentifierRole = Qt::UserRole;

struct Listed {
  std::vector<app::AppEntry> apps;
  Reason why;
};

}  // namespace

AppsPage::AppsPage(QWidget *parent) : QWidget(parent) {
  setObjectName("appsPage");
  auto *layout = new QVBoxLayout(this);
  auto *split = new QSplitter(Qt::Horizontal, this);
  list_ = new QListWidget(split);
  list_->setObjectName("apps");
  list_->setAccessibleName(tr("Apps"));
  list_->setIconSize(QSize(40, 40));
  list_->setMinimumWidth(200);
  // Its menu, also on the Menu key, as every list of the window has.
  PrepareList(list_, this);
  auto *open = new QAction(tr("&Open Documents"), this);
  open->setObjectName("openDocuments");
  connect(open, &QAction::triggered, this, [this] {
    if (QListWidgetItem *item = list_->currentItem(); item != nullptr && (item->flags() & Qt::ItemIsEnabled))
      Choose(item->data(kIdentifierRole).toString());
  });
  list_->insertAction(list_->actions().value(0), open);
  files_ = new FilesPage(split);
  files_->setObjectName("appFiles");
  split->addWidget(list_);
  split->addWidget(files_);
  split->setStretchFactor(1, 1);
  layout->addWidget(split);
  connect(list_, &QListWidget::currentItemChanged, this, [this](QListWidgetItem *item) {
    if (item != nullptr && (item->flags() & Qt::ItemIsEnabled)) Choose(item->data(kIdentifierRole).toString());
  });
  // The browser's copies go to the app, not to the media partition.
  connect(files_, &FilesPage::TransferRequested, this,
          [this](Transfer::Direction direction, std::vector<TransferItem> items) {
            if (start_ && !app_.isEmpty()) start_(app_, direction, std::move(items));
          });
  // The shared files are all below Documents: it is opened whenever the
  // browser reads the app's root (chosen, or refreshed after a copy).
  connect(files_, &FilesPage::FolderLoaded, this, [this](const QString &path) {
    if (!app_.isEmpty() && path == QLatin1String("/")) files_->Expand(app::kAppDocuments);
  });
  files_->tree()->viewport()->installEventFilter(this);
  files_->installEventFilter(this);
}

void AppsPage::SetDevice(const QString &udid) {
  udid_ = udid;
  link_.reset();
  app_.clear();
  loaded_ = false;
  ++generation_;
  list_->clear();
  files_->SetDevice(nullptr);
}

void AppsPage::Load() {
  if (loaded_ || udid_.isEmpty()) return;
  loaded_ = true;
  const int generation = generation_;
  const QString udid = udid_;
  // The window's link when there is one: the list and all its icons are
  // read over the session it holds. Without one (the page on its own), a
  // link of its own: one session for the list.
  auto link = link_ && link_->udid() == udid ? link_ : std::make_shared<DeviceLink>(udid);
  link->Run(
      this,
      [udid](app::Session &session) {
        Listed out;
        try {
          const app::PlistPtr list = app::AppList(session, true);
          out.apps = app::AppEntries(list.get());
        } catch (const app::Failure &failure) {
          out.why = failure;
        }
        return out;
      },
      [this, generation, link](const Listed &out) {
        if (generation != generation_) return;
        list_->clear();
        if (out.why.failed()) {
          auto *item = new QListWidgetItem(Text(out.why), list_);
          item->setFlags(Qt::NoItemFlags);
          loaded_ = false;  // tried again when the page is shown next
        }
        for (const app::AppEntry &entry : out.apps) {
          QPixmap icon;
          icon.loadFromData(reinterpret_cast<const uchar *>(entry.icon_png.data()),
                            static_cast<uint>(entry.icon_png.size()), "PNG");
          auto *item = new QListWidgetItem(QIcon(icon), Q(entry.name), list_);
          item->setData(kIdentifierRole, Q(entry.identifier));
          if (entry.file_sharing) {
            item->setToolTip(Q(entry.identifier + " " + entry.version));
          } else {
            // Shown, so that a person looking for it learns why it cannot be opened.
            item->setFlags(item->flags() & ~Qt::ItemIsEnabled);
            item->setToolTip(tr("%1 does not share files with computers.").arg(Q(entry.name)));
          }
        }
        emit AppsLoaded(static_cast<int>(out.apps.size()));
      });
}

void AppsPage::Choose(const QString &app) {
  if (app == app_ || udid_.isEmpty()) return;
  app_ = app;
  files_->SetDevice(std::make_shared<DeviceLink>(udid_, app));
}

void AppsPage::TransferDone(const TransferResult &result) {
  files_->Refresh();
  emit TransferFinished(result);
}

QList<QUrl> AppsPage::StageSelection() {
  QList<QUrl> urls;
  std::vector<TransferItem> items;
  // One folder per device and app in the cache; the download replaces what
  // an earlier drag left there.
  const QString folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + "/drag/" + udid_ + "/" + app_;
  for (const QString &path : files_->SelectedPaths()) {
    const QString safe = SafeDevicePath(path);
    if (safe.isEmpty()) continue;
    const QString host = folder + "/" + QFileInfo(safe).fileName();
    items.push_back({safe, host, false});
  }
  if (items.empty() || !start_) return urls;
  TransferResult result;
  bool finished = false;
  QEventLoop wait;
  auto done = connect(this, &AppsPage::TransferFinished, &wait, [&](const TransferResult &r) {
    result = r;
    finished = true;
    wait.quit();
  });
  // The copy runs as the window's transfer, with its progress bar and
  // Cancel; the window keeps answering meanwhile.
  if (start_(app_, Transfer::Direction::kDownload, items) && !finished) wait.exec();
  disconnect(done);
  if (!finished || result.cancelled) return urls;
  for (const TransferItem &item : items)
    if (QFileInfo::exists(item.host_path)) urls << QUrl::fromLocalFile(item.host_path);
  return urls;
}

bool AppsPage::UploadDropped(const QList<QUrl> &urls) {
  std::vector<TransferItem> items;
  for (const QUrl &url : urls) {
    if (!url.isLocalFile()) continue;
    const QFileInfo info(url.toLocalFile());
    items.push_back({QString(app::kAppDocuments) + '/' + info.fileName(), info.absoluteFilePath(), info.isDir()});
  }
  return !items.empty() && !app_.isEmpty() && start_ && start_(app_, Transfer::Direction::kUpload, std::move(items));
}

bool AppsPage::eventFilter(QObject *watched, QEvent *event) {
  // Files dropped beside the rows go into Documents: the container's root
  // holds nothing an app lets one write to.
  if (watched == files_ && event->type() == QEvent::Drop && !app_.isEmpty()) {
    auto *drop = static_cast<QDropEvent *>(event);
    QTreeWidget *tree = files_->tree();
    if (tree->itemAt(tree->viewport()->mapFrom(files_, drop->position().toPoint())) == nullptr) {
      UploadDropped(drop->mimeData()->urls());
      drop->acceptProposedAction();
      return true;
    }
  }
  if (watched == files_->tree()->viewport()) {
    if (event->type() == QEvent::MouseButtonPress) {
      press_ = static_cast<QMouseEvent *>(event)->position().toPoint();
    } else if (event->type() == QEvent::MouseMove) {
      const auto *move = static_cast<QMouseEvent *>(event);
      if ((move->buttons() & Qt::LeftButton) && !app_.isEmpty() &&
          (move->position().toPoint() - press_).manhattanLength() >= QApplication::startDragDistance() &&
          !files_->SelectedPaths().isEmpty()) {
        const QList<QUrl> urls = StageSelection();
        if (!urls.isEmpty()) {
          auto *data = new QMimeData;
          data->setUrls(urls);
          auto *drag = new QDrag(this);
          drag->setMimeData(data);
          drag->exec(Qt::CopyAction);
        }
        return true;
      }
    }
  }
  return QWidget::eventFilter(watched, event);
}

}  // namespace tarn::desktop
