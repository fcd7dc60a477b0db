#include "engines/Splat.h"
namespace vorel {
void splatPixel(const tzVorel&, int, int, int, int, int, int, int, float, unsigned, float, const float*, const ChannelPlanes*, const ChannelPlanes*, const DD::Image::ChannelSet&, float, float) {}
int chromaticShift(const NodeParameters&, int position, DD::Image::Channel, float) { return position; }
void accumulateKernelRow(float*, float*, const float*, float, float, int) {}
}  // namespace vorel // STUB
