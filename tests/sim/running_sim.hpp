// The simulator on a free loopback port, in this process, for the tests that speak HTTP to it.
#pragma once

#include <httplib.h>

#include <csignal>
#include <thread>

#include "simulator.hpp"

namespace tondrel::sim::test {

class RunningSim {
 public:
  explicit RunningSim(const std::string& faults = "") : simulator_(0, 1) {
    std::signal(SIGPIPE, SIG_IGN);  // as main does: a peer that has gone is an error, not a signal
    simulator_.setFaults(parseFaults(faults));
    port_ = simulator_.bindAnyPort();
    thread_ = std::thread([this] { simulator_.run(); });
    httplib::Client probe("127.0.0.1", port_);
    while (!probe.Get("/live.json")) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~RunningSim() {
    simulator_.stop();
    thread_.join();
  }
  int port() const { return port_; }
  httplib::Client client() const { return httplib::Client("127.0.0.1", port_); }
  Simulator& simulator() { return simulator_; }

 private:
  Simulator simulator_;
  int port_ = 0;
  std::thread thread_;
};

}  // namespace tondrel::sim::test
