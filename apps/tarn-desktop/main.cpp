// tarn-desktop: a window onto the iPod, iPhone and iPad devices attached.
#include <cstdio>
#include <memory>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QTimer>

#include "common/session.h"
#include "main_window.h"

namespace {

using tarn::desktop::CataloguePage;
using tarn::desktop::MainWindow;

// --screenshots: once the first device is open, shows every page in turn,
// saves it as DIR/NN-page.png when it has loaded, and quits.
void SaveScreenshots(MainWindow &window, const QString &dir) {
  QDir().mkpath(dir);
  auto *timer = new QTimer(&window);
  auto index = std::make_shared<int>(-1);
  QObject::connect(timer, &QTimer::timeout, &window, [&window, dir, timer, index] {
    if (window.udid().isEmpty() || window.overview()->Field(QObject::tr("Name")).isEmpty()) return;
    QTabWidget *pages = window.pages();
    if (*index >= 0) {
      QWidget *page = pages->widget(*index);
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
    if (++*index >= pages->count()) {
      timer->stop();
      QApplication::quit();
      return;
    }
    pages->setCurrentIndex(*index);
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
  QCommandLineOption screenshots("screenshots", "Save every page of the first device as PNG files in DIR, then quit.",
                                 "DIR");
  parser.addOption(verbose);
  parser.addOption(screenshots);
  parser.process(app);
  // The library's console lines are for terminals; a window has no use for
  // them, and the full lists it prints would cost time.
  if (!parser.isSet(verbose) && std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  MainWindow window;
  window.resize(1100, 700);
  window.show();
  if (parser.isSet(screenshots)) SaveScreenshots(window, parser.value(screenshots));
  return QApplication::exec();
}
