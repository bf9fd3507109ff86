#include "src/kernels.h"

namespace Tavrin::GaussionSplat {

std::vector<Kernels> supportedKernels() {
    std::vector<Kernels> supported;
#if PLYCONVERT_AVX2
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2") != 0) {
        supported.push_back(Kernels::avx2);
    }
#endif
    supported.push_back(Kernels::baseline);
    return supported;
}

Kernels chosenKernels = supportedKernels().front();

} // namespace Tavrin::GaussionSplat
