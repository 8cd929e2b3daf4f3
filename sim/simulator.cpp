#include "simulator.hpp"

#include <httplib.h>

#include <cerrno>
#include <thread>

#include "http.hpp"
#include "page.hpp"
#include "project_files.hpp"
#include "snapshot.hpp"

namespace tondrel::sim {

namespace {

using Clock = std::chrono::steady_clock;

const char* const kStatus500Error =
    "the editor failed on this request (fault status500 of tondrel-editor-sim)";

std::int64_t epochMs() {
  return std::chrono::duration_cast<Milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Enough of a body for the log to cut at its limit without splitting a character.
std::string head(const std::string& body) {
  return body.substr(0, RequestLog::kBodyBytes + 1);
}

}  // namespace

Simulator::Simulator(int apiPort, std::uint64_t faultSeed)
    : session_(apiPort),
      faults_(faultSeed),
      live_(projectSummary(session_)),
      server_(std::make_unique<httplib::Server>()) {
  server_->new_task_queue = [this] { return connections_.newTaskQueue(); };
  connections_.whenApiClosed([this] { live_.connectionsChanged(connections_.counts()); });
  installRoutes(*server_, session_,
                [this](const httplib::Request& request, httplib::Response& response,
                       const std::function<void()>& answer) { serveApi(request, response, answer); });
  installPageRoutes(*server_, *this);
  live_.faultsChanged(faults_.describe());
}

Simulator::~Simulator() {
  stop();
  connections_.join();  // each connection's thread runs inside the server, which goes next
}

void Simulator::open(const std::string& file) {
  std::lock_guard guard(lock_);
  openFile(session_, file);
  live_.changed(projectSummary(session_));
}

bool Simulator::bind(int port) {
  errno = 0;
  if (!server_->bind_to_port(kHost, port)) return false;
  port_ = port;
  return true;
}

int Simulator::bindAnyPort() {
  port_ = server_->bind_to_any_port(kHost);
  return port_;
}

void Simulator::run() {
  serving_ = true;
  while (!stopping_) {
    server_->listen_after_bind();
    if (stopping_ || !faults_.waitUntilUp()) break;
    live_.faultsChanged(faults_.describe());
    while (!stopping_ && !server_->bind_to_port(kHost, port_))  // until whoever took the port lets go
      std::this_thread::sleep_for(Milliseconds(100));
  }
  serving_ = false;
}

void Simulator::stop() {
  stopping_ = true;
  faults_.wake();
  live_.stop();
  connections_.wakeWaiters();
  // The server may be between binding and listening, where its stop does nothing yet.
  while (serving_) {
    server_->stop();
    std::this_thread::sleep_for(Milliseconds(1));
  }
}

void Simulator::setFaults(std::vector<FaultRule> rules) {
  faults_.set(std::move(rules));
  connections_.wakeWaiters();
  live_.faultsChanged(faults_.describe());
}

std::string Simulator::timelinePNG() {
  std::lock_guard guard(timelineLock_);
  std::uint64_t version = live_.version();
  if (timeline_.empty() || timelineVersion_ != version) {
    std::lock_guard api(lock_);
    timeline_ = snapshotPNG(session_);
    timelineVersion_ = version;
  }
  return timeline_;
}

// A /v1 request: its faults first (serial, a delay, then what it meets instead of an
// answer), then the answer under the API's lock, then its entry in the log for the page.
void Simulator::serveApi(const httplib::Request& request, httplib::Response& response,
                         const std::function<void()>& answer) {
  auto start = Clock::now();
  connections_.markApi(request);
  if (faults_.serial())
    connections_.awaitTurn([this] { return faults_.serial(); }, [this] { return stopping_.load(); });
  FaultDecision fault = faults_.next();
  if (fault.delay.count() > 0) faults_.sleep(fault.delay);

  using Outcome = FaultDecision::Outcome;
  std::optional<json> project;
  if (fault.outcome == Outcome::serve) {
    std::lock_guard guard(lock_);
    answer();
    if (request.method != "GET" && request.method != "HEAD" && response.status == 200)
      project = projectSummary(session_);
  } else if (fault.outcome == Outcome::status500) {
    response.status = 500;
    response.set_content(json{{"error", kStatus500Error}}.dump(), "application/json");
  } else {
    // Down: the port is given up before this connection ends, so what the client tries next is refused.
    if (fault.outcome == Outcome::down && fault.down.count() > 0 && faults_.goDown(fault.down)) {
      live_.faultsChanged(faults_.describe());
      server_->stop();  // run() waits out the down and listens again
    }
    connections_.closeCurrent();
  }

  bool closed = fault.outcome == Outcome::close || fault.outcome == Outcome::down;
  LogEntry entry;
  entry.at = epochMs();
  entry.method = request.method;
  entry.target = request.target;
  entry.status = closed ? 0 : response.status;
  entry.ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  entry.faults = std::move(fault.names);
  entry.requestBody = head(request.body);
  entry.requestBytes = request.body.size();
  if (!closed) {
    entry.answerBody = head(response.body);
    entry.answerBytes = response.body.size();
    entry.answerType = response.get_header_value("Content-Type");
  }
  live_.recorded(std::move(entry), std::move(project), connections_.counts());
}

}  // namespace tondrel::sim
