// Creation and release of the PodDir and PodFile records that snapshots and
// search results hand to the application. Every text in a record is a
// private malloc'd copy, so each record is released the same way wherever it
// came from (FreePodDir, _TarnDeleteDir, FreeSearchResult).
#pragma once

#include <string>

#include "tarn/tarn_device.h"

namespace tarn {

// A new zero-filled file record with name, parent_path, path, size and
// dates set (parent_path may be null); links are left for the caller.
PodFile *NewFileRecord(const char *name, const char *parent_path, const std::string &path, char **info);

// A new zero-filled directory record with name, parent_path (may be null),
// path and dates set; SetDirInfo prints the dates.
PodDir *NewDirRecord(const char *name, const char *parent_path, const std::string &path, char **info);

// Release a record and all of its texts; links are not followed.
void FreeFileRecord(PodFile *file);
void FreeDirRecord(PodDir *dir);

}  // namespace tarn
