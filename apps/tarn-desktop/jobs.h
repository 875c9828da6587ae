// Long work off the window's thread. Every job runs on a pool thread with
// a device handle of its own (a handle may not be shared between threads)
// and reports back through queued calls; a transfer also publishes its
// progress through atomics that the window samples, so a fast copy cannot
// flood the event loop.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <QFutureWatcher>
#include <QMutex>
#include <QObject>
#include <QThreadPool>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>

#include "apps/common/export.h"
#include "apps/common/import.h"
#include "device.h"

namespace tarn::desktop {

// The pool of the window's jobs: more threads than cores, since most of
// them wait on the device rather than compute.
QThreadPool *JobPool();

// Runs `work` on the pool and hands its result to `done` on the thread of
// `context`; nothing is delivered once `context` is gone.
template <typename Work, typename Done>
void RunInBackground(QObject *context, Work work, Done done) {
  using Result = std::invoke_result_t<Work>;
  auto *watcher = new QFutureWatcher<Result>(context);
  QObject::connect(watcher, &QFutureWatcherBase::finished, context, [watcher, done = std::move(done)]() mutable {
    done(watcher->result());
    watcher->deleteLater();
  });
  watcher->setFuture(QtConcurrent::run(JobPool(), std::move(work)));
}

// The window's hold on the chosen device: one session whose connection is
// held while the device stays chosen, so that choosing it costs one secure
// session and the pages, folders and file operations that follow cost none.
// The session's handle serves one job at a time (the library's rule for a
// handle): jobs run on the pool, each holding the session alone while it runs.
class DeviceLink {
 public:
  // With `app`, the session reaches that app's Documents instead of the
  // media partition (the Apps page's browser).
  explicit DeviceLink(const QString &udid, const QString &app = {});
  const QString &udid() const { return udid_; }
  const QString &app() const { return app_; }

  // Runs `work(session)` on the pool and hands its result to `done` on the
  // thread of `context`. A connection found broken after a job is let go,
  // and the next job holds a new one.
  template <typename Work, typename Done>
  void Run(QObject *context, Work work, Done done) {
    std::shared_ptr<Shared> shared = shared_;
    RunInBackground(
        context,
        [shared, work = std::move(work)]() mutable {
          const std::lock_guard<std::mutex> guard(shared->mutex);
          if (!shared->session) shared->session = std::make_unique<app::Session>(shared->options, shared->udid);
          try {
            shared->session->Connect();
          } catch (const app::Failure &) {
            // The work's own calls then fail with the reason.
          }
          auto result = work(*shared->session);
          if (app::BreaksConnection(TarnLastError()->code)) shared->session->Disconnect();
          return result;
        },
        std::move(done));
  }

 private:
  struct Shared {
    std::mutex mutex;
    app::SessionOptions options;
    std::string udid;
    std::unique_ptr<app::Session> session;
  };
  QString udid_;
  QString app_;
  std::shared_ptr<Shared> shared_;
};

struct TransferItem {
  QString device_path;
  QString host_path;
  bool is_dir = false;
};

struct TransferResult {
  int copied = 0;
  int skipped = 0;  // already there
  uint64_t bytes = 0;
  bool cancelled = false;
  QStringList failed;  // "<path>: <reason>"
  QStringList notes;   // what else a person should hear about
  QStringList files;   // an export's files on the host, copied or already there
  Reason reason;       // the first failure's reason
  QString Summary() const;
};

class Transfer : public QObject {
  Q_OBJECT
 public:
  enum class Direction { kDownload, kUpload, kExport, kImport };
  Transfer(QString udid, Direction direction, std::vector<TransferItem> items, QObject *parent = nullptr);
  // An export through the same code as `tarn export`.
  Transfer(QString udid, app::ExportRequest request, QObject *parent = nullptr);
  // An import of new photos through the same code as `tarn import photos`.
  Transfer(QString udid, app::ImportRequest request, QObject *parent = nullptr);
  ~Transfer() override;

  // Copies to and from the Documents of `app` rather than the media
  // partition; called before Start().
  void SetApp(const QString &app) { app_ = app; }
  void Start();
  // Asks the copy to stop at its next block; its partial file is removed.
  void Cancel();
  bool Running() const { return running_; }
  Direction direction() const { return direction_; }

 signals:
  void Progress(quint64 done, quint64 total, const QString &current);
  void Finished(const tarn::desktop::TransferResult &result);

 public:
  struct State {
    std::atomic<bool> cancel{false};
    std::atomic<uint64_t> done{0};
    std::atomic<uint64_t> total{0};
    QMutex mutex;
    QString current;
  };

 private:
  void Publish();
  QString udid_;
  QString app_;
  Direction direction_;
  std::vector<TransferItem> items_;
  app::ExportRequest request_;
  app::ImportRequest import_;
  std::shared_ptr<State> state_;
  QTimer tick_;
  bool running_ = false;
};

}  // namespace tarn::desktop

Q_DECLARE_METATYPE(tarn::desktop::TransferResult)
