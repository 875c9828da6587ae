// The desktop's photo grid on a camera roll of 20,000 pictures with the
// phone's own thumbnails, each request answered after 0.2 ms as over USB:
// the time from the list being in to the first screen of thumbnails, the
// longest stall of the event loop while the grid scrolls from top to
// bottom, and the memory the thumbnails hold against the cache's limit.
//
//   bench_desktop_photos [--assets N]
#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QScrollBar>
#include <QTemporaryDir>
#include <QTimer>

#include "bench_util.h"
#include "images.h"
#include "photos_page.h"
#include "simulator.h"

namespace {

using namespace tarn::bench;
using tarn::desktop::PhotoModel;
using tarn::desktop::PhotosPage;

// Whether every picture in sight shows its thumbnail (or has none to show).
bool ScreenDone(PhotosPage &page) {
  QListView *grid = page.grid();
  const QRect sight = grid->viewport()->rect();
  int seen = 0;
  for (int r = 0; r < page.model()->rowCount(); ++r) {
    const QModelIndex index = page.model()->index(r);
    const QRect at = grid->visualRect(index);
    if (at.top() > sight.bottom()) break;
    if (!at.intersects(sight) || index.data(PhotoModel::kHeadingRole).toBool()) continue;
    ++seen;
    const tarn::desktop::PhotoEntry *e = page.model()->Entry(index);
    if (index.data(Qt::DecorationRole).value<QImage>().isNull() && !page.thumbnails()->Unavailable(e->path)) return false;
  }
  return seen > 0;
}

}  // namespace

int main(int argc, char **argv) try {
  const int assets = static_cast<int>(Option(argc, argv, "--assets", 20000));
  QTemporaryDir work;
  qputenv("XDG_CACHE_HOME", (work.path() + "/cache").toUtf8());
  qputenv("QT_QPA_PLATFORM", "offscreen");
  const std::string image = work.path().toStdString() + "/roll";
  tarn::testing::build_image({{"device", {{"DeviceName", "Roll"}, {"ProductType", "iPhone15,4"}, {"ProductVersion", "17.5.1"}}},
                              {"photo_library",
                               {{"ios", "17.5"},
                                {"generate", {{"assets", assets}, {"files", false}, {"thumbnails", true}, {"per_folder", 1000}}}}}},
                             image);
  const std::string udid = "00008030-00B16B16B16B1602";
  tarn::testing::Simulator sim({{image, udid, {}}});
  sim.set_option(udid, "latency_us", "200");
  QApplication app(argc, argv);
  double first_screen = 0, memory = 0;
  qint64 worst = 0, last = 0;
  int pictures = 0;
  {
  QuietStdout quiet;
  auto link = std::make_shared<tarn::desktop::DeviceLink>(QString::fromStdString(udid));
  {
    QEventLoop wait;
    link->Run(&app, [](tarn::app::Session &session) { session.InitCatalogue(); return 0; }, [&](int) { wait.quit(); });
    wait.exec();
  }
  PhotosPage page;
  page.resize(1100, 700);
  page.show();
  page.SetDevice(link);
  QElapsedTimer clock;
  {
    QEventLoop wait;
    QObject::connect(&page, &PhotosPage::Loaded, &wait, [&] { clock.start(); });
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &wait, [&] {
      if (clock.isValid() && ScreenDone(page)) {
        first_screen = clock.nsecsElapsed() / 1e9;
        wait.quit();
      }
    });
    poll.start(2);
    page.Load();
    wait.exec();
  }
  // Scrolling from top to bottom a screen at a time, 30 screens a second,
  // with a 5 ms timer watching the loop's turns.
  {
    QEventLoop wait;
    QElapsedTimer turns;
    QTimer tick, step;
    QObject::connect(&tick, &QTimer::timeout, [&] {
      worst = std::max(worst, turns.elapsed() - last);
      last = turns.elapsed();
    });
    QScrollBar *bar = page.grid()->verticalScrollBar();
    QObject::connect(&step, &QTimer::timeout, [&] {
      if (bar->value() >= bar->maximum() && bar->maximum() > 0) wait.quit();
      bar->setValue(bar->value() + bar->pageStep());
    });
    turns.start();
    tick.start(5);
    step.start(33);
    wait.exec();
  }
  memory = static_cast<double>(page.thumbnails()->MemoryUsed());
  pictures = page.model()->Pictures();
  page.SetDevice(nullptr);
  tarn::desktop::JobPool()->waitForDone();
  }
  const double limit = 48.0 * 1048576;
  Print({"desktop photo grid first screen (" + std::to_string(pictures) + " pictures, 200 us/request)",
         Format("%.3f s", first_screen), "limit 1 s", first_screen / 1.0, 1.0, false});
  Print({"desktop event loop while the photo grid scrolls", Format("worst gap %.0f ms", static_cast<double>(worst)),
         "limit 100 ms", static_cast<double>(worst) / 100.0, 1.0, false});
  Print({"desktop photo thumbnails memory after scrolling the roll", Format("%.1f MiB", memory / 1048576),
         "cache limit 48 MiB", memory / limit, 1.0, false});
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_desktop_photos: %s\n", e.what());
  return 1;
}
