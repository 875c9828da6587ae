// The file conduit (AFC) over an image's media directory.
#pragma once

#include <string>
#include <string_view>

#include "device.h"

namespace devsim {

// Resolves client paths inside a root directory without ever leaving it:
// ".." stops at the root, and symbolic links (relative or absolute) are
// expanded component by component with the root as "/".
class RootResolver {
 public:
  explicit RootResolver(int root_fd) : root_(root_fd) {}
  // On success returns 0 and stores the path relative to the root ("." for
  // the root itself) that holds no symlink except, with follow_last false,
  // the final component. missing_ok lets components from the first missing
  // one on be taken literally (for creating directories).
  int resolve(std::string_view path, bool follow_last, std::string& rel, bool missing_ok = false) const;

 private:
  int root_;
};

// Serves one file-conduit connection until the peer leaves or a fault
// drops it, rooted at `root` (the media partition, or an app's container
// over house_arrest). Updates the device's counters as it goes.
void serve_afc(int fd, Device& dev, const std::string& root);

}  // namespace devsim
