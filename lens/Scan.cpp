#include "lens/Scan.h"
namespace vorel {
void scanMaxCoC(tzVorel&) {}
}  // namespace vorel // STUB
