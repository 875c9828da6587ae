// The services a phone offers about its apps, each over its own
// StartService connection: installation_proxy (the app list), house_arrest
// (an app's files, after which the connection speaks the file conduit) and
// springboardservices (app icons).
#pragma once

#include <string>

#include "device.h"

namespace devsim {

// Serves one connection of `service` (a name StartService handed out) until
// the peer leaves or a fault drops it. False for a service it does not know.
bool serve_app_service(const std::string& service, int fd, Device& dev);

}  // namespace devsim
