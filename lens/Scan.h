#pragma once
class tzVorel;

namespace vorel {
// Walks the whole format once and sets node.maxCoC and node.kernelRadius (may warn).
void scanMaxCoC(tzVorel& node);
}  // namespace vorel
