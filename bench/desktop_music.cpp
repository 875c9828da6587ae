// The desktop's music page against GetMusicList on the same image: the time
// until the page's table is ready (a worker's session, the list and the
// model), and the heap the page holds against the list's own, since the
// model points into the list rather than copying rows.
//
//   bench_desktop_music --image DIR [--reps N]
#include <malloc.h>
#include <unistd.h>

#include <algorithm>

#include <QApplication>
#include <QEventLoop>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTimer>

#include "bench_util.h"
#include "apps/common/session.h"
#include "pages.h"
#include "simulator.h"

namespace {

using namespace tarn::bench;

size_t HeapInUse() { return mallinfo2().uordblks; }

// The longest gap between the turns of a 5 ms timer while `work` runs the
// event loop: what a person feels as the window stalling.
template <typename Work>
double WorstGapMs(Work work) {
  QElapsedTimer clock;
  qint64 last = 0, worst = 0;
  QTimer tick;
  tick.setInterval(5);
  QObject::connect(&tick, &QTimer::timeout, [&] {
    worst = std::max(worst, clock.elapsed() - last);
    last = clock.elapsed();
  });
  clock.start();
  tick.start();
  work();
  return static_cast<double>(worst);
}

}  // namespace

int main(int argc, char **argv) try {
  // One arena for every thread, so that the heap figure sees the workers';
  // glibc takes it only at start, so the program starts itself again.
  if (std::getenv("TARN_BENCH_ONE_ARENA") == nullptr) {
    setenv("TARN_BENCH_ONE_ARENA", "1", 1);
    setenv("GLIBC_TUNABLES", "glibc.malloc.arena_max=1", 1);
    execv("/proc/self/exe", argv);
    throw std::runtime_error("cannot start again with one malloc arena");
  }
  mallopt(M_ARENA_MAX, 1);
  std::string image;
  for (int i = 1; i + 1 < argc; ++i)
    if (std::string(argv[i]) == "--image") image = argv[i + 1];
  const int reps = static_cast<int>(Option(argc, argv, "--reps", 5));
  if (image.empty()) throw std::runtime_error("usage: bench_desktop_music --image DIR [--reps N]");
  QTemporaryDir cache;
  qputenv("XDG_CACHE_HOME", cache.path().toUtf8());
  qputenv("QT_QPA_PLATFORM", "offscreen");
  const std::string udid = "00008030-00B16B16B16B1601";
  tarn::testing::Simulator sim({{image, udid, {}}});
  QApplication app(argc, argv);
  std::vector<double> list_secs, page_secs, list_heap, page_heap, gaps, idle_gaps, sort_ms, filter_ms;
  int tracks = 0;
  {
  QuietStdout quiet;
  tarn::app::Session session(tarn::desktop::SessionFor(QString::fromStdString(udid)), udid);
  session.InitCatalogue();
  for (int i = 0; i < reps; ++i) {
    const size_t before = HeapInUse();
    plist_t list = nullptr;
    list_secs.push_back(Seconds([&] { list = GetMusicList(session.device(), 0, 0); }));
    list_heap.push_back(static_cast<double>(HeapInUse() - before));
    plist_free(list);
  }
  tarn::desktop::CataloguePage page(tarn::desktop::PageKinds().front());
  const auto link = std::make_shared<tarn::desktop::DeviceLink>(QString::fromStdString(udid));
  {
    // As the window does when a device is chosen: the link's session copies
    // the databases once, and the page's loads read them.
    QEventLoop ready;
    link->Run(
        &page, [](tarn::app::Session &s) { s.InitCatalogue(); return 0; }, [&](int) { ready.quit(); });
    ready.exec();
  }
  for (int i = 0; i < reps; ++i) {
    page.Clear();
    tarn::desktop::JobPool()->waitForDone();
    // The finished load's watcher still holds the old list until it is deleted.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    const size_t before = HeapInUse();
    QEventLoop loop;
    QObject::connect(&page, &tarn::desktop::CataloguePage::Loaded, &loop, &QEventLoop::quit);
    double seconds = 0;
    gaps.push_back(WorstGapMs([&] {
      seconds = Seconds([&] {
        page.Load(link);
        loop.exec();
      });
    }));
    page_secs.push_back(seconds);
    // The floor: the same timer over an idle loop of the same length.
    idle_gaps.push_back(WorstGapMs([&] {
      QTimer::singleShot(static_cast<int>(seconds * 1000), &loop, &QEventLoop::quit);
      loop.exec();
    }));
    tarn::desktop::JobPool()->waitForDone();
    page_heap.push_back(static_cast<double>(HeapInUse() - before));
  }
  tracks = page.model()->rowCount();
  // Sorting blocks the window for as long as it takes: the first sort by
  // each column (which makes its keys) and a sort turned round, and a
  // filter typed after the first.
  for (int column : {0, 1, 4, 5}) {
    for (Qt::SortOrder order : {Qt::AscendingOrder, Qt::DescendingOrder})
      sort_ms.push_back(Seconds([&] { page.view()->sortByColumn(column, order); }) * 1000);
  }
  for (const char *typed : {"a", "an", "and"})
    filter_ms.push_back(Seconds([&] { page.filter()->setText(typed); }) * 1000);
  page.filter()->clear();
  }
  const double list_s = Median(list_secs), page_s = Median(page_secs);
  Print({"desktop music page ready (" + std::to_string(tracks) + " tracks)",
         Format("%.3f s", page_s), "GetMusicList " + Format("%.3f s", list_s), page_s / list_s, 1.5, false});
  // The window's worker keeps the loop turning: no gap may reach 100 ms
  // (with an idle loop's worst gap of a few ms, a ratio of about 20).
  const double gap = Median(gaps), idle_gap = std::max(1.0, Median(idle_gaps));
  Print({"desktop event loop while the music page loads", Format("worst gap %.0f ms", gap),
         "idle loop " + Format("%.0f ms", idle_gap), gap / idle_gap, 20, false});
  // The event loop may not stall 100 ms: the worst sort and keystroke against that bound.
  const double worst_sort = *std::max_element(sort_ms.begin(), sort_ms.end());
  Print({"desktop sort of " + std::to_string(tracks) + " rows, worst column", Format("%.0f ms", worst_sort),
         "the 100 ms a stall may last", worst_sort / 100, 1.0, false});
  const double worst_key = *std::max_element(filter_ms.begin(), filter_ms.end());
  Print({"desktop filter keystroke on " + std::to_string(tracks) + " rows", Format("%.0f ms", worst_key),
         "the 100 ms a stall may last", worst_key / 100, 1.0, false});
  const double lh = Median(list_heap), ph = Median(page_heap);
  Print({"desktop music page memory", Format("%.1f MiB", ph / 1048576), "the list " + Format("%.1f MiB", lh / 1048576),
         ph / lh, 1.5, false});
  return 0;
} catch (const std::exception &e) {
  std::fprintf(stderr, "bench_desktop_music: %s\n", e.what());
  return 1;
}
