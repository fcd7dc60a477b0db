#include "engines/DeepSamples.h"
namespace vorel {
void prepareDeepSamples(const DD::Image::ChannelSet&, const DD::Image::DeepPixel&, DD::Image::DeepOutPixel&) {}
float splitDeepSample(const DD::Image::ChannelSet&, const DD::Image::DeepPixel&, DD::Image::DeepOutPixel&, std::size_t&) { return 0.0f; }
void pushDeepPiece(const DD::Image::ChannelSet&, const DD::Image::DeepPixel&, DD::Image::DeepOutPixel&, std::size_t, float, float, float) {}
}  // namespace vorel // STUB
