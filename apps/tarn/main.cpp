// tarn: browse and move the content of iPod, iPhone and iPad devices from a
// shell. Argument parsing and dispatch; the commands live beside this file.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "apps/common/app_list.h"
#include "apps/common/catalogue.h"
#include "apps/common/device_path.h"
#include "apps/common/session.h"
#include "console.h"
#include "progress.h"
#include "cli.h"

namespace tarn::cli {

namespace {

enum class Needs { kNothing, kDevice, kCatalogue };

struct CommandEntry {
  const char *name;
  const char *usage;
  const char *summary;
  const char *details;
  std::vector<std::string> switches;      // flags without a value
  std::vector<std::string> with_value;    // flags that take one
  size_t min_args;
  size_t max_args;
  std::vector<size_t> device_args;  // positions that are device paths
  Needs needs;
  int (*run)(Session &, const Args &);
};

// The kinds as the shared layer defines them, the one list the help, the
// completion (which reads the help) and the window share.
std::string KindNames() {
  std::string names;
  for (const KindInfo &kind : Kinds()) names += (names.empty() ? "" : ", ") + std::string(kind.name);
  return names;
}

const std::vector<CommandEntry> &Commands() {
  static const std::vector<CommandEntry> commands = {
      {"devices", "devices", "list the attached devices: identifier and name",
       "Prints one line per attached device: its identifier and its name.\n", {}, {}, 0, 0, {}, Needs::kNothing,
       nullptr},
      {"info", "info [--json | --xml]", "identity and storage use of the device",
       "Prints the device's name, type, version, serial number and how its storage is used,\n"
       "as numbers and as a bar (coloured when standard output is a terminal).\n"
       "  --json   the device information as JSON\n"
       "  --xml    the device information as the library returns it (property list XML)\n",
       {"--json", "--xml"}, {}, 0, 0, {}, Needs::kCatalogue, CmdInfo},
      {"list", "list KIND [--json | --xml]", "list a catalogue of the device",
       "  --json   the list as JSON (keys and order as the library gives them)\n"
       "  --xml    the list as the library returns it (property list XML)\n",
       {"--json", "--xml"}, {}, 1, 1, {}, Needs::kCatalogue, CmdList},
      {"export", "export KIND HOST_DIR [--match TEXT]", "copy a catalogue's files out under readable names",
       "Music goes to Artist/Album/Title.ext, recordings by their label or time, books by title,\n"
       "the camera roll and pictures under their own names; playlists become .m3u8 files next to\n"
       "the music they point at, which is copied with them. Files keep the device's modification\n"
       "times. HOST_DIR/.tarn-export.json records what was exported (device, device path, size,\n"
       "device time): a recorded file that is unchanged is skipped, so an interrupted export can\n"
       "simply be run again; a file that tarn did not export is never replaced, the export picks\n"
       "a free name beside it and says so.\n"
       "  --match TEXT   only items whose title, artist, album or file name (for playlists: the\n"
       "                 playlist's name) contains TEXT, ignoring case\n",
       {}, {"--match"}, 2, 2, {}, Needs::kCatalogue, CmdExport},
      {"import", "import photos HOST_DIR [--jpeg]", "copy the camera roll's new pictures into folders by date",
       "Copies the pictures and videos of the camera roll that no earlier import copied into\n"
       "HOST_DIR/YEAR/MONTH/ by the date each was taken (a Live Photo's video beside its picture).\n"
       "HOST_DIR/.tarn-export.json records what was imported, as for export: a second import\n"
       "copies only what is new, also when imported files were moved away since, and a file that\n"
       "tarn did not write is never replaced. Pictures kept only in iCloud are not on the device.\n"
       "  --jpeg   write HEIC pictures as JPEG, for programs that do not read HEIC (one that\n"
       "           cannot be decoded is kept as HEIC, with a warning)\n",
       {"--jpeg"}, {}, 2, 2, {}, Needs::kCatalogue, CmdImport},
      {"apps", "apps [--json | --xml]", "list the installed apps and whether they share files",
       "Prints each app the person installed: identifier, name, version, and whether it shares\n"
       "files with computers (only those can be reached with --app).\n"
       "  --json   the list as JSON (keys and order as the library gives them)\n"
       "  --xml    the list as the library returns it (property list XML)\n",
       {"--json", "--xml"}, {}, 0, 0, {}, Needs::kDevice, CmdApps},
      {"ls", "ls [PATH] [-l] [-R | --depth N]", "list a device directory",
       "  -l          type (d directory, - file, l link with its target), size and modification\n"
       "              time of each entry\n"
       "  -R          the whole tree below PATH; a tree deeper than the walk allows is reported\n"
       "              and ends with exit code 1\n"
       "  --depth N   N levels below PATH\n",
       {"-l", "-R"}, {"--depth"}, 0, 1, {0}, Needs::kDevice, CmdLs},
      {"stat", "stat PATH", "file information of a device path", "", {}, {}, 1, 1, {0}, Needs::kDevice, CmdStat},
      {"find", "find DIR KEYWORD [--case-sensitive]", "search names below a device directory",
       "Prints the files and directories below DIR whose names contain KEYWORD, ignoring case.\n"
       "A search cut short by the walk's bounds is reported and ends with exit code 1.\n"
       "  --case-sensitive   only names that contain KEYWORD exactly as written\n",
       {"--case-sensitive"}, {}, 2, 2, {0}, Needs::kDevice, CmdFind},
      {"mkdir", "mkdir [-p] PATH", "create a device directory",
       "  -p   create missing parents; no error when PATH is already a directory\n", {"-p"}, {}, 1, 1, {0},
       Needs::kDevice, CmdMkdir},
      {"mv", "mv OLD NEW", "rename or move a device path (into NEW when it is a directory)", "", {}, {}, 2, 2,
       {0, 1}, Needs::kDevice, CmdMv},
      {"rm", "rm [-r] PATH", "remove a device file or empty directory",
       "  -r   remove a directory and everything below it\n"
       "The root of the device is never removed, however it is written (/, /., /DCIM/..).\n",
       {"-r"}, {}, 1, 1, {0}, Needs::kDevice, CmdRm},
      {"pull", "pull [-n] DEVICE_PATH HOST_PATH", "copy a device file or directory to the host",
       "A file goes into HOST_PATH/<name> when HOST_PATH is a directory. A directory goes into\n"
       "HOST_PATH/<name> when HOST_PATH ends in '/' (or is . or ..), otherwise it becomes HOST_PATH,\n"
       "so running the same pull again fills in the same copy. An existing regular file is\n"
       "replaced, as cp does; anything else there (a directory, link, FIFO, device node) is\n"
       "never replaced. Each file is written under a temporary name and renamed into place when\n"
       "complete. Ctrl-C, SIGTERM or SIGHUP cancel; a cancelled file is not kept.\n"
       "  -n, --no-clobber   never replace an existing file\n",
       {"-n", "--no-clobber"}, {}, 2, 2, {0}, Needs::kDevice, CmdPull},
      {"push", "push HOST_PATH DEVICE_PATH", "copy a host file or directory to the device",
       "Copies into DEVICE_PATH/<name> when DEVICE_PATH is a directory. Each file is written under\n"
       "a temporary name in its device directory and renamed over the target only when complete,\n"
       "so an existing file stays as it was until then. Ctrl-C, SIGTERM or SIGHUP cancel; the\n"
       "temporary file is removed. Symbolic links in HOST_PATH are skipped, with a warning. Refused\n"
       "while the device syncs with another computer.\n",
       {}, {}, 2, 2, {1}, Needs::kDevice, CmdPush},
  };
  return commands;
}

const char *const kGlobalHelp =
    "Options:\n"
    "  -u, --udid UDID   the device to use (default: the only one attached); UDID may follow -u directly\n"
    "  -v, --verbose     show the library's own console lines on standard error\n"
    "  --workdir DIR     where the device's databases are copied (default:\n"
    "                    $XDG_CACHE_HOME/tarn/UDID, or ~/.cache/tarn/UDID)\n"
    "  --app BUNDLE      ls, stat, find, mkdir, mv, rm, pull and push work on the Documents\n"
    "                    of the app BUNDLE (tarn apps lists them) instead of the media\n"
    "                    partition; relative device paths count from /Documents\n"
    "  --refresh         drop the copies first (a copy whose device file changed size or\n"
    "                    time is read afresh anyway; only in a working directory that tarn\n"
    "                    set up itself, or an empty one)\n"
    "  --progress, --no-progress\n"
    "                    show transfer progress or not (default: when stderr is a terminal)\n"
    "  -h, --help        help, also after a command: tarn ls --help\n"
    "  --version         the version\n";

const char *const kExitHelp =
    "Exit codes:\n"
    "  0 success            1 operation failed         2 usage\n"
    "  3 no device attached 4 device not found         5 several devices (use -u)\n"
    "  6 device cannot be reached (locked, not trusted, pairing no longer valid)\n"
    "  7 path not found on the device                  8 host path cannot be read or written\n"
    "  9 target exists      10 device disconnected     11 device full\n"
    "  12 device busy syncing with another computer   13 usbmuxd not running\n"
    "  14 the app is not installed or does not share files\n"
    "  130 cancelled by Ctrl-C, 143 by SIGTERM, 129 by SIGHUP (temporary files removed)\n";

void PrintUsage(std::FILE *out) {
  std::fprintf(out, "Usage: tarn [OPTIONS] COMMAND [ARGS]\n\nBrowse and move the content of iPod, iPhone and iPad "
                    "devices.\n\nCommands:\n");
  for (const auto &c : Commands()) std::fprintf(out, "  %-38s %s\n", c.usage, c.summary);
  std::fprintf(out, "\nKIND: %s\n\n%s\n%s", KindNames().c_str(), kGlobalHelp, kExitHelp);
}

void PrintCommandUsage(std::FILE *out, const CommandEntry &c) {
  std::fprintf(out, "Usage: tarn [OPTIONS] %s\n\n%c%s.\n", c.usage, c.summary[0] - 32, c.summary + 1);
  std::fprintf(out, "\n");
  if (std::strstr(c.usage, "KIND") != nullptr) std::fprintf(out, "KIND is one of: %s.\n", KindNames().c_str());
  if (c.details[0] != '\0') std::fprintf(out, "%s", c.details);
  std::fprintf(out, "\n%s", kGlobalHelp);
}

const CommandEntry *FindCommand(const std::string &name) {
  for (const auto &c : Commands())
    if (name == c.name) return &c;
  return nullptr;
}

bool Contains(const std::vector<std::string> &list, const std::string &item) {
  for (const auto &x : list)
    if (x == item) return true;
  return false;
}

struct CommandLine {
  GlobalOptions options;
  const CommandEntry *command = nullptr;
  Args args;
  bool help = false;
  bool version = false;
};

[[noreturn]] void UsageError(const CommandEntry *command, const std::string &message) {
  const std::string hint = command != nullptr ? std::string("tarn ") + command->name + " --help" : "tarn --help";
  Fail(kExitUsage, message + " (see " + hint + ")");
}

CommandLine Parse(int argc, char **argv) {
  CommandLine line;
  std::vector<std::string> words(argv + 1, argv + argc);
  bool options_done = false;
  for (size_t i = 0; i < words.size(); ++i) {
    std::string word = words[i];
    std::string inline_value;
    bool has_inline = false;
    if (!options_done && word.rfind("--", 0) == 0 && word.find('=') != std::string::npos) {
      inline_value = word.substr(word.find('=') + 1);
      word = word.substr(0, word.find('='));
      has_inline = true;
    }
    auto value = [&](const std::string &flag) {
      if (has_inline) return inline_value;
      if (i + 1 >= words.size()) UsageError(line.command, flag + " needs a value");
      return words[++i];
    };
    if (options_done || word.empty() || word[0] != '-' || word == "-") {
      if (line.command == nullptr) {
        line.command = FindCommand(word);
        if (line.command == nullptr) UsageError(nullptr, "unknown command '" + word + "'");
      } else {
        line.args.positional.push_back(words[i]);
      }
      continue;
    }
    if (word == "--") options_done = true;
    else if ((word == "-u" || word == "--udid") && (has_inline ? inline_value : i + 1 < words.size() ? words[i + 1] : "x").empty())
      UsageError(line.command, word + " needs a device identifier");
    else if (word == "-u" || word == "--udid") line.options.session.udid = value(word);
    else if (word.rfind("-u", 0) == 0 && word.size() > 2) line.options.session.udid = word.substr(2);
    else if (word == "-v" || word == "--verbose") line.options.verbose = true;
    else if (word == "--workdir") line.options.session.workdir = value(word);
    else if (word == "--app") line.options.session.app = value(word);
    else if (word == "--refresh") line.options.session.refresh = true;
    else if (word == "--progress") line.options.progress = true;
    else if (word == "--no-progress") line.options.progress = false;
    else if (word == "-h" || word == "--help") line.help = true;
    else if (word == "--version") line.version = true;
    else if (line.command != nullptr && Contains(line.command->with_value, word)) line.args.flags[word] = value(word);
    else if (line.command != nullptr && Contains(line.command->switches, word)) line.args.flags[word] = "";
    else if (line.command != nullptr && word.size() > 2 && word[1] != '-') {
      // A cluster of short switches: -lR.
      for (size_t k = 1; k < word.size(); ++k) {
        const std::string flag = std::string("-") + word[k];
        if (!Contains(line.command->switches, flag)) UsageError(line.command, "unknown option " + flag);
        line.args.flags[flag] = "";
      }
    } else {
      UsageError(line.command, "unknown option " + word);
    }
  }
  return line;
}

int Run(CommandLine line) {
  const CommandEntry &c = *line.command;
  const size_t n = line.args.positional.size();
  if (n < c.min_args || n > c.max_args)
    UsageError(&c, std::string(n < c.min_args ? "missing" : "too many") + " arguments: tarn " + c.usage);
  for (const auto &arg : line.args.positional)
    if (arg.empty()) UsageError(&c, "an argument is empty");
  const std::string &app = line.options.session.app;
  if (!app.empty() && (c.device_args.empty() || c.run == CmdApps))
    UsageError(&c, std::string("--app works with ls, stat, find, mkdir, mv, rm, pull and push, not ") + c.name);
  // Every device path is normalised here, once, before any command sees it;
  // an app's relative paths count from its Documents.
  line.args.dir_only.assign(n, false);
  for (size_t i : c.device_args) {
    if (i >= n) continue;
    const DevicePath path = NormaliseDevicePath(line.args.positional[i], app.empty() ? "/" : kAppDocuments);
    line.args.positional[i] = path.path;
    line.args.dir_only[i] = path.dir_only;
  }
  if (line.args.has("--no-clobber")) line.args.flags["-n"] = "";
  if (line.args.has("--json") && line.args.has("--xml")) UsageError(&c, "--json and --xml exclude each other");
  if (line.args.has("-R") && line.args.has("--depth")) UsageError(&c, "-R and --depth exclude each other");
  // A mistyped kind is a usage error whether or not a device is attached.
  if (c.run == CmdList || c.run == CmdExport) FindKind(line.args.positional[0]);
  if (c.run == CmdImport && line.args.positional[0] != "photos")
    UsageError(&c, "tarn imports photos only: tarn import photos HOST_DIR");
  if (c.needs == Needs::kNothing) return CmdDevices(line.options, line.args);
  SetProgressWanted(line.options.progress);
  Session session(line.options.session, ChooseDevice(line.options.session));
  session.Connect();
  for (size_t i : c.device_args)
    if (i < n && line.args.dir_only[i] && c.run != CmdPush) {
      const PathInfo info = session.Stat(line.args.positional[i]);
      if (info.exists && !info.is_dir) Fail(kExitNotOnDevice, line.args.positional[i] + ": not a directory");
    }
  if (c.needs == Needs::kCatalogue) session.InitCatalogue();
  return c.run(session, line.args);
}

}  // namespace
}  // namespace tarn::cli

int main(int argc, char **argv) {
  using namespace tarn::cli;
  tarn::app::IgnoreBrokenPipes();
  int code = kExitOk;
  try {
    const CommandLine line = Parse(argc, argv);
    if (line.version) {
      std::printf("tarn %s\n", TARN_VERSION);
      return kExitOk;
    }
    if (line.help || line.command == nullptr) {
      if (line.command != nullptr) PrintCommandUsage(stdout, *line.command);
      else PrintUsage(line.help ? stdout : stderr);
      return line.help ? kExitOk : kExitUsage;
    }
    SeparateLibraryOutput(line.options.verbose);
    CatchInterrupt();
    code = Run(line);
  } catch (const Failure &failure) {
    PrintError(failure.message);
    code = failure.status;
    // SIGTERM and SIGHUP clean up as Ctrl-C does, and end as their own.
    if (code == kExitCancelled && CaughtSignal() != SIGINT) code = 128 + CaughtSignal();
  } catch (const std::exception &e) {
    PrintError(e.what());
    code = kExitFailed;
  }
  FlushAll();
  return code;
}
