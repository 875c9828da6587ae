// One simulated device: its image, its lockdown values, its fault switches
// and its live counters.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tls.h"
#include "util.h"

namespace devsim {

// File-conduit operations as counted in the statistics. Tests name them by
// these strings, so the spelling is part of the control interface.
enum class Op : int {
  GetDeviceInfo,
  GetFileInfo,
  ReadDirectory,
  FileOpen,
  FileRead,
  FileWrite,
  FileSeek,
  FileTell,
  FileClose,
  FileLock,
  FileSetSize,
  MakeDir,
  RemovePath,
  RenamePath,
  Other,
  Count
};
const char* op_name(Op op);

// Fault switches. Replaced as a whole (copy on write) so that a connection
// can keep a consistent snapshot without locking on every request.
struct Faults {
  bool refuse_handshake = false;
  bool refuse_afc = false;
  std::vector<std::pair<uint64_t, std::string>> afc_errors;  // code, fnmatch pattern
  uint64_t drop_after_requests = 0;                          // 0: never
  uint64_t drop_after_bytes = 0;                             // 0: never
  uint64_t latency_us = 0;
  uint64_t max_files = 256;
  // The states of a real phone (see the README for what each answers).
  bool ssl = true;
  bool ssl_fail = false;
  bool locked = false;
  bool stale_pairing = false;
  bool syncing = false;
  bool sorted_listing = false;  // the old byte-wise order, for callers not yet order-free
  std::string pair_answer = "pending";
  uint64_t handshake_delay_us = 0;
  uint64_t stall_after_requests = 0;  // 0: never
  uint64_t browse_page = 20;          // apps per installation_proxy Browse answer
};

// An installed app as installation_proxy lists it, with what the simulator
// keeps for it beside its attributes.
struct App {
  std::string id;               // CFBundleIdentifier
  Plist attributes;             // the dictionary Browse answers (every key the description gives)
  bool file_sharing = false;    // UIFileSharingEnabled: VendDocuments is answered
  bool developer = false;       // Entitlements get-task-allow: VendContainer is answered
  std::string container;        // IMAGE/apps/ID, the root its file conduit serves
  std::string icon;             // IMAGE/icons/ID.png, may be missing
};

struct LogEntry {
  Op op;
  std::string path;
};

class Device {
 public:
  // Loads "<image>/device.json" when present. Throws std::runtime_error with
  // a readable message on a bad image or description.
  Device(std::string image, uint32_t mux_id);

  // Applies one start or runtime option ("udid" only before attaching).
  // Returns an empty string on success, else the reason.
  std::string set_option(const std::string& key, const std::string& value, bool running);
  void clear_faults();

  const std::string& udid() const { return udid_; }
  const std::string& image() const { return image_; }
  const std::string& media_root() const { return media_; }
  uint32_t mux_id() const { return mux_id_; }
  const std::string& host_id() const { return host_id_; }
  uint32_t product_id() const { return product_id_; }

  std::shared_ptr<const Faults> faults() const;
  uint64_t fault_generation() const { return fault_gen_.load(std::memory_order_acquire); }

  // Lockdown values. key/domain empty means "absent". Returns null when the
  // device does not have the value.
  Plist get_value(const std::string& domain, const std::string& key) const;
  void set_value(const std::string& domain, const std::string& key, plist_t value);

  // Pairing. The host side is what usbmux keeps (ReadPairRecord), the device
  // side the host identifiers the device trusts; a reset phone or a deleted
  // record makes them disagree, as on real hardware.
  const Identity& identity() const { return *identity_; }
  Plist pair_record(const std::string& buid) const;  // null when the host holds none
  void save_pair_record(plist_t record);
  void delete_pair_record();
  bool trusts(const std::string& host_id) const;
  void trust(const std::string& host_id);
  void distrust(const std::string& host_id);
  // Whether the host paired anew (Pair accepted) since stale_pairing was
  // last switched: a reset phone trusts such a host again.
  bool repaired(const std::string& host_id) const;

  // File-conduit device information.
  std::string model() const;
  void fs_info(uint64_t& total, uint64_t& free_bytes, uint64_t& block) const;

  // Service ports handed out by StartService, each for one service and
  // usable once; taking one gives its service name, or "" when unknown.
  uint16_t open_service_port(const std::string& service);
  std::string take_service_port(uint16_t port);

  // The installed apps, in the description's order; null when not installed.
  const std::vector<App>& apps() const { return apps_; }
  const App* find_app(const std::string& id) const;

  // Statistics.
  void count(Op op) { requests_[static_cast<int>(op)].fetch_add(1, std::memory_order_relaxed); }
  bool logging() const { return log_on_.load(std::memory_order_relaxed); }
  void log(Op op, std::string_view path);
  void set_logging(bool on) { log_on_.store(on); }
  std::vector<LogEntry> take_log() const;
  void reset_stats();
  uint64_t requests(Op op) const { return requests_[static_cast<int>(op)].load(); }

  std::atomic<int> connections_open{0};
  std::atomic<int> files_open{0};
  std::atomic<int> locks_held{0};
  std::atomic<uint64_t> tls_sessions{0};  // completed TLS handshakes

 private:
  void fill_common_values();
  void load_apps();

  std::string image_, media_, udid_, host_id_;
  uint32_t mux_id_;
  uint32_t product_id_ = 0x12a8;

  mutable std::mutex mu_;  // guards values_, domains_, faults_, fs values, ports
  Plist values_;           // default lockdown domain (dict)
  std::map<std::string, Plist> domains_;
  std::shared_ptr<const Faults> faults_;
  std::atomic<uint64_t> fault_gen_{1};
  std::string model_;
  bool has_fs_total_ = false, has_fs_free_ = false, has_fs_block_ = false;
  uint64_t fs_total_ = 0, fs_free_ = 0, fs_block_ = 4096;
  std::shared_ptr<const Identity> identity_;
  bool host_has_record_ = true;  // false: paired=0 or DeletePairRecord
  Plist saved_record_;           // from SavePairRecord; else the default record
  bool trusts_default_ = true;   // the device trusts the default record's HostID
  std::set<std::string> trusted_;
  std::set<std::string> repaired_;  // hosts trusted by a Pair since stale_pairing last changed
  std::map<uint16_t, std::string> pending_ports_;
  std::vector<App> apps_;
  uint16_t next_port_ = 49152;

  std::array<std::atomic<uint64_t>, static_cast<int>(Op::Count)> requests_{};
  std::atomic<bool> log_on_{false};
  mutable std::mutex log_mu_;
  std::vector<LogEntry> log_;
};

}  // namespace devsim
