// Creation and release of the PodDir and PodFile records that snapshots and
// search results hand to the application. Every text in a record is a
// private malloc'd copy, so each record is released the same way wherever it
// came from (FreePodDir, _TarnDeleteDir, FreeSearchResult).
#pragma once

#include <cstdint>
#include <string>

#include <libimobiledevice/afc.h>

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

// Set a record's dates (and a file's size) from a file-information vector;
// a directory's dates are printed.
void SetDirInfo(char **info, PodDir *dir);
void SetFileInfo(char **info, PodFile *file);

// Release dir's content, and dir itself when free_self, keeping root's
// counts in step (root may be null).
void FreePodDir(PodDir *dir, int free_self, PodDir *root);

// Fills dir, a directory of the snapshot rooted at root, with its entries
// (and, within the snapshot's depth, theirs).
void StoreSubFolderAndFilesInfo(afc_client_t client, PodDir *dir, PodDir *root, int32_t level);

}  // namespace tarn
