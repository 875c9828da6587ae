// tarn-desktop: a window onto the iPod, iPhone and iPad devices attached.
#include <cstdio>
#include <memory>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QTimer>

#include "apps/common/session.h"
#include "main_window.h"

namespace {

using tarn::desktop::CataloguePage;
using tarn::desktop::MainWindow;
using tarn::desktop::StatePage;
namespace app = tarn::app;

// The state pages a person may meet, each saved as DIR/state-KEY.png.
void SaveStatePages(MainWindow &window, const QString &dir) {
  const std::pair<app::DeviceState, const char *> states[] = {
      {app::DeviceState::kNoUsbmuxd, "no-usbmuxd"},       {app::DeviceState::kNoDevice, "no-device"},
      {app::DeviceState::kTrustPending, "trust-pending"}, {app::DeviceState::kTrustDenied, "trust-denied"},
      {app::DeviceState::kPairingInvalid, "pairing-invalid"}, {app::DeviceState::kLocked, "locked"},
      {app::DeviceState::kUnplugged, "unplugged"}};
  StatePage page;
  page.resize(window.stack()->size().expandedTo(QSize(800, 500)));
  for (const auto &[state, key] : states) {
    const bool about_device = state != app::DeviceState::kNoUsbmuxd && state != app::DeviceState::kNoDevice;
    page.Show(state, about_device ? window.udid() : QString());
    page.grab().save(QString("%1/state-%2.png").arg(dir, key));
    std::fprintf(stderr, "saved state-%s\n", key);
  }
}

// --screenshots: once the first device is open, shows every page in turn,
// saves it as DIR/NN-page.png when it has loaded, then the state pages, and
// quits. A phone that does not open in time (locked, untrusted, absent)
// gives the window as it stands and the state pages: it is never waited for.
void SaveScreenshots(MainWindow &window, const QString &dir, int patience_ms) {
  QDir().mkpath(dir);
  auto *timer = new QTimer(&window);
  auto index = std::make_shared<int>(-1);
  auto waited = std::make_shared<int>(0);
  QObject::connect(timer, &QTimer::timeout, &window, [&window, dir, timer, index, waited, patience_ms] {
    const QList<QWidget *> pages = window.allPages();
    auto finish = [&] {
      timer->stop();
      SaveStatePages(window, dir);
      QApplication::quit();
    };
    if (!window.opened()) {
      *waited += timer->interval();
      if (*waited < patience_ms) return;
      window.grab().save(QString("%1/00-%2.png").arg(dir, window.stack()->currentWidget()->objectName()));
      std::fprintf(stderr, "no device opened within %d ms: saved the window as it stands\n", patience_ms);
      return finish();
    }
    if (*index >= 0) {
      QWidget *page = pages[*index];
      auto *catalogue = qobject_cast<CataloguePage *>(page);
      if (catalogue != nullptr && !catalogue->loaded()) return;
      auto *photos = qobject_cast<tarn::desktop::PhotosPage *>(page);
      if (photos != nullptr && (!photos->loaded() || photos->thumbnails()->Pending() > 0)) return;
      auto *music = qobject_cast<tarn::desktop::MusicBrowser *>(page);
      if (music != nullptr && !music->loaded()) return;
      if (catalogue != nullptr) catalogue->view()->selectRow(0);
      window.grab().save(QString("%1/%2-%3.png").arg(dir).arg(*index, 2, 10, QChar('0')).arg(page->objectName()));
      std::fprintf(stderr, "saved %s\n", qPrintable(page->objectName()));
    }
    if (++*index >= pages.size()) return finish();
    window.ShowPage(pages[*index]);
  });
  timer->start(300);
}

}  // namespace

int main(int argc, char **argv) {
  tarn::app::IgnoreBrokenPipes();
  QApplication app(argc, argv);
  QApplication::setApplicationName("tarn-desktop");
  QApplication::setOrganizationName("Tarn");
  QApplication::setApplicationVersion(TARN_VERSION);
  QCommandLineParser parser;
  parser.setApplicationDescription("Browse and copy the content of iPod, iPhone and iPad devices.");
  parser.addHelpOption();
  parser.addVersionOption();
  QCommandLineOption verbose("verbose", "Show the library's console lines.");
  QCommandLineOption screenshots("screenshots",
                                 "Save every page of the first device and the state pages as PNG files in DIR, then "
                                 "quit; a device that does not open within --patience seconds is not waited for.",
                                 "DIR");
  QCommandLineOption patience("patience", "Seconds --screenshots waits for a device to open (default 30).", "SECONDS",
                              "30");
  parser.addOption(verbose);
  parser.addOption(screenshots);
  parser.addOption(patience);
  parser.process(app);
  // The library's console lines are for terminals; a window has no use for
  // them, and the full lists it prints would cost time.
  if (!parser.isSet(verbose) && std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  MainWindow window;
  window.resize(1100, 700);
  window.show();
  if (parser.isSet(screenshots)) SaveScreenshots(window, parser.value(screenshots), parser.value(patience).toInt() * 1000);
  return QApplication::exec();
}
