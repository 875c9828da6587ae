#include "console.h"

#include <fcntl.h>
#include <unistd.h>

#include "apps/common/text.h"

namespace tarn::cli {
namespace {

std::FILE *g_out = stdout;
bool g_out_tty = false;

}  // namespace

void SeparateLibraryOutput(bool verbose) {
  g_out_tty = ::isatty(STDOUT_FILENO) == 1;
  std::fflush(stdout);
  const int keep = ::dup(STDOUT_FILENO);
  std::FILE *out = keep >= 0 ? ::fdopen(keep, "w") : nullptr;
  if (out == nullptr) return;  // cannot separate: everything goes to stdout as it is
  const int target = verbose ? ::dup(STDERR_FILENO) : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (target < 0 || ::dup2(target, STDOUT_FILENO) < 0) {
    std::fclose(out);
    return;
  }
  ::close(target);
  ::fcntl(keep, F_SETFD, FD_CLOEXEC);
  g_out = out;
  // Library lines shown on stderr come in whole lines, in step with the
  // tool's own messages there.
  if (verbose) std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

std::FILE *Out() { return g_out; }
bool OutIsTerminal() { return g_out_tty; }
bool ErrIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

void FlushAll() {
  std::fflush(stdout);
  std::fflush(g_out);
  std::fflush(stderr);
}

void PrintError(const std::string &message) {
  std::fflush(g_out);
  std::fprintf(stderr, "tarn: %s\n", app::Printable(message).c_str());
}

void PrintWarning(const std::string &message) {
  std::fflush(g_out);
  std::fprintf(stderr, "tarn: warning: %s\n", app::Printable(message).c_str());
}

}  // namespace tarn::cli
