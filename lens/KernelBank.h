#pragma once
#include <vector>

#include "DDImage/ChannelSet.h"
#include "lens/Kernel.h"

class tzVorel;

namespace vorel {

// Side of bank entry i: max(1, i - 1 + i % 2), always odd.
int kernelBankEntrySize(int index);

void releaseKernelBank(std::vector<Kernel>& bank);

// Builds entry `index` of `bank` (already sized) from `master`, normalised by the largest channel sum.
void fillKernelBankEntry(std::vector<Kernel>& bank, int index, const Kernel& master,
                         const DD::Image::ChannelSet& vorelChannels);

// One plane of `destination` (already allocated at size x size) resampled from `master`.
void resampleKernel(Kernel& destination, int size, DD::Image::Channel channel, const Kernel& master);

// True when every entry has bit-identical planes in all of `channels`.
bool planesAlike(const std::vector<Kernel>& bank, const DD::Image::ChannelSet& channels);

// Thread entry for Thread::spawn; `node` is the tzVorel whose kernelBank is filled.
void kernelBankThread(unsigned threadIndex, unsigned threadCount, void* node);

}  // namespace vorel
