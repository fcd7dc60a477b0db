// Every test runs with new row buffers full of NaN, as uncleared as the real host leaves them,
// so that no code under test can count on them being zero.

#include "DDImage/Host.h"

namespace {
[[maybe_unused]] const bool freshRowsNaN = (DD::Image::host::setFreshRowsNaN(true), true);
}  // namespace
