#include "previews/Previews.h"
namespace vorel {
void deepPreviewRow(const tzVorel&, int, int, int, const DD::Image::ChannelSet&, DD::Image::Row&) {}
}  // namespace vorel // STUB
