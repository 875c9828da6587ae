// Declarations shared by the parts of tarn, the command-line program: exit codes, the
// failure that ends a command, the parsed command line and the commands.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "apps/common/failure.h"
#include "apps/common/session.h"

namespace tarn::cli {

// The exit codes are the statuses of the shared layer; scripts tell them apart.
using namespace tarn::app;
enum ExitCode : int {
  kExitOk = kOk,
  kExitFailed = kFailed,
  kExitUsage = kUsage,
  kExitNoDevice = kNoDevice,
  kExitDeviceNotFound = kDeviceNotFound,
  kExitSeveralDevices = kSeveralDevices,
  kExitUnreachable = kUnreachable,
  kExitNotOnDevice = kNotOnDevice,
  kExitHostPath = kHostPath,
  kExitExists = kExists,
  kExitDisconnected = kDisconnected,
  kExitDeviceFull = kDeviceFull,
  kExitBusy = kBusy,
  kExitNoUsbmuxd = kNoUsbmuxd,
  kExitNoApp = kNoApp,
  kExitCancelled = kCancelled,
  kExitTerminated = kTerminated,
};

struct GlobalOptions {
  SessionOptions session;
  bool verbose = false;
  std::optional<bool> progress;  // unset: a bar only when stderr is a terminal
};

// A command's own arguments after the global options were taken out.
struct Args {
  std::vector<std::string> positional;
  std::map<std::string, std::string> flags;  // "--json" -> "", "--depth" -> "3"
  std::vector<bool> dir_only;  // per positional device path: written with a trailing '/'

  bool has(const std::string &flag) const { return flags.count(flag) != 0; }
};

int CmdDevices(const GlobalOptions &options, const Args &args);
int CmdInfo(Session &session, const Args &args);
int CmdList(Session &session, const Args &args);
int CmdApps(Session &session, const Args &args);
int CmdExport(Session &session, const Args &args);
int CmdImport(Session &session, const Args &args);
int CmdLs(Session &session, const Args &args);
int CmdStat(Session &session, const Args &args);
int CmdFind(Session &session, const Args &args);
int CmdMkdir(Session &session, const Args &args);
int CmdMv(Session &session, const Args &args);
int CmdRm(Session &session, const Args &args);
int CmdPull(Session &session, const Args &args);
int CmdPush(Session &session, const Args &args);

}  // namespace tarn::cli
