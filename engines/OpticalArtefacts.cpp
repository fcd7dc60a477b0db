#include "engines/OpticalArtefacts.h"
namespace vorel {
float bloomRadialFactor(const NodeParameters&, const DD::Image::Box&, int, int) { return 0.0f; }
}  // namespace vorel // STUB
