// The editor's HTTP API over one Session: sixteen endpoints under /v1.
#pragma once

#include <functional>

#include "session.hpp"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace tondrel::sim {

// Runs one /v1 request around `answer`, which fills the response from the session
// and turns any failure into a 4xx or 5xx answer with {"error": message}; the caller
// holds the session's lock around it.
using ServeRequest =
    std::function<void(const httplib::Request&, httplib::Response&, const std::function<void()>& answer)>;

// Registers every endpoint, and an answer for any other path under /v1 that says there is
// no such endpoint, each through `serve`. Sets how connections are bound and kept: the port
// is never shared, answers are not held back, and a kept-alive connection serves any number
// of requests. Any other path answers 404.
void installRoutes(httplib::Server& server, Session& session, ServeRequest serve);

}  // namespace tondrel::sim
