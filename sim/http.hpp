// The editor's HTTP API over one Session: sixteen endpoints under /v1.
#pragma once

#include <mutex>

#include "session.hpp"

namespace httplib {
class Server;
}

namespace tondrel::sim {

// Registers every endpoint; each request runs under the lock and any failure
// becomes a 4xx or 5xx answer with {"error": message}.
void installRoutes(httplib::Server& server, Session& session, std::mutex& lock);

}  // namespace tondrel::sim
