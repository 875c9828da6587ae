#include "jobs.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include "common/failure.h"

namespace tarn::desktop {

QThreadPool *JobPool() {
  static QThreadPool *pool = [] {
    auto *p = new QThreadPool;
    p->setMaxThreadCount(16);
    return p;
  }();
  return pool;
}

QString TransferResult::Summary() const {
  QString text = QObject::tr("%n file(s) copied (%1)", nullptr, copied).arg(HumanSize(bytes));
  if (skipped > 0) text += QObject::tr(", %n already there", nullptr, skipped);
  if (cancelled) text += QObject::tr(", cancelled");
  if (!failed.isEmpty()) text += QObject::tr(", %n failed", nullptr, static_cast<int>(failed.size()));
  for (const QString &note : notes) text += QStringLiteral("; ") + note;
  if (reason.failed()) text += QStringLiteral(". ") + reason.text;
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

// A name the device sends becomes one host path component only when it
// cannot climb out of the folder it is written to.
bool UsableName(const char *name) {
  return name != nullptr && name[0] != '\0' && qstrcmp(name, ".") != 0 && qstrcmp(name, "..") != 0 &&
         std::strchr(name, '/') == nullptr;
}

class Copier {
 public:
  Copier(const QString &udid, TransferResult &result) : udid_(udid), result_(result), session_(SessionFor(udid), udid.toStdString()) {
    session_.Connect();
  }

  // Folders become their files, so that the total is known up front.
  std::vector<std::pair<TransferItem, uint64_t>> Expand(const std::vector<TransferItem> &items, bool upload) {
    std::vector<std::pair<TransferItem, uint64_t>> files;
    for (const TransferItem &item : items) {
      if (upload) {
        const QFileInfo host(item.host_path);
        if (!host.isDir()) {
          files.push_back({item, static_cast<uint64_t>(host.size())});
          continue;
        }
        QDirIterator it(item.host_path, QDir::Files | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
        while (it.hasNext()) {
          const QString path = it.next();
          const QString rel = QDir(item.host_path).relativeFilePath(path);
          files.push_back({{item.device_path + '/' + rel, path, false}, static_cast<uint64_t>(it.fileInfo().size())});
        }
        continue;
      }
      const app::PathInfo info = session_.Stat(item.device_path.toStdString());
      if (!info.exists) {
        Fail(item.device_path, LastReason(udid_, QObject::tr("%1 is not on the device.").arg(item.device_path)));
        continue;
      }
      if (!info.is_dir) {
        files.push_back({item, info.size});
        continue;
      }
      PodDir *root = GetPodDir(session_.device(), item.device_path.toUtf8().constData(), 0);
      if (root == nullptr) {
        Fail(item.device_path, LastReason(udid_, QObject::tr("The folder %1 cannot be read.").arg(item.device_path)));
        continue;
      }
      Walk(root, item.host_path, files);
      FreePodDir(root, 1, root);
    }
    return files;
  }

  void Download(app::Transfers &transfers, const TransferItem &item, uint64_t size) {
    const app::DownloadJob job{item.device_path.toStdString(), item.host_path.toStdString(), size, -1};
    Count(transfers, transfers.Download(job), item.device_path);
  }

  // The shared upload writes a temporary name beside the target and
  // renames it into place once whole.
  void Upload(app::Transfers &transfers, const TransferItem &item, uint64_t size) {
    const QString target = SafeDevicePath(item.device_path);
    if (target.isEmpty()) {
      Fail(item.device_path, {TARN_E_INVALID_ARGUMENT, QObject::tr("%1 is no place for a file.").arg(item.device_path)});
      return;
    }
    const std::string parent = QFileInfo(target).path().toStdString();
    if (!session_.Stat(parent).is_dir) MakeDir(session_.device(), parent.c_str());
    Count(transfers, transfers.Upload(item.host_path.toStdString(), target.toStdString(), size), item.host_path);
  }

  void Count(const app::Transfers &transfers, app::Outcome outcome, const QString &path) {
    if (outcome == app::Outcome::kCopied) ++result_.copied;
    else if (outcome == app::Outcome::kSkipped) ++result_.skipped;
    else if (outcome == app::Outcome::kCancelled) result_.cancelled = true;
    else Fail(path, LastReason(udid_, Q(transfers.last_failure())));
  }

  void Fail(const QString &path, const Reason &reason) {
    result_.failed << path + QStringLiteral(": ") + reason.text;
    if (!result_.reason.failed()) result_.reason = reason;
  }
  app::Session &session() { return session_; }

 private:
  void Walk(PodDir *dir, const QString &host, std::vector<std::pair<TransferItem, uint64_t>> &files) {
    for (PodFile *f = dir->first_file; f != nullptr; f = f->next_file)
      if (UsableName(f->name))
        files.push_back({{QString::fromUtf8(f->path), host + '/' + QString::fromUtf8(f->name), false},
                         f->size != nullptr ? std::strtoull(f->size, nullptr, 10) : 0});
    for (PodDir *d = dir->first_dir; d != nullptr; d = d->next_dir)
      if (UsableName(d->name)) Walk(d, host + '/' + QString::fromUtf8(d->name), files);
  }

  QString udid_;
  TransferResult &result_;
  app::Session session_;
};

TransferResult RunCopies(const QString &udid, bool upload, const std::vector<TransferItem> &items,
                         Transfer::State &state) {
  TransferResult result;
  try {
    Copier copier(udid, result);
    const auto files = copier.Expand(items, upload);
    uint64_t total = 0;
    for (const auto &f : files) total += f.second;
    state.total = total;
    app::Transfers transfers(copier.session(), total, files.size(), HooksFor(state), upload);
    for (const auto &[item, size] : files) {
      if (state.cancel) {
        result.cancelled = true;
        break;
      }
      try {
        if (upload) copier.Upload(transfers, item, size);
        else copier.Download(transfers, item, size);
      } catch (const app::Failure &failure) {
        copier.Fail(upload ? item.host_path : item.device_path, FromFailure(failure));
      }
      // A device that went away fails every file after it the same way.
      if (result.reason.code == TARN_E_NO_DEVICE || result.cancelled) break;
    }
    result.bytes = transfers.bytes_copied();
  } catch (const app::Failure &failure) {
    result.reason = FromFailure(failure);
    if (result.reason.code == TARN_OK) result.reason = LastReason(udid, result.reason.text);
  }
  return result;
}

TransferResult RunExport(const QString &udid, const app::ExportRequest &request, Transfer::State &state) {
  TransferResult result;
  try {
    app::Session session(SessionFor(udid), udid.toStdString());
    session.InitCatalogue();
    const app::ExportReport report = app::Export(session, request, HooksFor(state));
    result.copied = static_cast<int>(report.copied);
    result.skipped = static_cast<int>(report.skipped);
    result.bytes = report.bytes;
    result.cancelled = report.cancelled;
    for (const std::string &path : report.failed) result.failed << Q(path);
    for (const std::string &note : report.notes) result.notes << Q(note);
    for (const std::string &rel : report.files) result.files << Q(request.host_dir + "/" + rel);
    if (report.nothing_listed) result.notes << QObject::tr("nothing of this kind on the device");
    if (!report.failed.empty()) result.reason = LastReason(udid, QObject::tr("Some files could not be copied."));
  } catch (const app::Failure &failure) {
    result.reason = FromFailure(failure);
  }
  return result;
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

Transfer::~Transfer() { state_->cancel = true; }

void Transfer::Start() {
  running_ = true;
  tick_.start();
  std::shared_ptr<State> state = state_;
  const Direction direction = direction_;
  RunInBackground(
      this,
      [udid = udid_, direction, items = items_, request = request_, state] {
        if (direction == Direction::kExport) return RunExport(udid, request, *state);
        return RunCopies(udid, direction == Direction::kUpload, items, *state);
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
