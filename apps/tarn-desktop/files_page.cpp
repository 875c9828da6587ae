#include "files_page.h"

#include <QDir>
#include <QDragEnterEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QInputDialog>
#include <QKeyEvent>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QSplitter>
#include <QVBoxLayout>

#include "common/file_ops.h"

namespace tarn::desktop {
namespace {

constexpr int kPathRole = Qt::UserRole;
constexpr int kDirRole = Qt::UserRole + 1;
constexpr int kLoadedRole = Qt::UserRole + 2;
constexpr int kSortRole = Qt::UserRole + 3;

struct Entry {
  QString name, path;
  bool is_dir = false;
  uint64_t size = 0;
  int64_t mtime = 0;
};

struct Listing {
  std::vector<Entry> entries;
  Reason why;
};

Listing ListFolder(app::Session &session, const QString &path) {
  Listing out;
  bool cut = false;
  app::Snapshot root;
  try {
    root = app::TakeSnapshot(session, path.toStdString(), 1, &cut);
  } catch (const app::Failure &failure) {
    out.why = failure;
    return out;
  }
  auto number = [](const char *text) { return text != nullptr ? std::strtoll(text, nullptr, 10) : 0; };
  // The library joins the root and a name as "//name".
  auto clean = [](const char *path) { return QDir::cleanPath(QString::fromUtf8(path)); };
  for (const app::DirEntry &e : app::EntriesOf(root.get())) {
    if (e.is_dir)
      out.entries.push_back({Q(e.name), clean(e.dir->path), true, 0, number(e.dir->modify_date)});
    else
      out.entries.push_back({Q(e.name), clean(e.file->path), false, static_cast<uint64_t>(number(e.file->size)),
                             number(e.file->modify_date)});
  }
  return out;
}

// A file operation of the shared layer as a reason: none when it worked.
template <typename Operation>
Reason Attempt(Operation operation) {
  try {
    operation();
    return {};
  } catch (const app::Failure &failure) {
    return failure;
  }
}

QString ParentOf(const QString &path) {
  const QString parent = QFileInfo(path).path();
  return parent.isEmpty() ? QStringLiteral("/") : parent;
}

bool UsableName(const QString &name) {
  return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") && !name.contains('/');
}

}  // namespace

FilesPage::FilesPage(QWidget *parent) : QWidget(parent) {
  setObjectName("filesPage");
  setAcceptDrops(true);
  auto *layout = new QVBoxLayout(this);
  auto *buttons = new QHBoxLayout;
  auto button = [&](const QString &text, const char *name, const QString &accessible, void (FilesPage::*slot)()) {
    auto *b = new QPushButton(text, this);
    b->setObjectName(name);
    b->setAccessibleName(accessible);
    connect(b, &QPushButton::clicked, this, slot);
    buttons->addWidget(b);
  };
  button(tr("&Download…"), "download", tr("Download the selected files"), &FilesPage::AskDownload);
  button(tr("&Upload…"), "upload", tr("Upload files to the selected folder"), &FilesPage::AskUpload);
  button(tr("&New Folder…"), "newFolder", tr("New folder"), &FilesPage::AskNewFolder);
  button(tr("Re&name…"), "rename", tr("Rename the selected item"), &FilesPage::AskRename);
  button(tr("De&lete…"), "delete", tr("Delete the selected items"), &FilesPage::AskDelete);
  search_ = new QLineEdit(this);
  search_->setObjectName("search");
  search_->setPlaceholderText(tr("Search file names"));
  search_->setAccessibleName(tr("Search file names"));
  search_->setClearButtonEnabled(true);
  buttons->addWidget(search_, 1);
  layout->addLayout(buttons);

  auto *split = new QSplitter(Qt::Vertical, this);
  tree_ = new QTreeWidget(split);
  tree_->setObjectName("tree");
  tree_->setAccessibleName(tr("Files on the device"));
  tree_->setHeaderLabels({tr("Name"), tr("Size"), tr("Modified")});
  tree_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  tree_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
  tree_->header()->setStretchLastSection(false);
  tree_->setSortingEnabled(false);
  tree_->installEventFilter(this);
  tree_->viewport()->setAcceptDrops(true);
  results_ = new QTreeWidget(split);
  results_->setObjectName("searchResults");
  results_->setAccessibleName(tr("Search results"));
  results_->setHeaderLabels({tr("Found"), tr("Kind")});
  results_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
  results_->hide();
  layout->addWidget(split, 1);

  connect(tree_, &QTreeWidget::itemExpanded, this, [this](QTreeWidgetItem *item) { Load(item); });
  connect(search_, &QLineEdit::returnPressed, this, [this] { StartSearch(search_->text()); });
  connect(results_, &QTreeWidget::itemActivated, this, [this](QTreeWidgetItem *item) {
    Expand(ParentOf(item->data(0, kPathRole).toString()));
  });
}

void FilesPage::SetDevice(std::shared_ptr<DeviceLink> link) {
  link_ = std::move(link);
  Refresh();
}

void FilesPage::Refresh() {
  ++generation_;
  tree_->clear();
  results_->clear();
  results_->hide();
  if (!link_) return;
  root_loaded_ = false;
  Load(tree_->invisibleRootItem());
}

QTreeWidgetItem *FilesPage::NewItem(QTreeWidgetItem *parent, const QString &name, const QString &path, bool is_dir,
                                    uint64_t size, int64_t mtime) {
  auto *item = new QTreeWidgetItem(parent);
  item->setText(0, name);
  item->setText(1, is_dir ? QString() : HumanSize(size));
  item->setText(2, mtime > 0 ? LocalTime(mtime) : QString());
  item->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
  item->setData(0, kPathRole, path);
  item->setData(0, kDirRole, is_dir);
  item->setData(0, kLoadedRole, false);
  item->setData(0, kSortRole, QVariant::fromValue<qulonglong>(size));
  item->setIcon(0, style()->standardIcon(is_dir ? QStyle::SP_DirIcon : QStyle::SP_FileIcon));
  // Folders show their expander before they are read.
  if (is_dir) item->setChildIndicatorPolicy(QTreeWidgetItem::ShowIndicator);
  return item;
}

bool FilesPage::Loaded(QTreeWidgetItem *item) const {
  return item == tree_->invisibleRootItem() ? root_loaded_ : item->data(0, kLoadedRole).toBool();
}

// The tree's invisible root keeps no data of its own.
void FilesPage::SetLoaded(QTreeWidgetItem *item, bool loaded) {
  if (item == tree_->invisibleRootItem()) root_loaded_ = loaded;
  else item->setData(0, kLoadedRole, loaded);
}

void FilesPage::Load(QTreeWidgetItem *item) {
  if (Loaded(item) || !link_) return;
  SetLoaded(item, true);
  const QString path = item == tree_->invisibleRootItem() ? QStringLiteral("/") : item->data(0, kPathRole).toString();
  const int generation = generation_;
  link_->Run(
      this, [path](app::Session &session) { return ListFolder(session, path); },
      [this, path, generation](const Listing &listing) {
        if (generation != generation_) return;
        QTreeWidgetItem *item = path == QLatin1String("/") ? tree_->invisibleRootItem() : Find(path);
        if (item == nullptr) return;
        qDeleteAll(item->takeChildren());
        if (listing.why.failed()) {
          auto *note = new QTreeWidgetItem(item);
          note->setText(0, Text(listing.why));
          note->setFlags(Qt::ItemIsEnabled);
          SetLoaded(item, false);
        }
        for (const Entry &e : listing.entries) NewItem(item, e.name, e.path, e.is_dir, e.size, e.mtime);
        if (item != tree_->invisibleRootItem() && listing.entries.empty() && !listing.why.failed())
          item->setChildIndicatorPolicy(QTreeWidgetItem::DontShowIndicatorWhenChildless);
        emit FolderLoaded(path);
      });
}

QTreeWidgetItem *FilesPage::Find(const QString &path) const {
  QTreeWidgetItem *item = tree_->invisibleRootItem();
  if (path == QLatin1String("/")) return item;
  const QStringList parts = path.split('/', Qt::SkipEmptyParts);
  QString prefix;
  for (const QString &part : parts) {
    prefix += '/' + part;
    QTreeWidgetItem *next = nullptr;
    for (int i = 0; i < item->childCount() && next == nullptr; ++i)
      if (item->child(i)->data(0, kPathRole).toString() == prefix) next = item->child(i);
    if (next == nullptr) return nullptr;
    item = next;
  }
  return item;
}

void FilesPage::Expand(const QString &path) {
  QTreeWidgetItem *item = Find(path);
  if (item == nullptr) return;
  if (item == tree_->invisibleRootItem()) Load(item);
  else {
    item->setExpanded(true);
    tree_->setCurrentItem(item);
  }
}

QStringList FilesPage::SelectedPaths() const {
  QStringList paths;
  for (QTreeWidgetItem *item : tree_->selectedItems()) {
    const QString path = item->data(0, kPathRole).toString();
    if (!path.isEmpty()) paths << path;
  }
  return paths;
}

QString FilesPage::TargetFolder() const {
  QTreeWidgetItem *item = tree_->currentItem();
  if (item == nullptr || !item->isSelected()) return QStringLiteral("/");
  const QString path = item->data(0, kPathRole).toString();
  return item->data(0, kDirRole).toBool() ? path : ParentOf(path);
}

void FilesPage::AskDownload() {
  const QStringList paths = SelectedPaths();
  if (paths.isEmpty()) return;
  const QString folder = QFileDialog::getExistingDirectory(this, tr("Download to"));
  if (folder.isEmpty()) return;
  std::vector<TransferItem> items;
  for (const QString &path : paths) {
    QTreeWidgetItem *item = Find(path);
    items.push_back({path, folder + '/' + QFileInfo(path).fileName(), item != nullptr && item->data(0, kDirRole).toBool()});
  }
  emit TransferRequested(Transfer::Direction::kDownload, std::move(items));
}

void FilesPage::AskUpload() {
  if (!link_) return;
  UploadFiles(QFileDialog::getOpenFileNames(this, tr("Upload to %1").arg(TargetFolder())), TargetFolder());
}

void FilesPage::UploadFiles(const QStringList &host_paths, const QString &folder) {
  std::vector<TransferItem> items;
  for (const QString &host : host_paths) {
    const QFileInfo info(host);
    items.push_back({QDir::cleanPath(folder + '/' + info.fileName()), info.absoluteFilePath(), info.isDir()});
  }
  if (!items.empty()) emit TransferRequested(Transfer::Direction::kUpload, std::move(items));
}

void FilesPage::AskNewFolder() {
  if (!link_) return;
  const QString folder = TargetFolder();
  bool ok = false;
  const QString name = QInputDialog::getText(this, tr("New Folder"), tr("Name of the new folder in %1:").arg(folder),
                                             QLineEdit::Normal, tr("New Folder"), &ok);
  if (ok) MakeFolder(folder, name);
}

void FilesPage::AskRename() {
  const QStringList paths = SelectedPaths();
  if (paths.size() != 1) return;
  bool ok = false;
  const QString name = QInputDialog::getText(this, tr("Rename"), tr("New name for %1:").arg(paths[0]),
                                             QLineEdit::Normal, QFileInfo(paths[0]).fileName(), &ok);
  if (ok) RenameTo(paths[0], name);
}

void FilesPage::AskDelete() {
  const QStringList paths = SelectedPaths();
  if (paths.isEmpty()) return;
  QStringList shown = paths.mid(0, 10);
  if (paths.size() > 10) shown << tr("… and %n more", nullptr, static_cast<int>(paths.size() - 10));
  const auto answer = QMessageBox::question(
      this, tr("Delete"),
      tr("Delete these from the device, with everything inside the folders? This cannot be undone.\n\n%1")
          .arg(shown.join('\n')),
      QMessageBox::Yes | QMessageBox::Cancel, QMessageBox::Cancel);
  if (answer == QMessageBox::Yes) Remove(paths);
}

void FilesPage::MakeFolder(const QString &parent, const QString &name) {
  const QString path = SafeDevicePath(parent + '/' + name);
  if (!UsableName(name) || path.isEmpty()) {
    emit OperationDone(tr("\"%1\" cannot be a folder name.").arg(name));
    return;
  }
  link_->Run(
      this,
      [path](app::Session &session) {
        return Attempt([&] { app::MakeDirectory(session, path.toStdString(), false); });
      },
      [this, path](const Reason &why) {
        ReloadFolder(ParentOf(path));
        emit OperationDone(why.failed() ? Text(why) : tr("Made %1.").arg(path));
      });
}

void FilesPage::RenameTo(const QString &path, const QString &name) {
  const QString from = SafeDevicePath(path);
  const QString to = SafeDevicePath(ParentOf(from) + '/' + name);
  if (from.isEmpty() || to.isEmpty() || !UsableName(name)) {
    emit OperationDone(tr("\"%1\" cannot be a name.").arg(name));
    return;
  }
  link_->Run(
      this,
      [from, to](app::Session &session) {
        return Attempt([&] { app::Move(session, from.toStdString(), to.toStdString(), false); });
      },
      [this, from, to](const Reason &why) {
        ReloadFolder(ParentOf(from));
        emit OperationDone(why.failed() ? Text(why) : tr("Renamed %1 to %2.").arg(from, to));
      });
}

void FilesPage::Remove(const QStringList &paths) {
  if (!link_) return;
  link_->Run(
      this,
      [paths](app::Session &session) {
        QStringList failed;
        for (const QString &raw : paths) {
          const QString path = SafeDevicePath(raw);
          if (path.isEmpty()) {
            failed << QObject::tr("%1: the root is never deleted.").arg(raw);
            continue;
          }
          const Reason why = Attempt([&] { app::Remove(session, path.toStdString(), true); });
          if (why.failed()) failed << Text(why);
          // A device that went away or a sync in progress fails every path after it the same way.
          if (app::BreaksConnection(why.code) || why.status == app::kBusy) break;
        }
        return failed;
      },
      [this, paths](const QStringList &failed) {
        QStringList parents;
        for (const QString &p : paths) parents << ParentOf(SafeDevicePath(p));
        parents.removeDuplicates();
        for (const QString &p : parents) ReloadFolder(p);
        emit OperationDone(failed.isEmpty() ? tr("Deleted %n item(s).", nullptr, static_cast<int>(paths.size()))
                                            : failed.join('\n'));
      });
}

void FilesPage::StartSearch(const QString &text) {
  results_->clear();
  if (text.trimmed().isEmpty() || !link_) {
    results_->hide();
    return;
  }
  results_->show();
  auto *note = new QTreeWidgetItem(results_);
  note->setText(0, tr("Searching…"));
  struct Found {
    std::vector<std::pair<QString, bool>> hits;
    Reason why;
  };
  link_->Run(
      this,
      [udid = link_->udid(), keyword = text.trimmed().toLower()](app::Session &session) {
        Found out;
        PodSearchItem *first = SearchFile(session.device(), "/", keyword.toUtf8().constData());
        if (first == nullptr) out.why = LastReason(udid, {});
        for (PodSearchItem *it = first; it != nullptr; it = it->next) {
          const char *path = it->kind == 1 ? static_cast<PodDir *>(it->record)->path : static_cast<PodFile *>(it->record)->path;
          out.hits.emplace_back(QString::fromUtf8(path), it->kind == 1);
        }
        FreeSearchResult(first);
        return out;
      },
      [this](const Found &found) {
        results_->clear();
        for (const auto &[path, is_dir] : found.hits) {
          auto *item = new QTreeWidgetItem(results_, {path, is_dir ? tr("folder") : tr("file")});
          item->setData(0, kPathRole, path);
        }
        if (found.hits.empty()) {
          auto *note = new QTreeWidgetItem(results_);
          note->setText(0, found.why.failed() ? Text(found.why) : tr("Nothing found."));
        }
        emit SearchDone(static_cast<int>(found.hits.size()));
      });
}

void FilesPage::ReloadFolder(const QString &path) {
  QTreeWidgetItem *item = Find(path);
  if (item == nullptr) return;
  SetLoaded(item, false);
  Load(item);
}

void FilesPage::dragEnterEvent(QDragEnterEvent *event) {
  if (event->mimeData()->hasUrls() && link_) event->acceptProposedAction();
}

void FilesPage::dropEvent(QDropEvent *event) {
  QStringList files;
  for (const QUrl &url : event->mimeData()->urls())
    if (url.isLocalFile()) files << url.toLocalFile();
  QTreeWidgetItem *target = tree_->itemAt(tree_->viewport()->mapFrom(this, event->position().toPoint()));
  QString folder = QStringLiteral("/");
  if (target != nullptr) {
    const QString path = target->data(0, kPathRole).toString();
    folder = target->data(0, kDirRole).toBool() ? path : ParentOf(path);
  }
  UploadFiles(files, folder);
  event->acceptProposedAction();
}

bool FilesPage::eventFilter(QObject *watched, QEvent *event) {
  if (watched == tree_ && event->type() == QEvent::KeyPress &&
      static_cast<QKeyEvent *>(event)->matches(QKeySequence::Delete)) {
    AskDelete();
    return true;
  }
  return QWidget::eventFilter(watched, event);
}

}  // namespace tarn::desktop
