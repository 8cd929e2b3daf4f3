// Every kernel path that this build and this processor run, each against a slow
// reference written from the rules (and so against each other): every length up to
// three of the widest blocks and one more at every alignment, every byte value at
// every place of a block, input and output that end right before an unmapped page,
// and an output with room for one block at a time. The standard library alone, so
// that scripts/test-aarch64 builds it for AArch64 and runs it under an emulator.

#include "kernels.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

using tondrel::kernels::Kernels;
using tondrel::kernels::kEscapeRoom;
using tondrel::kernels::Path;

namespace {

constexpr std::size_t kWidest = 64;

std::string referenceEscape(std::string_view text) {
  constexpr std::pair<char, std::string_view> kNamed[] = {{'"', "\\\""}, {'\\', "\\\\"}, {'\b', "\\b"},
                                                          {'\f', "\\f"}, {'\n', "\\n"},  {'\r', "\\r"},
                                                          {'\t', "\\t"}};
  constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (char c : text) {
    auto named = std::find_if(std::begin(kNamed), std::end(kNamed), [c](auto n) { return n.first == c; });
    if (named != std::end(kNamed)) {
      out += named->second;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      out += {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 15]};
    } else {
      out += c;
    }
  }
  return out;
}

std::size_t referenceFind(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && static_cast<unsigned char>(text[i]) >= 0x20 && text[i] != '"' && text[i] != '\\')
    ++i;
  return i;
}

std::string referenceBase64(std::string_view bytes) {
  std::string alphabet;
  for (auto [from, to] : {std::pair{'A', 'Z'}, {'a', 'z'}, {'0', '9'}, {'+', '+'}, {'/', '/'}})
    for (char c = from; c <= to; ++c) alphabet += c;
  std::string out;
  unsigned bits = 0, held = 0;
  for (unsigned char c : bytes.substr(0, bytes.size() - bytes.size() % 3)) {
    bits = bits << 8 | c, held += 8;
    for (; held >= 6; held -= 6) out += alphabet[(bits >> (held - 6)) & 63];
  }
  return out;
}

// Two pages, the second unmapped: what is placed to end at the first's end ends right before it.
class GuardedPage {
 public:
  GuardedPage() {
    void* p = mmap(nullptr, 2 * size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::runtime_error("mmap failed");
    base_ = static_cast<char*>(p);
    if (mprotect(base_ + size_, size_, PROT_NONE) != 0) throw std::runtime_error("mprotect failed");
  }
  GuardedPage(const GuardedPage&) = delete;
  GuardedPage& operator=(const GuardedPage&) = delete;
  ~GuardedPage() { munmap(base_, 2 * size_); }
  char* end() const { return base_ + size_; }

 private:
  std::size_t size_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  char* base_;
};

struct Checker {
  explicit Checker(const Kernels& kernels) : k(kernels) {}

  const Kernels& k;
  GuardedPage in, out;
  std::vector<std::string> failures;

  void fail(std::string_view what, std::string_view text, std::size_t gap) {
    if (failures.size() < 20)
      failures.push_back(std::string(what) + " of " + std::to_string(text.size()) + " bytes ending " +
                         std::to_string(gap) + " before the unmapped page");
  }

  // Runs every kernel on text placed to end gap bytes before an unmapped page, each
  // output ending right before one too.
  void check(std::string_view text, std::size_t gap = 0) {
    char* src = in.end() - gap - text.size();
    std::copy(text.begin(), text.end(), src);
    const char* end = src + text.size();
    std::string expected = referenceEscape(text);

    if (k.findEscape(src, end) != src + referenceFind(text)) fail("findEscape", text, gap);

    char* dst = out.end() - expected.size() - kEscapeRoom;
    auto [stop, written] = k.escape(src, end, dst, out.end());
    if (stop != end || std::string_view(dst, written - dst) != expected) fail("escape", text, gap);

    // A caller with room for one block at a time, taking what was written after each call.
    std::string pieces;
    for (const char* from = src; from < end;) {
      dst = out.end() - kEscapeRoom;
      auto [next, to] = k.escape(from, end, dst, out.end());
      if (next == from) return fail("escape with room for one block", text, gap);
      pieces.append(dst, to);
      from = next;
    }
    if (pieces != expected) fail("escape with room for one block", text, gap);
    dst = out.end() - (kEscapeRoom - 1);
    if (text.size() && k.escape(src, end, dst, out.end()).src != src) fail("escape without room", text, gap);

    std::string base64 = referenceBase64(text);
    dst = out.end() - base64.size();
    std::size_t done = k.base64(reinterpret_cast<const unsigned char*>(src), text.size(), dst);
    if (done != text.size() - text.size() % 3 || std::string_view(dst, base64.size()) != base64)
      fail("base64", text, gap);
  }
};

std::string bytesFrom(std::string_view alphabet, std::size_t n, std::minstd_rand& random) {
  std::string text;
  while (text.size() < n) text += alphabet[random() % alphabet.size()];
  return text;
}

std::string everyByte() {
  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes += static_cast<char>(c);
  return bytes;
}

void everyLengthAtEveryAlignment(Checker& c) {
  // Plain text (with bytes of 0x80 and up, which signed comparisons take for controls),
  // compact JSON with a quote every few bytes and only two-byte escapes, and any bytes.
  const std::string kinds[] = {"abc xyz~\x7F\x80\xC3\xBC\xFF", "{\"name\":\"Gitarre \xC3\xBC/1\\\b\f\n\r\t}",
                               everyByte()};
  std::minstd_rand random(22);
  for (const auto& alphabet : kinds)
    for (std::size_t n = 0; n <= 3 * kWidest + 1; ++n)
      for (std::size_t gap = 0; gap < 16; ++gap) c.check(bytesFrom(alphabet, n, random), gap);
}

void everyByteAtEveryPlace(Checker& c) {
  // A block and a tail shorter than the narrowest block, so that each place is met by a
  // vector and by the words and bytes that finish it.
  for (std::size_t at = 0; at < kWidest + 15; ++at) {
    std::string text(kWidest + 15, 'a');
    for (int value = 0; value < 256; ++value) {
      text[at] = static_cast<char>(value);
      c.check(text);
    }
  }
}

// A kernel that reads or writes past its range meets an unmapped page: say which case it was in.
char running[200];
extern "C" void reportFault(int) {
  constexpr char kFault[] = "FAILED with a read or write past the range, in ";
  (void)!write(STDERR_FILENO, kFault, sizeof kFault - 1);
  (void)!write(STDERR_FILENO, running, strnlen(running, sizeof running));
  _exit(1);
}

}  // namespace

int main() {
  std::signal(SIGSEGV, reportFault);
  std::vector<Path> expected = {Path::portable};
#if defined(__x86_64__)
  expected.push_back(Path::sse2);
  if (__builtin_cpu_supports("avx2")) expected.push_back(Path::avx2);
  if (__builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vbmi2"))
    expected.push_back(Path::avx512);
#elif defined(__aarch64__)
  expected.push_back(Path::neon);
#endif
  std::vector<Path> available;
  std::string names;
  for (const auto& k : tondrel::kernels::availableKernels())
    available.push_back(k.path), names += " " + std::string(k.name);
  const auto& chosen = tondrel::kernels::kernels();

  int passed = 0, failed = 0;
  auto report = [&](std::string_view name, const std::vector<std::string>& failures) {
    for (const auto& f : failures) std::printf("FAILED %.*s: %s\n", int(name.size()), name.data(), f.c_str());
    (failures.empty() ? passed : failed)++;
  };
  report("the paths this processor runs, the widest chosen",
         available == expected && chosen.path == expected.back()
             ? std::vector<std::string>{}
             : std::vector<std::string>{"found" + names + ", chosen " + std::string(chosen.name)});

  struct Case {
    const char* name;
    void (*run)(Checker&);
  };
  const Case cases[] = {
      {"every length up to three blocks and one more, at every alignment", everyLengthAtEveryAlignment},
      {"every byte value at every place of a block", everyByteAtEveryPlace},
  };
  for (const auto& k : tondrel::kernels::availableKernels())
    for (const auto& c : cases) {
      std::snprintf(running, sizeof running, "%s (%.*s)\n", c.name, int(k.name.size()), k.name.data());
      Checker checker{k};
      c.run(checker);
      report(std::string(c.name) + " (" + std::string(k.name) + ")", checker.failures);
    }
  std::printf("kernels%s, %s chosen: %d passed, %d failed\n", names.c_str(), std::string(chosen.name).c_str(),
              passed, failed);
  return failed ? 1 : 0;
}
