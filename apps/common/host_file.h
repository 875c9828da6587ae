// Writing a file whole: every file the programs write, on the host or on
// the device, goes under a temporary name beside its target first and is
// renamed over the target only once complete, so that no reader ever sees
// half of one.
#pragma once

#include <filesystem>
#include <string>

namespace tarn::app {

// The temporary name of every write-then-rename, on either side: short and
// hidden, so that it fits beside a final name of any length within the 255
// bytes a name may have.
std::string TemporaryName();
// Whether a name is one TemporaryName() gave.
bool IsTemporaryName(const std::string &name);

// A new, empty host file under a temporary name in the target's directory,
// created exclusively: never a name that is there, and never through a
// link planted at it. Fails with kHostPath.
std::filesystem::path CreateTemporaryBeside(const std::filesystem::path &target);

// `bytes` written to `path` whole, through a temporary name. Fails with
// kHostPath, leaving the old file as it was.
void WriteWhole(const std::filesystem::path &path, const std::string &bytes);

}  // namespace tarn::app
