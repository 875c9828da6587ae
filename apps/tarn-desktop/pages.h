// The pages of one device: the overview with its storage bar, one table
// per catalogue kind, the page that says what to do about a phone that
// cannot be opened, and the file browser (files_page.h).
#pragma once

#include <QAbstractItemView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSortFilterProxyModel>
#include <QTableView>
#include <QWidget>

#include "catalogue_model.h"
#include "device_page.h"
#include "jobs.h"

namespace tarn::desktop {

// What every list of the window does alike, for keyboard and screen-reader
// use: Tab leaves it in one step (no walk from cell to cell), its actions
// are its context menu (right click, the Menu key, Shift+F10: see
// InstallContextMenuKeys), and that
// menu offers "Sort by" with each column; a table's column headers are a
// stop of their own just before it (Left, Right, Enter sorts), so sorting
// needs no mouse.
void PrepareList(QAbstractItemView *view, QWidget *owner);
// Makes the Menu key and Shift+F10 open the focused widget's context menu
// (or its nearest parent's) in the whole application; the window calls it.
void InstallContextMenuKeys();
// The clear button a line edit shows has no name of its own; a screen
// reader would announce it as "button".
void NameClearButton(QLineEdit *edit, const QString &name);

// Capacity drawn as coloured shares with a legend and figures beside.
class StorageBar : public QWidget {
  Q_OBJECT
 public:
  struct Share {
    QString name;
    uint64_t bytes;
    QColor colour;
  };
  explicit StorageBar(QWidget *parent = nullptr);
  void SetShares(uint64_t capacity, std::vector<Share> shares);
  const std::vector<Share> &shares() const { return shares_; }
  QSize sizeHint() const override { return {480, 90}; }
  // What the bar shows, in words: what a screen reader says of it.
  QString Describe() const;

 protected:
  void paintEvent(QPaintEvent *event) override;

 private:
  uint64_t capacity_ = 0;
  std::vector<Share> shares_;
};

class OverviewPage : public QWidget, public DevicePage {
  Q_OBJECT
 public:
  explicit OverviewPage(QWidget *parent = nullptr);
  // Shows GetDeviceInfo's dictionary; null shows `why` instead.
  void Show(plist_t info, const Reason &why);
  void ShowLoading();
  QString Field(const QString &name) const;
  QLabel *FieldLabel(const QString &name) const;
  StorageBar *bar() { return bar_; }
  void SetDevice(const std::shared_ptr<DeviceLink> &link) override;

 private:
  void SetValue(QLabel *label, const QString &name, const QString &value);
  void ShowMessage(const QString &text);
  QLabel *message_;
  std::vector<std::pair<QString, QLabel *>> fields_;
  StorageBar *bar_;
};

// The page shown instead of a device's sections while it cannot be opened,
// and when there is no device: a heading and what to do (apps/common's
// DescribeState), the reason's own sentence, and the buttons that act on it.
class StatePage : public QWidget {
  Q_OBJECT
 public:
  explicit StatePage(QWidget *parent = nullptr);
  // `detail` is the reason's sentence, shown under the advice when it tells more.
  void Show(app::DeviceState state, const QString &udid, const QString &detail = {});
  void ShowReading(const QString &udid);
  app::DeviceState state() const { return state_; }
  QString heading() const;
  QString advice() const;
  QPushButton *pairButton() { return pair_; }
  QPushButton *retryButton() { return retry_; }

 signals:
  void PairRequested();
  void RetryRequested();

 private:
  app::DeviceState state_ = app::DeviceState::kNoDevice;
  QLabel *heading_;
  QLabel *advice_;
  QLabel *detail_;
  QPushButton *pair_;
  QPushButton *retry_;
};

// Sorts and filters a catalogue model on keys the model keeps per column
// and per row, so that 30,000 rows sort in a few tens of milliseconds
// instead of building two cells' text for every comparison.
class CatalogueProxy : public QSortFilterProxyModel {
  Q_OBJECT
 public:
  explicit CatalogueProxy(QObject *parent = nullptr) : QSortFilterProxyModel(parent) {}
  void SetNeedle(const QString &text);

 protected:
  bool lessThan(const QModelIndex &left, const QModelIndex &right) const override;
  bool filterAcceptsRow(int row, const QModelIndex &parent) const override;

 private:
  QString needle_;
};

// A catalogue table whose rows can be dragged out. The rows are files on
// the device, which a drop target cannot read; the page hands the drag to
// whoever can copy them out first (MainWindow::DragOut).
class RowTable : public QTableView {
  Q_OBJECT
 public:
  explicit RowTable(QWidget *parent = nullptr);

 signals:
  void DragStarted();

 protected:
  void startDrag(Qt::DropActions actions) override;
};

class CataloguePage : public QWidget, public DevicePage {
  Q_OBJECT
 public:
  CataloguePage(const PageKind &kind, QWidget *parent = nullptr);
  const PageKind &kind() const { return kind_; }
  // Loads the list on a worker, over the chosen device's session.
  void Load(const std::shared_ptr<DeviceLink> &link);
  void Clear();
  void SetDevice(const std::shared_ptr<DeviceLink> &link) override;
  void Activate() override;
  bool loaded() const { return loaded_; }

  CatalogueModel *model() { return &model_; }
  CatalogueProxy *proxy() { return &proxy_; }
  QTableView *view() { return view_; }
  QLineEdit *filter() { return filter_; }
  CatalogueModel *members() { return &members_; }
  QTableView *membersView() { return members_view_; }
  QPushButton *exportButton() { return export_; }
  QLabel *status() { return status_; }
  // The items a person selected, in the table's order (the whole page
  // when nothing is selected).
  std::vector<plist_t> SelectedItems() const;
  bool HasSelection() const;
  SharedPlist list() const { return list_; }
  void CopySelection() const;

 signals:
  void Loaded(tarn::desktop::Kind kind, int rows);
  void ExportRequested(tarn::desktop::Kind kind);
  void DragRequested(tarn::desktop::Kind kind);
  // Enter or a double click on rows: open them with the desktop's programs.
  void OpenRequested(tarn::desktop::Kind kind);

 private:
  void ShowMembers();
  PageKind kind_;
  CatalogueModel model_;
  CatalogueProxy proxy_;
  CatalogueModel members_;
  QLineEdit *filter_;
  RowTable *view_;
  QTableView *members_view_ = nullptr;
  QLabel *status_;
  QPushButton *export_;
  SharedPlist list_;
  std::shared_ptr<DeviceLink> link_;
  bool loaded_ = false;
  int generation_ = 0;  // a load that a newer one replaced is dropped
};

}  // namespace tarn::desktop
