// Declarations shared by the parts of the tarn tool: exit codes, the
// failure that ends a command, the parsed command line and the commands.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarn::cli {

// Each kind of failure has its own code so that scripts can tell them apart.
enum ExitCode : int {
  kExitOk = 0,
  kExitFailed = 1,          // the device did not do what was asked
  kExitUsage = 2,           // bad command line
  kExitNoDevice = 3,        // no device attached
  kExitDeviceNotFound = 4,  // -u names a device that is not attached
  kExitSeveralDevices = 5,  // several attached and none chosen
  kExitUnreachable = 6,     // attached, but the handshake or a service was refused
  kExitNotOnDevice = 7,     // a device path does not exist (or is of the wrong kind)
  kExitHostPath = 8,        // a host path cannot be read or written
  kExitExists = 9,          // the target already exists
  kExitCancelled = 130,     // interrupted by the user (128 + SIGINT, as shells report it)
};

// Thrown to end a command: main prints "tarn: <message>" on standard error
// and exits with `code`.
struct Failure {
  int code;
  std::string message;
};
[[noreturn]] void Fail(int code, std::string message);

struct GlobalOptions {
  std::string udid;
  bool verbose = false;
  std::string workdir;
  bool refresh = false;
  std::optional<bool> progress;  // unset: a bar only when stderr is a terminal
};

// A command's own arguments after the global options were taken out.
struct Args {
  std::vector<std::string> positional;
  std::map<std::string, std::string> flags;  // "--json" -> "", "--depth" -> "3"
  bool has(const std::string &flag) const { return flags.count(flag) != 0; }
};

class Session;

int CmdDevices(const GlobalOptions &options, const Args &args);
int CmdInfo(Session &session, const Args &args);
int CmdList(Session &session, const Args &args);
int CmdExport(Session &session, const Args &args);
int CmdLs(Session &session, const Args &args);
int CmdStat(Session &session, const Args &args);
int CmdFind(Session &session, const Args &args);
int CmdMkdir(Session &session, const Args &args);
int CmdMv(Session &session, const Args &args);
int CmdRm(Session &session, const Args &args);
int CmdPull(Session &session, const Args &args);
int CmdPush(Session &session, const Args &args);

}  // namespace tarn::cli
