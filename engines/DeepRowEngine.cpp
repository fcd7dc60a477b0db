#include "engines/DeepRowEngine.h"
namespace vorel {
void deepRowEngine(const tzVorel&, int, int, int, const DD::Image::ChannelSet&, DD::Image::Row&, int) {}
}  // namespace vorel // STUB
