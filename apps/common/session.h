// One piece of work's hold on one device: the chosen identifier, the library's
// handle, a file-conduit connection of the tool's own for the questions it
// asks before and after each operation, and the catalogue initialisation.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <tarn/tarn_device.h>

#include "apps/common/failure.h"

namespace tarn::app {

struct SessionOptions {
  std::string udid;     // empty: the only device attached
  std::string workdir;  // empty: the per-device cache directory
  bool refresh = false;  // drop the database copies first
  std::string app;       // empty: the media partition; else the bundle identifier whose Documents to reach
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

// Called first thing by every program: libusbmuxd writes to the device's
// socket with plain send(), so a device unplugged in mid-transfer would end
// the program with SIGPIPE before it could remove its temporary files.
// Ignored, the write fails instead and the library reports a lost connection.
void IgnoreBrokenPipes();

// The identifiers of the attached devices; empty when there are none, and
// then `why_none` (when given) says so if usbmuxd cannot be reached.
std::vector<std::string> AttachedDevices(std::string *why_none = nullptr);

// FromLastError() about a device: when the library recorded nothing and
// the device is no longer attached, that is the likeliest cause and the one
// a person can fix.
Failure WhyFailed(const std::string &udid, int fallback, const std::string &what);

// Picks the device of -u, or the only one attached; fails with the
// matching exit code otherwise.
std::string ChooseDevice(const SessionOptions &options);

// The name the person gave a device, asked without a secure session; empty
// when the device does not answer.
std::string DeviceName(const std::string &udid);

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
  PathInfo StatIn(afc_client_t client, const std::string &device_path);
  // Where a symbolic link points; empty for anything else.
  std::string LinkTarget(const std::string &device_path);

  // Holds one connection on the handle (TarnHoldConnection) for every
  // library call the session makes from then on; fails with the status of
  // the library's reason (kUnreachable when it gives none) when the device
  // refuses the handshake or the file conduit.
  void Connect();
  // Lets the held connection go (one that broke); the next call of
  // Connect() holds a new one.
  void Disconnect();
  // The held connection's file-conduit client, for batches of work over one
  // connection with the library's workers that take a client.
  afc_client_t client();
  // Whether the session's connection still answers.
  bool Alive();
  // Whether another computer holds the device's sync lock now.
  bool Syncing();
  // Fails with kBusy when another computer holds the device's sync lock,
  // so that nothing is written beside its sync.
  void RefuseWhileSyncing();
  PathInfo Stat(const std::string &device_path);
  // Stat that fails with kNotOnDevice when the path does not exist.
  PathInfo Require(const std::string &device_path);

  // InitDevice over the working directory (emptied first with --refresh).
  void InitCatalogue();

 private:
  std::map<std::string, std::pair<uint64_t, int64_t>> DatabaseStates();
  struct DeviceDeleter {
    void operator()(PodDevice *d) const;
  };
  SessionOptions options_;
  std::string udid_;
  std::unique_ptr<PodDevice, DeviceDeleter> device_;
};

}  // namespace tarn::app
