#include "page.hpp"

#include <httplib.h>

#include "simulator.hpp"

namespace tondrel::sim {

namespace {

// A page that has gone shows up as a failed write, so its thread is freed within this long.
constexpr Milliseconds kHeartbeat{15000};

using Request = httplib::Request;
using Response = httplib::Response;
using Handler = httplib::Server::Handler;

void answer(Response& response, int status, const json& body) {
  response.status = status;
  response.set_header("Cache-Control", "no-store");
  response.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

// The simulator's own address, as a Host header or (with "http://") an Origin names it.
bool ours(const std::string& address, int port, const std::string& scheme = "") {
  std::string suffix = ":" + std::to_string(port);
  return address == scheme + "127.0.0.1" + suffix || address == scheme + "localhost" + suffix;
}

// Only the page this simulator served, at its own address, reads or changes anything here:
// a name that another site points at 127.0.0.1 fails the Host check, and no other site's
// page may POST JSON here, since no answer ever allows another origin.
Handler guarded(Simulator& simulator, Handler handler, bool control = false) {
  return [&simulator, handler, control](const Request& request, Response& response) {
    int port = simulator.port();
    if (!ours(request.get_header_value("Host"), port))
      return answer(response, 403,
                    {{"error", "the page answers at http://127.0.0.1:" + std::to_string(port) + "/ only"}});
    if (control && request.has_header("Origin") && !ours(request.get_header_value("Origin"), port, "http://"))
      return answer(response, 403, {{"error", "the faults are changed from the simulator's own page only"}});
    if (control && !request.get_header_value("Content-Type").starts_with("application/json"))
      return answer(response, 415, {{"error", "send {\"faults\": \"...\"} as application/json"}});
    handler(request, response);
  };
}

void events(Simulator& simulator, Response& response) {
  Live& live = simulator.live();
  if (!live.openStream()) return answer(response, 503, {{"error", "too many pages are open"}});
  response.set_header("Cache-Control", "no-store");
  auto seen = std::make_shared<std::optional<std::uint64_t>>();
  response.set_chunked_content_provider(
      "text/event-stream",
      [&live, seen](std::size_t, httplib::DataSink& sink) {
        std::string text = live.next(*seen, kHeartbeat);
        if (live.stopped()) return false;
        if (text.empty()) text = ":\n\n";
        return sink.write(text.data(), text.size());
      },
      [&live](bool) { live.closeStream(); });
}

void setFaults(Simulator& simulator, const Request& request, Response& response) {
  try {
    json body = json::parse(request.body);
    if (!body.is_object() || !body.contains("faults") || !body["faults"].is_string())
      throw SimError("send {\"faults\": \"...\"}, \"\" to clear them");
    simulator.setFaults(parseFaults(body["faults"].get<std::string>()));
    answer(response, 200, simulator.faults());
  } catch (const json::exception&) {
    answer(response, 400, {{"error", "the body is not valid JSON"}});
  } catch (const SimError& error) {
    answer(response, 400, {{"error", error.what()}});
  }
}

}  // namespace

void installPageRoutes(httplib::Server& server, Simulator& simulator) {
  for (std::size_t i = 0; i < kPageFileCount; ++i) {
    const PageFile& file = kPageFiles[i];
    std::string name = file.name, path = name == "index.html" ? "/" : "/" + name;
    const char* type = name.ends_with(".html")  ? "text/html; charset=utf-8"
                       : name.ends_with(".css") ? "text/css; charset=utf-8"
                                                : "text/javascript; charset=utf-8";
    server.Get(path, guarded(simulator, [&file, type](const Request&, Response& response) {
                 response.set_header("Cache-Control", "no-cache");
                 response.set_content(file.body.data(), file.body.size(), type);
               }));
  }
  server.Get("/events", guarded(simulator, [&simulator](const Request&, Response& response) {
               events(simulator, response);
             }));
  server.Get("/live.json", guarded(simulator, [&simulator](const Request&, Response& response) {
               answer(response, 200, simulator.live().state(simulator.apiConnections()));
             }));
  server.Get(R"(/log/(\d{1,18}))",
             guarded(simulator, [&simulator](const Request& request, Response& response) {
               auto entry = simulator.live().logEntry(std::stoull(request.matches[1]));
               if (entry) return answer(response, 200, *entry);
               answer(response, 404, {{"error", "that request has left the log"}});
             }));
  server.Get("/timeline.png", guarded(simulator, [&simulator](const Request&, Response& response) {
               response.set_header("Cache-Control", "no-store");
               response.set_content(simulator.timelinePNG(), "image/png");
             }));
  server.Post("/faults", guarded(
                             simulator,
                             [&simulator](const Request& request, Response& response) {
                               setFaults(simulator, request, response);
                             },
                             true));
}

}  // namespace tondrel::sim
