// The editor client over libcurl, which is loaded and set up at the first call:
// linking it would pull some thirty shared libraries into every start, before the
// host has had its "initialize" answer.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "editor_client.hpp"

namespace tondrel {

// At most one connection to the editor, and each request sent at most once: GETs
// share one kept-alive connection, checked before each use; a request that may
// change the project (any other method) goes out on a connection of its own,
// which nothing ever sends again, after the idle one is closed (an editor that
// serves one connection at a time would wait on that one). The timeout bounds
// connecting and any silence of the editor, in seconds, counted on every byte that
// arrives, heads and interim answers included.
class CurlClient {
 public:
  CurlClient(std::string base, double timeout);
  ~CurlClient();
  CurlClient(const CurlClient&) = delete;
  CurlClient& operator=(const CurlClient&) = delete;

  APIResponse send(std::string_view method, std::string_view path, std::optional<std::string_view> body,
                   AnswerSink& sink);

  // The connection kept open between calls, or -1. It should go as soon as anything
  // arrives on it, and after a few seconds without a call: another host's
  // tondrel-mcp may be waiting for an editor that serves one connection at a time.
  int idleConnection() const;
  void closeIdleConnection();
  // Nothing arrived on the idle connection while the line loop watched it, just now:
  // the look before the next request is not needed.
  void idleConnectionWasQuiet();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// The transport the server is given: every call goes through client.
Transport curlTransport(std::shared_ptr<CurlClient> client);

}  // namespace tondrel
