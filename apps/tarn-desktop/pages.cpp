#include "pages.h"

#include <QApplication>
#include <QClipboard>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QPainter>
#include <QSplitter>
#include <QVBoxLayout>

namespace tarn::desktop {

StorageBar::StorageBar(QWidget *parent) : QWidget(parent) {
  setObjectName("storageBar");
  setAccessibleName(tr("Storage use"));
  setMinimumHeight(90);
}

void StorageBar::SetShares(uint64_t capacity, std::vector<Share> shares) {
  capacity_ = capacity;
  shares_ = std::move(shares);
  QStringList parts;
  for (const auto &s : shares_) parts << s.name + ' ' + HumanSize(s.bytes);
  setAccessibleDescription(parts.join(", "));
  update();
}

void StorageBar::paintEvent(QPaintEvent *) {
  QPainter p(this);
  p.setRenderHint(QPainter::Antialiasing);
  const QRectF bar(0, 0, width() - 1, 28);
  p.setPen(palette().color(QPalette::Mid));
  p.setBrush(palette().color(QPalette::Base));
  p.drawRoundedRect(bar, 4, 4);
  if (capacity_ > 0) {
    double x = bar.left();
    for (const auto &s : shares_) {
      const double w = bar.width() * static_cast<double>(s.bytes) / static_cast<double>(capacity_);
      p.fillRect(QRectF(x, bar.top() + 1, std::min(w, bar.right() - x), bar.height() - 1), s.colour);
      x += w;
    }
  }
  // The legend: a swatch, the name and the figure of every share.
  const QFontMetrics fm(font());
  int x = 0, y = 40;
  for (const auto &s : shares_) {
    const QString text = s.name + "  " + HumanSize(s.bytes);
    const int w = 16 + 6 + fm.horizontalAdvance(text) + 18;
    if (x + w > width() && x > 0) {
      x = 0;
      y += fm.height() + 8;
    }
    p.fillRect(QRect(x, y, 16, 16), s.colour);
    p.setPen(palette().color(QPalette::WindowText));
    p.drawText(QRect(x + 22, y, w, 16), Qt::AlignVCenter | Qt::AlignLeft, text);
    x += w;
  }
}

OverviewPage::OverviewPage(QWidget *parent) : QWidget(parent) {
  setObjectName("overviewPage");
  auto *layout = new QVBoxLayout(this);
  message_ = new QLabel(this);
  message_->setObjectName("overviewMessage");
  message_->setWordWrap(true);
  message_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  layout->addWidget(message_);
  auto *form = new QFormLayout;
  for (const QString &name : {tr("Name"), tr("Model"), tr("Version"), tr("Serial number"), tr("Identifier"),
                              tr("Capacity"), tr("Free")}) {
    auto *value = new QLabel(this);
    value->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    value->setFocusPolicy(Qt::TabFocus);
    value->setAccessibleName(name);
    form->addRow(name + ':', value);
    fields_.emplace_back(name, value);
  }
  layout->addLayout(form);
  bar_ = new StorageBar(this);
  layout->addWidget(bar_);
  layout->addStretch();
}

void OverviewPage::ShowLoading() {
  message_->setText(tr("Reading the device…"));
  for (auto &f : fields_) f.second->clear();
  bar_->SetShares(0, {});
}

void OverviewPage::Show(plist_t info, const Reason &why) {
  if (info == nullptr) {
    message_->setText(Text(why));
    for (auto &f : fields_) f.second->clear();
    bar_->SetShares(0, {});
    return;
  }
  message_->clear();
  const bool has_capacity = plist_dict_get_item(info, "Catacity") != nullptr;
  const uint64_t capacity = DictUint(info, "Catacity");
  const uint64_t free_bytes = std::min(DictUint(info, "Available"), capacity);
  uint64_t others = DictUint(info, "Others");
  // The library subtracts without a floor: media larger than the used space
  // wraps "Others" round to nearly 2^64.
  if (!has_capacity || others > capacity) others = 0;
  const QStringList values = {DictString(info, "DeviceName"), DictString(info, "Type"), DictString(info, "Version"),
                              DictString(info, "SerialNumber"), DictString(info, "UniqueDeviceID"),
                              has_capacity ? HumanSize(capacity) : tr("not reported"),
                              has_capacity ? HumanSize(free_bytes) : tr("not reported")};
  for (size_t i = 0; i < fields_.size(); ++i) fields_[i].second->setText(values[static_cast<int>(i)]);
  std::vector<StorageBar::Share> shares = {{tr("Audio"), DictUint(info, "Audio"), QColor(0x3b, 0x82, 0xf6)},
                                           {tr("Video"), DictUint(info, "Video"), QColor(0xa8, 0x55, 0xf7)},
                                           {tr("Photos"), DictUint(info, "Photos"), QColor(0xf5, 0x9e, 0x0b)},
                                           {tr("Others"), others, QColor(0x14, 0xb8, 0xa6)}};
  if (has_capacity) shares.push_back({tr("Free"), free_bytes, QColor(0xd1, 0xd5, 0xdb)});
  bar_->SetShares(capacity, std::move(shares));
}

QString OverviewPage::Field(const QString &name) const {
  for (const auto &f : fields_)
    if (f.first == name) return f.second->text();
  return {};
}

RowTable::RowTable(QWidget *parent) : QTableView(parent) {
  setDragEnabled(true);
  setDragDropMode(QAbstractItemView::DragOnly);
}

void RowTable::startDrag(Qt::DropActions) { emit DragStarted(); }

CataloguePage::CataloguePage(const PageKind &kind, QWidget *parent) : QWidget(parent), kind_(kind) {
  setObjectName(QString::fromLatin1(kind.key) + "Page");
  auto *layout = new QVBoxLayout(this);
  auto *top = new QHBoxLayout;
  filter_ = new QLineEdit(this);
  filter_->setObjectName("filter");
  filter_->setPlaceholderText(tr("Filter %1").arg(tr(kind.title)));
  filter_->setAccessibleName(tr("Filter %1").arg(tr(kind.title)));
  filter_->setClearButtonEnabled(true);
  top->addWidget(filter_, 1);
  export_ = new QPushButton(tr("&Export…"), this);
  export_->setObjectName("export");
  export_->setAccessibleName(tr("Export the selected %1").arg(tr(kind.title)));
  top->addWidget(export_);
  layout->addLayout(top);

  proxy_.setSourceModel(&model_);
  proxy_.setSortRole(CatalogueModel::kSortRole);
  proxy_.setFilterKeyColumn(-1);
  proxy_.setFilterCaseSensitivity(Qt::CaseInsensitive);
  view_ = new RowTable(this);
  view_->setObjectName("table");
  view_->setAccessibleName(tr(kind.title));
  view_->setModel(&proxy_);
  view_->setSelectionBehavior(QAbstractItemView::SelectRows);
  view_->setSelectionMode(QAbstractItemView::ExtendedSelection);
  view_->setAlternatingRowColors(true);
  view_->setWordWrap(false);
  view_->verticalHeader()->hide();
  // Fixed rows: the view never asks 50,000 rows for their heights.
  view_->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
  view_->verticalHeader()->setDefaultSectionSize(view_->fontMetrics().height() + 6);
  view_->horizontalHeader()->setSectionResizeMode(QHeaderView::Interactive);
  view_->horizontalHeader()->setDefaultSectionSize(150);
  view_->horizontalHeader()->setStretchLastSection(true);
  view_->horizontalHeader()->setSortIndicator(-1, Qt::AscendingOrder);
  view_->setSortingEnabled(true);

  if (kind.kind == Kind::kPlaylists) {
    auto *split = new QSplitter(Qt::Vertical, this);
    split->addWidget(view_);
    members_view_ = new QTableView(split);
    members_view_->setObjectName("members");
    members_view_->setAccessibleName(tr("Tracks of the playlist"));
    members_view_->setModel(&members_);
    members_view_->setSelectionBehavior(QAbstractItemView::SelectRows);
    members_view_->verticalHeader()->hide();
    members_view_->horizontalHeader()->setStretchLastSection(true);
    split->addWidget(members_view_);
    layout->addWidget(split, 1);
    connect(view_->selectionModel(), &QItemSelectionModel::currentRowChanged, this, &CataloguePage::ShowMembers);
  } else {
    layout->addWidget(view_, 1);
  }
  status_ = new QLabel(this);
  status_->setObjectName("status");
  status_->setWordWrap(true);
  layout->addWidget(status_);

  connect(filter_, &QLineEdit::textChanged, &proxy_, &QSortFilterProxyModel::setFilterFixedString);
  connect(export_, &QPushButton::clicked, this, [this] { emit ExportRequested(kind_.kind); });
  connect(view_, &RowTable::DragStarted, this, [this] { emit DragRequested(kind_.kind); });
}

void CataloguePage::Clear() {
  ++generation_;
  loaded_ = false;
  model_.clear();
  members_.clear();
  list_.reset();
  status_->clear();
}

void CataloguePage::Load(const std::shared_ptr<DeviceLink> &link) {
  const int generation = ++generation_;
  loaded_ = false;
  status_->setText(tr("Loading…"));
  const Kind kind = kind_.kind;
  struct LoadResult {
    SharedPlist list;
    Reason why;
  };
  // Over the chosen device's session, whose databases were copied when it
  // was chosen: a page costs no new connection.
  link->Run(
      this,
      [udid = link->udid(), kind](app::Session &session) {
        LoadResult out;
        out.list = Share(app::FetchList(session.device(), kind));
        // An empty catalogue is no failure; only a recorded reason is.
        const TarnError *error = TarnLastError();
        if (!out.list && error->code != TARN_OK && error->code != TARN_E_DATABASE_ABSENT)
          // Out of reach is no read failure: the reason says where they are.
          out.why = LastReason(udid, error->code == TARN_E_NOT_REACHABLE ? QString()
                                                                         : QObject::tr("The list cannot be read."));
        return out;
      },
      [this, generation](const LoadResult &out) {
        if (generation != generation_) return;
        list_ = out.list;
        model_.setList(kind_.kind, out.list);
        members_.clear();
        loaded_ = true;
        const int n = model_.rowCount();
        if (out.why.failed()) status_->setText(Text(out.why));
        else if (n == 0) status_->setText(tr("Nothing of this kind on the device."));
        else status_->setText(tr("%n item(s)", nullptr, n));
        emit Loaded(kind_.kind, n);
      });
}

void CataloguePage::ShowMembers() {
  const QModelIndex current = proxy_.mapToSource(view_->currentIndex());
  if (!current.isValid()) {
    members_.clear();
    return;
  }
  members_.setList(Kind::kMusic, list_, DictArray(model_.item(current.row()), "item"));
}

std::vector<plist_t> CataloguePage::SelectedItems() const {
  std::vector<plist_t> items;
  QModelIndexList rows = view_->selectionModel()->selectedRows();
  std::sort(rows.begin(), rows.end(), [](const QModelIndex &a, const QModelIndex &b) { return a.row() < b.row(); });
  if (rows.isEmpty())
    for (int r = 0; r < proxy_.rowCount(); ++r) rows << proxy_.index(r, 0);
  for (const QModelIndex &index : rows) items.push_back(model_.item(proxy_.mapToSource(index).row()));
  return items;
}

void CataloguePage::CopySelection() const {
  QStringList lines;
  const QModelIndexList rows = view_->selectionModel()->selectedRows();
  for (const QModelIndex &row : rows) {
    QStringList cells;
    for (int c = 0; c < proxy_.columnCount(); ++c) cells << proxy_.index(row.row(), c).data().toString();
    lines << cells.join('\t');
  }
  if (!lines.isEmpty()) QApplication::clipboard()->setText(lines.join('\n'));
}

}  // namespace tarn::desktop
