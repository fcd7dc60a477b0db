#include "lens/KernelBank.h"
namespace vorel {
int kernelBankEntrySize(int i) { return i - 1 + i % 2 > 1 ? i - 1 + i % 2 : 1; }
void releaseKernelBank(std::vector<Kernel>& bank) { for (auto& k : bank) k.clear(); bank.clear(); }
void fillKernelBankEntry(std::vector<Kernel>&, int, const Kernel&, const DD::Image::ChannelSet&) {}
void resampleKernel(Kernel&, int, DD::Image::Channel, const Kernel&) {}
void kernelBankThread(unsigned, unsigned, void*) {}
}  // namespace vorel // STUB
