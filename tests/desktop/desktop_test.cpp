// The window against simulated devices: an iPod built from the shipped
// `ipod` description, and a small one of known file content for the
// transfers, whose requests can be slowed down so that a cancel or an
// unplug lands in the middle of a copy.
#include <fcntl.h>
#include <unistd.h>

#include <QAccessible>
#include <QHeaderView>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QRegularExpression>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QtTest>

#include <filesystem>
#include <map>
#include <memory>

#include "child_process.h"
#include "images.h"
#include "apps/common/session.h"
#include "main_window.h"
#include "simulator.h"
#include "test_util.h"
#include "window_test_main.h"

using namespace tarn::desktop;
using tarn::testing::Simulator;
using tarn::testing::TempDir;
namespace fs = std::filesystem;

Q_DECLARE_METATYPE(tarn::desktop::Kind)

namespace {

constexpr const char *kIpod = "5f3a9c0e7d1b2a4c6e8f0a1b2c3d4e5f6a7b8c9d";
constexpr const char *kSmall = "00008030-00D15C0000000001";
constexpr uint64_t kBig = 24u << 20;

std::string Slurp(const fs::path &p) { return tarn::testing::ReadAll(p); }

int Partials(const fs::path &dir) { return static_cast<int>(tarn::testing::PartialsBelow(dir).count); }

// Every file below `dir`: relative path -> content.
std::map<std::string, std::string> Tree(const fs::path &dir) {
  std::map<std::string, std::string> files = tarn::testing::Tree(dir);
  std::erase_if(files, [](const auto &entry) { return entry.second == "<dir>"; });
  return files;
}

// Share of the pixels that differ from the most common colour: a page that
// rendered nothing but its background scores near zero.
double Ink(const QImage &image) {
  QHash<QRgb, int> counts;
  for (int y = 0; y < image.height(); y += 2)
    for (int x = 0; x < image.width(); x += 2) ++counts[image.pixel(x, y)];
  int most = 0, total = 0;
  for (int c : counts) {
    most = std::max(most, c);
    total += c;
  }
  return total == 0 ? 0 : 1.0 - static_cast<double>(most) / total;
}

}  // namespace

class DesktopTest : public QObject {
  Q_OBJECT

 private:
  std::unique_ptr<TempDir> dir_;
  std::unique_ptr<Simulator> sim_;
  std::unique_ptr<MainWindow> window_;
  fs::path small_media_;

  QTreeWidgetItem *SidebarItem(const QString &udid) { return window_->DeviceItem(udid); }

  void Choose(const char *udid) { ChooseDevice(*window_, udid); }

  // Opens the device again with `option` set and waits for its state page.
  void ReopenIn(const char *udid, const char *key, const char *value, tarn::app::DeviceState state) {
    sim_->set_option(udid, key, value);
    window_->Refresh();
    QTRY_VERIFY_WITH_TIMEOUT(window_->statePage()->state() == state && window_->stack()->currentWidget() == window_->statePage(), 30000);
  }

  CataloguePage *ShowPage(Kind kind) {
    CataloguePage *page = window_->page(kind);
    window_->ShowPage(page);
    if (!page->loaded()) [&] { QTRY_VERIFY_WITH_TIMEOUT(page->loaded(), 120000); }();
    return page;
  }

  TransferResult RunTransfer(Transfer::Direction direction, std::vector<TransferItem> items) {
    QSignalSpy done(window_.get(), &MainWindow::TransferFinished);
    [&] { QVERIFY(window_->StartTransfer(direction, std::move(items))); }();
    [&] { QTRY_VERIFY_WITH_TIMEOUT(!done.isEmpty(), 120000); }();
    return done.isEmpty() ? TransferResult{} : done.last().at(0).value<TransferResult>();
  }

  // Starts a transfer of the big file and waits for its first bytes.
  void StartSlowTransfer(Transfer::Direction direction, const TransferItem &item) {
    sim_->set_option(kSmall, "latency_us", "4000");
    QVERIFY(window_->StartTransfer(direction, {item}));
    QSignalSpy progress(window_->transfer(), &Transfer::Progress);
    QTRY_VERIFY(!progress.isEmpty() && progress.last().at(0).toULongLong() > 0);
  }

 private slots:
  void initTestCase() {
    qRegisterMetaType<TransferResult>();
    // QTest::qExec puts its crash handler on SIGPIPE over the main's SIG_IGN:
    // a write to an unplugged device must fail, not end the test.
    tarn::app::IgnoreBrokenPipes();
    dir_ = std::make_unique<TempDir>();
    const std::string root = dir_->path();
    tarn::testing::build_image(tarn::testing::load_description("ipod"), root + "/ipod");
    tarn::testing::build_image(
        {{"device", {{"DeviceName", "Transfer Phone"}}},
         {"files",
          {{{"path", "/Transfer/small.bin"}, {"size", 300000}, {"pattern", true}},
           {{"path", "/Transfer/Folder/a.bin"}, {"size", 70000}, {"pattern", true}},
           {{"path", "/Transfer/Folder/Inner/b.txt"}, {"content", "inner file\n"}},
           {{"path", "/Transfer/big.bin"}, {"size", kBig}, {"pattern", true}}}},
         {"apps",
          {{{"identifier", "org.example.player"}, {"name", "Player"}, {"file_sharing", true}, {"icon", "#e0552b"},
            {"documents", {{{"path", "/clip.mp4"}, {"size", 90000}, {"pattern", true}}}}},
           {{"identifier", "org.example.notes"}, {"name", "Notes"}}}}},
        root + "/small");
    small_media_ = root + "/small/media";
    sim_ = std::make_unique<Simulator>(std::vector<tarn::testing::SimDevice>{
        {root + "/ipod", kIpod, {}}, {root + "/small", kSmall, {"version=14.0"}}});
    window_ = std::make_unique<MainWindow>();
    window_->resize(1100, 700);
    window_->show();
    QTRY_COMPARE(window_->devices()->topLevelItemCount(), 2);
    QTRY_VERIFY(SidebarItem(kIpod)->text(0) == "Demo iPod");
  }

  void cleanupTestCase() {
    window_.reset();
    JobPool()->waitForDone();
    sim_.reset();
  }

  // Counts and first rows as `tarn list` gives them for the iPod.
  void pages_data() {
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<int>("rows");
    QTest::addColumn<int>("column");
    QTest::addColumn<QString>("first");
    QTest::newRow("music") << Kind::kMusic << 183 << 0 << "Paper Echo";
    QTest::newRow("movies") << Kind::kMovies << 30 << 1 << "Orquesta del Sur";
    QTest::newRow("tvshows") << Kind::kTvShows << 15 << 0 << "River Lantern";
    QTest::newRow("podcasts") << Kind::kPodcasts << 30 << 0 << "Harbour Harbour";
    QTest::newRow("audiobooks") << Kind::kAudiobooks << 30 << 5 << "5.49 MiB";
    QTest::newRow("ringtones") << Kind::kRingtones << 15 << 4 << "0:30";
    QTest::newRow("playlists") << Kind::kPlaylists << 6 << 0 << "Road Trip";
    QTest::newRow("recordings") << Kind::kRecordings << 4 << 1 << "2022-06-01 09:30:12";
    QTest::newRow("books") << Kind::kBooks << 5 << 1 << "The Lighthouse Keeper";
    QTest::newRow("camera") << Kind::kCamera << 14 << 0 << "/DCIM/100APPLE/IMG_0001.JPG";
    QTest::newRow("pictures") << Kind::kPictures << 5 << 0 << "/PhotoData/Sync/100SYNCD/IMG_9001.JPG";
  }
  void pages() {
    QFETCH(Kind, kind);
    QFETCH(int, rows);
    QFETCH(int, column);
    QFETCH(QString, first);
    Choose(kIpod);
    CataloguePage *page = ShowPage(kind);
    // Walked pictures come in the device's own listing order.
    if (kind == Kind::kPictures) page->proxy()->sort(column, Qt::AscendingOrder);
    QCOMPARE(page->proxy()->rowCount(), rows);
    QCOMPARE(page->proxy()->index(0, column).data().toString(), first);
    if (kind == Kind::kPlaylists) {
      page->view()->setCurrentIndex(page->proxy()->index(0, 0));
      QCOMPARE(page->members()->rowCount(), 25);
    }
  }

  void overview() {
    Choose(kIpod);
    QCOMPARE(window_->overview()->Field("Name"), QString("Demo iPod"));
    QCOMPARE(window_->overview()->Field("Serial number"), QString("F2LDEMO0TARN"));
    QCOMPARE(window_->overview()->Field("Capacity"), HumanSize(64000000000));
    QCOMPARE(window_->overview()->findChild<StorageBar *>()->shares().size(), size_t{5});
  }

  void filterAndSort() {
    Choose(kIpod);
    CataloguePage *page = ShowPage(Kind::kMusic);
    QSortFilterProxyModel *proxy = page->proxy();
    page->filter()->setText("canyon");
    QVERIFY(proxy->rowCount() > 0 && proxy->rowCount() < 183);
    int expected = 0;
    for (int r = 0; r < page->model()->rowCount(); ++r) {
      bool hit = false;
      for (int c = 0; c < page->model()->columnCount(); ++c)
        hit |= page->model()->index(r, c).data().toString().contains("canyon", Qt::CaseInsensitive);
      expected += hit;
    }
    QCOMPARE(proxy->rowCount(), expected);
    // Sizes and times sort by their numbers, not by their text.
    for (const auto &[column, order] : {std::pair{0, Qt::AscendingOrder}, {4, Qt::DescendingOrder}, {5, Qt::AscendingOrder}}) {
      page->view()->sortByColumn(column, order);
      const auto wrong = order == Qt::AscendingOrder ? QPartialOrdering::Greater : QPartialOrdering::Less;
      for (int r = 1; r < proxy->rowCount(); ++r)
        QVERIFY(QVariant::compare(proxy->index(r - 1, column).data(CatalogueModel::kSortRole),
                                  proxy->index(r, column).data(CatalogueModel::kSortRole)) != wrong);
    }
    page->filter()->clear();
    QCOMPARE(proxy->rowCount(), 183);
  }

  // The rows a filter leaves, selected and exported (or dragged out), give
  // the files that `tarn export --match` gives for the same text.
  void exportMatchesTheTool_data() {
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<QString>("text");
    // Small selections: the iPod's files are as large as the real ones.
    QTest::newRow("tracks") << Kind::kMusic << "velvet";
    QTest::newRow("purchase") << Kind::kMusic << "harbour nights";
  }
  void exportMatchesTheTool() {
    QFETCH(Kind, kind);
    QFETCH(QString, text);
    Choose(kIpod);
    CataloguePage *page = ShowPage(kind);
    page->filter()->setText(text);
    page->view()->selectAll();
    const fs::path out = fs::path(dir_->path()) / ("export-" + text.toStdString());
    QSignalSpy done(window_.get(), &MainWindow::TransferFinished);
    QVERIFY(window_->ExportPage(kind, QString::fromStdString((out / "desktop").string())));
    QTRY_VERIFY_WITH_TIMEOUT(!done.isEmpty(), 60000);
    const TransferResult r = done.last().at(0).value<TransferResult>();
    QVERIFY2(r.failed.isEmpty() && r.copied > 0, qPrintable(r.Summary()));
    // A drag hands the drop target the very files of an export.
    const QList<QUrl> dragged = window_->StageForDrag(kind);
    page->view()->clearSelection();
    page->filter()->clear();
    QCOMPARE(dragged.size(), r.files.size());
    for (int i = 0; i < dragged.size(); ++i) {
      const fs::path staged = dragged[i].toLocalFile().toStdString(), exported = r.files[i].toStdString();
      QCOMPARE(staged.filename(), exported.filename());
      QVERIFY(Slurp(staged) == Slurp(exported));
    }
    const tarn::testing::Result tool =
        tarn::testing::ChildProcess({TARN_TOOL_PATH, "-u", kIpod, "export", kind == Kind::kMusic ? "music" : "playlists",
                                     (out / "tool").string(), "--match", text.toStdString()},
                                    {{"USBMUXD_SOCKET_ADDRESS", sim_->env_value()}})
            .Wait();
    QVERIFY2(tool.code == 0, tool.err.c_str());
    const auto desktop = Tree(out / "desktop"), cli = Tree(out / "tool");
    QCOMPARE(desktop.size(), cli.size());
    QVERIFY(desktop == cli);
  }

  void filesBrowseLazily() {
    Choose(kSmall);
    FilesPage *files = window_->files();
    QTRY_VERIFY(files->Find("/Transfer") != nullptr);
    QVERIFY(files->Find("/Transfer/Folder") == nullptr);  // not read until opened
    files->Expand("/Transfer");
    QTRY_VERIFY(files->Find("/Transfer/Folder") != nullptr);
    QCOMPARE(files->Find("/Transfer/small.bin")->text(1), HumanSize(300000));
    QSignalSpy found(files, &FilesPage::SearchDone);
    files->StartSearch("b.txt");
    QTRY_VERIFY(!found.isEmpty());
    QCOMPARE(found.last().at(0).toInt(), 1);
  }

  // Files and a folder both ways, compared byte for byte.
  void uploadAndDownload() {
    Choose(kSmall);
    TempDir host;
    const fs::path down = fs::path(host.path()) / "down";
    TransferResult r = RunTransfer(Transfer::Direction::kDownload,
                                   {{"/Transfer/small.bin", QString::fromStdString((down / "small.bin").string())},
                                    {"/Transfer/Folder", QString::fromStdString((down / "Folder").string()), true}});
    QCOMPARE(r.copied, 3);
    QVERIFY2(r.failed.isEmpty(), qPrintable(r.failed.join('\n')));
    for (const char *rel : {"small.bin", "Folder/a.bin", "Folder/Inner/b.txt"}) {
      const std::string device_rel = std::string("Transfer/") + rel;
      QVERIFY2(Slurp(down / rel) == Slurp(small_media_ / device_rel), rel);
    }
    std::string bytes;
    for (int i = 0; i < 200001; ++i) bytes += static_cast<char>((i * 7919) >> 3);
    tarn::testing::WriteAll(fs::path(host.path()) / "up.bin", bytes);
    r = RunTransfer(Transfer::Direction::kUpload,
                    {{"/Uploads/up.bin", QString::fromStdString(host.path() + "/up.bin")}});
    QCOMPARE(r.copied, 1);
    QVERIFY(Slurp(small_media_ / "Uploads/up.bin") == bytes);
    QCOMPARE(Partials(small_media_), 0);
  }

  void cancelLeavesNothing_data() {
    QTest::addColumn<bool>("upload");
    QTest::newRow("download") << false;
    QTest::newRow("upload") << true;
  }
  void cancelLeavesNothing() {
    QFETCH(bool, upload);
    Choose(kSmall);
    TempDir host;
    const QString host_file = QString::fromStdString(host.path() + "/big.bin");
    if (upload) fs::copy_file(small_media_ / "Transfer/big.bin", host_file.toStdString());
    const auto direction = upload ? Transfer::Direction::kUpload : Transfer::Direction::kDownload;
    const QString device_file = upload ? "/Uploads/big.bin" : "/Transfer/big.bin";
    QSignalSpy done(window_.get(), &MainWindow::TransferFinished);
    StartSlowTransfer(direction, {device_file, host_file});
    QTest::mouseClick(window_->findChild<QPushButton *>("cancel"), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(!done.isEmpty(), 30000);
    sim_->clear_faults(kSmall);
    QVERIFY(done.last().at(0).value<TransferResult>().cancelled);
    if (upload) QVERIFY(!fs::exists(small_media_ / "Uploads/big.bin"));
    else QVERIFY(!fs::exists(host_file.toStdString()));
    QCOMPARE(Partials(host.path()), 0);
    QCOMPARE(Partials(small_media_), 0);
  }

  // Each state shows its page, and the window recovers by itself once the
  // phone is unlocked or trusted; a stale pairing is mended by Pair Again.
  void phoneStates() {
    using tarn::app::DeviceState;
    Choose(kSmall);
    QSignalSpy opened(window_.get(), &MainWindow::DeviceOpened);
    ReopenIn(kSmall, "locked", "1", DeviceState::kLocked);
    QVERIFY(window_->statePage()->heading().contains("Transfer Phone"));  // named, not numbered
    QVERIFY(!window_->statePage()->pairButton()->isVisible());
    opened.clear();
    sim_->set_option(kSmall, "locked", "0");
    QTRY_VERIFY_WITH_TIMEOUT(!opened.isEmpty() && opened.last().at(1).toBool(), 15000);
    QCOMPARE(window_->stack()->currentWidget(), window_->section(window_->currentSection()));

    ReopenIn(kSmall, "stale_pairing", "1", DeviceState::kPairingInvalid);
    QVERIFY(window_->statePage()->pairButton()->isVisible());
    QVERIFY(!window_->statePage()->advice().contains("idevicepair"));
    QTest::mouseClick(window_->statePage()->pairButton(), Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(window_->statePage()->state(), DeviceState::kTrustPending, 15000);
    opened.clear();
    sim_->set_option(kSmall, "pair_answer", "accept");  // the person taps Trust
    QTRY_VERIFY_WITH_TIMEOUT(!opened.isEmpty() && opened.last().at(1).toBool(), 15000);

    sim_->clear_faults(kSmall);
    sim_->set_option(kSmall, "paired", "0");
    sim_->set_option(kSmall, "pair_answer", "denied");
    ReopenIn(kSmall, "pair_answer", "denied", DeviceState::kTrustDenied);
    QVERIFY(window_->statePage()->pairButton()->isVisible());
    ReopenIn(kSmall, "pair_answer", "pending", DeviceState::kTrustPending);
    opened.clear();
    sim_->set_option(kSmall, "pair_answer", "accept");
    QTRY_VERIFY_WITH_TIMEOUT(!opened.isEmpty() && opened.last().at(1).toBool(), 15000);
    sim_->clear_faults(kSmall);
    sim_->set_option(kSmall, "paired", "1");
    window_->Refresh();
    QTRY_VERIFY_WITH_TIMEOUT(window_->opened(), 30000);
  }

  // New folder, rename, delete and upload change the phone; while it syncs
  // with another computer the window says so, offers none of them, and
  // each refuses with nothing changed.
  void fileOperations_data() {
    QTest::addColumn<bool>("syncing");
    QTest::newRow("idle") << false;
    QTest::newRow("syncing") << true;
  }
  void fileOperations() {
    QFETCH(bool, syncing);
    Choose(kSmall);
    FilesPage *files = window_->files();
    window_->ShowSection("files");
    QTRY_VERIFY(files->Find("/Transfer") != nullptr);
    if (syncing) {
      sim_->set_option(kSmall, "syncing", "1");
      window_->CheckSync();
      QTRY_VERIFY_WITH_TIMEOUT(window_->syncing(), 10000);
      QVERIFY(!files->button("newFolder")->isEnabled() && !files->button("upload")->isEnabled() &&
              !files->button("rename")->isEnabled() && !files->button("delete")->isEnabled());
      QVERIFY(files->button("download")->isEnabled());
      QVERIFY(files->notice()->isVisible() && files->notice()->text().contains("syncing"));
    }
    const fs::path media = small_media_;
    const QString tag = syncing ? "S" : "I";
    QSignalSpy done(files, &FilesPage::OperationDone);
    auto expect = [&](bool changed, const fs::path &p) {
      QTRY_VERIFY(!done.isEmpty());
      const QString said = done.takeLast().at(0).toString();
      QVERIFY2(syncing == said.contains("syncing"), qPrintable(said));
      QCOMPARE(fs::exists(p), changed);
    };
    files->MakeFolder("/Transfer", "Trip " + tag);
    expect(!syncing, media / ("Transfer/Trip " + tag.toStdString()));
    tarn::testing::WriteAll(media / ("Transfer/old" + tag.toStdString()), "x");
    files->RenameTo("/Transfer/old" + tag, "new" + tag);
    expect(!syncing, media / ("Transfer/new" + tag.toStdString()));
    const QString gone = QString("/Transfer/") + (syncing ? "old" : "new") + tag;
    files->Remove({gone});
    expect(syncing, media / gone.mid(1).toStdString());
    TempDir host;
    tarn::testing::WriteAll(fs::path(host.path()) / "up.txt", "up");
    const TransferResult r = RunTransfer(Transfer::Direction::kUpload,
                                         {{"/Transfer/up" + tag + ".txt", QString::fromStdString(host.path() + "/up.txt")}});
    QCOMPARE(r.copied, syncing ? 0 : 1);
    QCOMPARE(fs::exists(media / ("Transfer/up" + tag.toStdString() + ".txt")), !syncing);
    if (syncing) {
      sim_->set_option(kSmall, "syncing", "0");
      QTRY_VERIFY_WITH_TIMEOUT(!window_->syncing(), 10000);
      QVERIFY(files->button("newFolder")->isEnabled() && !files->notice()->isVisible());
    }
  }

  // Rows in a stable, sorted order (folders first) whatever order the phone
  // lists them in; a reload keeps the folders open; search results are
  // clean paths that lead to their rows.
  void filesSortedAndKeptOpen() {
    Choose(kIpod);
    FilesPage *files = window_->files();
    window_->ShowSection("files");
    QTRY_VERIFY(files->Find("/DCIM") != nullptr);
    auto names = [&](QTreeWidgetItem *parent) {
      QStringList out;
      for (int i = 0; i < parent->childCount(); ++i)
        out << (parent->child(i)->childIndicatorPolicy() == QTreeWidgetItem::ShowIndicator ? "d:" : "f:") + parent->child(i)->text(0);
      return out;
    };
    QTreeWidgetItem *root = files->tree()->invisibleRootItem();
    const QStringList first = names(root);
    QStringList sorted = first;
    std::stable_sort(sorted.begin(), sorted.end(), [](const QString &a, const QString &b) {
      if (a.startsWith("d:") != b.startsWith("d:")) return a.startsWith("d:");
      return QString::compare(a.mid(2), b.mid(2), Qt::CaseInsensitive) < 0;
    });
    QCOMPARE(first, sorted);
    files->Expand("/DCIM");
    QTRY_VERIFY(files->Find("/DCIM/100APPLE") != nullptr);
    files->Expand("/DCIM/100APPLE");
    QTRY_VERIFY(files->Find("/DCIM/100APPLE") && files->Find("/DCIM/100APPLE")->childCount() > 0);
    QSignalSpy loaded(files, &FilesPage::FolderLoaded);
    files->Refresh();
    QTRY_VERIFY(files->Find("/DCIM/100APPLE") != nullptr && files->Find("/DCIM/100APPLE")->isExpanded() &&
                files->Find("/DCIM/100APPLE")->childCount() > 0);
    QCOMPARE(names(files->tree()->invisibleRootItem()), first);
    QSignalSpy found(files, &FilesPage::SearchDone);
    files->StartSearch("IMG_0001");
    QTRY_VERIFY(!found.isEmpty());
    QTreeWidgetItem *hit = files->results()->topLevelItem(0);
    QVERIFY(!hit->text(0).startsWith("//"));
    files->results()->setCurrentItem(hit);
    files->results()->setFocus();
    QCOMPARE(files->SelectedPaths(), QStringList{hit->text(0)});  // downloadable from there
    QTest::keyClick(files->results(), Qt::Key_Return);
    QTRY_VERIFY(files->tree()->currentItem() != nullptr && files->tree()->currentItem()->text(0) == "IMG_0001.JPG");
    files->search()->clear();
  }

  // Removing the phone's own folders asks louder; Export with nothing
  // selected asks before it copies a whole page.
  void askBeforeTheBigThings() {
    Choose(kIpod);
    FilesPage *files = window_->files();
    window_->ShowSection("files");
    QTRY_VERIFY(files->Find("/PhotoData") != nullptr);
    QVERIFY(PhoneFolder("/PhotoData") && PhoneFolder("/iTunes_Control/") && !PhoneFolder("/Transfer"));
    files->tree()->setCurrentItem(files->Find("/PhotoData"));
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    QTimer::singleShot(200, [&] {
      auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
      if (box == nullptr) return;
      icon = box->icon();
      QVERIFY(box->defaultButton() != box->findChild<QPushButton *>("confirm"));
      box->reject();
    });
    QTest::keyClick(files->tree(), Qt::Key_Delete);
    QCOMPARE(icon, QMessageBox::Warning);
    QVERIFY(files->Find("/PhotoData") != nullptr);

    CataloguePage *music = ShowPage(Kind::kMusic);
    music->view()->clearSelection();
    bool asked = false;
    QTimer::singleShot(200, [&] {
      auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
      asked = box != nullptr && box->objectName() == "confirmExportAll" && box->text().contains("183");
      if (box != nullptr) box->reject();
    });
    QTest::mouseClick(music->exportButton(), Qt::LeftButton);
    QVERIFY(asked);
    QVERIFY(window_->transfer() == nullptr || !window_->transfer()->Running());
  }

  // Keyboard only: no two mnemonics of the window clash, Tab leaves a
  // table in one step, every page has a context menu on the Menu key,
  // Enter opens, columns sort from their headers and from that menu; each
  // section has its key.
  void keyboard() {
    Choose(kIpod);
    // What is on screen together: the menus, the transfer bar's buttons and one page's.
    QMap<QChar, QString> window_keys;
    auto claim = [](QMap<QChar, QString> &taken, const QString &text, const QString &owner) {
      const int at = text.indexOf(QRegularExpression("&[^&]"));
      if (at < 0) return;
      const QChar key = text.at(at + 1).toLower();
      QVERIFY2(!taken.contains(key), qPrintable(QString("%1 and %2 both take Alt+%3").arg(taken.value(key), owner, key)));
      taken.insert(key, owner);
    };
    for (QAction *menu : window_->menuBar()->actions()) claim(window_keys, menu->text(), "menu " + menu->text());
    for (const char *name : {"cancel", "retryTransfer", "openFolder"})
      claim(window_keys, window_->findChild<QPushButton *>(name)->text(), name);
    QList<QWidget *> screens = window_->allPages();
    screens << window_->statePage();
    for (QWidget *page : screens) {
      QMap<QChar, QString> taken = window_keys;
      for (QAbstractButton *b : page->findChildren<QAbstractButton *>()) claim(taken, b->text(), b->objectName());
    }
    window_->activateWindow();
    QApplication::setActiveWindow(window_.get());
    for (const QString &key : window_->sectionKeys()) {
      QWidget *section = window_->section(key);
      QTest::keyClick(window_.get(), Qt::Key_1 + static_cast<int>(window_->sectionKeys().indexOf(key)), Qt::ControlModifier);
      QTRY_COMPARE(window_->stack()->currentWidget(), section);
    }
    for (QWidget *page : window_->allPages()) {
      window_->ShowPage(page);
      if (auto *catalogue = qobject_cast<CataloguePage *>(page)) QTRY_VERIFY_WITH_TIMEOUT(catalogue->loaded(), 60000);
      QWidget *target = page;
      if (auto *view = page->findChild<QAbstractItemView *>()) target = view;
      QVERIFY2(target->contextMenuPolicy() == Qt::ActionsContextMenu && !target->actions().isEmpty(),
               qPrintable(page->objectName()));
      target->setFocus();
      QTest::keyClick(target, Qt::Key_Menu);
      QTRY_VERIFY2(QApplication::activePopupWidget() != nullptr, qPrintable(page->objectName()));
      QVERIFY(!qobject_cast<QMenu *>(QApplication::activePopupWidget())->actions().isEmpty());
      QApplication::activePopupWidget()->close();
    }
    CataloguePage *music = ShowPage(Kind::kMusic);
    music->view()->setFocus();
    music->view()->setCurrentIndex(music->proxy()->index(5, 2));
    QTest::keyClick(music->view(), Qt::Key_Tab);
    QWidget *next = window_->focusWidget();
    QVERIFY(next != nullptr && next != music->view() && !music->view()->isAncestorOf(next));
    QTest::keyClick(next, Qt::Key_Backtab);
    QCOMPARE(window_->focusWidget(), music->view());
    // The column headers are the stop before the table: Home, Right and
    // Enter sort by the second column, Enter again turns it round, Escape
    // goes back to the rows.
    QHeaderView *header = music->view()->horizontalHeader();
    QTest::keyClick(music->view(), Qt::Key_Backtab);
    QCOMPARE(window_->focusWidget(), header);
    QTest::keyClick(header, Qt::Key_Home);
    QTest::keyClick(header, Qt::Key_Right);
    for (Qt::SortOrder order : {Qt::AscendingOrder, Qt::DescendingOrder}) {
      QTest::keyClick(header, Qt::Key_Return);
      QCOMPARE(header->sortIndicatorSection(), 1);
      QCOMPARE(header->sortIndicatorOrder(), order);
    }
    QVERIFY(header->accessibleDescription().contains("sorted descending"));
    QTest::keyClick(header, Qt::Key_Escape);
    QCOMPARE(window_->focusWidget(), music->view());
    // Sort by Size from the menu, then again to turn it round.
    auto *sort_by = music->findChild<QAction *>("sortBy");
    QVERIFY(sort_by != nullptr);
    music->view()->sortByColumn(0, Qt::AscendingOrder);
    for (Qt::SortOrder order : {Qt::AscendingOrder, Qt::DescendingOrder}) {
      emit sort_by->menu()->aboutToShow();
      for (QAction *by : sort_by->menu()->actions())
        if (by->objectName() == "sortBy5") by->trigger();
      QCOMPARE(music->view()->horizontalHeader()->sortIndicatorSection(), 5);
      QCOMPARE(music->view()->horizontalHeader()->sortIndicatorOrder(), order);
    }
    // Enter on a folder of the file browser opens it.
    FilesPage *files = window_->files();
    window_->ShowSection("files");
    QTRY_VERIFY(files->Find("/Books") != nullptr);
    files->tree()->setFocus();
    files->tree()->setCurrentItem(files->Find("/Books"));
    QTest::keyClick(files->tree(), Qt::Key_Return);
    QTRY_VERIFY(files->Find("/Books")->isExpanded());
  }

  // What the person typed for one phone, and the lines about its work, are
  // not carried to the next; the window comes back to the section it was on.
  void nothingCarriedToTheNextPhone() {
    Choose(kIpod);
    CataloguePage *music = ShowPage(Kind::kMusic);
    music->filter()->setText("canyon");
    window_->transferResult()->setText("3 file(s) copied");
    Choose(kSmall);
    QCOMPARE(music->filter()->text(), QString());
    QCOMPARE(window_->transferResult()->text(), QString());
    QCOMPARE(window_->currentSection(), QString("music"));
    QCOMPARE(QSettings().value("place/section").toString(), QString("music"));
  }

  // What a screen reader is told: every control has a name and a role, the
  // overview's values are in their names, the storage bar and the progress
  // bar describe themselves.
  void accessibleNames() {
    Choose(kIpod);
    window_->ShowSection("overview");
    QTRY_COMPARE(window_->overview()->Field("Name"), QString("Demo iPod"));
    QAccessibleInterface *name = QAccessible::queryAccessibleInterface(window_->overview()->FieldLabel("Name"));
    QVERIFY(name->text(QAccessible::Name).contains("Demo iPod"));
    QAccessibleInterface *bar = QAccessible::queryAccessibleInterface(window_->overview()->bar());
    QVERIFY(bar->text(QAccessible::Description).contains(HumanSize(64000000000)));
    QVERIFY(window_->overview()->bar()->focusPolicy() & Qt::TabFocus);
    for (QWidget *page : window_->allPages()) {
      window_->ShowPage(page);
      for (QWidget *w : page->findChildren<QWidget *>()) {
        if (!w->isVisibleTo(page) || w->focusPolicy() == Qt::NoFocus) continue;
        QAccessibleInterface *a = QAccessible::queryAccessibleInterface(w);
        QVERIFY(a != nullptr);
        const QString said = a->text(QAccessible::Name);
        QVERIFY2(!said.isEmpty() || qobject_cast<QTabBar *>(w) != nullptr,
                 qPrintable(QString("%1 %2 has no name").arg(w->metaObject()->className(), w->objectName())));
        QVERIFY(a->role() != QAccessible::NoRole);
      }
    }
  }

  void unplugDuringTransferShowsTheReason() {
    Choose(kSmall);
    TempDir host;
    QSignalSpy done(window_.get(), &MainWindow::TransferFinished);
    StartSlowTransfer(Transfer::Direction::kDownload, {"/Transfer/big.bin", QString::fromStdString(host.path() + "/big.bin")});
    sim_->detach(kSmall);
    QTRY_VERIFY_WITH_TIMEOUT(!done.isEmpty(), 30000);
    const TransferResult r = done.last().at(0).value<TransferResult>();
    QCOMPARE(r.copied, 0);
    QVERIFY(r.reason.failed());
    QVERIFY2(r.reason.code == TARN_E_NO_DEVICE || r.reason.code == TARN_E_CONNECTION_LOST, r.reason.message.c_str());
    QVERIFY(window_->transferResult()->text().contains(Text(r.reason)));
    QCOMPARE(Partials(host.path()), 0);
    // The window stays on the unplugged phone, says so, and offers Retry.
    QTRY_COMPARE(window_->statePage()->state(), tarn::app::DeviceState::kUnplugged);
    QCOMPARE(window_->udid(), QString(kSmall));
    QVERIFY(SidebarItem(kSmall) != nullptr);
    QVERIFY(window_->retryButton()->isVisible());
    if (r.reason.status == tarn::app::kDisconnected)
      QVERIFY2(r.reason.message.find("0 of 1 files copied") != std::string::npos, r.reason.message.c_str());
    // Back again: the window opens it by itself, and Retry copies the file.
    QSignalSpy opened(window_.get(), &MainWindow::DeviceOpened);
    sim_->attach({dir_->path() + "/small", kSmall, {}});
    QTRY_VERIFY_WITH_TIMEOUT(!opened.isEmpty() && opened.last().at(1).toBool(), 30000);
    QCOMPARE(window_->udid(), QString(kSmall));
    QTest::mouseClick(window_->retryButton(), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(done.size() == 2, 60000);
    QCOMPARE(done.last().at(0).value<TransferResult>().copied, 1);
    QVERIFY(Slurp(host.path() + "/big.bin") == Slurp(small_media_ / "Transfer/big.bin"));
  }

  // A window started with no usbmuxd, which then starts with nothing
  // attached, and then a phone: each has its page, and the window follows
  // by itself, with no key pressed.
  void noServiceThenNoPhoneThenThePhone() {
    using tarn::app::DeviceState;
    std::unique_ptr<MainWindow> fresh;
    {
      const tarn::testing::NoUsbmux none;
      fresh = std::make_unique<MainWindow>();
      QTRY_COMPARE_WITH_TIMEOUT(fresh->statePage()->state(), DeviceState::kNoUsbmuxd, 10000);
      QVERIFY(fresh->statePage()->advice().contains("usbmuxd"));
      Simulator empty({}, false);
      const tarn::testing::ScopedEnv service("USBMUXD_SOCKET_ADDRESS", empty.env_value());
      QTRY_COMPARE_WITH_TIMEOUT(fresh->statePage()->state(), DeviceState::kNoDevice, 10000);
      QVERIFY(fresh->statePage()->advice().contains("USB cable"));
      QSignalSpy opened(fresh.get(), &MainWindow::DeviceOpened);
      empty.attach({dir_->path() + "/small", kSmall, {}});
      QTRY_VERIFY_WITH_TIMEOUT(!opened.isEmpty() && opened.last().at(1).toBool(), 30000);
      QCOMPARE(fresh->udid(), QString(kSmall));
      fresh.reset();
      JobPool()->waitForDone();
    }
    // The shared window lost its phone meanwhile; it comes back by itself.
    QTRY_VERIFY_WITH_TIMEOUT(window_->opened(), 30000);
  }

  void attachedAtRunTimeAppears() {
    sim_->attach({dir_->path() + "/small", "00008030-00A77AC400000002", {"name=Late Phone"}});
    QTRY_VERIFY_WITH_TIMEOUT(SidebarItem("00008030-00A77AC400000002") != nullptr, 10000);
    QTRY_COMPARE(SidebarItem("00008030-00A77AC400000002")->text(0), QString("Late Phone"));
    // Its name was read without a secure session.
    QCOMPARE(sim_->stats("00008030-00A77AC400000002").tls_sessions, uint64_t{0});
  }

  // The Apps page: icons and names, an app that shares nothing greyed out,
  // and the chosen app's Documents filled by a drop and emptied by a drag.
  void appsPageMovesFilesBothWays() {
    Choose(kSmall);
    AppsPage *apps = window_->apps();
    QSignalSpy loaded(apps, &AppsPage::AppsLoaded);
    window_->ShowSection("apps");
    // Read already when an earlier case walked every section.
    QTRY_VERIFY_WITH_TIMEOUT(!loaded.isEmpty() || apps->list()->count() > 0, 30000);
    QCOMPARE(apps->list()->count(), 2);
    QCOMPARE(apps->list()->item(0)->text(), QString("Notes"));
    QVERIFY(!(apps->list()->item(0)->flags() & Qt::ItemIsEnabled));
    QListWidgetItem *player = apps->list()->item(1);
    QCOMPARE(player->text(), QString("Player"));
    QVERIFY(!player->icon().isNull());
    apps->list()->setCurrentItem(player);
    QTRY_VERIFY_WITH_TIMEOUT(apps->files()->Find("/Documents/clip.mp4") != nullptr, 30000);

    const fs::path documents = fs::path(dir_->path()) / "small/apps/org.example.player/Documents";
    TempDir host;
    const std::string film = tarn::testing::Bytes(400000, 11);
    tarn::testing::WriteAll(host.path() + "/film.mkv", film);
    QSignalSpy done(window_.get(), &MainWindow::TransferFinished);
    // Dropped beside the rows: into Documents. (A drop event sent by hand
    // reaches no widget without a drag in progress, so the page's handler
    // is called as its drop calls it.)
    QVERIFY(apps->UploadDropped({QUrl::fromLocalFile(QString::fromStdString(host.path() + "/film.mkv"))}));
    QTRY_VERIFY_WITH_TIMEOUT(!done.isEmpty(), 60000);
    QCOMPARE(done.last().at(0).value<TransferResult>().copied, 1);
    QCOMPARE(Slurp(documents / "film.mkv"), film);
    QVERIFY(!fs::exists(small_media_ / "film.mkv"));

    QTRY_VERIFY_WITH_TIMEOUT(apps->files()->Find("/Documents/clip.mp4") != nullptr, 30000);
    apps->files()->tree()->clearSelection();
    apps->files()->Find("/Documents/clip.mp4")->setSelected(true);
    const QList<QUrl> urls = apps->StageSelection();
    QCOMPARE(urls.size(), 1);
    QCOMPARE(Slurp(urls.first().toLocalFile().toStdString()), Slurp(documents / "clip.mp4"));
  }

  // Choosing a device costs one secure session; its pages, folders and file
  // operations after that cost none.
  void oneSessionPerChoice() {
    Choose(kIpod);
    sim_->reset_stats(kIpod);
    QSignalSpy opened(window_.get(), &MainWindow::DeviceOpened);
    window_->Refresh();
    QTRY_VERIFY_WITH_TIMEOUT(!opened.isEmpty(), 60000);
    for (Kind kind : {Kind::kMusic, Kind::kRecordings, Kind::kCamera, Kind::kPictures}) ShowPage(kind);
    FilesPage *files = window_->files();
    window_->ShowSection("files");
    QTRY_VERIFY(files->Find("/DCIM") != nullptr);
    files->Expand("/DCIM");
    QTRY_VERIFY(files->Find("/DCIM/100APPLE") != nullptr);
    QSignalSpy done(files, &FilesPage::OperationDone);
    files->MakeFolder("/DCIM", "Made Here");
    QTRY_VERIFY(!done.isEmpty());
    QCOMPARE(done.last().at(0).toString(), QString("Made /DCIM/Made Here."));
    QCOMPARE(sim_->stats(kIpod).tls_sessions, uint64_t{1});
  }

  // tarn-desktop --screenshots, as the demo runs it: every page of the
  // iPod saved, none of them blank.
  void screenshots() {
    const Simulator alone({{dir_->path() + "/ipod", kIpod, {}}}, false);
    TempDir out;
    const tarn::testing::Result r =
        tarn::testing::ChildProcess({TARN_DESKTOP_PATH, "--screenshots", out.path()},
                                    {{"USBMUXD_SOCKET_ADDRESS", alone.env_value()}, {"QT_QPA_PLATFORM", "offscreen"}})
            .Wait(std::chrono::seconds(300));
    QVERIFY2(r.code == 0, r.err.c_str());
    int shots = 0;
    for (const auto &png : fs::directory_iterator(out.path())) {
      ++shots;
      // A state page is a few lines of text on a plain ground.
      const bool state = png.path().filename().string().starts_with("state-");
      QVERIFY2(Ink(QImage(QString::fromStdString(png.path().string()))) > (state ? 0.002 : 0.02), png.path().c_str());
    }
    QCOMPARE(shots, window_->allPages().size() + 7);  // and the seven state pages
    // A phone that never answers is not waited for: the window as it stands
    // and the state pages, within the patience given.
    const Simulator stalled({{dir_->path() + "/small", kSmall, {"locked=1"}}}, false);
    TempDir out2;
    const tarn::testing::Result locked =
        tarn::testing::ChildProcess({TARN_DESKTOP_PATH, "--screenshots", out2.path(), "--patience", "3"},
                                    {{"USBMUXD_SOCKET_ADDRESS", stalled.env_value()}, {"QT_QPA_PLATFORM", "offscreen"}})
            .Wait(std::chrono::seconds(60));
    QVERIFY2(locked.code == 0, locked.err.c_str());
    QVERIFY(fs::exists(fs::path(out2.path()) / "state-locked.png"));
    QVERIFY(fs::exists(fs::path(out2.path()) / "00-statePage.png"));
  }
};

int main(int argc, char **argv) { return RunWindowTest<DesktopTest>(argc, argv, "tarn-desktop-test"); }

#include "desktop_test.moc"
