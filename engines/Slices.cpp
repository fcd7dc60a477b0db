#include "engines/Slices.h"
namespace vorel {
SliceAccumulators::SliceAccumulators(int, int, int, const DD::Image::ChannelSet&) {}
unsigned sliceForDepth(int, const std::vector<float>&, float) { return 0; }
void mergeSlices(const SliceAccumulators&, DD::Image::Row&, int, int, const DD::Image::ChannelSet&, const DD::Image::ChannelSet&) {}
}  // namespace vorel // STUB
