// The choice of the widest kernels this processor runs.

#include <array>

#include "kernels_common.hpp"

namespace tondrel::kernels {
namespace {

constexpr Kernels kPortable{Path::portable, "portable", findEscapePortable, escapePortable, base64Portable};

struct Available {
  std::array<Kernels, 4> paths{kPortable, kPortable, kPortable, kPortable};
  std::size_t count = 1;
  void add(const Kernels& k) { paths[count++] = k; }
};

}  // namespace

std::span<const Kernels> availableKernels() {
  static const Available available = [] {
    Available a;
#if defined(__x86_64__)
    a.add(kSse2);
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt")) a.add(kAvx2);
    if (__builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vbmi") &&
        __builtin_cpu_supports("avx512vbmi2") && __builtin_cpu_supports("bmi2"))
      a.add(kAvx512);
#elif defined(__aarch64__)
    a.add(kNeon);
#endif
    return a;
  }();
  return {available.paths.data(), available.count};
}

const Kernels& kernels() {
  static const Kernels& widest = availableKernels().back();
  return widest;
}

}  // namespace tondrel::kernels
