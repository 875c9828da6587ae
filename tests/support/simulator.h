// Test fixture that runs the device simulator (tarn-devsim) on a private
// socket for the lifetime of the object.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "images.h"

namespace tarn::testing {

// An environment variable set for the lifetime of the object, then put back
// as it was.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, const std::string& value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> old_;
};

// One simulated device: an image directory made by tarn-mkimage (or by hand:
// "<image>/media" is the file-conduit root, "<image>/device.json" the
// optional description) plus start options, "key=value" each, which override
// the description (udid=..., and every fault switch below).
struct SimDevice {
  std::string image;
  std::string udid;
  std::vector<std::string> options;
};

// Live counters of one device, read while the simulator runs.
struct SimStats {
  std::map<std::string, uint64_t> requests;  // file-conduit operation name -> count
  int connections_open = 0;  // usbmux connections to the device open now
  int files_open = 0;        // file-conduit file handles open now
  int locks_held = 0;        // file-conduit locks held now
  uint64_t tls_sessions = 0;  // lockdown sessions that completed a TLS handshake
  uint64_t total(const std::string& op) const {
    auto it = requests.find(op);
    return it == requests.end() ? 0 : it->second;
  }
};

// One logged file-conduit request.
struct SimRequest {
  std::string op;    // operation name, as in SimStats::requests
  std::string path;  // first path argument, empty when the request has none
};

class Simulator {
 public:
  // Starts tarn-devsim with the given devices, waits for its ready line and,
  // when set_env is true, points USBMUXD_SOCKET_ADDRESS at its socket.
  explicit Simulator(const std::vector<SimDevice>& devices = {}, bool set_env = true);
  ~Simulator();  // stops the simulator (SIGTERM) and waits for it
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  const std::string& socket_path() const;
  std::string env_value() const;  // "UNIX:<socket path>"

  // Fault switches and options, as "key=value"; see tarn-devsim --help.
  void set_option(const std::string& udid, const std::string& key, const std::string& value);
  void clear_faults(const std::string& udid);

  void attach(const SimDevice& device);
  void detach(const std::string& udid);

  SimStats stats(const std::string& udid);
  // Stats once the device holds no connection, file handle or lock, or the
  // last stats read after about a second. The simulator notices a closed
  // socket only when it next polls, so a check right after a call would race.
  SimStats idle_stats(const std::string& udid);
  void reset_stats(const std::string& udid);
  void enable_log(const std::string& udid, bool on);
  std::vector<SimRequest> request_log(const std::string& udid);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Points USBMUXD_SOCKET_ADDRESS, for its lifetime, at a socket path where
// nothing listens: what clients meet on a host without usbmuxd.
class NoUsbmux {
 public:
  NoUsbmux();

 private:
  TempDir dir_;
  ScopedEnv env_;
};

}  // namespace tarn::testing
