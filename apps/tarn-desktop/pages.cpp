#include "pages.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QMenu>
#include <QShortcut>
#include <QContextMenuEvent>
#include <QKeyEvent>
#include <QTreeView>
#include <QToolButton>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QPainter>
#include <QPointer>
#include <QSplitter>
#include <QStyle>
#include <QStyleOptionFocusRect>
#include <QVBoxLayout>

namespace tarn::desktop {

namespace {

QHeaderView *ColumnHeader(QAbstractItemView *view) {
  if (auto *table = qobject_cast<QTableView *>(view)) return table->horizontalHeader();
  if (auto *tree = qobject_cast<QTreeView *>(view)) return tree->header();
  return nullptr;
}

// Sorts a list by one of its columns; the column it is already sorted by
// turns round. The header's keys and the "Sort by" menu both come here.
void SortBy(QAbstractItemView *view, int column) {
  QHeaderView *header = ColumnHeader(view);
  if (header == nullptr) return;
  const Qt::SortOrder order = header->sortIndicatorSection() == column && header->sortIndicatorOrder() == Qt::AscendingOrder
                                  ? Qt::DescendingOrder
                                  : Qt::AscendingOrder;
  if (auto *table = qobject_cast<QTableView *>(view)) table->sortByColumn(column, order);
  else if (auto *tree = qobject_cast<QTreeView *>(view)) tree->sortByColumn(column, order);
}

// A list's column headers as a stop of their own, just before the list
// (Shift+Tab from the list): Left and Right choose a column, Space or Enter
// sorts by it, Down or Escape go back to the list. Qt's headers take no
// focus and draw none, so the chosen column is framed here.
class HeaderKeys : public QObject {
 public:
  HeaderKeys(QHeaderView *header, QAbstractItemView *view)
      : QObject(header), header_(header), viewport_(header->viewport()), view_(view) {
    header->setFocusPolicy(Qt::TabFocus);
    header->setAccessibleName(QObject::tr("Column headers"));
    QWidget::setTabOrder(header, view);
    header->installEventFilter(this);
    header->viewport()->installEventFilter(this);
  }

  // Only the events asked for touch the header: the others include those
  // its own destruction sends, when it is a header no more.
  bool eventFilter(QObject *watched, QEvent *event) override {
    const QEvent::Type type = event->type();
    if (type == QEvent::Paint && watched == viewport_ && header_->hasFocus() && !painting_) {
      painting_ = true;
      QCoreApplication::sendEvent(watched, event);
      painting_ = false;
      const int column = Chosen();
      if (column >= 0) {
        QPainter painter(header_->viewport());
        QStyleOptionFocusRect frame;
        frame.initFrom(header_);
        frame.rect = QRect(header_->sectionViewportPosition(column), 0, header_->sectionSize(column),
                           header_->viewport()->height())
                         .adjusted(2, 2, -2, -2);
        header_->style()->drawPrimitive(QStyle::PE_FrameFocusRect, &frame, &painter, header_);
      }
      return true;
    }
    if (watched != header_) return false;
    if (type == QEvent::FocusIn) {
      Choose(Chosen());
      return false;
    }
    if (type == QEvent::FocusOut && viewport_ != nullptr) viewport_->update();
    if (type != QEvent::KeyPress) return false;
    const int key = static_cast<QKeyEvent *>(event)->key();
    const int visual = header_->visualIndex(Chosen());
    switch (key) {
      case Qt::Key_Left: Choose(Step(visual, -1)); return true;
      case Qt::Key_Right: Choose(Step(visual, +1)); return true;
      case Qt::Key_Home: Choose(Step(-1, +1)); return true;
      case Qt::Key_End: Choose(Step(header_->count(), -1)); return true;
      case Qt::Key_Space:
      case Qt::Key_Return:
      case Qt::Key_Enter:
        if (Chosen() >= 0) SortBy(view_, Chosen());
        Choose(Chosen());
        return true;
      case Qt::Key_Down:
      case Qt::Key_Escape: view_->setFocus(Qt::ShortcutFocusReason); return true;
      default: return false;
    }
  }

 private:
  // The column chosen by key, or the one the list is sorted by, or the first.
  int Chosen() const {
    if (chosen_ >= 0 && chosen_ < header_->count() && !header_->isSectionHidden(chosen_)) return chosen_;
    const int sorted = header_->sortIndicatorSection();
    if (sorted >= 0 && sorted < header_->count() && !header_->isSectionHidden(sorted)) return sorted;
    return Step(-1, +1);
  }
  // The next shown column from a visual position, in one direction; where
  // there is none, the position's own column.
  int Step(int visual, int direction) const {
    for (int v = visual + direction; v >= 0 && v < header_->count(); v += direction) {
      const int logical = header_->logicalIndex(v);
      if (!header_->isSectionHidden(logical)) return logical;
    }
    return visual >= 0 && visual < header_->count() ? header_->logicalIndex(visual) : -1;
  }
  void Choose(int column) {
    chosen_ = column;
    viewport_->update();
    if (column < 0 || header_->model() == nullptr) return;
    const QString name = header_->model()->headerData(column, Qt::Horizontal).toString();
    QString state = QObject::tr("not sorted");
    if (header_->sortIndicatorSection() == column)
      state = header_->sortIndicatorOrder() == Qt::AscendingOrder ? QObject::tr("sorted ascending")
                                                                  : QObject::tr("sorted descending");
    header_->setAccessibleDescription(
        QObject::tr("%1, %2; Left and Right choose a column, Enter sorts by it").arg(name, state));
  }

  QHeaderView *header_;
  QPointer<QWidget> viewport_;
  QAbstractItemView *view_;
  int chosen_ = -1;
  bool painting_ = false;
};

}  // namespace

void PrepareList(QAbstractItemView *view, QWidget *owner) {
  view->setTabKeyNavigation(false);
  view->setContextMenuPolicy(Qt::ActionsContextMenu);
  if (QHeaderView *header = ColumnHeader(view)) new HeaderKeys(header, view);
  // Sorting from the menu as well: the Menu key reaches it from the list.
  auto *sort = new QAction(QObject::tr("Sort &by"), owner);
  sort->setObjectName("sortBy");
  auto *columns = new QMenu(owner);
  sort->setMenu(columns);
  QObject::connect(columns, &QMenu::aboutToShow, view, [view, columns] {
    columns->clear();
    QAbstractItemModel *model = view->model();
    QHeaderView *header = ColumnHeader(view);
    if (model == nullptr) return;
    for (int c = 0; c < model->columnCount(); ++c) {
      const QString name = model->headerData(c, Qt::Horizontal).toString();
      QAction *by = columns->addAction(name);
      by->setObjectName("sortBy" + QString::number(c));
      by->setCheckable(true);
      by->setChecked(header != nullptr && header->sortIndicatorSection() == c);
      QObject::connect(by, &QAction::triggered, view, [view, c] { SortBy(view, c); });
    }
  });
  view->addAction(sort);
}

namespace {

// The Menu key and Shift+F10, for every widget of the application: the
// context menu of the focused widget or of the nearest parent that has
// one, at the current row of a list.
class ContextKeys : public QObject {
 public:
  using QObject::QObject;
  bool eventFilter(QObject *watched, QEvent *event) override {
    if (event->type() != QEvent::KeyPress || !watched->isWidgetType()) return false;
    const auto *key = static_cast<QKeyEvent *>(event);
    const bool asks = key->key() == Qt::Key_Menu || (key->key() == Qt::Key_F10 && key->modifiers() == Qt::ShiftModifier);
    if (!asks) return false;
    for (auto *w = static_cast<QWidget *>(watched); w != nullptr && !w->isWindow(); w = w->parentWidget()) {
      if (auto *viewport_owner = qobject_cast<QAbstractItemView *>(w->parentWidget());
          viewport_owner != nullptr && viewport_owner->viewport() == w)
        continue;
      if (w->contextMenuPolicy() != Qt::ActionsContextMenu || w->actions().isEmpty()) continue;
      QPoint at(8, 8);
      QWidget *anchor = w;
      if (auto *view = qobject_cast<QAbstractItemView *>(w)) {
        anchor = view->viewport();
        const QRect current = view->visualRect(view->currentIndex());
        if (current.isValid()) at = current.center();
      }
      auto *menu = new QMenu(w);
      menu->setAttribute(Qt::WA_DeleteOnClose);
      for (QAction *action : w->actions())
        if (!action->text().isEmpty()) menu->addAction(action);
      menu->popup(anchor->mapToGlobal(at));
      return true;
    }
    return false;
  }
};

}  // namespace

void InstallContextMenuKeys() {
  static ContextKeys *keys = [] {
    auto *filter = new ContextKeys(QCoreApplication::instance());
    QCoreApplication::instance()->installEventFilter(filter);
    return filter;
  }();
  (void)keys;
}

void NameClearButton(QLineEdit *edit, const QString &name) {
  for (QToolButton *button : edit->findChildren<QToolButton *>()) button->setAccessibleName(name);
}

StorageBar::StorageBar(QWidget *parent) : QWidget(parent) {
  setObjectName("storageBar");
  setAccessibleName(tr("Storage use"));
  // A reader reaches it with Tab like the values above it.
  setFocusPolicy(Qt::TabFocus);
  setMinimumHeight(90);
}

void StorageBar::SetShares(uint64_t capacity, std::vector<Share> shares) {
  capacity_ = capacity;
  shares_ = std::move(shares);
  setAccessibleDescription(Describe());
  setToolTip(Describe());
  update();
}

QString StorageBar::Describe() const {
  if (shares_.empty()) return tr("not known yet");
  QStringList parts;
  for (const auto &s : shares_) parts << s.name + ' ' + HumanSize(s.bytes);
  return tr("%1 in all: %2").arg(capacity_ > 0 ? HumanSize(capacity_) : tr("capacity not reported"), parts.join(", "));
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
  }  // Keyboard focus shows, since the bar takes it.
  if (hasFocus()) {
    p.setPen(QPen(palette().color(QPalette::Highlight), 2));
    p.setBrush(Qt::NoBrush);
    p.drawRoundedRect(bar.adjusted(1, 1, -1, -1), 4, 4);
  }
}

OverviewPage::OverviewPage(QWidget *parent) : QWidget(parent) {
  setObjectName("overviewPage");
  auto *layout = new QVBoxLayout(this);
  message_ = new QLabel(this);
  message_->setObjectName("overviewMessage");
  message_->setWordWrap(true);
  message_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  message_->hide();
  layout->addWidget(message_);
  auto *form = new QFormLayout;
  for (const QString &name : {tr("Name"), tr("Model"), tr("Version"), tr("Serial number"), tr("Identifier"),
                              tr("Capacity"), tr("Free")}) {
    auto *value = new QLabel(this);
    value->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    value->setFocusPolicy(Qt::TabFocus);
    auto *label = new QLabel(name + ':', this);
    label->setBuddy(value);
    form->addRow(label, value);
    fields_.emplace_back(name, value);
    SetValue(value, name, {});
  }
  layout->addLayout(form);
  bar_ = new StorageBar(this);
  layout->addWidget(bar_);
  layout->addStretch();
  // Its actions, also on the Menu key: copy what it shows.
  setContextMenuPolicy(Qt::ActionsContextMenu);
  auto *copy = new QAction(tr("&Copy the details"), this);
  copy->setObjectName("copyDetails");
  connect(copy, &QAction::triggered, this, [this] {
    QStringList lines;
    for (const auto &f : fields_) lines << f.first + ": " + f.second->text();
    lines << tr("Storage") + ": " + bar_->Describe();
    QApplication::clipboard()->setText(lines.join('\n'));
  });
  addAction(copy);
}

// A reader speaks a label by its name: the name carries the value too.
void OverviewPage::SetValue(QLabel *label, const QString &name, const QString &value) {
  label->setText(value);
  label->setAccessibleName(name + ": " + (value.isEmpty() ? tr("not known") : value));
}

void OverviewPage::SetDevice(const std::shared_ptr<DeviceLink> &) { Show(nullptr, {}); }

void OverviewPage::ShowMessage(const QString &text) {
  message_->setText(text);
  message_->setAccessibleName(text);
  message_->setVisible(!text.isEmpty());
}

void OverviewPage::ShowLoading() {
  ShowMessage(tr("Reading the device…"));
  for (auto &f : fields_) SetValue(f.second, f.first, {});
  bar_->SetShares(0, {});
}

void OverviewPage::Show(plist_t info, const Reason &why) {
  if (info == nullptr) {
    ShowMessage(Text(why));
    for (auto &f : fields_) SetValue(f.second, f.first, {});
    bar_->SetShares(0, {});
    return;
  }
  ShowMessage({});
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
  for (size_t i = 0; i < fields_.size(); ++i)
    SetValue(fields_[i].second, fields_[i].first, values[static_cast<int>(i)]);
  std::vector<StorageBar::Share> shares = {{tr("Audio"), DictUint(info, "Audio"), QColor(0x3b, 0x82, 0xf6)},
                                           {tr("Video"), DictUint(info, "Video"), QColor(0xa8, 0x55, 0xf7)},
                                           {tr("Photos"), DictUint(info, "Photos"), QColor(0xf5, 0x9e, 0x0b)},
                                           {tr("Others"), others, QColor(0x14, 0xb8, 0xa6)}};
  if (has_capacity) shares.push_back({tr("Free"), free_bytes, QColor(0xd1, 0xd5, 0xdb)});
  bar_->SetShares(capacity, std::move(shares));
}

QString OverviewPage::Field(const QString &name) const {
  const QLabel *label = FieldLabel(name);
  return label != nullptr ? label->text() : QString();
}

QLabel *OverviewPage::FieldLabel(const QString &name) const {
  for (const auto &f : fields_)
    if (f.first == name) return f.second;
  return nullptr;
}

StatePage::StatePage(QWidget *parent) : QWidget(parent) {
  setObjectName("statePage");
  auto *layout = new QVBoxLayout(this);
  layout->addStretch(1);
  heading_ = new QLabel(this);
  heading_->setObjectName("stateHeading");
  QFont big = heading_->font();
  big.setPointSizeF(big.pointSizeF() * 1.5);
  big.setBold(true);
  heading_->setFont(big);
  heading_->setWordWrap(true);
  heading_->setAlignment(Qt::AlignCenter);
  advice_ = new QLabel(this);
  advice_->setObjectName("stateAdvice");
  advice_->setWordWrap(true);
  advice_->setAlignment(Qt::AlignCenter);
  advice_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  detail_ = new QLabel(this);
  detail_->setObjectName("stateDetail");
  detail_->setWordWrap(true);
  detail_->setAlignment(Qt::AlignCenter);
  detail_->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
  for (QLabel *label : {heading_, advice_, detail_}) {
    label->setFocusPolicy(Qt::TabFocus);
    layout->addWidget(label);
  }
  auto *buttons = new QHBoxLayout;
  buttons->addStretch(1);
  pair_ = new QPushButton(tr("&Pair Again"), this);
  pair_->setObjectName("pairAgain");
  pair_->setAccessibleName(tr("Pair again: ask the phone to trust this computer"));
  retry_ = new QPushButton(tr("&Try Again"), this);
  retry_->setObjectName("tryAgain");
  retry_->setAccessibleName(tr("Try to open the device again"));
  buttons->addWidget(pair_);
  buttons->addWidget(retry_);
  buttons->addStretch(1);
  layout->addLayout(buttons);
  layout->addStretch(2);
  connect(pair_, &QPushButton::clicked, this, &StatePage::PairRequested);
  connect(retry_, &QPushButton::clicked, this, &StatePage::RetryRequested);
  setContextMenuPolicy(Qt::ActionsContextMenu);
  Show(app::DeviceState::kNoDevice, {});
}

void StatePage::Show(app::DeviceState state, const QString &udid, const QString &detail) {
  state_ = state;
  const app::StateText text = app::DescribeState(state, udid.toStdString());
  heading_->setText(Q(text.heading));
  advice_->setText(Q(text.advice));
  // The reason's own sentence only where it tells more than the advice.
  const bool shown = state == app::DeviceState::kOther || state == app::DeviceState::kRefused;
  detail_->setText(shown ? detail : QString());
  detail_->setVisible(shown && !detail.isEmpty());
  for (QLabel *label : {heading_, advice_, detail_}) label->setAccessibleName(label->text());
  const bool pairs = state == app::DeviceState::kPairingInvalid || state == app::DeviceState::kNotPaired ||
                     state == app::DeviceState::kTrustDenied;
  pair_->setVisible(pairs);
  // Nothing to try again without a device; a state that clears by itself
  // is tried again anyway, the button only saves the wait.
  retry_->setVisible(!udid.isEmpty() && state != app::DeviceState::kUnplugged);
  for (QAction *action : actions()) removeAction(action);
  if (pair_->isVisible()) {
    auto *pair = new QAction(tr("&Pair Again"), this);
    connect(pair, &QAction::triggered, this, &StatePage::PairRequested);
    addAction(pair);
  }
  if (retry_->isVisible()) {
    auto *retry = new QAction(tr("&Try Again"), this);
    connect(retry, &QAction::triggered, this, &StatePage::RetryRequested);
    addAction(retry);
  }
}

void StatePage::ShowReading(const QString &udid) {
  state_ = app::DeviceState::kReady;
  heading_->setText(tr("Opening %1…").arg(Q(app::DeviceLabel(udid.toStdString()))));
  advice_->setText(tr("Reading what is on it."));
  detail_->clear();
  detail_->hide();
  for (QLabel *label : {heading_, advice_, detail_}) label->setAccessibleName(label->text());
  pair_->hide();
  retry_->hide();
}

QString StatePage::heading() const { return heading_->text(); }
QString StatePage::advice() const { return advice_->text(); }

void CatalogueProxy::SetNeedle(const QString &text) {
  needle_ = text.toCaseFolded();
  // One layout change for the whole table: invalidateFilter() would tell the
  // view of every run of rows that came or went, one signal each, and on a
  // sorted table of 30,000 rows those runs are thousands (a quarter second).
  invalidate();
}

bool CatalogueProxy::lessThan(const QModelIndex &left, const QModelIndex &right) const {
  const auto *model = static_cast<const CatalogueModel *>(sourceModel());
  return model->Less(left.row(), right.row(), left.column());
}

bool CatalogueProxy::filterAcceptsRow(int row, const QModelIndex &) const {
  if (needle_.isEmpty()) return true;
  return static_cast<const CatalogueModel *>(sourceModel())->Haystack(row).contains(needle_);
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
  NameClearButton(filter_, tr("Clear the filter"));
  top->addWidget(filter_, 1);
  // Alt+E opens the Edit menu; the button takes x.
  export_ = new QPushButton(tr("E&xport…"), this);
  export_->setObjectName("export");
  export_->setAccessibleName(tr("Export %1").arg(tr(kind.title)));
  export_->setAccessibleDescription(tr("Copies the selected rows to a folder; asks first when none is selected"));
  top->addWidget(export_);
  layout->addLayout(top);

  proxy_.setSourceModel(&model_);
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
  PrepareList(view_, this);
  auto add = [this](QWidget *on, const QString &text, const char *name, auto slot) {
    auto *action = new QAction(text, this);
    action->setObjectName(name);
    connect(action, &QAction::triggered, this, slot);
    on->insertAction(on->actions().isEmpty() ? nullptr : on->actions().front(), action);
    return action;
  };
  // Inserted before "Sort by", in reverse: Open, Export, Copy, Sort by.
  add(view_, tr("&Copy"), "copyRows", [this] { CopySelection(); });
  add(view_, tr("E&xport…"), "exportRows", [this] { emit ExportRequested(kind_.kind); });
  add(view_, tr("&Open"), "openRows", [this] { emit OpenRequested(kind_.kind); });
  connect(view_, &QAbstractItemView::activated, this, [this] {
    // Enter on a playlist shows its tracks below; on anything else opens it.
    if (kind_.kind == Kind::kPlaylists) members_view_->setFocus();
    else emit OpenRequested(kind_.kind);
  });

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
    PrepareList(members_view_, this);
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

  connect(filter_, &QLineEdit::textChanged, &proxy_, &CatalogueProxy::SetNeedle);
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
  // A filter typed for one device means nothing on the next.
  filter_->clear();
}

void CataloguePage::SetDevice(const std::shared_ptr<DeviceLink> &link) {
  link_ = link;
  Clear();
}

void CataloguePage::Activate() {
  if (link_ && !loaded_) Load(link_);
}

void CataloguePage::Load(const std::shared_ptr<DeviceLink> &link) {
  const int generation = ++generation_;
  loaded_ = false;
  status_->setText(tr("Loading…"));
  const Kind kind = kind_.kind;
  struct LoadResult {
    SharedPlist list;
    std::vector<QString> haystacks;  // made here, so a keystroke in the filter only looks
    Reason why;
  };
  // Over the chosen device's session, whose databases were copied when it
  // was chosen: a page costs no new connection.
  link->Run(
      this,
      [udid = link->udid(), kind](app::Session &session) {
        LoadResult out;
        out.list = Share(app::FetchList(session.device(), kind));
        if (out.list) out.haystacks = CatalogueModel::Haystacks(kind, static_cast<plist_t>(out.list.get()));
        // An empty catalogue is no failure; only a recorded reason is.
        const TarnError *error = TarnLastError();
        if (!out.list && error->code != TARN_OK && error->code != TARN_E_DATABASE_ABSENT)
          // Out of reach is no read failure: the reason says where they are.
          out.why = DeviceReason(udid, error->code == TARN_E_NOT_REACHABLE ? QString()
                                                                         : QObject::tr("The list cannot be read."));
        return out;
      },
      [this, generation](LoadResult out) {
        if (generation != generation_) return;
        list_ = out.list;
        model_.setList(kind_.kind, out.list, nullptr, std::move(out.haystacks));
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

bool CataloguePage::HasSelection() const { return view_->selectionModel()->hasSelection(); }

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
