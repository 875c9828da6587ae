// What every test program that drives the window shares: choosing a
// device, and what it does before its cases run (broken pipes that fail
// instead of ending the program, the offscreen platform, one time zone,
// settings and caches in a private place, and the library's console lines
// kept out of QTest's report).
#pragma once

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <QApplication>
#include <QSignalSpy>
#include <QtTest>

#include <cstdio>
#include <ctime>

#include "apps/common/session.h"
#include "main_window.h"
#include "test_util.h"

// Chooses the device in the window's sidebar and waits until it opened.
inline void ChooseDevice(tarn::desktop::MainWindow &window, const char *udid) {
  QSignalSpy opened(&window, &tarn::desktop::MainWindow::DeviceOpened);
  QTRY_VERIFY_WITH_TIMEOUT(window.DeviceItem(udid) != nullptr, 20000);
  if (window.udid() == udid && window.opened()) return;
  window.devices()->setCurrentItem(window.DeviceItem(udid));
  QTRY_VERIFY_WITH_TIMEOUT(!opened.isEmpty(), 60000);
  QVERIFY(opened.last().at(1).toBool());
}

template <class Test>
int RunWindowTest(int argc, char **argv, const char *name) {
  tarn::app::IgnoreBrokenPipes();
  // QtTest puts a handler of its own on SIGPIPE, which a session that says
  // goodbye over an unplugged phone's socket would trip: blocked in every
  // thread, the write fails with EPIPE as it does in the program.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  // Folders by date follow the local time zone: one for all.
  qputenv("TZ", "UTC");
  tzset();
  const tarn::testing::TempDir home;
  qputenv("XDG_CACHE_HOME", QByteArray::fromStdString(home.path() + "/cache"));
  qputenv("XDG_CONFIG_HOME", QByteArray::fromStdString(home.path() + "/config"));
  // The library's console lines would bury QTest's report: they go to
  // /dev/null and the report to the original standard output.
  const int report = ::dup(STDOUT_FILENO);
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 1;
  QApplication app(argc, argv);
  QApplication::setApplicationName(name);
  QStringList args = app.arguments();
  if (!args.contains("-o")) args << "-o" << QString("/proc/self/fd/%1,txt").arg(report);
  Test test;
  return QTest::qExec(&test, args);
}
