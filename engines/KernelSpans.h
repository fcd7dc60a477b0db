#pragma once
// Where each row of each bank entry is not zero. Columns that are zero in every plane of an entry
// add nothing to the accumulators, so the splat leaves them out; made once per frame in _open.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "lens/Kernel.h"

namespace vorel {

struct KernelSpans {
  bool ready = false;
  std::vector<std::size_t> offsets;  // per entry, where its rows start in `spans`
  // Per entry and kernel row: the first column not zero in some plane and one past the last;
  // equal when the whole row is zero.
  std::vector<std::int32_t> spans;

  const std::int32_t* row(unsigned entry, int kernelRow) const {
    return spans.data() + offsets[entry] + 2 * static_cast<std::size_t>(kernelRow);
  }
  void clear();
};

void buildKernelSpans(const std::vector<Kernel>& bank, KernelSpans& spans);

}  // namespace vorel
