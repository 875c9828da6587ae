// The per-call device connection, the file-conduit file handle and the
// device's sync-lock bracket. Every operation that reaches the device holds
// its connection in one of these, so the connection, every file handle and
// the lock are released before the call returns, whatever path it takes.
#pragma once

#include <cstdint>

#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

namespace tarn {

inline constexpr const char *kSyncLockPath = "/com.apple.itunes.lock_sync";
inline constexpr const char *kAfcServiceName = "com.apple.afc";
inline constexpr uint32_t kBlockSize = 65536;

// The steps of a connection, shared by both kinds of connection below and
// OpenIdeviceAndAfC; each records why it failed.
bool ConnectDevice(const char *device_id, idevice_t *device);
lockdownd_client_t Handshake(idevice_t device, const char *device_id, const char *label);
afc_client_t StartFileService(idevice_t device, lockdownd_client_t lockdown, const char *device_id);

// Takes the device's sync lock on an open lock file. Another party holding
// it records TARN_E_SYNC_LOCK_BUSY; the caller goes on without the lock.
void LockSyncFile(afc_client_t client, uint64_t handle);

// Device connection plus file-conduit client (OpenIdeviceAndAfC), released
// together (CloseIdeviceAndAfC).
class DeviceConnection {
 public:
  explicit DeviceConnection(const char *device_id);
  ~DeviceConnection();
  DeviceConnection(const DeviceConnection &) = delete;
  DeviceConnection &operator=(const DeviceConnection &) = delete;

  afc_client_t afc() const { return afc_; }
  explicit operator bool() const { return afc_ != nullptr; }

 private:
  idevice_t device_ = nullptr;
  afc_client_t afc_ = nullptr;
};

// The connection that InitDevice and GetDeviceInfo use: the lockdown client
// stays open for the whole call (they query lockdown values), and the client
// identifies itself with its own label.
class LockdownSession {
 public:
  enum class Status { kOk, kNoDevice, kHandshakeRefused };

  LockdownSession(const char *device_id, const char *label);
  ~LockdownSession();
  LockdownSession(const LockdownSession &) = delete;
  LockdownSession &operator=(const LockdownSession &) = delete;

  Status status() const { return status_; }
  idevice_t device() const { return device_; }
  lockdownd_client_t lockdown() const { return lockdown_; }
  // Null when the file-conduit service could not be started; callers carry
  // on without it.
  afc_client_t afc() const { return afc_; }

 private:
  Status status_ = Status::kNoDevice;
  idevice_t device_ = nullptr;
  lockdownd_client_t lockdown_ = nullptr;
  afc_client_t afc_ = nullptr;
};

// An open file-conduit file; closed on destruction.
class AfcFile {
 public:
  AfcFile(afc_client_t client, const char *path, afc_file_mode_t mode);
  ~AfcFile() { close(); }
  AfcFile(const AfcFile &) = delete;
  AfcFile &operator=(const AfcFile &) = delete;

  afc_error_t error() const { return error_; }
  uint64_t handle() const { return handle_; }
  bool is_open() const { return error_ == AFC_E_SUCCESS && handle_ != 0; }
  void close();
  // Hands the open handle to the caller, who closes it.
  uint64_t release() {
    const uint64_t handle = handle_;
    handle_ = 0;
    return handle;
  }

 private:
  afc_client_t client_;
  uint64_t handle_ = 0;
  afc_error_t error_ = AFC_E_UNKNOWN_ERROR;
};

// Holds the device's sync lock for its lifetime, so that the device's own
// media synchronisation stays away while we copy or read. The lock file is
// opened read-write; only a successful open with a real handle is locked,
// and only such a handle is unlocked and closed again.
class SyncLock {
 public:
  explicit SyncLock(afc_client_t client);
  ~SyncLock();
  SyncLock(const SyncLock &) = delete;
  SyncLock &operator=(const SyncLock &) = delete;

  // False when the lock file could not be opened: writers give up then,
  // readers go on without the lock.
  bool opened() const { return file_.error() == AFC_E_SUCCESS; }

 private:
  afc_client_t client_;
  AfcFile file_;
};

}  // namespace tarn
