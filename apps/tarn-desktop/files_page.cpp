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
#include <QTreeWidgetItemIterator>
#include <QVBoxLayout>

#include "apps/common/file_ops.h"
#include "pages.h"

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

// Rows in a stable order whatever order the phone lists them in (a phone
// lists in hash order, and a row that moved under the pointer was once
// deleted in place of its neighbour): folders first, then by the column.
class EntryItem : public QTreeWidgetItem {
 public:
  using QTreeWidgetItem::QTreeWidgetItem;
  bool operator<(const QTreeWidgetItem &other) const override {
    const bool dir = data(0, kDirRole).toBool(), other_dir = other.data(0, kDirRole).toBool();
    const QTreeWidget *tree = treeWidget();
    const bool ascending = tree == nullptr || tree->header()->sortIndicatorOrder() == Qt::AscendingOrder;
    // Folders first in either order.
    if (dir != other_dir) return ascending ? dir : other_dir;
    const int column = tree != nullptr ? tree->sortColumn() : 0;
    if (column == 1 || column == 2) {
      const qlonglong a = data(column, kSortRole).toLongLong(), b = other.data(column, kSortRole).toLongLong();
      if (a != b) return a < b;
    }
    const int by_name = QString::compare(text(0), other.text(0), Qt::CaseInsensitive);
    if (by_name != 0) return by_name < 0;
    return text(0) < other.text(0);
  }
};

}  // namespace

bool PhoneFolder(const QString &path) {
  static const QStringList kOwn = {"/PhotoData",     "/DCIM",           "/iTunes_Control", "/Purchases",
                                   "/Books",         "/Recordings",     "/Photos",         "/PublicStaging",
                                   "/MediaAnalysis", "/Downloads",      "/Airlock",        "/Podcasts",
                                   "/Radio",         "/iTunes_Control/iTunes",             "/iTunes_Control/Music"};
  const QString clean = SafeDevicePath(path);
  for (const QString &own : kOwn)
    if (clean.compare(own, Qt::CaseInsensitive) == 0 || own.startsWith(clean + '/', Qt::CaseInsensitive)) return true;
  return false;
}

FilesPage::FilesPage(QWidget *parent) : QWidget(parent) {
  setObjectName("filesPage");
  setAcceptDrops(true);
  auto *layout = new QVBoxLayout(this);
  auto *buttons = new QHBoxLayout;
  std::vector<QAction *> menu;
  // Mnemonics that no menu of the window takes (Device, Edit, Go).
  auto button = [&](const QString &text, const char *name, const QString &accessible, void (FilesPage::*slot)(),
                    bool writes) {
    auto *b = new QPushButton(text, this);
    b->setObjectName(name);
    b->setAccessibleName(accessible);
    connect(b, &QPushButton::clicked, this, slot);
    buttons->addWidget(b);
    auto *action = new QAction(text, this);
    action->setObjectName(QString::fromLatin1(name) + "Action");
    connect(action, &QAction::triggered, this, slot);
    menu.push_back(action);
    if (writes) {
      writers_.push_back(b);
      writing_.push_back(action);
    }
  };
  button(tr("Do&wnload…"), "download", tr("Download the selected files"), &FilesPage::AskDownload, false);
  button(tr("&Upload…"), "upload", tr("Upload files to the selected folder"), &FilesPage::AskUpload, true);
  button(tr("New &Folder…"), "newFolder", tr("New folder"), &FilesPage::AskNewFolder, true);
  button(tr("Re&name…"), "rename", tr("Rename the selected item"), &FilesPage::AskRename, true);
  button(tr("De&lete…"), "delete", tr("Delete the selected items"), &FilesPage::AskDelete, true);
  search_ = new QLineEdit(this);
  search_->setObjectName("search");
  search_->setPlaceholderText(tr("Search file names"));
  search_->setAccessibleName(tr("Search file names"));
  search_->setClearButtonEnabled(true);
  NameClearButton(search_, tr("Clear the search"));
  buttons->addWidget(search_, 1);
  layout->addLayout(buttons);
  // Why the buttons that change the device are off, while they are.
  notice_ = new QLabel(this);
  notice_->setObjectName("filesNotice");
  notice_->setWordWrap(true);
  notice_->setFocusPolicy(Qt::TabFocus);
  notice_->hide();
  layout->addWidget(notice_);

  auto *split = new QSplitter(Qt::Vertical, this);
  tree_ = new QTreeWidget(split);
  tree_->setObjectName("tree");
  tree_->setAccessibleName(tr("Files on the device"));
  tree_->setHeaderLabels({tr("Name"), tr("Size"), tr("Modified")});
  tree_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  // Sizes and dates are never cut: their columns fit their text.
  tree_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
  tree_->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
  tree_->header()->setSectionResizeMode(2, QHeaderView::ResizeToContents);
  tree_->header()->setStretchLastSection(false);
  tree_->setSortingEnabled(true);
  tree_->sortByColumn(0, Qt::AscendingOrder);
  tree_->installEventFilter(this);
  tree_->viewport()->setAcceptDrops(true);
  results_ = new QTreeWidget(split);
  results_->setObjectName("searchResults");
  results_->setAccessibleName(tr("Search results"));
  results_->setHeaderLabels({tr("Found"), tr("Kind")});
  results_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  results_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
  results_->setSortingEnabled(true);
  results_->sortByColumn(0, Qt::AscendingOrder);
  results_->hide();
  layout->addWidget(split, 1);
  for (QTreeWidget *view : {tree_, results_}) {
    PrepareList(view, this);
    auto *open = new QAction(tr("&Open"), this);
    open->setObjectName("openAction");
    connect(open, &QAction::triggered, this, [this, view] { OpenCurrent(view); });
    QList<QAction *> own = {open};
    for (QAction *action : menu) own << action;
    view->insertActions(view->actions().front(), own);
  }

  connect(tree_, &QTreeWidget::itemExpanded, this, [this](QTreeWidgetItem *item) { Load(item); });
  connect(search_, &QLineEdit::returnPressed, this, [this] { StartSearch(search_->text()); });
  connect(tree_, &QTreeWidget::itemActivated, this, [this] { OpenCurrent(tree_); });
  connect(results_, &QTreeWidget::itemActivated, this, [this] { OpenCurrent(results_); });
}

QPushButton *FilesPage::button(const char *name) const { return findChild<QPushButton *>(name); }

void FilesPage::SetDevice(const std::shared_ptr<DeviceLink> &link) {
  link_ = link;
  // What was open and searched belonged to the other device.
  reopen_.clear();
  current_.clear();
  search_->clear();
  ++generation_;
  tree_->clear();
  results_->clear();
  results_->hide();
  root_loaded_ = false;
  if (link_) Load(tree_->invisibleRootItem());
}

void FilesPage::SetWritable(bool writable, const QString &why) {
  writable_ = writable;
  for (QWidget *w : writers_) {
    w->setEnabled(writable);
    w->setToolTip(writable ? QString() : why);
  }
  for (QAction *a : writing_) a->setEnabled(writable);
  notice_->setText(why);
  notice_->setAccessibleName(why);
  notice_->setVisible(!writable && !why.isEmpty());
}

void FilesPage::Refresh() {
  // The open folders and the current row come back as their folders are read.
  reopen_.clear();
  QTreeWidgetItemIterator it(tree_);
  for (; *it != nullptr; ++it)
    if ((*it)->isExpanded()) reopen_.insert((*it)->data(0, kPathRole).toString());
  if (tree_->currentItem() != nullptr) current_ = tree_->currentItem()->data(0, kPathRole).toString();
  ++generation_;
  tree_->clear();
  if (!link_) return;
  root_loaded_ = false;
  Load(tree_->invisibleRootItem());
}

void FilesPage::OpenCurrent(QTreeWidget *from) {
  QTreeWidgetItem *item = from->currentItem();
  if (item == nullptr) return;
  const QString path = item->data(0, kPathRole).toString();
  if (path.isEmpty()) return;
  if (from == results_) {
    Reveal(path);
    tree_->setFocus();
    return;
  }
  if (item->data(0, kDirRole).toBool()) item->setExpanded(!item->isExpanded());
  else emit OpenRequested(path);
}

void FilesPage::Reveal(const QString &path) {
  const QString clean = SafeDevicePath(path);
  if (clean.isEmpty()) return;
  // Every folder on the way opens as it is read; the last becomes current.
  QString prefix;
  const QStringList parts = clean.split('/', Qt::SkipEmptyParts);
  for (int i = 0; i + 1 < parts.size(); ++i) {
    prefix += '/' + parts[i];
    reopen_.insert(prefix);
  }
  current_ = clean;
  QTreeWidgetItem *deepest = tree_->invisibleRootItem();
  for (const QString &part : parts) {
    QTreeWidgetItem *next = Find(deepest == tree_->invisibleRootItem() ? '/' + part
                                                                     : deepest->data(0, kPathRole).toString() + '/' + part);
    if (next == nullptr) break;
    deepest = next;
  }
  if (deepest == tree_->invisibleRootItem()) return Load(deepest);
  if (deepest->data(0, kPathRole).toString() == clean) {
    tree_->setCurrentItem(deepest);
    tree_->scrollToItem(deepest);
    current_.clear();
    return;
  }
  if (deepest->isExpanded()) Load(deepest);
  else deepest->setExpanded(true);
}

QTreeWidgetItem *FilesPage::NewItem(QTreeWidgetItem *parent, const QString &name, const QString &path, bool is_dir,
                                    uint64_t size, int64_t mtime) {
  auto *item = new EntryItem(parent);
  item->setText(0, name);
  item->setText(1, is_dir ? QString() : HumanSize(size));
  item->setText(2, mtime > 0 ? LocalTime(mtime) : QString());
  item->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
  item->setData(0, kPathRole, path);
  item->setData(0, kDirRole, is_dir);
  item->setData(0, kLoadedRole, false);
  item->setData(1, kSortRole, QVariant::fromValue<qlonglong>(static_cast<qlonglong>(size)));
  item->setData(2, kSortRole, QVariant::fromValue<qlonglong>(mtime));
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
        for (const Entry &e : listing.entries) {
          QTreeWidgetItem *child = NewItem(item, e.name, e.path, e.is_dir, e.size, e.mtime);
          if (e.path == current_) {
            tree_->setCurrentItem(child);
            tree_->scrollToItem(child);
            current_.clear();
          }
        }
        if (item != tree_->invisibleRootItem() && listing.entries.empty() && !listing.why.failed())
          item->setChildIndicatorPolicy(QTreeWidgetItem::DontShowIndicatorWhenChildless);
        // Folders that were open before the read open again (and are read).
        for (int i = 0; i < item->childCount(); ++i) {
          QTreeWidgetItem *child = item->child(i);
          if (reopen_.remove(child->data(0, kPathRole).toString())) child->setExpanded(true);
        }
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
  const bool from_results = results_->isVisible() && !results_->selectedItems().isEmpty() &&
                            (results_->hasFocus() || tree_->selectedItems().isEmpty());
  for (QTreeWidgetItem *item : (from_results ? results_ : tree_)->selectedItems()) {
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
  QHash<QString, bool> found_dirs;
  for (QTreeWidgetItem *item : results_->selectedItems())
    found_dirs.insert(item->data(0, kPathRole).toString(), item->data(0, kDirRole).toBool());
  for (const QString &path : paths) {
    QTreeWidgetItem *item = Find(path);
    const bool is_dir = item != nullptr ? item->data(0, kDirRole).toBool() : found_dirs.value(path);
    items.push_back({path, folder + '/' + QFileInfo(path).fileName(), is_dir});
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
  QStringList own;
  for (const QString &path : paths)
    if (PhoneFolder(path)) own << path;
  QMessageBox box(this);
  box.setObjectName("confirmDelete");
  box.setWindowTitle(tr("Delete"));
  QPushButton *yes = nullptr;
  if (own.isEmpty()) {
    box.setIcon(QMessageBox::Question);
    box.setText(tr("Delete these from the device, with everything inside the folders? This cannot be undone.\n\n%1")
                    .arg(shown.join('\n')));
    yes = box.addButton(tr("&Delete"), QMessageBox::DestructiveRole);
  } else {
    // The phone's own folders: its photo library, music library, purchases.
    box.setIcon(QMessageBox::Warning);
    box.setText(tr("%1 belongs to the phone itself. Deleting it removes what the phone keeps there (its photos, "
                   "its music library or its purchases) for good, and the phone may have to be restored.")
                    .arg(own.join(", ")));
    box.setInformativeText(tr("Delete these anyway? This cannot be undone.\n\n%1").arg(shown.join('\n')));
    yes = box.addButton(tr("&Delete the Phone's Data"), QMessageBox::DestructiveRole);
  }
  yes->setObjectName("confirm");
  QPushButton *no = box.addButton(QMessageBox::Cancel);
  box.setDefaultButton(no);
  box.setEscapeButton(no);
  box.exec();
  if (box.clickedButton() == yes) Remove(paths);
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
        if (first == nullptr) out.why = DeviceReason(udid, {});
        for (PodSearchItem *it = first; it != nullptr; it = it->next) {
          const char *path = it->kind == 1 ? static_cast<PodDir *>(it->record)->path : static_cast<PodFile *>(it->record)->path;
          out.hits.emplace_back(QString::fromUtf8(path), it->kind == 1);
        }
        FreeSearchResult(first);
        return out;
      },
      [this](const Found &found) {
        results_->clear();
        for (const auto &[raw, is_dir] : found.hits) {
          // The library joins the root and a name as "//name".
          const QString path = QDir::cleanPath(raw);
          auto *item = new QTreeWidgetItem(results_, {path, is_dir ? tr("folder") : tr("file")});
          item->setData(0, kPathRole, path);
          item->setData(0, kDirRole, is_dir);
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
  // The folders open below it open again once it is read.
  QTreeWidgetItemIterator it(tree_);
  for (; *it != nullptr; ++it) {
    const QString below = (*it)->data(0, kPathRole).toString();
    if ((*it)->isExpanded() && (path == QLatin1String("/") || below.startsWith(path + '/'))) reopen_.insert(below);
  }
  if (current_.isEmpty() && tree_->currentItem() != nullptr)
    current_ = tree_->currentItem()->data(0, kPathRole).toString();
  SetLoaded(item, false);
  Load(item);
}

void FilesPage::dragEnterEvent(QDragEnterEvent *event) {
  if (event->mimeData()->hasUrls() && link_ && writable_) event->acceptProposedAction();
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
    if (writable_) AskDelete();
    return true;
  }
  return QWidget::eventFilter(watched, event);
}

}  // namespace tarn::desktop
