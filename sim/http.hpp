// The editor's HTTP API over one Session: sixteen endpoints under /v1.
#pragma once

#include <mutex>

#include "session.hpp"

namespace httplib {
class Server;
}

namespace tondrel::sim {

// Registers every endpoint and sets how connections are bound and kept: the port is
// never shared, answers are not held back, and a kept-alive connection serves any
// number of requests. Each request runs under the lock and any failure becomes a
// 4xx or 5xx answer with {"error": message}.
void installRoutes(httplib::Server& server, Session& session, std::mutex& lock);

}  // namespace tondrel::sim
