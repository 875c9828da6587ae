// Owners for the C resources the library handles. Every resource that a
// call acquires is held by one of these, so that it is released on every
// path out of the call; raw owning pointers appear only where a result is
// handed to the caller (release()).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <glib-object.h>
#include <glib.h>
#include <gpod/itdb.h>
#include <plist/plist.h>
#include <sqlite3.h>

#include "tarn/tarn_device.h"

namespace tarn {

struct PlistDeleter {
  void operator()(void *node) const { if (node) plist_free(static_cast<plist_t>(node)); }
};
// plist_t is void*; unique_ptr<void> holds it.
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

struct FreeDeleter {
  void operator()(void *p) const { std::free(p); }
};
// A malloc'd text (the library's own or one from libimobiledevice/libplist).
using CString = std::unique_ptr<char, FreeDeleter>;

struct StrvDeleter {
  void operator()(char **v) const { if (v) g_strfreev(v); }
};
// A NULL-terminated string vector released with g_strfreev.
using StrVec = std::unique_ptr<char *, StrvDeleter>;

// A file-information vector (GetFileInfo): TARN_INFO_VALUES value slots, any of which is
// NULL when the device left that key out, then the terminating NULL.
// g_strfreev would stop at the first hole and leak the slots after it.
struct FileInfoDeleter {
  void operator()(char **v) const {
    if (!v) return;
    for (int i = 0; i < TARN_INFO_VALUES; ++i) g_free(v[i]);
    g_free(v);
  }
};
using FileInfo = std::unique_ptr<char *, FileInfoDeleter>;

struct FileCloser {
  void operator()(FILE *f) const { if (f) std::fclose(f); }
};
using HostFile = std::unique_ptr<FILE, FileCloser>;

struct SqliteCloser {
  void operator()(sqlite3 *db) const { sqlite3_close(db); }
};
using SqliteDb = std::unique_ptr<sqlite3, SqliteCloser>;

struct SqliteFree {
  void operator()(char *p) const { sqlite3_free(p); }
};
using SqliteText = std::unique_ptr<char, SqliteFree>;

struct ItdbDeleter {
  void operator()(Itdb_iTunesDB *db) const { if (db) itdb_free(db); }
};
using ItdbPtr = std::unique_ptr<Itdb_iTunesDB, ItdbDeleter>;

struct ChapterdataDeleter {
  void operator()(Itdb_Chapterdata *c) const { if (c) itdb_chapterdata_free(c); }
};
using ChapterdataPtr = std::unique_ptr<Itdb_Chapterdata, ChapterdataDeleter>;

// A GObject reference (a GdkPixbuf, ...), dropped with g_object_unref.
struct GObjectUnref {
  void operator()(gpointer o) const { if (o) g_object_unref(o); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

struct GErrorDeleter {
  void operator()(GError *e) const { if (e) g_error_free(e); }
};
using GErrorPtr = std::unique_ptr<GError, GErrorDeleter>;

}  // namespace tarn
