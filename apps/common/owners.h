// Owners for what the library's C functions hand to a program. Each program is a
// client like any other application: it sees only the public header, so it
// keeps its own small owners rather than borrowing the library's internals.
#pragma once

#include <cstdlib>
#include <memory>

#include <glib.h>
#include <plist/plist.h>

#include "tarn/tarn_device.h"

namespace tarn::app {

struct PlistFree {
  void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

struct MallocFree {
  void operator()(void *p) const { std::free(p); }
};
using CString = std::unique_ptr<char, MallocFree>;

struct FileInfoFree {
  void operator()(char **v) const { FreeFileInfo(v); }
};
using FileInfo = std::unique_ptr<char *, FileInfoFree>;

}  // namespace tarn::app
