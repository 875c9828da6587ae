// tarn-desktop: a window onto the iPod, iPhone and iPad devices attached.
#include <cstdio>

#include <QApplication>
#include <QCommandLineParser>

#include "main_window.h"

int main(int argc, char **argv) {
  QApplication app(argc, argv);
  QApplication::setApplicationName("tarn-desktop");
  QApplication::setOrganizationName("Tarn");
  QApplication::setApplicationVersion(TARN_VERSION);
  QCommandLineParser parser;
  parser.setApplicationDescription("Browse and copy the content of iPod, iPhone and iPad devices.");
  parser.addHelpOption();
  parser.addVersionOption();
  QCommandLineOption verbose("verbose", "Show the library's console lines.");
  parser.addOption(verbose);
  parser.process(app);
  // The library's console lines are for terminals; a window has no use for
  // them, and the full lists it prints would cost time.
  if (!parser.isSet(verbose)) std::freopen("/dev/null", "w", stdout);
  tarn::desktop::MainWindow window;
  window.show();
  return QApplication::exec();
}
