// The device connection, the file-conduit file handle and the device's
// sync-lock bracket. Every operation that reaches the device holds its
// connection in one of these, so the connection (unless the caller holds
// it on the handle), every file handle and the lock are released before the
// call returns, whatever path it takes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <libimobiledevice/afc.h>
#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

struct PodDevice;

namespace tarn {

inline constexpr const char *kSyncLockPath = "/com.apple.itunes.lock_sync";
inline constexpr const char *kAfcServiceName = "com.apple.afc";
inline constexpr uint32_t kBlockSize = 65536;

struct IdeviceFree {
  void operator()(idevice_t device) const { if (device) idevice_free(device); }
};
using IdevicePtr = std::unique_ptr<idevice_private, IdeviceFree>;
struct LockdownFree {
  void operator()(lockdownd_client_t client) const { if (client) lockdownd_client_free(client); }
};
using LockdownPtr = std::unique_ptr<lockdownd_client_private, LockdownFree>;

// The steps of a connection, shared by both kinds of connection below; each
// records why it failed.
bool ConnectDevice(const char *device_id, idevice_t *device);
lockdownd_client_t Handshake(idevice_t device, const char *device_id, const char *label);
afc_client_t StartFileService(idevice_t device, lockdownd_client_t lockdown, const char *device_id);

// A device connection with a started file-conduit client; on a failure
// after the device was reached, the connection stays in *device for
// CloseIdeviceAndAfC.
afc_client_t OpenIdeviceAndAfC(idevice_t *device, const char *device_id);
void CloseIdeviceAndAfC(afc_client_t client, idevice_t device);

// Takes the device's sync lock on an open lock file. Another party holding
// it records TARN_E_SYNC_LOCK_BUSY; the caller goes on without the lock.
void LockSyncFile(afc_client_t client, uint64_t handle);

// Which file-conduit root a handle reaches: the media partition (empty), or
// the Documents of the app it was created for (CreatePodDeviceForApp). It
// hangs beside the handle, as the handle's layout is fixed.
std::string AppOf(const PodDevice *device);
void SetAppOf(const PodDevice *device, const char *app);
void ForgetApp(const PodDevice *device);

// Whether a file-conduit client reaches an app's files rather than the
// media partition: no media sync guards those, so the sync lock is not
// taken there (the lock file does not exist in an app's container, and
// opening it read-write would create it).
bool IsAppClient(afc_client_t client);
// Called before such a client is freed, so that a later client at the same
// address is not taken for one.
void ForgetAppClient(afc_client_t client);

// One connection to a device: the device connection, a lockdown session
// and the file-conduit client, released together. It is the unit the
// library shares: a call's own, or the one a caller holds on a handle
// (TarnHoldConnection) for the calls made on it until it lets go. With an
// app, the file-conduit client is the house_arrest connection that vended
// the app's Documents, so every file-system call works over it unchanged.
class Link {
 public:
  enum class Status { kOk, kNoDevice, kHandshakeRefused };

  Link(const char *device_id, const char *label, const std::string &app = {});
  ~Link();
  Link(const Link &) = delete;
  Link &operator=(const Link &) = delete;

  Status status() const { return status_; }
  const std::string &device_id() const { return device_id_; }
  const std::string &app() const { return app_; }
  idevice_t device() const { return device_; }
  lockdownd_client_t lockdown() const { return lockdown_; }
  // Null when the file-conduit service could not be started.
  afc_client_t afc() const { return afc_; }

 private:
  std::string device_id_;
  std::string app_;
  Status status_ = Status::kNoDevice;
  idevice_t device_ = nullptr;
  lockdownd_client_t lockdown_ = nullptr;
  house_arrest_client_t house_arrest_ = nullptr;  // owns the connection afc_ speaks over
  afc_client_t afc_ = nullptr;
};

// The file-conduit client of an app's Documents over a house_arrest
// connection started on `lockdown` (its owner stored in *house_arrest), or
// null with the reason recorded: the app is not installed, shares no files,
// or the device refused.
afc_client_t OpenAppDocuments(idevice_t device, lockdownd_client_t lockdown, const char *device_id,
                              const std::string &app, house_arrest_client_t *house_arrest);

// The connection one exported call works over, in this order: the one held
// on the handle; the one an enclosing call on this thread opened for the
// same device (a call made inside another borrows it, so that one exported
// call costs one lockdown session however many library calls it makes);
// else one of its own, which the calls inside it then borrow and which is
// closed when it ends.
class LockdownSession {
 public:
  using Status = Link::Status;

  LockdownSession(const PodDevice *device, const char *label);
  ~LockdownSession();
  LockdownSession(const LockdownSession &) = delete;
  LockdownSession &operator=(const LockdownSession &) = delete;

  Status status() const { return link_->status(); }
  idevice_t device() const { return link_->device(); }
  lockdownd_client_t lockdown() const { return link_->lockdown(); }
  // Null when the file-conduit service could not be started; callers carry
  // on without it.
  afc_client_t afc() const { return link_->afc(); }

 private:
  std::optional<Link> own_;
  const Link *link_ = nullptr;
  const Link *enclosing_ = nullptr;
};

// The connection held on a handle (TarnHoldConnection), or null.
const Link *HeldLink(const PodDevice *device);
// Opens and keeps a connection on the handle; false (with the reason
// recorded) when the device or its file service cannot be reached.
bool HoldLink(const PodDevice *device);
// Closes the handle's held connection, if any.
void ReleaseLink(const PodDevice *device);

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
// and only such a handle is unlocked and closed again. Over an app's files
// there is no lock to take and the bracket stands open.
class SyncLock {
 public:
  explicit SyncLock(afc_client_t client);
  ~SyncLock();
  SyncLock(const SyncLock &) = delete;
  SyncLock &operator=(const SyncLock &) = delete;

  // False when the lock file could not be opened: writers give up then,
  // readers go on without the lock.
  bool opened() const { return !file_ || file_->error() == AFC_E_SUCCESS; }

 private:
  afc_client_t client_;
  std::optional<AfcFile> file_;  // none over an app's files
};

// What a call does about the device's sync lock.
enum class LockPolicy {
  // Reads without the lock, and goes on over a failed connection: the failed
  // device requests then say why.
  kNone,
  // Takes the lock where it can; without the lock file, or without a
  // connection, the work still runs.
  kGoOnWithout,
  // Needs both the connection and the lock file: without either the call
  // gives up before touching the device.
  kGiveUpWithout,
};

struct CallPolicy {
  std::string_view function;
  LockPolicy policy;
};

// Every exported call that opens its own connection, with its lock policy.
// Writers give up without the lock; readers that size or copy many files go
// on without it; single lookups do not take it.
inline constexpr CallPolicy kCallPolicies[] = {
    {"CopyFileFromDeviceToNative", LockPolicy::kGiveUpWithout},
    {"CopyFileFromNativeToDevice", LockPolicy::kGiveUpWithout},
    {"MakeDir", LockPolicy::kGiveUpWithout},
    {"CopyDeviceDirectory", LockPolicy::kGoOnWithout},
    {"GetPictureListFromDevice", LockPolicy::kGoOnWithout},
    {"GetPurchaseMusicListFromPlist", LockPolicy::kGoOnWithout},
    {"ReadRecordingDbTypeSQLITE", LockPolicy::kGoOnWithout},
    {"ReadCameraDbTypeSQLITE", LockPolicy::kGoOnWithout},
    {"GetDirOrFileInfo", LockPolicy::kNone},
    {"IsDirExist", LockPolicy::kNone},
    {"IsFileExist", LockPolicy::kNone},
    {"GetPodDir", LockPolicy::kNone},
    {"SearchFile", LockPolicy::kNone},
    {"RenamePath", LockPolicy::kNone},
    {"DeleteFile", LockPolicy::kNone},
    {"DeleteDir", LockPolicy::kNone},
    {"TarnCopyArtwork", LockPolicy::kNone},
};

// The policy the table names for a function; a name missing from the table
// does not compile.
consteval LockPolicy PolicyOf(std::string_view function) {
  for (const CallPolicy &entry : kCallPolicies)
    if (entry.function == function) return entry.policy;
  throw "every call that opens a connection is listed in kCallPolicies";
}

// One exported call's hold on the device: its connection and, by its
// policy, the sync lock, both released when the call returns.
class DeviceCall {
 public:
  DeviceCall(const PodDevice *device, LockPolicy policy);
  DeviceCall(const DeviceCall &) = delete;
  DeviceCall &operator=(const DeviceCall &) = delete;

  afc_client_t afc() const { return conn_.afc(); }
  // False only under kGiveUpWithout, when the connection or the lock file
  // is missing: the call then returns without touching the device.
  bool ready() const { return ready_; }

 private:
  LockdownSession conn_;
  std::optional<SyncLock> lock_;
  bool ready_ = true;
};

}  // namespace tarn
