// File transfer between device and host: single files both ways with
// progress and cancel, and whole device directory trees to the host.
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/connection.h"
#include "common/console.h"
#include "common/error.h"
#include "common/helpers.h"
#include "common/number.h"
#include "common/raii.h"
#include "devicefs/transfer.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"

namespace {

using tarn::kBlockSize;

void *UserData(const PodDevice *device) { return device ? device->userData : nullptr; }

// The blocks go straight between our buffer and the host file: stdio's own
// buffer would only add a copy of every block (and split each write in two).
tarn::HostFile OpenHostFile(const char *path, const char *mode) {
  tarn::HostFile file(path ? std::fopen(path, mode) : nullptr);
  if (file) std::setvbuf(file.get(), nullptr, _IONBF, 0);
  return file;
}

// Writes a download's blocks to the host file on a thread of its own, so
// that the device is already asked for the next block while the last one
// goes to disk: a download otherwise waits for the device and for the host
// disk in turn, and almost all of its time is spent in those two kernels
// (the copy itself costs nothing measurable). Two buffers are enough: the
// reader fills one while the other is written. Uploads gain nothing from
// the same: reading the host file ahead costs next to nothing beside the
// device's write of each block and its answer (measured: no change). The library's reasons are
// kept per thread, so the writer only records errno and the reader reports.
class HostWriter {
 public:
  explicit HostWriter(FILE *file) : file_(file) {
    for (auto &b : buffers_) b.reset(new char[kBlockSize]);
    free_ = {buffers_[0].get(), buffers_[1].get()};
    thread_ = std::thread([this] { Run(); });
  }
  ~HostWriter() { Finish(); }
  HostWriter(const HostWriter &) = delete;
  HostWriter &operator=(const HostWriter &) = delete;

  // A buffer to fill, once one is free; nullptr after a failed write.
  char *Take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return error_ != 0 || !free_.empty(); });
    if (error_ != 0) return nullptr;
    char *b = free_.back();
    free_.pop_back();
    return b;
  }
  void Give(char *buffer, uint32_t size) {
    {
      const std::lock_guard lock(mutex_);
      queue_.push_back({buffer, size});
    }
    changed_.notify_all();
  }
  // Gives back a buffer taken but not filled.
  void Return(char *buffer) {
    {
      const std::lock_guard lock(mutex_);
      free_.push_back(buffer);
    }
    changed_.notify_all();
  }
  // Bytes written so far; read after Finish.
  uint64_t written() const { return written_; }
  // Waits until every block given is written; 0, or the errno of the first
  // write that failed (nothing is written after it).
  int Finish() {
    {
      const std::lock_guard lock(mutex_);
      closing_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable()) thread_.join();
    return error_;
  }

 private:
  struct Block {
    char *data;
    uint32_t size;
  };
  void Run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return closing_ || !queue_.empty(); });
      if (queue_.empty()) return;
      const Block b = queue_.front();
      queue_.erase(queue_.begin());
      int failed = 0;
      if (error_ == 0) {
        lock.unlock();
        if (std::fwrite(b.data, 1, b.size, file_) != b.size) failed = errno != 0 ? errno : EIO;
        lock.lock();
      }
      if (failed != 0)
        error_ = failed;
      else if (error_ == 0)
        written_ += b.size;
      free_.push_back(b.data);
      changed_.notify_all();
    }
  }

  FILE *file_;
  std::unique_ptr<char[]> buffers_[2];
  std::vector<char *> free_;
  std::vector<Block> queue_;
  int error_ = 0;
  uint64_t written_ = 0;
  bool closing_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

// The download proper, for a device file whose size is already known: the
// directory copy has just asked the device about the file and does not ask
// again. True when the device file was read to its end and all of it was
// written.
bool Download(PodDevice *device, afc_client_t client, const char *device_path, const char *host_path,
              uint64_t total, PodProgressCallback progress, uint64_t most = UINT64_MAX) {
  tarn::Console("block_size: %ul\n", kBlockSize);
  const auto too_large = [&](uint64_t done) {
    // Appended piece by piece: GCC 12 at -O2 takes the chain of + for an
    // overlapping copy (-Wrestrict).
    std::string why = "\"";
    why += device_path;
    why += "\" holds more than the ";
    why += std::to_string(most);
    why += " bytes such a file may have; it is not copied.";
    tarn::SetError(TARN_E_DEVICE, why, {done, total});
  };
  if (total > most) {
    too_large(0);
    tarn::ConsoleLine("finish _CopyFile");
    return false;
  }
  tarn::AfcFile source(client, device_path, AFC_FOPEN_RDONLY);
  if (!source.is_open()) {
    tarn::ConsoleLine("finish _CopyFile");
    return false;
  }
  // A host path that cannot be created (missing or read-only directory) ends
  // the transfer before it starts, like a device file that cannot be opened.
  tarn::HostFile target = OpenHostFile(host_path, "wb");
  if (!target) {
    tarn::SetHostError(host_path ? errno : EINVAL, host_path);
    tarn::ConsoleLine("finish _CopyFile");
    return false;
  }
  // A file of one block gains nothing from a second thread; a directory of
  // small files would pay for one per file.
  std::unique_ptr<HostWriter> writer;
  std::unique_ptr<char[]> own;
  if (total > kBlockSize)
    writer = std::make_unique<HostWriter>(target.get());
  else
    own.reset(new char[kBlockSize]);
  void *user = UserData(device);
  uint64_t done = 0;
  bool cancelled = false, whole = false;
  int write_error = 0;
  for (;;) {
    // Only the bytes each read delivers are used, so a buffer needs no
    // clearing between blocks.
    char *buffer = writer ? writer->Take() : own.get();
    if (buffer == nullptr) break;  // the writer failed: reported below
    uint32_t got = 0;
    const afc_error_t err = afc_file_read(client, source.handle(), buffer, kBlockSize, &got);
    bool stop = false;
    if (err != AFC_E_SUCCESS) {
      tarn::SetAfcError(err, device_path, {done, total});
      stop = true;
    } else if (got == 0) {
      whole = true;
      if (done < total)
        tarn::SetError(TARN_E_SHORT_COPY,
                       "The copy of \"" + std::string(device_path) + "\" ended after " + std::to_string(done) +
                           " of its " + std::to_string(total) + " bytes: the file changed on the device while it "
                           "was copied; copy it again.",
                       {done, total});
      stop = true;
    } else if (got > kBlockSize) {
      // More than was asked for is no answer a device in order gives.
      tarn::SetAfcError(AFC_E_TOO_MUCH_DATA, device_path, {done, total});
      stop = true;
    } else if (got > most - done) {
      // A file that grows past its bound while it is read stops there.
      too_large(done);
      stop = true;
    }
    if (stop) {
      if (writer) writer->Return(buffer);
      break;
    }
    if (writer) {
      writer->Give(buffer, got);
    } else if (std::fwrite(buffer, 1, got, target.get()) != got) {
      // A full host disk ends the copy like a read error does.
      write_error = errno != 0 ? errno : EIO;
      break;
    }
    done += got;
    if (progress && progress(total, done, 0, user) != 0) {
      tarn::SetError(TARN_E_CANCELLED, "The copy of \"" + std::string(device_path) + "\" was cancelled.",
                     {done, total});
      cancelled = true;
      break;
    }
  }
  if (writer && write_error == 0 && (write_error = writer->Finish()) != 0) done = writer->written();
  if (write_error != 0) {
    // The blocks after the one that failed were read but never written.
    tarn::SetHostError(write_error, host_path, {done, total});
    whole = false;
  }
  writer.reset();
  // The final call also follows a read error: the caller learns that the
  // transfer is over, and compares done with total to see how it ended.
  if (progress && !cancelled) progress(total, done, 1, user);
  source.close();
  // Closing flushes nothing (the file is unbuffered), but a failed close
  // still means the host may not hold every byte.
  if (std::fclose(target.release()) != 0) {
    tarn::SetHostError(errno, host_path, {done, total});
    whole = false;
  }
  tarn::ConsoleLine("finish _CopyFile");
  return whole;
}

// Copies a directory tree below the entry that _CopyDirectory started with.
// The host directories being filled form a stack that follows the walk.
class TreeCopier {
 public:
  TreeCopier(PodDevice *device, afc_client_t client) : device_(device), client_(client) {}

  // Copies one entry whose information is known. Returns true for a
  // directory, whose host counterpart then receives the entries below it.
  bool Copy(const std::string &source, const std::string &target, char **info) {
    tarn::Console("file_info[0] %s\n", tarn::NullSafe(info[TARN_INFO_KIND]));
    if (info[TARN_INFO_KIND] == nullptr) return false;
    if (!tarn::IsDirInfo(info)) {
      tarn::Console("copy file from: %s\n", source.c_str());
      tarn::Console("copy file to: %s\n", target.c_str());
      const char *size = info[TARN_INFO_SIZE];
      Download(device_, client_, source.c_str(), target.c_str(), tarn::DeviceNumber(size),
               nullptr);
      tarn::ConsoleLine("finish copy file1");
      tarn::ConsoleLine("finish copy file2");
      return false;
    }
    tarn::Console("Mkdir %s\n", target.c_str());
    // A directory that cannot be made shows up as failed file creations
    // below it; there is nothing more useful to do with the error here.
    tarn::Mkdir(target.c_str());
    tarn::ConsoleText("afc_read_directory ");
    targets_.push_back(target);
    return true;
  }

  bool Enter(const tarn::WalkEntry &e) {
    // Listed names are walkable (no '/', not "." or ".."), so the target
    // stays inside the host directory the copy was given.
    const std::string target = tarn::ChildPath(targets_.back(), e.name, tarn::PathJoin::kConcatFilePath);
    tarn::Console("from is %s\n", e.path.c_str());
    tarn::Console("to is %s\n", target.c_str());
    return Copy(e.path, target, e.info);
  }

  void Leave(const tarn::WalkEntry &e, bool listed) {
    if (!e.is_dir) return;
    targets_.pop_back();
    if (listed) tarn::ConsoleText("free(from) ");
  }

 private:
  PodDevice *device_;
  afc_client_t client_;
  std::vector<std::string> targets_;
};

}  // namespace

namespace tarn {

bool DownloadWhole(PodDevice *device, afc_client_t client, const char *device_path, const char *host_path,
                   PodProgressCallback progress, uint64_t most) {
  FileInfo info(tarn::GetFileInfo(client, device_path));
  if (info.get()[TARN_INFO_KIND] == nullptr) {
    // A device that answers without saying what the path is.
    if (CurrentCode() == TARN_OK) SetAfcError(AFC_E_OBJECT_NOT_FOUND, device_path);
    return false;
  }
  const char *size = info.get()[TARN_INFO_SIZE];
  const uint64_t total = tarn::DeviceNumber(size);
  info.reset();
  return Download(device, client, device_path, host_path, total, progress, most);
}

}  // namespace tarn

namespace tarn {

void _CopyFileFromDeviceToNative(PodDevice *device, afc_client_t client, const char *device_path, const char *host_path,
                                 PodProgressCallback progress) {
  tarn::DownloadWhole(device, client, device_path, host_path, progress);
}

void _TarnCopyFileFromNativeToDevice(PodDevice *device, afc_client_t client, const char *host_path,
                                     const char *device_path, PodProgressCallback progress) {
  const uint64_t total = static_cast<uint64_t>(tarn::WGetFileSize(host_path));
  tarn::HostFile source = OpenHostFile(host_path, "rb");
  if (!source) {
    tarn::SetHostError(host_path ? errno : EINVAL, host_path);
    tarn::Console("can't read file %s\n", host_path ? host_path : "(null)");
    return;
  }
  tarn::AfcFile target(client, device_path, AFC_FOPEN_WRONLY);
  if (!target.is_open()) return;
  const std::unique_ptr<char[]> buffer(new char[kBlockSize]);
  void *user = UserData(device);
  uint64_t done = 0;
  uint32_t last = 0;
  bool cancelled = false;
  // A file that ends exactly on a block boundary is only seen to end by one
  // more read of zero bytes; that empty block is written and reported too,
  // as callers have always received it.
  while (!std::feof(source.get())) {
    const size_t n = std::fread(buffer.get(), 1, kBlockSize, source.get());
    if (n < kBlockSize && std::ferror(source.get())) {
      tarn::SetHostError(errno, host_path, {done, total});
      break;
    }
    uint32_t written = 0;
    const afc_error_t err =
        afc_file_write(client, target.handle(), buffer.get(), static_cast<uint32_t>(n), &written);
    if (err != AFC_E_SUCCESS || written > n) {
      // More written than sent is what a connection lost in mid-write
      // reports; it is an error like any other.
      tarn::SetAfcError(err != AFC_E_SUCCESS ? err : AFC_E_MUX_ERROR, device_path, {done, total});
      last = 0;
      break;
    }
    last = written;
    done += written;
    if (progress && progress(total, done, 0, user) != 0) {
      tarn::SetError(TARN_E_CANCELLED, "The copy to \"" + std::string(device_path) + "\" was cancelled.",
                     {done, total});
      cancelled = true;
      break;
    }
  }
  target.close();
  source.reset();
  // The final call carries the last block alone, not the running total;
  // callers take it only as the signal that the upload ended.
  if (progress && !cancelled) progress(total, last, 1, user);
}

void _CopyDirectory(PodDevice *device, afc_client_t client, const char *device_parent, const char *name,
                    const char *host_parent) {
  // An empty name copies the parent itself (the start of a directory copy);
  // any other name must be one a walk could have listed.
  // Without both directories there is nothing to copy from or into; an empty
  // host directory would otherwise become the host's root.
  if (name == nullptr || (name[0] != '\0' && !tarn::IsWalkableName(name)) || device_parent == nullptr ||
      host_parent == nullptr || device_parent[0] == '\0' || host_parent[0] == '\0') {
    tarn::SetError(TARN_E_INVALID_ARGUMENT,
                   "A directory copy needs a device directory, a usable name and a host directory.");
    return;
  }
  const std::string source = tarn::StartDirectory(device_parent, name);
  const std::string target = tarn::StartDirectory(host_parent, name);
  tarn::Console("from is %s\n", source.c_str());
  tarn::Console("to is %s\n", target.c_str());
  tarn::FileInfo info(tarn::GetFileInfo(client, source.c_str()));
  TreeCopier copier(device, client);
  if (!copier.Copy(source, target, info.get())) return;
  info.reset();
  if (tarn::WalkDirectory(client, source, 0, copier, tarn::PathJoin::kConcatFilePath))
    tarn::ConsoleText("free(from) ");
}

}  // namespace tarn

extern "C" {

TARN_API void _CopyFileFromDeviceToNative(PodDevice *device, afc_client_t client, const char *device_path,
                                          const char *host_path, PodProgressCallback progress) {
  const tarn::ApiCall api_call;
  tarn::_CopyFileFromDeviceToNative(device, client, device_path, host_path, progress);
}

TARN_API void CopyFileFromDeviceToNative(PodDevice *device, const char *device_path, const char *host_path,
                                         PodProgressCallback progress) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("CopyDeviceFile");
  {
    const tarn::DeviceCall call(device, tarn::PolicyOf("CopyFileFromDeviceToNative"));
    if (!call.ready()) return;
    tarn::_CopyFileFromDeviceToNative(device, call.afc(), device_path, host_path, progress);
  }
  tarn::ConsoleLine("finish CopyDeviceFile");
}

TARN_API void _TarnCopyFileFromNativeToDevice(PodDevice *device, afc_client_t client, const char *host_path,
                                              const char *device_path, PodProgressCallback progress) {
  const tarn::ApiCall api_call;
  tarn::_TarnCopyFileFromNativeToDevice(device, client, host_path, device_path, progress);
}

TARN_API int CopyFileFromNativeToDevice(PodDevice *device, const char *host_path, const char *device_path,
                                        PodProgressCallback progress) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("CopyFileFromNativeToDevice");
  const tarn::DeviceCall call(device, tarn::PolicyOf("CopyFileFromNativeToDevice"));
  if (!call.ready()) return 1;
  tarn::_TarnCopyFileFromNativeToDevice(device, call.afc(), host_path, device_path, progress);
  return 0;
}

TARN_API void _CopyDirectory(PodDevice *device, afc_client_t client, const char *device_parent, const char *name,
                             const char *host_parent) {
  const tarn::ApiCall api_call;
  tarn::_CopyDirectory(device, client, device_parent, name, host_parent);
}

TARN_API void CopyDeviceDirectory(PodDevice *device, const char *device_dir, const char *host_dir) {
  const tarn::ApiCall api_call;
  tarn::ConsoleLine("CopyDeviceDirectory");
  // Neither a failed connection nor a lock file that cannot be opened stops
  // the copy: it then reads nothing, or reads without the lock.
  const tarn::DeviceCall call(device, tarn::PolicyOf("CopyDeviceDirectory"));
  tarn::_CopyDirectory(device, call.afc(), device_dir, "", host_dir);
}

}  // extern "C"
