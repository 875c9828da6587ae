// One piece of work's hold on one device: the chosen identifier, the library's
// handle, a file-conduit connection of the tool's own for the questions it
// asks before and after each operation, and the catalogue initialisation.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <tarn/tarn_device.h>

#include "common/failure.h"

namespace tarn::app {

struct SessionOptions {
  std::string udid;     // empty: the only device attached
  std::string workdir;  // empty: the per-device cache directory
  bool refresh = false;  // drop the database copies first
};

// What the device says about one path (the file-information vector, parsed).
struct PathInfo {
  bool exists = false;
  bool is_dir = false;
  std::string kind;  // "S_IFREG", "S_IFDIR", "S_IFLNK", ...
  uint64_t size = 0;
  int64_t mtime = 0;  // seconds
  int64_t birthtime = 0;
  uint64_t blocks = 0;
};

// The identifiers of the attached devices; empty when there are none.
std::vector<std::string> AttachedDevices();

// Picks the device of -u, or the only one attached; fails with the
// matching exit code otherwise.
std::string ChooseDevice(const SessionOptions &options);

// The host working directory for a device's database copies.
std::string WorkDirFor(const SessionOptions &options, const std::string &udid);

class Session {
 public:
  Session(const SessionOptions &options, std::string udid);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  PodDevice *device() const { return device_.get(); }
  const std::string &udid() const { return udid_; }
  const SessionOptions &options() const { return options_; }

  // Opens the tool's own connection; fails with kUnreachable when the
  // device refuses the handshake or the file conduit.
  void Connect();
  PathInfo Stat(const std::string &device_path);
  // Stat that fails with kNotOnDevice when the path does not exist.
  PathInfo Require(const std::string &device_path);

  // InitDevice over the working directory (emptied first with --refresh).
  void InitCatalogue();

 private:
  struct DeviceDeleter {
    void operator()(PodDevice *d) const;
  };
  SessionOptions options_;
  std::string udid_;
  std::unique_ptr<PodDevice, DeviceDeleter> device_;
  idevice_t idevice_ = nullptr;
  afc_client_t afc_ = nullptr;
};

}  // namespace tarn::app
