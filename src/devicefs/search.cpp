// Search by name over a directory tree.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/connection.h"
#include "common/console.h"
#include "common/error.h"
#include "common/helpers.h"
#include "devicefs/records.h"
#include "devicefs/walk.h"
#include "tarn/tarn_device.h"

namespace {

// Appends the walk's matches to a search state. Every directory is entered,
// matching or not, so the results come in pre-order: a matching directory
// precedes what matches inside it.
class Searcher {
 public:
  explicit Searcher(PodSearchState *state) : state_(state) {}

  bool Enter(const tarn::WalkEntry &e) {
    std::string lowered(e.name);
    TarnToLower(lowered.data());
    // The keyword is deliberately not lowered: callers pass it in lower case
    // to search without regard to case.
    const bool match = lowered.find(state_->keyword) != std::string::npos;
    if (!e.is_dir) {
      if (match) {
        Append(tarn::NewFileRecord(e.name, dir_of(e).c_str(), e.path, e.info), 0);
        tarn::Console("file_path is %s\n", e.path.c_str());
      }
      return false;
    }
    if (match) {
      Append(tarn::NewDirRecord(e.name, nullptr, e.path, e.info), 1);
      tarn::Console("file_path dir is %s\n", e.path.c_str());
    }
    ++state_->depth;
    return true;
  }

  void Leave(const tarn::WalkEntry &e, bool) {
    if (e.is_dir) --state_->depth;
  }

 private:
  // The directory the entry was listed in: its path up to the '/' that the
  // walk inserted before the name.
  static std::string dir_of(const tarn::WalkEntry &e) {
    return e.path.substr(0, e.path.size() - std::strlen(e.name) - 1);
  }

  void Append(void *record, int32_t kind) {
    if (record == nullptr) return;
    auto *item = static_cast<PodSearchItem *>(std::calloc(1, sizeof(PodSearchItem)));
    if (item == nullptr) {
      // Out of memory: the result goes on without this match.
      if (kind == 0) {
        tarn::FreeFileRecord(static_cast<PodFile *>(record));
      } else {
        tarn::FreeDirRecord(static_cast<PodDir *>(record));
      }
      return;
    }
    item->record = record;
    item->kind = kind;
    if (state_->last) {
      state_->last->next = item;
    } else {
      state_->first = item;
    }
    state_->last = item;
  }

  PodSearchState *state_;
};

}  // namespace

namespace tarn {

void InternalSearchFile(afc_client_t client, const char *dir, PodSearchState *state) {
  if (dir == nullptr || state == nullptr || state->keyword == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "A search needs a directory and a keyword.");
    return;
  }
  Searcher searcher(state);
  tarn::WalkDirectory(client, dir, state->depth, searcher);
}


}  // namespace tarn

extern "C" {

TARN_API void InternalSearchFile(afc_client_t client, const char *dir, PodSearchState *state) {
  const tarn::ApiCall api_call;
  tarn::InternalSearchFile(client, dir, state);
}

TARN_API PodSearchItem *SearchFile(PodDevice *device, const char *dir, const char *keyword) {
  const tarn::ApiCall api_call;
  if (keyword == nullptr) {
    tarn::SetError(TARN_E_INVALID_ARGUMENT, "A search needs a keyword.");
    return nullptr;
  }
  const tarn::DeviceCall call(device, tarn::PolicyOf("SearchFile"));
  PodSearchState state{keyword, nullptr, nullptr, 0};
  tarn::InternalSearchFile(call.afc(), dir, &state);
  return state.first;
}

TARN_API void FreeSearchResult(PodSearchItem *first) {
  while (first != nullptr) {
    PodSearchItem *next = first->next;
    if (first->kind == 0) {
      tarn::FreeFileRecord(static_cast<PodFile *>(first->record));
    } else {
      tarn::FreeDirRecord(static_cast<PodDir *>(first->record));
    }
    std::free(first);
    first = next;
  }
}


}  // extern "C"
