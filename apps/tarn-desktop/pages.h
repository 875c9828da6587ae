// The pages of one device: the overview with its storage bar, one table
// per catalogue kind, and the file browser (files_page.h).
#pragma once

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSortFilterProxyModel>
#include <QTableView>
#include <QWidget>

#include "catalogue_model.h"
#include "jobs.h"

namespace tarn::desktop {

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

 protected:
  void paintEvent(QPaintEvent *event) override;

 private:
  uint64_t capacity_ = 0;
  std::vector<Share> shares_;
};

class OverviewPage : public QWidget {
  Q_OBJECT
 public:
  explicit OverviewPage(QWidget *parent = nullptr);
  // Shows GetDeviceInfo's dictionary; null shows `why` instead.
  void Show(plist_t info, const Reason &why);
  void ShowLoading();
  QString Field(const QString &name) const;

 private:
  QLabel *message_;
  std::vector<std::pair<QString, QLabel *>> fields_;
  StorageBar *bar_;
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

class CataloguePage : public QWidget {
  Q_OBJECT
 public:
  CataloguePage(const PageKind &kind, QWidget *parent = nullptr);
  const PageKind &kind() const { return kind_; }
  // Loads the list on a worker, over the chosen device's session.
  void Load(const std::shared_ptr<DeviceLink> &link);
  void Clear();
  bool loaded() const { return loaded_; }

  CatalogueModel *model() { return &model_; }
  QSortFilterProxyModel *proxy() { return &proxy_; }
  QTableView *view() { return view_; }
  QLineEdit *filter() { return filter_; }
  CatalogueModel *members() { return &members_; }
  QTableView *membersView() { return members_view_; }
  // The items a person selected, in the table's order (the whole page
  // when nothing is selected).
  std::vector<plist_t> SelectedItems() const;
  SharedPlist list() const { return list_; }
  void CopySelection() const;

 signals:
  void Loaded(tarn::desktop::Kind kind, int rows);
  void ExportRequested(tarn::desktop::Kind kind);
  void DragRequested(tarn::desktop::Kind kind);

 private:
  void ShowMembers();
  PageKind kind_;
  CatalogueModel model_;
  QSortFilterProxyModel proxy_;
  CatalogueModel members_;
  QLineEdit *filter_;
  RowTable *view_;
  QTableView *members_view_ = nullptr;
  QLabel *status_;
  QPushButton *export_;
  SharedPlist list_;
  bool loaded_ = false;
  int generation_ = 0;  // a load that a newer one replaced is dropped
};

}  // namespace tarn::desktop
