#include "apps/common/session.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include <nlohmann/json.hpp>
#include <system_error>

#include "apps/common/host_file.h"
#include "apps/common/owners.h"
#include "apps/common/naming.h"

namespace tarn::app {
namespace fs = std::filesystem;

void IgnoreBrokenPipes() { std::signal(SIGPIPE, SIG_IGN); }

std::vector<std::string> AttachedDevices(std::string *why_none) {
  std::vector<std::string> ids;
  PlistPtr list(GetDevicesId());
  if (why_none != nullptr && TarnLastError()->code == TARN_E_NO_USBMUXD) *why_none = LastReason();
  if (!list || plist_get_node_type(list.get()) != PLIST_ARRAY) return ids;
  for (uint32_t i = 0; i < plist_array_get_size(list.get()); ++i) {
    char *text = nullptr;
    plist_get_string_val(plist_array_get_item(list.get(), i), &text);
    CString owned(text);
    if (text != nullptr) ids.emplace_back(text);
  }
  return ids;
}

Failure WhyFailed(const std::string &udid, int fallback, const std::string &what) {
  Failure failure = FromLastError(fallback, what);
  if (failure.code != TARN_OK || udid.empty()) return failure;
  const std::vector<std::string> ids = AttachedDevices();
  if (std::find(ids.begin(), ids.end(), udid) != ids.end()) return failure;
  const std::string gone = DeviceLabel(udid) + " is no longer attached: connect it with a USB cable and try again.";
  return {kDeviceNotFound, TARN_E_NO_DEVICE, what.empty() ? gone : what + ": " + gone};
}

std::string ChooseDevice(const SessionOptions &options) {
  std::string why_none;
  const std::vector<std::string> ids = AttachedDevices(&why_none);
  if (ids.empty() && !why_none.empty()) Fail(kNoUsbmuxd, why_none);
  if (ids.empty()) Fail(kNoDevice, "no device attached. Connect the device with a USB cable.");
  if (!options.udid.empty()) {
    for (const auto &id : ids)
      if (id == options.udid) return id;
    Fail(kDeviceNotFound, "device " + options.udid + " not found");
  }
  if (ids.size() > 1)
    Fail(kSeveralDevices, std::to_string(ids.size()) + " devices attached; choose one with -u UDID");
  return ids.front();
}

std::string DeviceName(const std::string &udid) {
  const std::unique_ptr<PodDevice, decltype(&FreePodDevice)> device(CreatePodDevice(udid.c_str()), FreePodDevice);
  CString name(device ? TarnGetDeviceName(device.get()) : nullptr);
  return name ? name.get() : "";
}

std::string WorkDirFor(const SessionOptions &options, const std::string &udid) {
  fs::path dir;
  if (!options.workdir.empty()) {
    dir = options.workdir;
  } else {
    const char *cache = std::getenv("XDG_CACHE_HOME");
    const char *home = std::getenv("HOME");
    if (cache != nullptr && cache[0] == '/') dir = cache;
    else if (home != nullptr && home[0] != '\0') dir = fs::path(home) / ".cache";
    else dir = fs::temp_directory_path();
    dir = dir / "tarn" / SafeName(udid, "device");
  }
  std::error_code ec;
  fs::path absolute = fs::absolute(dir, ec);
  if (ec) Fail(kHostPath, "cannot use working directory " + dir.string() + ": " + ec.message());
  // InitDevice takes the directory without a trailing separator.
  std::string text = absolute.lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

void Session::DeviceDeleter::operator()(PodDevice *d) const { FreePodDevice(d); }

Session::Session(const SessionOptions &options, std::string udid)
    : options_(options),
      udid_(std::move(udid)),
      device_(options_.app.empty() ? CreatePodDevice(udid_.c_str())
                                   : CreatePodDeviceForApp(udid_.c_str(), options_.app.c_str())) {
  if (!device_) Fail(kFailed, "cannot create a handle for " + udid_);
}

Session::~Session() = default;

void Session::Connect() {
  if (TarnHeldClient(device_.get()) != nullptr) return;
  if (TarnHoldConnection(device_.get()) == 0) {
    CString name(TarnGetDeviceName(device_.get()));
    if (name) RememberDeviceName(udid_, name.get());
    return;
  }
  // Kept before the name is asked for, which is a library call of its own;
  // a device that refuses a session still tells its name.
  TarnError error = *TarnLastError();
  const std::string message = error.message;
  error.message = message.c_str();
  if (error.code != TARN_E_NO_USBMUXD && error.code != TARN_E_NO_DEVICE) RememberDeviceName(udid_, DeviceName(udid_));
  Fail(FromError(error, kUnreachable, "cannot reach " + DeviceLabel(udid_)));
}

void Session::Disconnect() { TarnReleaseConnection(device_.get()); }

afc_client_t Session::client() {
  Connect();
  return TarnHeldClient(device_.get());
}

PathInfo Session::Stat(const std::string &device_path) { return StatIn(client(), device_path); }

bool Session::Alive() { return StatIn(client(), "/").is_dir; }

bool Session::Syncing() {
  const uint64_t lock = TarnSyncLock(client());
  const bool busy = TarnLastError()->code == TARN_E_SYNC_LOCK_BUSY;
  TarnSyncUnlock(client(), lock);
  return busy;
}

void Session::RefuseWhileSyncing() {
  if (Syncing())
    Fail(kBusy, "the device is syncing with another computer; nothing was changed. Wait until the sync has "
                "finished and try again.");
}

PathInfo Session::StatIn(afc_client_t client, const std::string &device_path) {
  FileInfo vector(GetFileInfo(client, device_path.c_str()));
  PathInfo info;
  char **v = vector.get();
  if (v == nullptr || v[0] == nullptr) return info;
  auto number = [](const char *text) { return text != nullptr ? std::strtoll(text, nullptr, 10) : 0; };
  info.exists = true;
  info.kind = v[0];
  info.is_dir = info.kind == "S_IFDIR";
  info.size = static_cast<uint64_t>(number(v[1]));
  info.mtime = number(v[2]);
  info.blocks = static_cast<uint64_t>(number(v[3]));
  info.birthtime = number(v[4]);
  return info;
}

PathInfo Session::Require(const std::string &device_path) {
  PathInfo info = Stat(device_path);
  if (!info.exists) Fail(kNotOnDevice, device_path + ": no such file or directory on the device");
  return info;
}

std::string Session::LinkTarget(const std::string &device_path) {
  CString target(TarnLinkTarget(client(), device_path.c_str()));
  return target ? target.get() : "";
}

namespace {

// Marks a working directory as the tool's own. It reads "incomplete" while
// InitDevice copies the databases and "complete" afterwards: the library
// keeps any copy it finds, so a copy cut short by Ctrl-C or a crash would
// otherwise be read as the device's database from then on.
constexpr const char *kMarker = ".tarn-workdir";
// The size and time of each database file on the device when it was copied.
constexpr const char *kCopies = ".tarn-copies.json";

std::string ReadMarker(const fs::path &dir) {
  std::ifstream in(dir / kMarker);
  std::string state;
  std::getline(in, state);
  return in || in.eof() ? state : "";
}

void WriteMarker(const fs::path &dir, const char *state) { WriteWhole(dir / kMarker, std::string(state) + "\n"); }

bool IsEmptyDir(const fs::path &dir) {
  std::error_code ec;
  return fs::is_directory(dir, ec) && fs::directory_iterator(dir, ec) == fs::directory_iterator();
}

}  // namespace

// The device's database files and their size and time as the device
// reports them: one file-information request each.
std::map<std::string, std::pair<uint64_t, int64_t>> Session::DatabaseStates() {
  std::map<std::string, std::pair<uint64_t, int64_t>> states;
  for (auto builder : {GetMusicDBFileInfo, GetBookDBFileInfo, GetCameraDBFileInfo, GetRecordingDBFileInfo,
                       GetUserPictureDBFileInfo}) {
    PlistPtr entries(builder(client()));
    for (uint32_t i = 0; entries && i < plist_array_get_size(entries.get()); ++i) {
      plist_t node = plist_dict_get_item(plist_array_get_item(entries.get(), i), "Path");
      char *text = nullptr;
      if (node != nullptr) plist_get_string_val(node, &text);
      CString path(text);
      if (text == nullptr || states.count(text) != 0) continue;
      const PathInfo info = Stat(text);
      states[text] = {info.size, info.mtime};
    }
  }
  return states;
}

void Session::InitCatalogue() {
  const fs::path dir = WorkDirFor(options_, udid_);
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec || !fs::is_directory(dir)) Fail(kHostPath, "cannot create working directory " + dir.string());
  const bool owned = fs::exists(dir / kMarker, ec);
  // The library never refreshes a copy it already has: a changed device is
  // only read afresh once the old copies are gone. Only a directory the tool
  // set up itself is emptied; --workdir may name one that holds other files.
  const bool clear = owned ? options_.refresh || ReadMarker(dir) != "complete" : false;
  // The library keeps any copy it finds: a file of a database's name that
  // someone else left here would be read as the device's own.
  if (!owned && !IsEmptyDir(dir))
    Fail(kHostPath, "refusing to use " + dir.string() +
                        ": it is not a tarn working directory and not empty. Give an empty directory.");
  if (clear) {
    for (const auto &entry : fs::directory_iterator(dir, ec)) fs::remove_all(entry.path(), ec);
    if (ec) Fail(kHostPath, "cannot empty working directory " + dir.string() + ": " + ec.message());
  }
  // A copy is kept only while the device's file has the size and time it
  // had when it was copied; anything else is copied again.
  const auto states = DatabaseStates();
  nlohmann::json copied = nlohmann::json::object();
  if (std::ifstream in(dir / kCopies); in) copied = nlohmann::json::parse(in, nullptr, false);
  if (!copied.is_object()) copied = nlohmann::json::object();
  for (const auto &[path, state] : states) {
    const auto it = copied.find(path);
    const bool same = it != copied.end() && it->is_array() && it->size() == 2 && (*it)[0] == state.first &&
                      (*it)[1] == state.second;
    if (!same) fs::remove(dir / BaseName(path), ec);
  }
  if (owned || IsEmptyDir(dir)) WriteMarker(dir, "incomplete");
  if (::access(dir.c_str(), W_OK) != 0) Fail(kHostPath, "cannot write to working directory " + dir.string());
  if (InitDevice(device_.get(), dir.c_str()) != 0) {
    if (TarnLastError()->code != TARN_OK) FailWithReason(kUnreachable, "cannot reach device " + udid_);
    Fail(kUnreachable, "cannot reach device " + udid_ + ": handshake refused");
  }
  if (fs::exists(dir / kMarker, ec)) {
    nlohmann::json record = nlohmann::json::object();
    for (const auto &[path, state] : states) record[path] = {state.first, state.second};
    WriteWhole(dir / kCopies, record.dump() + "\n");
    WriteMarker(dir, "complete");
  }
}

}  // namespace tarn::app
