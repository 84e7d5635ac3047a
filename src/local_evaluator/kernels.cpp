// The kernels, compiled once for the x86-64 baseline and, on x86-64 with GCC, once more for x86-64-v3
// (AVX2, FMA), where the four-lane blocks are single instructions and the compiler vectorises the plain
// loops twice as wide. Each build lives in its own namespace with its own internal helpers; the standard
// library's templates stay at the baseline (they are declared outside the target region), so nothing the
// two builds share can carry an instruction the machine lacks.
#include "kernels.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>
#if defined(__x86_64__) || defined(__SSE2__)
#include <immintrin.h>
#endif

#define QM_ISA base
#define QM_ISA_NAME "x86-64"
#define QM_ISA_AVX 0
#include "kernel_bodies.hpp"
#undef QM_ISA
#undef QM_ISA_NAME
#undef QM_ISA_AVX

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define QM_HAVE_V3 1
#pragma GCC push_options
#pragma GCC target("arch=x86-64-v3")
#define QM_ISA v3
#define QM_ISA_NAME "x86-64-v3"
#define QM_ISA_AVX 1  // the target pragma does not define __AVX__ and friends
#include "kernel_bodies.hpp"
#undef QM_ISA
#undef QM_ISA_NAME
#undef QM_ISA_AVX
#pragma GCC pop_options
#endif

namespace quillmarsh::local {

namespace {
const KernelTable& pick() {
#ifdef QM_HAVE_V3
  const char* want = std::getenv("QUILLMARSH_KERNELS");
  const bool baseline = want && std::strcmp(want, "baseline") == 0;
  if (!baseline && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return v3::table;
#endif
  return base::table;
}
}  // namespace

const KernelTable& kernels() {
  static const KernelTable& chosen = pick();
  return chosen;
}

}  // namespace quillmarsh::local
