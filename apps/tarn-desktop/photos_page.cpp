#include "photos_page.h"

#include <algorithm>

#include <QAbstractItemView>
#include <QAction>
#include <QDir>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLocale>
#include <QPainter>
#include <QPainterPath>
#include <QScrollBar>
#include <QSettings>
#include <QStandardPaths>
#include <QVBoxLayout>

#include "pages.h"
#include "apps/common/catalogue.h"
#include "apps/common/host_file.h"
#include "apps/common/naming.h"
#include "apps/common/picture.h"

namespace tarn::desktop {
namespace {

constexpr int kCell = ThumbnailCache::kSide + 8;
constexpr int kHeading = 30;

QString KindText(const PhotoEntry &e) {
  if (e.video()) return QObject::tr("video, %1").arg(HumanDuration(e.duration));
  if (e.kind == QLatin1String("live")) return QObject::tr("Live Photo");
  if (e.kind == QLatin1String("screenshot")) return QObject::tr("screenshot");
  return QObject::tr("photo");
}

// A mark drawn over a thumbnail: light text on a dark rounded patch.
void Badge(QPainter *p, const QRect &cell, const QString &text, Qt::Alignment where) {
  const QFontMetrics fm(p->font());
  const QSize size(fm.horizontalAdvance(text) + 10, fm.height() + 4);
  QRect box(QPoint(0, 0), size);
  const QRect inner = cell.adjusted(6, 6, -6, -6);
  box.moveTop(where & Qt::AlignTop ? inner.top() : inner.bottom() - size.height());
  box.moveLeft(where & Qt::AlignLeft ? inner.left() : inner.right() - size.width());
  QPainterPath path;
  path.addRoundedRect(box, 4, 4);
  p->fillPath(path, QColor(0, 0, 0, 170));
  p->setPen(Qt::white);
  p->drawText(box, Qt::AlignCenter, text);
}

}  // namespace

std::shared_ptr<const PhotoModel::Content> PhotoModel::Build(plist_t list) {
  auto content = std::make_shared<Content>();
  for (plist_t item : ArrayItems(DictArray(list, "item"))) {
    PhotoEntry e;
    e.path = DictString(item, "path");
    e.thumbnail = DictString(item, "thumbnail");
    e.name = Q(app::BaseName(e.path.toStdString()));
    e.time = DictString(item, "time");
    e.kind = DictString(item, "kind");
    e.size = DictUint(item, "size");
    e.duration = DictUint(item, "duration");
    e.cloud = app::DictBool(item, "cloud");
    const uint64_t taken = DictUint(item, "taken");
    // Older phones give only the local time as text.
    e.taken = taken > 0 ? QDateTime::fromSecsSinceEpoch(static_cast<qint64>(taken))
                        : QDateTime::fromString(e.time, QStringLiteral("yyyy/MM/dd HH:mm:ss"));
    if (!e.path.isEmpty()) content->entries.push_back(std::move(e));
  }
  // Newest first; undated pictures last, by name.
  std::stable_sort(content->entries.begin(), content->entries.end(), [](const PhotoEntry &a, const PhotoEntry &b) {
    if (a.taken.isValid() != b.taken.isValid()) return a.taken.isValid();
    if (a.taken != b.taken) return a.taken > b.taken;
    return a.name < b.name;
  });
  const QLocale locale;
  for (size_t i = 0; i < content->entries.size();) {
    const QDate day = content->entries[i].taken.date();
    size_t end = i;
    while (end < content->entries.size() && content->entries[end].taken.date() == day) ++end;
    const QString date = day.isValid() ? locale.toString(day, QLocale::LongFormat) : QObject::tr("Date unknown");
    content->rows.push_back({-1, QObject::tr("%1 · %n item(s)", nullptr, static_cast<int>(end - i)).arg(date)});
    for (; i < end; ++i) content->rows.push_back({static_cast<int>(i), {}});
  }
  return content;
}

PhotoModel::PhotoModel(ThumbnailCache *cache, QObject *parent) : QAbstractListModel(parent), cache_(cache) {
  connect(cache_, &ThumbnailCache::Ready, this, [this](const QString &path) {
    const auto it = row_of_.constFind(path);
    if (it == row_of_.constEnd()) return;
    const QModelIndex at = index(*it);
    emit dataChanged(at, at, {Qt::DecorationRole});
  });
}

void PhotoModel::SetContent(std::shared_ptr<const Content> content) {
  beginResetModel();
  content_ = std::move(content);
  row_of_.clear();
  if (content_) {
    row_of_.reserve(static_cast<qsizetype>(content_->entries.size()));
    for (size_t r = 0; r < content_->rows.size(); ++r)
      if (content_->rows[r].entry >= 0) row_of_.insert(content_->entries[static_cast<size_t>(content_->rows[r].entry)].path, static_cast<int>(r));
  }
  endResetModel();
}

const PhotoEntry *PhotoModel::Entry(const QModelIndex &index) const {
  if (!content_ || !index.isValid() || index.row() >= static_cast<int>(content_->rows.size())) return nullptr;
  const int entry = content_->rows[static_cast<size_t>(index.row())].entry;
  return entry < 0 ? nullptr : &content_->entries[static_cast<size_t>(entry)];
}

int PhotoModel::rowCount(const QModelIndex &parent) const {
  return parent.isValid() || !content_ ? 0 : static_cast<int>(content_->rows.size());
}

Qt::ItemFlags PhotoModel::flags(const QModelIndex &index) const {
  // Headings are read but not chosen.
  return Entry(index) != nullptr ? Qt::ItemIsEnabled | Qt::ItemIsSelectable : Qt::ItemIsEnabled;
}

QVariant PhotoModel::data(const QModelIndex &index, int role) const {
  if (!content_ || !index.isValid() || index.row() >= rowCount()) return {};
  const Row &row = content_->rows[static_cast<size_t>(index.row())];
  if (role == kHeadingRole) return row.entry < 0;
  if (row.entry < 0) return role == Qt::DisplayRole || role == Qt::AccessibleTextRole ? QVariant(row.heading) : QVariant();
  const PhotoEntry &e = content_->entries[static_cast<size_t>(row.entry)];
  switch (role) {
    case Qt::DisplayRole:
      return e.name;
    case Qt::AccessibleTextRole:
    case Qt::ToolTipRole: {
      // Named by file and date, and what kind of picture it is.
      QString text = e.name + ", " + (e.taken.isValid() ? QLocale().toString(e.taken, QLocale::ShortFormat) : tr("date unknown")) +
                     ", " + KindText(e);
      if (e.cloud) text += tr(", only in iCloud");
      return text;
    }
    case Qt::DecorationRole:
      return cache_->Get(e);
    case kEntryRole:
      return QVariant::fromValue(reinterpret_cast<quintptr>(&e));
    default:
      return {};
  }
}

PhotoDelegate::PhotoDelegate(QListView *view) : QStyledItemDelegate(view), view_(view) {}

QSize PhotoDelegate::sizeHint(const QStyleOptionViewItem &, const QModelIndex &index) const {
  // Never asks the model for the thumbnail: the layout of 20,000 rows
  // must not fetch 20,000 pictures.
  if (index.data(PhotoModel::kHeadingRole).toBool())
    return {std::max(kCell, view_->viewport()->width() - 2 * view_->spacing() - 1), kHeading};
  return {kCell, kCell};
}

void PhotoDelegate::paint(QPainter *p, const QStyleOptionViewItem &option, const QModelIndex &index) const {
  p->save();
  const QRect cell = option.rect;
  if (index.data(PhotoModel::kHeadingRole).toBool()) {
    QFont bold = option.font;
    bold.setBold(true);
    p->setFont(bold);
    p->setPen(option.palette.color(QPalette::WindowText));
    p->drawText(cell.adjusted(4, 0, 0, 0), Qt::AlignLeft | Qt::AlignBottom, index.data().toString());
    p->restore();
    return;
  }
  const auto *e = reinterpret_cast<const PhotoEntry *>(index.data(PhotoModel::kEntryRole).value<quintptr>());
  const bool selected = option.state & QStyle::State_Selected;
  p->fillRect(cell.adjusted(2, 2, -2, -2), selected ? option.palette.color(QPalette::Highlight)
                                                    : option.palette.color(QPalette::AlternateBase));
  const QImage image = index.data(Qt::DecorationRole).value<QImage>();
  const QRect inner = cell.adjusted(4, 4, -4, -4);
  if (!image.isNull()) {
    QRect target(QPoint(0, 0), image.size().scaled(inner.size(), Qt::KeepAspectRatio));
    target.moveCenter(inner.center());
    p->drawImage(target, image);
  } else {
    p->setPen(option.palette.color(QPalette::PlaceholderText));
    p->drawText(inner, Qt::AlignCenter | Qt::TextWordWrap, e != nullptr ? e->name : QString());
  }
  if (e != nullptr) {
    QFont small = option.font;
    small.setPointSizeF(std::max(6.0, small.pointSizeF() * 0.85));
    p->setFont(small);
    if (e->video()) Badge(p, cell, QStringLiteral("▶ ") + HumanDuration(e->duration), Qt::AlignRight | Qt::AlignBottom);
    if (e->kind == QLatin1String("live")) Badge(p, cell, QStringLiteral("LIVE"), Qt::AlignLeft | Qt::AlignTop);
    if (e->cloud) Badge(p, cell, QStringLiteral("☁"), Qt::AlignRight | Qt::AlignTop);
  }
  if (option.state & QStyle::State_HasFocus) {
    p->setPen(QPen(option.palette.color(QPalette::Highlight), 2));
    p->drawRect(cell.adjusted(1, 1, -2, -2));
  }
  p->restore();
}

PhotoPreview::PhotoPreview(const PhotoEntry &entry, const QImage &thumbnail, QWidget *parent)
    : QDialog(parent), entry_(entry), image_(thumbnail) {
  setObjectName("photoPreview");
  setAttribute(Qt::WA_DeleteOnClose);
  setWindowTitle(entry.name);
  setAccessibleName(tr("Preview of %1").arg(entry.name));
  auto *layout = new QVBoxLayout(this);
  picture_ = new QLabel(this);
  picture_->setObjectName("previewPicture");
  picture_->setAlignment(Qt::AlignCenter);
  picture_->setMinimumSize(320, 240);
  picture_->setAccessibleName(entry.name);
  layout->addWidget(picture_, 1);
  note_ = new QLabel(this);
  note_->setObjectName("previewNote");
  note_->setWordWrap(true);
  layout->addWidget(note_);
  const QString when = entry.taken.isValid() ? QLocale().toString(entry.taken, QLocale::LongFormat) : QString();
  note_->setText(QStringList{entry.name, when, KindText(entry), HumanSize(entry.size)}.join(QStringLiteral(" · ")));
  resize(900, 700);
  ShowImage();
}

void PhotoPreview::Load(const std::shared_ptr<DeviceLink> &link) {
  if (entry_.video() || entry_.cloud || !link) {
    emit Decoded(false);
    return;
  }
  // The picture itself, read over the held session into a temporary file
  // and decoded on the same worker: a preview is one picture.
  const QString folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + "/preview";
  link->Run(
      this,
      [entry = entry_, folder](app::Session &session) {
        QImage image;
        try {
          QDir().mkpath(folder);
          const std::string temp =
              app::CreateTemporaryBeside(std::filesystem::path(folder.toStdString()) / "picture").string();
          _CopyFileFromDeviceToNative(session.device(), session.client(), entry.path.toUtf8().constData(),
                                      temp.c_str(), nullptr);
          if (TarnLastError()->code == TARN_OK)
            image = DecodePicture(QString::fromStdString(temp), app::IsHeic(entry.path.toStdString()), 2048);
          std::filesystem::remove(temp);
        } catch (const std::exception &) {
        } catch (const app::Failure &) {
        }
        return image;
      },
      [this](const QImage &image) {
        full_ = !image.isNull();
        if (full_) image_ = image;
        else note_->setText(note_->text() + " · " + tr("the picture itself could not be read; showing its thumbnail"));
        ShowImage();
        emit Decoded(full_);
      });
}

void PhotoPreview::resizeEvent(QResizeEvent *event) {
  QDialog::resizeEvent(event);
  ShowImage();
}

void PhotoPreview::ShowImage() {
  if (image_.isNull()) {
    picture_->setText(tr("No picture to show"));
    return;
  }
  const QSize room = picture_->size().boundedTo(image_.size() * 4);
  picture_->setPixmap(QPixmap::fromImage(image_.scaled(room, Qt::KeepAspectRatio, Qt::SmoothTransformation)));
}

PhotosPage::PhotosPage(QWidget *parent) : QWidget(parent), cache_(this), model_(&cache_, this) {
  setObjectName("photosPage");
  auto *layout = new QVBoxLayout(this);
  auto *top = new QHBoxLayout;
  source_ = new QComboBox(this);
  source_->setObjectName("photoSource");
  source_->setAccessibleName(tr("Pictures to show"));
  source_->addItem(tr("Camera roll"));
  source_->addItem(tr("Synced pictures"));
  // Its drop-down list is met on its own by a reader.
  source_->view()->setAccessibleName(tr("Pictures to show"));
  top->addWidget(source_);
  status_ = new QLabel(this);
  status_->setObjectName("status");
  top->addWidget(status_, 1);
  jpeg_ = new QCheckBox(tr("Convert HEIC to &JPEG"), this);
  jpeg_->setObjectName("importJpeg");
  jpeg_->setToolTip(tr("Write HEIC pictures as JPEG for programs that do not read HEIC"));
  jpeg_->setChecked(QSettings().value("import/jpeg", false).toBool());
  top->addWidget(jpeg_);
  import_ = new QPushButton(tr("&Import New Photos…"), this);
  import_->setObjectName("importPhotos");
  import_->setAccessibleName(tr("Import the new photos of the camera roll into a folder"));
  top->addWidget(import_);
  layout->addLayout(top);

  grid_ = new QListView(this);
  grid_->setObjectName("photoGrid");
  grid_->setAccessibleName(tr("Photos"));
  grid_->setViewMode(QListView::ListMode);
  grid_->setFlow(QListView::LeftToRight);
  grid_->setWrapping(true);
  grid_->setResizeMode(QListView::Adjust);
  grid_->setMovement(QListView::Static);
  grid_->setSpacing(2);
  grid_->setUniformItemSizes(false);
  // Laid out in batches between events, so that 20,000 pictures never
  // hold the window up.
  grid_->setLayoutMode(QListView::Batched);
  grid_->setBatchSize(500);
  grid_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  grid_->setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
  grid_->verticalScrollBar()->setSingleStep(kCell / 3);
  grid_->setItemDelegate(new PhotoDelegate(grid_));
  grid_->setModel(&model_);
  layout->addWidget(grid_, 1);

  connect(source_, &QComboBox::currentIndexChanged, this, [this] {
    loaded_ = false;
    Load();
  });
  connect(grid_, &QListView::activated, this, [this](const QModelIndex &index) { Preview(index); });
  // The grid's menu, also on the Menu key: what Enter and the button do.
  PrepareList(grid_, this);
  auto *open = new QAction(tr("&Open Preview"), this);
  open->setObjectName("openPreview");
  connect(open, &QAction::triggered, this, [this] {
    if (grid_->currentIndex().isValid()) Preview(grid_->currentIndex());
  });
  grid_->insertAction(grid_->actions().value(0), open);
  auto *import_action = new QAction(import_->text(), this);
  import_action->setObjectName("importAction");
  connect(import_action, &QAction::triggered, import_, &QPushButton::click);
  grid_->addAction(import_action);
  connect(import_, &QPushButton::clicked, this, &PhotosPage::AskImport);
  connect(jpeg_, &QCheckBox::toggled, this, [](bool on) { QSettings().setValue("import/jpeg", on); });
}

void PhotosPage::SetDevice(const std::shared_ptr<DeviceLink> &link) {
  ++generation_;
  link_ = std::move(link);
  loaded_ = false;
  cache_.SetDevice(link_);
  model_.SetContent(nullptr);
  status_->clear();
  import_->setEnabled(link_ != nullptr);
}

void PhotosPage::ShowSource(Source source) { source_->setCurrentIndex(source == Source::kCamera ? 0 : 1); }

void PhotosPage::Load() {
  if (loaded_ || !link_) return;
  const int generation = ++generation_;
  const app::Kind kind = source_->currentIndex() == 0 ? app::Kind::kCamera : app::Kind::kPictures;
  status_->setText(tr("Loading…"));
  struct Result {
    std::shared_ptr<const PhotoModel::Content> content;
    Reason why;
  };
  link_->Run(
      this,
      [udid = link_->udid(), kind](app::Session &session) {
        Result out;
        PlistPtr list = app::FetchList(session.device(), kind);
        const TarnError *error = TarnLastError();
        if (!list && error->code != TARN_OK && error->code != TARN_E_DATABASE_ABSENT)
          out.why = DeviceReason(udid, QObject::tr("The pictures cannot be read."));
        out.content = PhotoModel::Build(list.get());
        return out;
      },
      [this, generation](const Result &out) {
        if (generation != generation_) return;
        model_.SetContent(out.content);
        loaded_ = true;
        const int n = model_.Pictures();
        if (out.why.failed()) status_->setText(Text(out.why));
        else if (n == 0) status_->setText(tr("No pictures on the device."));
        else status_->setText(tr("%n picture(s) and video(s)", nullptr, n));
        emit Loaded(n);
      });
}

PhotoPreview *PhotosPage::Preview(const QModelIndex &index) {
  const PhotoEntry *entry = model_.Entry(index);
  if (entry == nullptr) return nullptr;
  auto *preview = new PhotoPreview(*entry, cache_.Get(*entry), this);
  preview->show();
  preview->Load(link_);
  return preview;
}

void PhotosPage::AskImport() {
  QSettings settings;
  QString start = settings.value("import/folder").toString();
  if (start.isEmpty()) start = QStandardPaths::writableLocation(QStandardPaths::PicturesLocation);
  const QString folder = QFileDialog::getExistingDirectory(this, tr("Import new photos into"), start);
  if (folder.isEmpty()) return;
  settings.setValue("import/folder", folder);
  emit ImportRequested(folder, jpeg_->isChecked());
}

}  // namespace tarn::desktop
