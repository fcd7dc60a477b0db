#include "lens/MasterKernel.h"
namespace vorel {
void buildMasterKernel(Kernel& master, const NodeParameters&, const DD::Image::Box&, DD::Image::Iop*, bool) { master.clear(); }
float apertureBladesShape(float, float, int, int, float, float, int, float, float) { return 0.0f; }
}  // namespace vorel // STUB
