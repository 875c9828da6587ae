#include "jobs.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include "apps/common/device_path.h"
#include "apps/common/failure.h"
#include "apps/common/file_ops.h"

namespace tarn::desktop {

QThreadPool *JobPool() {
  static QThreadPool *pool = [] {
    auto *p = new QThreadPool;
    p->setMaxThreadCount(16);
    return p;
  }();
  return pool;
}

DeviceLink::DeviceLink(const QString &udid, const QString &app)
    : udid_(udid), app_(app), shared_(std::make_shared<Shared>()) {
  // The databases are read afresh each time a device is chosen.
  shared_->options = SessionFor(udid, true);
  shared_->options.app = app.toStdString();
  shared_->udid = udid.toStdString();
}

QString TransferResult::Summary() const {
  QString text = QObject::tr("%n file(s) copied (%1)", nullptr, copied).arg(HumanSize(bytes));
  if (skipped > 0) text += QObject::tr(", %n already there", nullptr, skipped);
  if (cancelled) text += QObject::tr(", cancelled");
  if (!failed.isEmpty()) text += QObject::tr(", %n failed", nullptr, static_cast<int>(failed.size()));
  for (const QString &note : notes) text += QStringLiteral("; ") + note;
  if (reason.failed()) text += QStringLiteral(". ") + Text(reason);
  return text;
}

namespace {

app::TransferHooks HooksFor(Transfer::State &state) {
  app::TransferHooks hooks;
  hooks.progress = [&state](const app::Progress &p) {
    state.done = p.done;
    state.total = p.total;
    QMutexLocker lock(&state.mutex);
    state.current = Q(p.label);
  };
  hooks.cancel = &state.cancel;
  return hooks;
}

// The shared batch's outcome as the window shows it.
class Outcome {
 public:
  explicit Outcome(TransferResult &result) : result_(result) {}
  void Failed(const app::Failure &failure) {
    result_.failed << Q(failure.message);
    if (!result_.reason.failed()) result_.reason = failure;
  }
  void Add(const app::BatchReport &report) {
    result_.copied += static_cast<int>(report.copied);
    result_.skipped += static_cast<int>(report.skipped);
    result_.bytes += report.bytes;
    result_.cancelled = result_.cancelled || report.cancelled;
    for (const std::string &note : report.notes) result_.notes << Q(note);
    for (const app::Failure &failure : report.failed) Failed(failure);
  }

 private:
  TransferResult &result_;
};

// Downloads and uploads through the same plans and batches as `tarn pull`
// and `tarn push`, over a connection of their own: a transfer is one action.
TransferResult RunCopies(const QString &udid, const QString &app, bool upload, const std::vector<TransferItem> &items,
                         Transfer::State &state) {
  TransferResult result;
  Outcome outcome(result);
  try {
    app::SessionOptions options = SessionFor(udid);
    options.app = app.toStdString();
    app::Session session(options, udid.toStdString());
    session.Connect();
    if (upload) {
      app::UploadPlan plan;
      for (const TransferItem &item : items) {
        try {
          const QString target = SafeDevicePath(item.device_path);
          if (target.isEmpty())
            app::Fail(app::kUsage, QObject::tr("%1 is no place for a file.").arg(item.device_path).toStdString());
          // An upload goes into a folder, made first when it is not there.
          plan.dirs.push_back(app::DeviceParent(target.toStdString()));
          plan.Add(app::PlanUpload(item.host_path.toStdString(), target.toStdString()));
        } catch (const app::Failure &failure) {
          outcome.Failed(failure);
        }
      }
      state.total = plan.bytes();
      outcome.Add(app::RunUploads(session, plan, HooksFor(state)));
    } else {
      app::DownloadPlan plan;
      for (const TransferItem &item : items) {
        try {
          const std::string path = item.device_path.toStdString();
          plan.Add(app::PlanDownload(session, path, session.Require(path), item.host_path.toStdString()));
        } catch (const app::Failure &failure) {
          outcome.Failed(failure);
        }
      }
      state.total = plan.bytes();
      outcome.Add(app::RunDownloads(session, plan, HooksFor(state)));
    }
  } catch (const app::Failure &failure) {
    // What ended the batch explains it best.
    result.failed << Q(failure.message);
    result.reason = failure;
  }
  return result;
}

// What an export and an import tell alike: the counts, the failures with
// the first one's reason, `first_notes` before the batch's own, the files
// below the folder, and `nothing_note` when the device listed nothing.
template <class Report>
TransferResult ResultOf(const Report &report, size_t skipped, const std::string &host_dir, const QStringList &first_notes,
                        const QString &nothing_note) {
  TransferResult result;
  result.copied = static_cast<int>(report.copied);
  result.skipped = static_cast<int>(skipped);
  result.bytes = report.bytes;
  result.cancelled = report.cancelled;
  for (const app::Failure &failure : report.failed) result.failed << Q(failure.message);
  result.notes << first_notes;
  for (const std::string &note : report.notes) result.notes << Q(note);
  for (const std::string &rel : report.files) result.files << Q(host_dir + "/" + rel);
  if (report.nothing_listed) result.notes << nothing_note;
  if (!report.failed.empty()) result.reason = report.failed.front();
  return result;
}

TransferResult RunExport(const QString &udid, const app::ExportRequest &request, Transfer::State &state) {
  try {
    app::Session session(SessionFor(udid), udid.toStdString());
    session.InitCatalogue();
    const app::ExportReport report = app::Export(session, request, HooksFor(state));
    return ResultOf(report, report.skipped, request.host_dir, {}, QObject::tr("nothing of this kind on the device"));
  } catch (const app::Failure &failure) {
    TransferResult result;
    result.reason = failure;
    return result;
  }
}

TransferResult RunImport(const QString &udid, const app::ImportRequest &request, Transfer::State &state) {
  try {
    app::Session session(SessionFor(udid), udid.toStdString());
    session.InitCatalogue();
    const app::ImportReport report = app::ImportPhotos(session, request, HooksFor(state));
    QStringList first;
    if (report.converted > 0) first << QObject::tr("%n converted to JPEG", nullptr, static_cast<int>(report.converted));
    if (report.in_cloud > 0) first << QObject::tr("%n only in iCloud", nullptr, static_cast<int>(report.in_cloud));
    return ResultOf(report, report.already, request.host_dir, first, QObject::tr("no camera roll on the device"));
  } catch (const app::Failure &failure) {
    TransferResult result;
    result.reason = failure;
    return result;
  }
}

}  // namespace

Transfer::Transfer(QString udid, Direction direction, std::vector<TransferItem> items, QObject *parent)
    : QObject(parent), udid_(std::move(udid)), direction_(direction), items_(std::move(items)),
      state_(std::make_shared<State>()) {
  tick_.setInterval(100);
  connect(&tick_, &QTimer::timeout, this, &Transfer::Publish);
}

Transfer::Transfer(QString udid, app::ExportRequest request, QObject *parent)
    : Transfer(std::move(udid), Direction::kExport, {}, parent) {
  request_ = std::move(request);
}

Transfer::Transfer(QString udid, app::ImportRequest request, QObject *parent)
    : Transfer(std::move(udid), Direction::kImport, {}, parent) {
  import_ = std::move(request);
}

Transfer::~Transfer() { state_->cancel = true; }

void Transfer::Start() {
  running_ = true;
  tick_.start();
  std::shared_ptr<State> state = state_;
  const Direction direction = direction_;
  RunInBackground(
      this,
      [udid = udid_, app = app_, direction, items = items_, request = request_, import = import_, state] {
        if (direction == Direction::kExport) return RunExport(udid, request, *state);
        if (direction == Direction::kImport) return RunImport(udid, import, *state);
        return RunCopies(udid, app, direction == Direction::kUpload, items, *state);
      },
      [this](const TransferResult &result) {
        tick_.stop();
        Publish();
        running_ = false;
        emit Finished(result);
      });
}

void Transfer::Cancel() { state_->cancel = true; }

void Transfer::Publish() {
  QString current;
  {
    QMutexLocker lock(&state_->mutex);
    current = state_->current;
  }
  emit Progress(state_->done, state_->total, current);
}

}  // namespace tarn::desktop
