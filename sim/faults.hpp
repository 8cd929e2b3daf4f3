// Editor faults on demand, for /v1 only: the grammar that --faults and the page share,
// and which fault each request meets.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "document.hpp"

namespace tondrel::sim {

using Milliseconds = std::chrono::milliseconds;

struct FaultRule {
  enum class Kind { delay, status500, close, down, serial } kind;
  Milliseconds length{0};  // how long a delay or a down lasts
  enum class When { always, every, after, chance } when = When::always;
  long count = 0;     // every=N: requests N, 2N, ...; after=N: request N+1 alone
  double chance = 0;  // p=X: each request with probability X
};

// "delay=3s/every=4,status500/p=0.1,close/every=7,down=10s/after=3,serial"; "" is no fault.
// A SimError names what is wrong.
std::vector<FaultRule> parseFaults(std::string_view text);
std::string faultText(const FaultRule& rule);  // the rule as parseFaults reads it

// What one /v1 request meets: a delay first, then its outcome.
struct FaultDecision {
  Milliseconds delay{0};
  enum class Outcome { serve, status500, close, down } outcome = Outcome::serve;
  Milliseconds down{0};
  std::vector<std::string> names;  // as the request log shows them
};

class Faults {
 public:
  explicit Faults(std::uint64_t seed) : random_(seed) {}

  void set(std::vector<FaultRule> rules);  // counting starts again from this request on
  FaultDecision next();                    // counts one /v1 request and decides its fate
  bool serial() const;
  bool down() const;
  // Starts a down; false when one is already under way.
  bool goDown(Milliseconds length);
  // Waits until a down is over, or until wake(); false when woken.
  bool waitUntilUp();
  // Waits out a delay, or until the faults change or wake().
  void sleep(Milliseconds length);
  void wake();            // for good: every wait ends at once from now on
  json describe() const;  // {"text", "rules", "downUntil"}

 private:
  using Clock = std::chrono::steady_clock;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<FaultRule> rules_;
  std::mt19937_64 random_;
  long requests_ = 0;
  std::uint64_t generation_ = 0;  // bumped by every set, so a delay sees it
  std::optional<Clock::time_point> downUntil_;
  bool woken_ = false;
};

}  // namespace tondrel::sim
