#include "engines/FlatRowEngine.h"
namespace vorel {
void flatRowEngine(const tzVorel&, int, int, int, const DD::Image::ChannelSet&, DD::Image::Row&) {}
}  // namespace vorel // STUB
