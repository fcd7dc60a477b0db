#include "engines/KernelSpans.h"

namespace vorel {

void KernelSpans::clear() {
  ready = false;
  std::vector<std::size_t>().swap(offsets);
  std::vector<std::int32_t>().swap(spans);
}

void buildKernelSpans(const std::vector<Kernel>& bank, KernelSpans& table) {
  table.clear();
  table.offsets.reserve(bank.size());
  for (const Kernel& kernel : bank) {
    table.offsets.push_back(table.spans.size());
    for (int row = 0; row < kernel.height; ++row) {
      int first = kernel.width, end = 0;
      for (const std::vector<float>& plane : kernel.planes) {
        if (plane.size() < static_cast<std::size_t>(kernel.width) * static_cast<std::size_t>(kernel.height))
          continue;
        const float* values = plane.data() + static_cast<std::size_t>(row) * static_cast<std::size_t>(kernel.width);
        for (int column = 0; column < kernel.width; ++column) {
          if (values[column] != 0.0f) {
            first = first < column ? first : column;
            end = end > column + 1 ? end : column + 1;
          }
        }
      }
      if (end <= first)
        first = end = 0;
      table.spans.push_back(first);
      table.spans.push_back(end);
    }
  }
  table.ready = true;
}

}  // namespace vorel
