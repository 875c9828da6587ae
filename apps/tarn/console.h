// The tool's own output and the library's console lines kept apart.
//
// The library prints progress lines on standard output with puts/printf.
// At start the tool keeps a duplicate of the real standard output for its
// own text and points file descriptor 1 at /dev/null (or, with --verbose,
// at standard error), so that no library line can land in a table or in
// JSON that a script parses.
#pragma once

#include <cstdio>
#include <string>

namespace tarn::cli {

void SeparateLibraryOutput(bool verbose);
std::FILE *Out();  // the original standard output
bool OutIsTerminal();
bool ErrIsTerminal();
void FlushAll();

// "tarn: <message>" on standard error.
void PrintError(const std::string &message);
void PrintWarning(const std::string &message);

}  // namespace tarn::cli
