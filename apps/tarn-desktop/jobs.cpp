#include "jobs.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

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
  if (cancelled) text += QObject::tr(", cancelled");
  if (!failed.isEmpty()) text += QObject::tr(", %n failed", nullptr, static_cast<int>(failed.size()));
  if (reason.failed()) text += QStringLiteral(". ") + reason.text();
  return text;
}

namespace {

struct FileInfo {
  bool exists = false;
  bool is_dir = false;
  uint64_t size = 0;
};

FileInfo Stat(PodDevice *device, const QString &path) {
  FileInfo info;
  char **v = GetDirOrFileInfo(device, path.toUtf8().constData());
  if (v == nullptr) return info;
  if (v[0] != nullptr) {
    info.exists = true;
    info.is_dir = qstrcmp(v[0], "S_IFDIR") == 0;
    info.size = v[1] != nullptr ? std::strtoull(v[1], nullptr, 10) : 0;
  }
  // Slots after a missing one would be leaked by g_strfreev.
  for (int i = 0; i < 5; ++i) g_free(v[i]);
  g_free(v);
  return info;
}

int OnProgress(uint64_t, uint64_t done, int finished, void *user_data) {
  auto *state = static_cast<Transfer::State *>(user_data);
  if (state == nullptr) return 0;
  // An upload's final call carries the last block alone, not the total.
  if (!(state->upload && finished)) state->done = state->base + done;
  return state->cancel && !finished ? 1 : 0;
}

// A name the device sends becomes one host path component only when it
// cannot climb out of the folder it is written to.
bool UsableName(const char *name) {
  return name != nullptr && name[0] != '\0' && qstrcmp(name, ".") != 0 && qstrcmp(name, "..") != 0 &&
         std::strchr(name, '/') == nullptr;
}

class Worker {
 public:
  Worker(const QString &udid, Transfer::State &state, TransferResult &result)
      : udid_(udid), state_(state), result_(result), device_(HandleFor(udid)) {
    device_->userData = &state_;
  }
  ~Worker() { device_->userData = nullptr; }

  // Turns folders into their files, so that the total is known up front.
  std::vector<std::pair<TransferItem, uint64_t>> Expand(const std::vector<TransferItem> &items, bool upload) {
    std::vector<std::pair<TransferItem, uint64_t>> files;
    for (const TransferItem &item : items) {
      if (upload) {
        QFileInfo host(item.host_path);
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
      const FileInfo info = Stat(device_.get(), item.device_path);
      if (!info.is_dir) {
        files.push_back({item, info.size});
        continue;
      }
      PodDir *root = GetPodDir(device_.get(), item.device_path.toUtf8().constData(), 0);
      if (root == nullptr) {
        Fail(item.device_path, tr("The folder cannot be read."));
        continue;
      }
      Walk(root, item.host_path, files);
      FreePodDir(root, 1, root);
    }
    return files;
  }

  void Download(const TransferItem &item, uint64_t expected) {
    const QString partial = item.host_path + QStringLiteral(".tarn-part");
    QDir().mkpath(QFileInfo(item.host_path).path());
    {
      QFile probe(partial);
      if (!probe.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        Fail(item.host_path, tr("This computer refused to write the file (%1).").arg(probe.errorString()),
             TARN_E_HOST_IO);
        return;
      }
    }
    SetCurrent(item.device_path);
    CopyFileFromDeviceToNative(device_.get(), item.device_path.toUtf8().constData(), partial.toUtf8().constData(),
                               OnProgress);
    const Reason why = LastReason(udid_, tr("The copy of %1 ended early.").arg(item.device_path));
    const uint64_t got = static_cast<uint64_t>(QFileInfo(partial).size());
    if (state_.cancel || got != expected) {
      QFile::remove(partial);
      if (state_.cancel) result_.cancelled = true;
      else Fail(item.device_path, why);
      return;
    }
    QFile::remove(item.host_path);
    if (!QFile::rename(partial, item.host_path)) {
      QFile::remove(partial);
      Fail(item.host_path, tr("The finished copy could not be put in place."), TARN_E_HOST_IO);
      return;
    }
    Done(expected);
  }

  void Upload(const TransferItem &item, uint64_t expected) {
    const QString target = SafeDevicePath(item.device_path);
    if (target.isEmpty()) {
      Fail(item.device_path, tr("That is not a place on the device a file can go."), TARN_E_INVALID_ARGUMENT);
      return;
    }
    const QString partial = target + QStringLiteral(".tarn-part");
    const QByteArray parent = QFileInfo(target).path().toUtf8();
    if (IsDirExist(device_.get(), parent.constData()) == 0) MakeDir(device_.get(), parent.constData());
    SetCurrent(item.host_path);
    const int status = CopyFileFromNativeToDevice(device_.get(), item.host_path.toUtf8().constData(),
                                                  partial.toUtf8().constData(), OnProgress);
    const Reason why = LastReason(udid_, tr("The copy of %1 ended early.").arg(item.host_path));
    if (state_.cancel) {
      DeleteFile(device_.get(), partial.toUtf8().constData());
      result_.cancelled = true;
      return;
    }
    const FileInfo info = status == 0 ? Stat(device_.get(), partial) : FileInfo{};
    if (!info.exists || info.size != expected) {
      DeleteFile(device_.get(), partial.toUtf8().constData());
      Fail(item.host_path, why);
      return;
    }
    RenamePath(device_.get(), partial.toUtf8().constData(), target.toUtf8().constData());
    const FileInfo placed = Stat(device_.get(), target);
    if (!placed.exists || placed.size != expected) {
      Fail(target, LastReason(udid_, tr("The finished copy could not be put in place.")));
      return;
    }
    Done(expected);
  }

 private:
  static QString tr(const char *text) { return QObject::tr(text); }

  void Walk(PodDir *dir, const QString &host, std::vector<std::pair<TransferItem, uint64_t>> &files) {
    for (PodFile *f = dir->first_file; f != nullptr; f = f->next_file)
      if (UsableName(f->name))
        files.push_back({{QString::fromUtf8(f->path), host + '/' + QString::fromUtf8(f->name), false},
                         f->size != nullptr ? std::strtoull(f->size, nullptr, 10) : 0});
    for (PodDir *d = dir->first_dir; d != nullptr; d = d->next_dir)
      if (UsableName(d->name)) Walk(d, host + '/' + QString::fromUtf8(d->name), files);
  }

  void SetCurrent(const QString &path) {
    QMutexLocker lock(&state_.mutex);
    state_.current = path;
  }
  void Done(uint64_t bytes) {
    ++result_.copied;
    result_.bytes += bytes;
    state_.base += bytes;
    state_.done = state_.base;
  }
  void Fail(const QString &path, const QString &what, int code = 0) {
    Reason reason;
    reason.code = code;
    reason.what = what;
    Fail(path, reason);
  }
  void Fail(const QString &path, const Reason &reason) {
    result_.failed << path + QStringLiteral(": ") + reason.text();
    if (!result_.reason.failed()) result_.reason = reason;
  }

  QString udid_;
  Transfer::State &state_;
  TransferResult &result_;
  DevicePtr device_;
};

TransferResult Run(const QString &udid, bool upload, const std::vector<TransferItem> &items, Transfer::State &state) {
  TransferResult result;
  state.upload = upload;
  Worker worker(udid, state, result);
  const auto files = worker.Expand(items, upload);
  uint64_t total = 0;
  for (const auto &f : files) total += f.second;
  state.total = total;
  for (const auto &[item, size] : files) {
    if (state.cancel) {
      result.cancelled = true;
      break;
    }
    if (upload) worker.Upload(item, size);
    else worker.Download(item, size);
    // A device that went away fails every file after it the same way.
    if (result.reason.code == TARN_E_NO_DEVICE) break;
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

Transfer::~Transfer() { state_->cancel = true; }

void Transfer::Start() {
  running_ = true;
  tick_.start();
  std::shared_ptr<State> state = state_;
  const bool upload = direction_ == Direction::kUpload;
  RunInBackground(
      this, [udid = udid_, upload, items = items_, state] { return Run(udid, upload, items, *state); },
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
