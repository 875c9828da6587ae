// The window's photo grid, photo import and music browser against simulated
// phones: one whose camera roll holds real JPEG, HEIC and PNG originals
// without thumbnails of the phone's own beside one with such a thumbnail,
// and the shipped sample iPhone.
#include <unistd.h>

#include <QSignalSpy>
#include <QtTest>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <vector>

#include "child_process.h"
#include "apps/common/host_file.h"
#include "apps/common/picture.h"
#include "apps/common/plist_view.h"
#include "apps/common/session.h"
#include "images.h"
#include "main_window.h"
#include "simulator.h"
#include "test_util.h"
#include "window_test_main.h"

using namespace tarn::desktop;
using tarn::testing::Simulator;
using tarn::testing::TempDir;
namespace fs = std::filesystem;

namespace {

constexpr const char *kPictures = "00008030-00F07000000000A1";
constexpr const char *kSample = "00008030-00F07000000000A2";
constexpr const char *kIpod = "00008030-00F07000000000A3";

// Every file below `dir` but the record: relative path -> content.
std::map<std::string, std::string> Files(const fs::path &dir) {
  std::map<std::string, std::string> files = tarn::testing::Tree(dir);
  std::erase_if(files, [](const auto &e) { return e.second == "<dir>" || e.first == ".tarn-export.json"; });
  return files;
}

}  // namespace

class MediaTest : public QObject {
  Q_OBJECT

 private:
  std::unique_ptr<TempDir> dir_;
  std::unique_ptr<Simulator> sim_;
  std::unique_ptr<MainWindow> window_;
  fs::path media_;

  void Choose(const char *udid) { ChooseDevice(*window_, udid); }

  PhotosPage *ShowPhotos() {
    PhotosPage *page = window_->photos();
    window_->ShowPage(page);
    [&] { QTRY_VERIFY_WITH_TIMEOUT(page->loaded(), 60000); }();
    return page;
  }

  TransferResult Import(const fs::path &folder, bool jpeg) {
    QSignalSpy done(window_.get(), &MainWindow::TransferFinished);
    [&] { QVERIFY(window_->StartImport(QString::fromStdString(folder.string()), jpeg)); }();
    [&] { QTRY_VERIFY_WITH_TIMEOUT(!done.isEmpty(), 60000); }();
    return done.isEmpty() ? TransferResult{} : done.last().at(0).value<TransferResult>();
  }

  tarn::testing::Result Tool(std::vector<std::string> args) {
    args.insert(args.begin(), {TARN_TOOL_PATH, "-u", kPictures});
    return tarn::testing::ChildProcess(args, {{"USBMUXD_SOCKET_ADDRESS", sim_->env_value()}}).Wait();
  }

 private slots:
  void initTestCase() {
    qRegisterMetaType<TransferResult>();
    // QTest::qExec puts its crash handler on SIGPIPE over the main's SIG_IGN:
    // a write to an unplugged device must fail, not end the test.
    tarn::app::IgnoreBrokenPipes();
    dir_ = std::make_unique<TempDir>();
    const std::string root = dir_->path();
    using json = nlohmann::ordered_json;
    const auto asset = [](const char *name, json extra) {
      json a = {{"directory", "DCIM/100APPLE"}, {"filename", name}};
      for (auto &[k, v] : extra.items()) a[k] = v;
      return a;
    };
    tarn::testing::build_image(
        {{"device", {{"DeviceName", "Picture Phone"}, {"ProductType", "iPhone15,4"}, {"ProductVersion", "17.5.1"}}},
         {"photo_library",
          {{"ios", "17.5"},
           {"assets",
            {asset("IMG_0001.JPG", {{"picture", "jpeg"}, {"taken", 1688169600}}),
             asset("IMG_0002.HEIC", {{"picture", "heic"}, {"taken", 1688256000}, {"kind", "live"}}),
             asset("IMG_0003.PNG", {{"picture", "png"}, {"taken", 1690848000}, {"kind", "screenshot"}}),
             // The phone's own thumbnail, over an original that is no picture.
             asset("IMG_0004.HEIC", {{"thumbnail", true}, {"size", 4000}, {"taken", 1690934400}}),
             asset("IMG_0005.MOV", {{"kind", "video"}, {"duration", 12.5}, {"size", 5000}, {"taken", 1690934460}}),
             asset("IMG_0006.HEIC", {{"cloud", true}, {"taken", 1690934520}})}}}}},
        root + "/pictures");
    tarn::testing::build_image(tarn::testing::load_description("sample"), root + "/sample");
    json ipod = tarn::testing::load_description("ipod");
    ipod["device"]["UniqueDeviceID"] = kIpod;
    tarn::testing::build_image(ipod, root + "/ipod");
    media_ = root + "/pictures/media";
    sim_ = std::make_unique<Simulator>(std::vector<tarn::testing::SimDevice>{
        {root + "/pictures", kPictures, {}}, {root + "/sample", kSample, {}}, {root + "/ipod", kIpod, {}}});
    window_ = std::make_unique<MainWindow>();
    window_->resize(1100, 700);
    window_->show();
  }

  void cleanupTestCase() {
    window_.reset();
    JobPool()->waitForDone();
    sim_.reset();
  }

  // Thumbnails from the pictures themselves (JPEG and PNG through Qt, HEIC
  // through libheif) and from the phone's own thumbnail file, grouped by day
  // newest first, all over the session that choosing the phone opened.
  void gridShowsThumbnails() {
    Choose(kPictures);
    sim_->reset_stats(kPictures);
    PhotosPage *page = ShowPhotos();
    PhotoModel *model = page->model();
    QCOMPARE(model->Pictures(), 6);
    QVERIFY(model->index(0).data(PhotoModel::kHeadingRole).toBool());
    QVERIFY(model->index(0).data().toString().contains("2023"));
    QCOMPARE(model->index(1).data().toString(), QString("IMG_0006.HEIC"));
    QVERIFY(model->index(1).data(Qt::AccessibleTextRole).toString().contains("iCloud"));
    std::map<QString, QModelIndex> rows;
    for (int r = 0; r < model->rowCount(); ++r)
      if (const PhotoEntry *e = model->Entry(model->index(r))) rows[e->name] = model->index(r);
    QCOMPARE(rows.size(), size_t{6});
    ThumbnailCache *cache = page->thumbnails();
    for (const auto &[name, index] : rows) index.data(Qt::DecorationRole);
    QTRY_VERIFY_WITH_TIMEOUT(cache->Pending() == 0, 30000);
    for (const char *name : {"IMG_0001.JPG", "IMG_0002.HEIC", "IMG_0003.PNG", "IMG_0004.HEIC"}) {
      const QImage thumb = rows[name].data(Qt::DecorationRole).value<QImage>();
      QVERIFY2(!thumb.isNull(), name);
      QVERIFY2(std::max(thumb.width(), thumb.height()) <= ThumbnailCache::kSide, name);
    }
    // The HEIC's thumbnail is its picture: the same colour where the
    // original has it, as decoded straight from the image's file.
    const tarn::app::RgbImage heic = tarn::app::DecodeHeic(media_ / "DCIM/100APPLE/IMG_0002.HEIC");
    const QImage thumb = rows["IMG_0002.HEIC"].data(Qt::DecorationRole).value<QImage>();
    QCOMPARE(thumb.size(), QSize(ThumbnailCache::kSide, ThumbnailCache::kSide * 3 / 4));
    const QColor at = thumb.pixelColor(thumb.width() / 2, thumb.height() / 2);
    const uint8_t *px = &heic.pixels[(static_cast<size_t>(heic.height / 2) * heic.width + heic.width / 2) * 3];
    QVERIFY(std::abs(at.red() - px[0]) + std::abs(at.green() - px[1]) + std::abs(at.blue() - px[2]) < 40);
    // No picture to be had for a video the phone made no thumbnail for, nor
    // for a picture only in iCloud.
    QVERIFY(cache->Unavailable("/DCIM/100APPLE/IMG_0005.MOV"));
    QVERIFY(cache->Unavailable("/DCIM/100APPLE/IMG_0006.HEIC"));
    QCOMPARE(QDir(cache->Folder()).entryList({"*.jpg"}, QDir::Files).size(), 4);
    QCOMPARE(sim_->stats(kPictures).tls_sessions, uint64_t{0});

    // Chosen again, the thumbnails come from the disk cache: no file of the
    // phone is read for them.
    window_->Refresh();
    page = ShowPhotos();
    sim_->enable_log(kPictures, true);
    for (int r = 0; r < page->model()->rowCount(); ++r) page->model()->index(r).data(Qt::DecorationRole);
    QTRY_VERIFY_WITH_TIMEOUT(page->thumbnails()->Pending() == 0, 30000);
    for (const auto &request : sim_->request_log(kPictures))
      for (const char *cached : {"IMG_0001", "IMG_0002", "IMG_0003", "IMG_0004"})
        QVERIFY2(request.path.find(cached) == std::string::npos, request.path.c_str());
    sim_->enable_log(kPictures, false);
  }

  // The disk cache keeps the thumbnails last shown once it passes its limit.
  void diskCacheKeepsTheLastShown() {
    QTemporaryDir root;
    const QDateTime now = QDateTime::currentDateTime();
    for (int i = 0; i < 8; ++i) {
      const QString dir = root.path() + (i % 2 ? "/phone-a" : "/phone-b");
      QDir().mkpath(dir);
      QFile f(dir + QString("/%1.jpg").arg(i));
      QVERIFY(f.open(QIODevice::WriteOnly));
      f.write(QByteArray(100 * 1024, 'x'));
      QVERIFY(f.setFileTime(now.addSecs(-3600 * (8 - i)), QFileDevice::FileModificationTime));
    }
    QCOMPARE(ThumbnailCache::Prune(root.path(), 800 * 1024), 0);
    // 800 KiB over a limit of 500: the five oldest go, leaving 300.
    QCOMPARE(ThumbnailCache::Prune(root.path(), 500 * 1024), 5);
    for (int i = 0; i < 8; ++i)
      QCOMPARE(QFile::exists(root.path() + (i % 2 ? "/phone-a" : "/phone-b") + QString("/%1.jpg").arg(i)), i >= 5);
  }

  void previewShowsThePicture() {
    Choose(kPictures);
    PhotosPage *page = ShowPhotos();
    QModelIndex jpeg;
    for (int r = 0; r < page->model()->rowCount(); ++r)
      if (const PhotoEntry *e = page->model()->Entry(page->model()->index(r)); e && e->name == "IMG_0001.JPG")
        jpeg = page->model()->index(r);
    PhotoPreview *preview = page->Preview(jpeg);
    QVERIFY(preview != nullptr);
    QSignalSpy decoded(preview, &PhotoPreview::Decoded);
    QTRY_VERIFY_WITH_TIMEOUT(!decoded.isEmpty(), 20000);
    QVERIFY(decoded.first().at(0).toBool());
    QVERIFY(preview->picture()->pixmap().width() > ThumbnailCache::kSide);
    preview->close();
  }

  // The button and `tarn import photos` copy the same files by date, byte
  // for byte; a second import copies nothing, and a person's file of the
  // same name stays as it was.
  void importTwiceCopiesOnce() {
    Choose(kPictures);
    TempDir host;
    const fs::path desktop = fs::path(host.path()) / "desktop", tool = fs::path(host.path()) / "tool";
    tarn::testing::WriteAll(desktop / "2023/07/IMG_0001.JPG", "my own picture");
    TransferResult r = Import(desktop, false);
    QVERIFY2(r.failed.isEmpty(), qPrintable(r.Summary()));
    // Five originals on the phone (one only in iCloud) and the Live Photo's video.
    QCOMPARE(r.copied, 6);
    QCOMPARE(tarn::testing::ReadAll(desktop / "2023/07/IMG_0001.JPG"), std::string("my own picture"));
    const auto expected = std::map<std::string, std::string>{
        {"2023/07/IMG_0001 (2).JPG", tarn::testing::ReadAll(media_ / "DCIM/100APPLE/IMG_0001.JPG")},
        {"2023/07/IMG_0001.JPG", "my own picture"},
        {"2023/07/IMG_0002.HEIC", tarn::testing::ReadAll(media_ / "DCIM/100APPLE/IMG_0002.HEIC")},
        {"2023/07/IMG_0002.MOV", tarn::testing::ReadAll(media_ / "DCIM/100APPLE/IMG_0002.MOV")},
        {"2023/08/IMG_0003.PNG", tarn::testing::ReadAll(media_ / "DCIM/100APPLE/IMG_0003.PNG")},
        {"2023/08/IMG_0004.HEIC", tarn::testing::ReadAll(media_ / "DCIM/100APPLE/IMG_0004.HEIC")},
        {"2023/08/IMG_0005.MOV", tarn::testing::ReadAll(media_ / "DCIM/100APPLE/IMG_0005.MOV")}};
    QVERIFY(Files(desktop) == expected);
    // Imported pictures moved away stay imported.
    fs::remove(desktop / "2023/08/IMG_0003.PNG");
    r = Import(desktop, false);
    QCOMPARE(r.copied, 0);
    QCOMPARE(r.skipped, 5);

    tarn::testing::Result run = Tool({"import", "photos", tool.string()});
    QVERIFY2(run.code == 0, run.err.c_str());
    auto from_tool = Files(tool);
    QCOMPARE(from_tool.size(), size_t{6});
    QVERIFY(from_tool["2023/07/IMG_0001.JPG"] == expected.at("2023/07/IMG_0001 (2).JPG"));
    from_tool.erase("2023/07/IMG_0001.JPG");
    for (const auto &[rel, bytes] : from_tool) QVERIFY2(expected.at(rel) == bytes, rel.c_str());
    run = Tool({"import", "photos", tool.string()});
    QVERIFY2(run.code == 0 && run.out.find("0 files copied") != std::string::npos, run.out.c_str());
    for (const auto &entry : fs::recursive_directory_iterator(host.path()))
      QVERIFY2(!tarn::app::IsTemporaryName(entry.path().filename().string()), entry.path().c_str());
  }

  // HEIC written as JPEG of the same picture; what is no HEIC, or no
  // picture libheif reads, comes as it is.
  void importConvertsHeic() {
    TempDir host;
    const tarn::testing::Result run = Tool({"import", "photos", host.path(), "--jpeg"});
    QVERIFY2(run.code == 0, run.err.c_str());
    QVERIFY2(run.err.find("IMG_0004.HEIC could not be converted") != std::string::npos, run.err.c_str());
    const fs::path folder = host.path();
    const QImage jpeg(QString::fromStdString((folder / "2023/07/IMG_0002.JPG").string()), "JPEG");
    QCOMPARE(jpeg.size(), QSize(320, 240));
    QVERIFY(!fs::exists(folder / "2023/07/IMG_0002.HEIC"));
    QCOMPARE(tarn::testing::ReadAll(folder / "2023/08/IMG_0004.HEIC"), tarn::testing::ReadAll(media_ / "DCIM/100APPLE/IMG_0004.HEIC"));
    QCOMPARE(tarn::testing::ReadAll(folder / "2023/07/IMG_0001.JPG"), tarn::testing::ReadAll(media_ / "DCIM/100APPLE/IMG_0001.JPG"));
  }

  // The sample phone's music by artist and album, and its playlists apart.
  void musicBrowser() {
    Choose(kSample);
    MusicBrowser *music = window_->music();
    window_->ShowPage(music);
    QTRY_VERIFY_WITH_TIMEOUT(music->loaded(), 60000);
    QVERIFY(music->artists()->count() > 5);
    // Artists in order, ignoring case; an artist's albums hold only its tracks.
    for (int i = 1; i < music->artists()->count(); ++i)
      QVERIFY(music->artists()->item(i - 1)->text().toCaseFolded() < music->artists()->item(i)->text().toCaseFolded());
    music->artists()->setCurrentRow(1);
    QVERIFY(music->albums()->count() > 0);
    int tracks = 0;
    for (int a = 0; a < music->albums()->count(); ++a) {
      music->albums()->setCurrentRow(a);
      QAbstractItemModel *model = music->tracks()->model();
      QVERIFY(model->rowCount() > 0);
      tracks += model->rowCount();
      const QString album = music->albums()->item(a)->text();
      for (int r = 0; r < model->rowCount(); ++r) QVERIFY(album.startsWith(model->index(r, 3).data().toString()));
    }
    // Every track of the flat table is under exactly one artist's album.
    int all = 0;
    for (int i = 0; i < music->artists()->count(); ++i) {
      music->artists()->setCurrentRow(i);
      for (int a = 0; a < music->albums()->count(); ++a) {
        music->albums()->setCurrentRow(a);
        all += music->tracks()->model()->rowCount();
      }
    }
    QVERIFY(tracks > 0 && tracks < all);
    CataloguePage *flat = window_->page(Kind::kMusic);
    window_->ShowPage(flat);
    QTRY_VERIFY_WITH_TIMEOUT(flat->loaded(), 60000);
    QCOMPARE(all, flat->model()->rowCount());
    // Playlists are their own section, without the library's own list.
    CataloguePage *lists = window_->page(Kind::kPlaylists);
    window_->ShowPage(lists);
    QTRY_VERIFY_WITH_TIMEOUT(lists->loaded(), 60000);
    QCOMPARE(music->playlists()->count(), lists->model()->rowCount());
    QVERIFY(music->playlists()->count() > 0);
    music->playlists()->setCurrentRow(0);
    QVERIFY(music->playlistTracks()->model()->rowCount() > 0);
  }

  // Each album of the sample phone shows its cover where its tracks name
  // one and the placeholder where they do not, all read over the window's
  // one session.
  void albumCovers() { AlbumCoversOf(kSample, QSize(120, 120)); }
  // An older device's covers come out of its artwork database, the same
  // way, at the largest size it keeps them.
  void olderDevicesAlbumCovers() { AlbumCoversOf(kIpod, QSize(128, 128)); }

 private:
  void AlbumCoversOf(const char *udid, QSize kept) {
    Choose(udid);
    MusicBrowser *music = window_->music();
    window_->ShowPage(music);
    QTRY_VERIFY_WITH_TIMEOUT(music->loaded(), 60000);
    sim_->reset_stats(udid);
    // "artist\nalbum" of the albums whose tracks name a cover, as the
    // library lists them to a handle of the test's own.
    std::set<QString> covered;
    int shown = 0, plain = 0;
    std::vector<std::tuple<QString, QString, bool>> albums;  // artist, album item, covered
    for (int i = 0; i < music->artists()->count(); ++i) {
      music->artists()->setCurrentRow(i);
      for (int a = 0; a < music->albums()->count(); ++a) {
        music->albums()->setCurrentRow(a);
        QTRY_VERIFY_WITH_TIMEOUT(music->covers()->Pending() == 0, 20000);
        const bool has = music->ShowsCover(a);
        albums.emplace_back(music->artists()->item(i)->text(), music->albums()->item(a)->text(), has);
        (has ? shown : plain)++;
        // The album's view shows the cover larger, as the phone keeps it.
        if (has) {
          QCOMPARE(music->cover()->pixmap().size(), kept);
          QVERIFY(music->cover()->accessibleName().startsWith("Cover of "));
        }
      }
    }
    QVERIFY(shown > 0 && plain > 0);
    QCOMPARE(sim_->stats(udid).tls_sessions, uint64_t{0});
    QVERIFY(!QDir(music->covers()->Folder()).entryList({"*.jpg"}, QDir::Files).isEmpty());

    PodDevice *device = CreatePodDevice(udid);
    TempDir work;
    QCOMPARE(InitDevice(device, work.path().c_str()), 0);
    plist_t list = GetMusicList(device, 0, 0);
    QVERIFY(list != nullptr);
    // An older device's list names no covers: its covered albums are the
    // ones the image was given covers for.
    const nlohmann::json older = tarn::testing::load_description("ipod")["music"]["covers"];
    for (plist_t track : tarn::app::ArrayItems(tarn::app::DictArray(list, "item"))) {
      const bool named = !tarn::app::DictString(track, "artwork").empty();
      const bool given = udid == std::string(kIpod) && older.contains(tarn::app::DictString(track, "album")) &&
                         tarn::app::DictString(track, "path").starts_with("/iTunes_Control/Music/");
      if (!named && !given) continue;
      std::string artist = tarn::app::Known(tarn::app::DictString(track, "album_artist"));
      if (artist.empty()) artist = tarn::app::DictString(track, "artist");
      covered.insert(QString::fromStdString(artist + "\n" + tarn::app::DictString(track, "album")));
    }
    plist_free(list);
    FreePodDevice(device);
    for (const auto &[artist, album, has] : albums) {
      bool expected = false;
      for (const QString &c : covered) expected = expected || (c.section('\n', 0, 0) == artist && album.startsWith(c.section('\n', 1)));
      QVERIFY2(has == expected, qPrintable(artist + " / " + album));
    }
  }
};

int main(int argc, char **argv) { return RunWindowTest<MediaTest>(argc, argv, "tarn-desktop-media-test"); }

#include "media_test.moc"
