// The lines the library prints on standard output. Applications and their
// tests read them as a trace of what a call did, so every one goes through
// these functions: one place to find them, one place to change where
// they go.
#pragma once

namespace tarn {

// The text and a newline (puts).
void ConsoleLine(const char *text);
// The text alone, no newline (fputs).
void ConsoleText(const char *text);
// Formatted output, as printf.
[[gnu::format(printf, 1, 2)]] void Console(const char *format, ...);
// Hands what was printed so far to the reader now (before a long copy).
void ConsoleFlush();

}  // namespace tarn
