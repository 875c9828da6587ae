// The fake device behind every fuzz target: definitions of the
// libimobiledevice functions the library calls. The fuzz programs link the
// library's static archive, so these definitions take the place of the
// shared library's for every call the library makes.
#include "fake_device.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <plist/plist.h>

namespace tarn_fuzz {
namespace {

FuzzedDataProvider *g_data = nullptr;

// What is currently handed out; every count must be back at zero after a call.
struct Held {
  int devices = 0;
  int lockdown_clients = 0;
  int services = 0;
  int afc_clients = 0;
  std::map<uint64_t, int> files;  // handle -> times opened and not closed
  std::map<uint64_t, int> locks;  // handle -> held
} g_held;

uint64_t g_next_handle = 1;

// Distinct non-null addresses for the opaque handles; the library only ever
// hands them back to us.
char g_device_tag, g_lockdown_tag, g_afc_tag;

// Most answers succeed, so that the walks go deep; about one in eight is an
// error code of the protocol's range.
int NextError(int max_code) {
  if (!g_data) return 0;
  const uint8_t v = g_data->ConsumeIntegral<uint8_t>();
  return v < 224 ? 0 : 1 + v % max_code;
}

// A string vector as libimobiledevice builds it from an answer: one string
// per NUL in the payload, an unterminated tail dropped, and no vector at all
// for an empty payload.
char **NextVector(const std::vector<std::string> &well_behaved) {
  std::string payload;
  if (g_data) {
    payload = g_data->ConsumeRandomLengthString(4096);
  } else {
    for (const auto &s : well_behaved) payload.append(s).append(1, '\0');
  }
  if (payload.empty()) return nullptr;
  size_t nulls = 0;
  for (char c : payload) nulls += c == '\0';
  auto **list = static_cast<char **>(std::malloc(sizeof(char *) * (nulls + 1)));
  size_t at = 0;
  for (size_t i = 0; i < nulls; ++i) {
    list[i] = strdup(payload.c_str() + at);
    at += std::strlen(list[i]) + 1;
  }
  list[nulls] = nullptr;
  return list;
}

void FreeVector(char **list) {
  if (!list) return;
  for (char **p = list; *p; ++p) std::free(*p);
  std::free(list);
}

[[noreturn]] void Leaked(const char *after, const std::string &what) {
  std::fprintf(stderr, "fake device: %s still held after %s\n", what.c_str(), after);
  std::abort();
}

}  // namespace

void UseAnswers(FuzzedDataProvider *data) { g_data = data; }

void ExpectAllReleased(const char *after) {
  if (g_held.devices) Leaked(after, std::to_string(g_held.devices) + " device connection(s)");
  if (g_held.lockdown_clients) Leaked(after, std::to_string(g_held.lockdown_clients) + " lockdown client(s)");
  if (g_held.services) Leaked(after, std::to_string(g_held.services) + " service descriptor(s)");
  if (g_held.afc_clients) Leaked(after, std::to_string(g_held.afc_clients) + " file-conduit client(s)");
  for (const auto &[handle, n] : g_held.files) {
    if (n > 0) Leaked(after, "file handle " + std::to_string(handle));
  }
  for (const auto &[handle, n] : g_held.locks) {
    if (n > 0) Leaked(after, "the lock on handle " + std::to_string(handle));
  }
  g_held = Held();
}

void SilenceStdout() {
  if (!std::freopen("/dev/null", "w", stdout)) std::abort();
}

}  // namespace tarn_fuzz

using tarn_fuzz::g_data;
using tarn_fuzz::g_held;
using tarn_fuzz::NextError;
using tarn_fuzz::NextVector;

extern "C" {

// ---- usbmux device list and device connection ----------------------------

idevice_error_t idevice_get_device_list(char ***devices, int *count) {
  if (NextError(5)) return IDEVICE_E_NO_DEVICE;
  char **list = NextVector({"00008030-000FUZZ0000DEV1"});
  int n = 0;
  while (list && list[n]) ++n;
  if (!list) {
    list = static_cast<char **>(std::calloc(1, sizeof(char *)));
  }
  *devices = list;
  *count = n;
  return IDEVICE_E_SUCCESS;
}

idevice_error_t idevice_device_list_free(char **devices) {
  tarn_fuzz::FreeVector(devices);
  return IDEVICE_E_SUCCESS;
}

idevice_error_t idevice_new(idevice_t *device, const char *udid) {
  if (!device || !udid || NextError(5)) return IDEVICE_E_NO_DEVICE;
  *device = reinterpret_cast<idevice_t>(&tarn_fuzz::g_device_tag);
  ++g_held.devices;
  return IDEVICE_E_SUCCESS;
}

idevice_error_t idevice_free(idevice_t device) {
  if (!device) return IDEVICE_E_INVALID_ARG;
  --g_held.devices;
  return IDEVICE_E_SUCCESS;
}

// ---- lockdown --------------------------------------------------------------

lockdownd_error_t lockdownd_client_new_with_handshake(idevice_t device, lockdownd_client_t *client,
                                                      const char *) {
  if (!device || !client) return LOCKDOWN_E_INVALID_ARG;
  if (NextError(20)) return LOCKDOWN_E_INVALID_HOST_ID;
  *client = reinterpret_cast<lockdownd_client_t>(&tarn_fuzz::g_lockdown_tag);
  ++g_held.lockdown_clients;
  return LOCKDOWN_E_SUCCESS;
}

lockdownd_error_t lockdownd_client_free(lockdownd_client_t client) {
  if (!client) return LOCKDOWN_E_INVALID_ARG;
  --g_held.lockdown_clients;
  return LOCKDOWN_E_SUCCESS;
}

lockdownd_error_t lockdownd_start_service(lockdownd_client_t client, const char *, lockdownd_service_descriptor_t *service) {
  if (!client || !service) return LOCKDOWN_E_INVALID_ARG;
  if (NextError(20)) return LOCKDOWN_E_SERVICE_PROHIBITED;
  auto *d = static_cast<lockdownd_service_descriptor_t>(std::calloc(1, sizeof(lockdownd_service_descriptor)));
  d->port = 49152;
  *service = d;
  ++g_held.services;
  return LOCKDOWN_E_SUCCESS;
}

lockdownd_error_t lockdownd_service_descriptor_free(lockdownd_service_descriptor_t service) {
  if (!service) return LOCKDOWN_E_INVALID_ARG;
  std::free(service->identifier);
  std::free(service);
  --g_held.services;
  return LOCKDOWN_E_SUCCESS;
}

lockdownd_error_t lockdownd_get_device_name(lockdownd_client_t client, char **name) {
  if (!client || !name) return LOCKDOWN_E_INVALID_ARG;
  if (NextError(20)) return LOCKDOWN_E_UNKNOWN_ERROR;
  *name = strdup(g_data ? g_data->ConsumeRandomLengthString(256).c_str() : "Fuzz iPod");
  return LOCKDOWN_E_SUCCESS;
}

// A value of any type the device may send: the fuzz input's bytes read as a
// property list (binary or XML), or a plain string when they are not one.
lockdownd_error_t lockdownd_get_value(lockdownd_client_t client, const char *, const char *key, plist_t *value) {
  if (!client || !value) return LOCKDOWN_E_INVALID_ARG;
  if (NextError(20)) return LOCKDOWN_E_MISSING_VALUE;
  if (!g_data) {
    *value = plist_new_string(key ? key : "value");
    return LOCKDOWN_E_SUCCESS;
  }
  const std::string bytes = g_data->ConsumeRandomLengthString(1024);
  plist_t node = nullptr;
  if (bytes.size() >= 8 && bytes.compare(0, 8, "bplist00") == 0) {
    plist_from_bin(bytes.data(), static_cast<uint32_t>(bytes.size()), &node);
  } else if (!bytes.empty() && bytes[0] == '<') {
    plist_from_xml(bytes.data(), static_cast<uint32_t>(bytes.size()), &node);
  }
  *value = node ? node : plist_new_string(bytes.c_str());
  return LOCKDOWN_E_SUCCESS;
}

// ---- file conduit ------------------------------------------------------------

afc_error_t afc_client_new(idevice_t device, lockdownd_service_descriptor_t service, afc_client_t *client) {
  if (!device || !service || !client) return AFC_E_INVALID_ARG;
  if (NextError(30)) return AFC_E_MUX_ERROR;
  *client = reinterpret_cast<afc_client_t>(&tarn_fuzz::g_afc_tag);
  ++g_held.afc_clients;
  return AFC_E_SUCCESS;
}

afc_error_t afc_client_free(afc_client_t client) {
  if (!client) return AFC_E_INVALID_ARG;
  --g_held.afc_clients;
  return AFC_E_SUCCESS;
}

afc_error_t afc_dictionary_free(char **dictionary) {
  tarn_fuzz::FreeVector(dictionary);
  return AFC_E_SUCCESS;
}

afc_error_t afc_get_device_info(afc_client_t client, char ***info) {
  if (!client || !info) return AFC_E_INVALID_ARG;
  if (const int e = NextError(30)) return static_cast<afc_error_t>(e);
  *info = NextVector({"Model", "iPod5,1", "FSTotalBytes", "32000000000", "FSFreeBytes", "16000000000",
                      "FSBlockSize", "4096"});
  return AFC_E_SUCCESS;
}

afc_error_t afc_read_directory(afc_client_t client, const char *path, char ***list) {
  if (!client || !path || !list) return AFC_E_INVALID_ARG;
  if (const int e = NextError(30)) return static_cast<afc_error_t>(e);
  *list = NextVector({".", ".."});
  return AFC_E_SUCCESS;
}

afc_error_t afc_get_file_info(afc_client_t client, const char *path, char ***info) {
  if (!client || !path || !info) return AFC_E_INVALID_ARG;
  if (const int e = NextError(30)) return static_cast<afc_error_t>(e);
  *info = NextVector({"st_size", std::to_string(tarn_fuzz::kFixedFileSize), "st_blocks", "8", "st_nlink", "1",
                      "st_ifmt", "S_IFREG", "st_mtime", "1300000000123456789", "st_birthtime",
                      "1300000000123456789"});
  return AFC_E_SUCCESS;
}

afc_error_t afc_file_open(afc_client_t client, const char *path, afc_file_mode_t, uint64_t *handle) {
  if (!client || !path || !handle) return AFC_E_INVALID_ARG;
  if (const int e = NextError(30)) return static_cast<afc_error_t>(e);
  // A device may hand out the same handle twice, or handle 0, which names
  // no file and so cannot be held.
  *handle = g_data ? g_data->ConsumeIntegralInRange<uint64_t>(0, 4) : tarn_fuzz::g_next_handle++;
  if (*handle != 0) ++g_held.files[*handle];
  return AFC_E_SUCCESS;
}

afc_error_t afc_file_close(afc_client_t client, uint64_t handle) {
  if (!client) return AFC_E_INVALID_ARG;
  auto it = g_held.files.find(handle);
  if (it == g_held.files.end() || it->second == 0) {
    std::fprintf(stderr, "fake device: handle %llu closed but not open\n", static_cast<unsigned long long>(handle));
    std::abort();
  }
  // Closing a handle gives up its lock, as on the device.
  if (--it->second == 0) g_held.locks.erase(handle);
  return static_cast<afc_error_t>(NextError(30));
}

afc_error_t afc_file_lock(afc_client_t client, uint64_t handle, afc_lock_op_t op) {
  if (!client) return AFC_E_INVALID_ARG;
  if (const int e = NextError(30)) return static_cast<afc_error_t>(e);
  if (op == AFC_LOCK_UN) {
    g_held.locks[handle] = 0;
  } else {
    g_held.locks[handle] = 1;
  }
  return AFC_E_SUCCESS;
}

afc_error_t afc_file_read(afc_client_t client, uint64_t, char *data, uint32_t length, uint32_t *bytes_read) {
  if (!client || !data || !bytes_read) return AFC_E_INVALID_ARG;
  *bytes_read = 0;
  if (const int e = NextError(30)) return static_cast<afc_error_t>(e);
  if (!g_data) return AFC_E_SUCCESS;  // the well-behaved device's files read as empty
  const std::string bytes = g_data->ConsumeRandomLengthString(length);
  std::memcpy(data, bytes.data(), bytes.size());
  *bytes_read = static_cast<uint32_t>(bytes.size());
  return AFC_E_SUCCESS;
}

afc_error_t afc_file_write(afc_client_t client, uint64_t, const char *data, uint32_t length, uint32_t *written) {
  if (!client || !data || !written) return AFC_E_INVALID_ARG;
  *written = 0;
  if (const int e = NextError(30)) return static_cast<afc_error_t>(e);
  // A device may claim to have written more or less than it was sent.
  *written = g_data ? g_data->ConsumeIntegral<uint32_t>() : length;
  return AFC_E_SUCCESS;
}

afc_error_t afc_make_directory(afc_client_t client, const char *path) {
  if (!client || !path) return AFC_E_INVALID_ARG;
  return static_cast<afc_error_t>(NextError(30));
}

afc_error_t afc_remove_path(afc_client_t client, const char *path) {
  if (!client || !path) return AFC_E_INVALID_ARG;
  return static_cast<afc_error_t>(NextError(30));
}

afc_error_t afc_rename_path(afc_client_t client, const char *from, const char *to) {
  if (!client || !from || !to) return AFC_E_INVALID_ARG;
  return static_cast<afc_error_t>(NextError(30));
}

}  // extern "C"
