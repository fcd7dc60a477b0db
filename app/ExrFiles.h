#pragma once
// EXR files through OpenEXR: headers, flat and deep pixels read straight into the host's planes
// and sample runs, and files written, with their other parts copied chunk for chunk, into a
// staged output. Host coordinates as in ImageFiles.h (rows bottom up, flipped about the display
// window); OpenEXR decodes and encodes chunks on its own threads.

#include <OpenEXR/ImfHeader.h>

#include <string>
#include <vector>

#include "app/ImageFiles.h"

namespace vorelapp {

class StagingFile;
struct ExrHeader;

// True if the file starts with EXR's magic number.
bool isExrFile(const std::string& path);

// Every part's header. Throws UsageError ("cannot read PATH: ...") for a file OpenEXR refuses.
std::vector<Imf::Header> exrHeaders(const std::string& path);
bool isDeepPart(const Imf::Header& header);

// The part's windows and channels in host terms: the colour channels first within each layer,
// then alpha and depth, then the rest as the file orders them.
Rect exrDisplayWindow(const Imf::Header& header);
Rect exrDataWindow(const Imf::Header& header);
std::vector<std::string> exrChannels(const Imf::Header& header);

// The part's pixels as floats into one plane per channel of exrChannels(), each the data
// window's size, bottom row first. Throws UsageError for a truncated or damaged file.
void readExrPixels(const std::string& path, int part, const std::vector<float*>& planes);
// The part's deep samples into `image`, whose windows and channels are exrChannels()'s: offsets
// sized and counted, samples placed as the file orders them within each pixel. Decoded on up to
// `threads` threads.
void readExrDeep(const std::string& path, int part, DeepImage& image, unsigned threads);

// The whole file into `file`; with a header of several parts, the input's other parts copied
// around the rendered one. Throws RenderError naming the file.
void encodeFlatExr(StagingFile& file, const std::string& path, const FlatImage& image,
                   const ExrHeader* header);
void encodeDeepExr(StagingFile& file, const std::string& path, const DeepImage& image);

}  // namespace vorelapp
