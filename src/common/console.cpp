#include "common/console.h"

#include <cstdarg>
#include <cstdio>

namespace tarn {

void ConsoleLine(const char *text) { std::puts(text); }

void ConsoleText(const char *text) { std::fputs(text, stdout); }

void ConsoleFlush() { std::fflush(stdout); }

void Console(const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
}

}  // namespace tarn
