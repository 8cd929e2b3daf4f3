#include "faults.hpp"

#include <cctype>
#include <cmath>
#include <cstdlib>

namespace tondrel::sim {

namespace {

constexpr Milliseconds kLongestDelay{10 * 60 * 1000}, kLongestDown{60 * 60 * 1000};

struct KindName {
  FaultRule::Kind kind;
  std::string_view name;
  bool timed;  // takes =DURATION
};
constexpr KindName kKinds[] = {{FaultRule::Kind::delay, "delay", true},
                               {FaultRule::Kind::status500, "status500", false},
                               {FaultRule::Kind::close, "close", false},
                               {FaultRule::Kind::down, "down", true},
                               {FaultRule::Kind::serial, "serial", false}};

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  for (std::size_t from = 0;;) {
    std::size_t at = text.find(separator, from);
    parts.push_back(trimmed(text.substr(from, at - from)));
    if (at == std::string_view::npos) return parts;
    from = at + 1;
  }
}

// A number written out in full, nothing before or after it, else NaN (strtod: every
// standard library has it).
double number(std::string_view text) {
  std::string copy(text);
  char* end = nullptr;
  double value = copy.empty() || std::isspace(static_cast<unsigned char>(copy[0]))
                     ? NAN
                     : std::strtod(copy.c_str(), &end);
  return std::isfinite(value) && end == copy.c_str() + copy.size() ? value : NAN;
}

Milliseconds duration(std::string_view text, std::string_view rule, Milliseconds longest) {
  double scale = 0;
  for (auto [unit, factor] : {std::pair{"ms", 1.0}, {"s", 1000.0}, {"m", 60000.0}})
    if (text.ends_with(unit)) {
      text.remove_suffix(std::string_view(unit).size());
      scale = factor;
      break;
    }
  double value = number(text);
  if (scale == 0 || !(value * scale >= 1 && value * scale <= double(longest.count())))
    throw SimError(std::string(rule) + ": the duration must be from 1ms to " +
                   std::to_string(longest.count() / 60000) + " minutes, written like 250ms, 3s or 2m");
  return Milliseconds(std::llround(value * scale));
}

std::string durationText(Milliseconds length) {
  long long ms = length.count();
  return ms % 1000 ? std::to_string(ms) + "ms" : std::to_string(ms / 1000) + "s";
}

void readTrigger(FaultRule& rule, std::string_view trigger, std::string_view text) {
  std::size_t equals = trigger.find('=');
  std::string_view name = trigger.substr(0, equals);
  double value = equals == std::string_view::npos ? NAN : number(trigger.substr(equals + 1));
  if (name == "every" || name == "after") {
    double low = name == "every" ? 1 : 0;
    if (!(value >= low && value <= 1e9) || value != std::trunc(value))
      throw SimError(std::string(text) + ": " + std::string(name) +
                     " needs a whole number of requests from " + std::to_string(int(low)));
    rule.when = name == "every" ? FaultRule::When::every : FaultRule::When::after;
    rule.count = long(value);
  } else if (name == "p") {
    if (!(value > 0 && value <= 1))
      throw SimError(std::string(text) + ": p needs a probability above 0 and at most 1");
    rule.when = FaultRule::When::chance;
    rule.chance = value;
  } else {
    throw SimError(std::string(text) + ": unknown trigger '" + std::string(trigger) +
                   "' (every=N, after=N or p=X)");
  }
}

FaultRule readRule(std::string_view text) {
  std::vector<std::string_view> parts = split(text, '/');
  std::size_t equals = parts[0].find('=');
  std::string_view name = parts[0].substr(0, equals);
  const KindName* kind = nullptr;
  for (const KindName& k : kKinds)
    if (k.name == name) kind = &k;
  if (!kind)
    throw SimError("unknown fault '" + std::string(text) + "' (delay=T, status500, close, down=T, serial)");
  FaultRule rule{kind->kind};
  if (kind->timed != (equals != std::string_view::npos))
    throw SimError(std::string(text) + (kind->timed ? ": " + std::string(name) + " needs a duration, as in " +
                                                          std::string(name) + "=3s"
                                                    : ": " + std::string(name) + " takes no value"));
  if (kind->timed)
    rule.length = duration(parts[0].substr(equals + 1), text,
                           rule.kind == FaultRule::Kind::delay ? kLongestDelay : kLongestDown);
  if (parts.size() > 2) throw SimError(std::string(text) + ": one trigger at most");
  if (parts.size() == 2) {
    if (rule.kind == FaultRule::Kind::serial) throw SimError(std::string(text) + ": serial takes no trigger");
    readTrigger(rule, parts[1], text);
  }
  return rule;
}

}  // namespace

std::vector<FaultRule> parseFaults(std::string_view text) {
  std::vector<FaultRule> rules;
  if (trimmed(text).empty()) return rules;
  for (std::string_view part : split(text, ',')) {
    if (part.empty()) throw SimError("an empty fault in \"" + std::string(text) + "\"");
    rules.push_back(readRule(part));
  }
  return rules;
}

std::string faultText(const FaultRule& rule) {
  std::string text;
  for (const KindName& k : kKinds)
    if (k.kind == rule.kind) text = std::string(k.name) + (k.timed ? "=" + durationText(rule.length) : "");
  switch (rule.when) {
    case FaultRule::When::always:
      break;
    case FaultRule::When::every:
      text += "/every=" + std::to_string(rule.count);
      break;
    case FaultRule::When::after:
      text += "/after=" + std::to_string(rule.count);
      break;
    case FaultRule::When::chance: {
      char chance[32];
      std::snprintf(chance, sizeof chance, "/p=%g", rule.chance);
      text += chance;
    }
  }
  return text;
}

void Faults::set(std::vector<FaultRule> rules) {
  std::lock_guard guard(mutex_);
  rules_ = std::move(rules);
  requests_ = 0;
  ++generation_;
  changed_.notify_all();
}

FaultDecision Faults::next() {
  std::lock_guard guard(mutex_);
  FaultDecision decision;
  if (downUntil_ && Clock::now() < *downUntil_) {
    decision.outcome = FaultDecision::Outcome::down;
    decision.names = {"down"};
    return decision;
  }
  long n = ++requests_;
  std::uniform_real_distribution<double> uniform(0, 1);
  for (const FaultRule& rule : rules_) {
    bool fires = rule.when == FaultRule::When::always ||
                 (rule.when == FaultRule::When::every && n % rule.count == 0) ||
                 (rule.when == FaultRule::When::after && n == rule.count + 1) ||
                 (rule.when == FaultRule::When::chance && uniform(random_) < rule.chance);
    if (rule.kind == FaultRule::Kind::serial) {
      decision.names.push_back("serial");
    } else if (rule.kind == FaultRule::Kind::delay) {
      if (fires) decision.delay += rule.length, decision.names.push_back(faultText(rule));
    } else if (fires && decision.outcome == FaultDecision::Outcome::serve) {
      decision.outcome = rule.kind == FaultRule::Kind::status500 ? FaultDecision::Outcome::status500
                         : rule.kind == FaultRule::Kind::close   ? FaultDecision::Outcome::close
                                                                 : FaultDecision::Outcome::down;
      decision.down = rule.length;
      decision.names.push_back(faultText(rule));
    }
  }
  return decision;
}

bool Faults::serial() const {
  std::lock_guard guard(mutex_);
  for (const FaultRule& rule : rules_)
    if (rule.kind == FaultRule::Kind::serial) return !woken_;
  return false;
}

bool Faults::down() const {
  std::lock_guard guard(mutex_);
  return downUntil_ && Clock::now() < *downUntil_;
}

bool Faults::goDown(Milliseconds length) {
  std::lock_guard guard(mutex_);
  if (downUntil_ && Clock::now() < *downUntil_) return false;
  downUntil_ = Clock::now() + length;
  changed_.notify_all();
  return true;
}

bool Faults::waitUntilUp() {
  std::unique_lock guard(mutex_);
  while (!woken_ && downUntil_ && Clock::now() < *downUntil_) changed_.wait_until(guard, *downUntil_);
  downUntil_.reset();
  return !woken_;
}

void Faults::sleep(Milliseconds length) {
  std::unique_lock guard(mutex_);
  std::uint64_t generation = generation_;
  changed_.wait_for(guard, length, [&] { return woken_ || generation_ != generation; });
}

void Faults::wake() {
  std::lock_guard guard(mutex_);
  woken_ = true;
  changed_.notify_all();
}

json Faults::describe() const {
  std::lock_guard guard(mutex_);
  json rules = json::array();
  std::string text;
  for (const FaultRule& rule : rules_) {
    rules.push_back(faultText(rule));
    text += (text.empty() ? "" : ",") + faultText(rule);
  }
  json downUntil = nullptr;
  if (downUntil_ && Clock::now() < *downUntil_) {
    auto left = std::chrono::duration_cast<Milliseconds>(*downUntil_ - Clock::now());
    downUntil =
        std::chrono::duration_cast<Milliseconds>(std::chrono::system_clock::now().time_since_epoch() + left)
            .count();
  }
  return {{"text", text}, {"rules", rules}, {"downUntil", downUntil}};
}

}  // namespace tondrel::sim
