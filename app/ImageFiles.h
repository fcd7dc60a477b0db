#pragma once
// Image files in the host's terms. Everything here is in host coordinates: x to the right, y
// upward, row 0 at the bottom, areas half open. A file stores its top row first, so reading and
// writing flip rows about the display window: file row y and host row (2 * fy + fh - 1 - y) are
// the same row, fy and fh being the display window's top and height. The mapping is its own
// inverse, so a file read and written again keeps both windows and all offsets.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "app/InputChecks.h"

namespace vorelapp {

struct ExrHeader;

struct Rect {
  int x = 0, y = 0, r = 0, t = 0;
  int w() const { return r - x; }
  int h() const { return t - y; }
  bool empty() const { return r <= x || t <= y; }
  bool operator==(const Rect& o) const { return x == o.x && y == o.y && r == o.r && t == o.t; }
  bool operator!=(const Rect& o) const { return !(*this == o); }
};

// The host row of file row `fileRow`, and back: the flip about the display window `format`.
inline int hostRow(const Rect& format, int fileRow) {
  return format.y + format.t - 1 - fileRow;
}

// A flat image: one float plane per channel over the data window `box`, rows bottom up.
struct FlatImage {
  Rect format;                            // the display window
  Rect box;                               // the data window
  std::vector<std::string> channels;      // names as the file has them ("R", "Z", "mask.a")
  std::vector<std::vector<float>> planes; // box.w() * box.h() each

  void allocate();  // sizes every plane to the box, zero filled
  int channelIndex(const std::string& name) const;  // -1 if absent
  float* row(int c, int y) { return planes[c].data() + std::size_t(y - box.y) * box.w(); }
  const float* row(int c, int y) const {
    return planes[c].data() + std::size_t(y - box.y) * box.w();
  }
};

// A deep image: per pixel of the box a run of samples, each with every channel. Sample order
// within a pixel is the file's; `Z` is the sample's front depth and `ZBack` its back.
struct DeepImage {
  Rect format;
  Rect box;
  std::vector<std::string> channels;
  std::vector<std::size_t> offsets;  // box.w() * box.h() + 1 entries, first sample of each pixel
  std::vector<float> samples;        // sample-major: samples[s * channels.size() + c]

  int channelIndex(const std::string& name) const;
  std::size_t pixelIndex(int x, int y) const {
    return std::size_t(y - box.y) * box.w() + std::size_t(x - box.x);
  }
  std::size_t sampleCount(int x, int y) const {
    const std::size_t p = pixelIndex(x, y);
    return offsets[p + 1] - offsets[p];
  }
  const float* sample(int x, int y, std::size_t i) const {
    return samples.data() + (offsets[pixelIndex(x, y)] + i) * channels.size();
  }
};

// True if the file holds deep data (it must exist and be readable).
bool isDeepFile(const std::string& path);

// Reading throws UsageError for a file that is missing, not a regular file, not an image of the
// kind asked for, too large for memory (see InputChecks.h) or truncated. NaN and infinite values
// are read as badPixels() says (kept by default) and counted: NaNs in *nanCount, per channel in
// *badCount.
FlatImage readFlatImage(const std::string& path, std::size_t* nanCount = nullptr);
// The same in two steps, for a caller that keeps pixels in planes of its own: the windows and
// channel names (no planes), then the pixels into one plane per channel, each box.w() * box.h()
// floats, bottom row first.
FlatImage readFlatHeader(const std::string& path);
void readFlatPixels(const std::string& path, const std::vector<float*>& planes,
                    BadPixelCount* badCount = nullptr);
// Decoded on up to `threads` threads.
DeepImage readDeepImage(const std::string& path, BadPixelCount* badCount = nullptr,
                        unsigned threads = 1);

// A multi-part file (an EXR with several parts) is read from part 0 unless a part is chosen for
// its path, by name or index; an unknown one is refused, listing the parts.
void choosePart(const std::string& path, const std::string& part);
// The parts' names (their index where a part has no name); one entry for a single-part file.
std::vector<std::string> partNames(const std::string& path);
// The index of the part --part chose for the file; -1 if none was chosen. Throws UsageError for a
// part the file does not have.
int chosenPartIndex(const std::string& path);
// A note for a file of several parts read without a choice; "" otherwise.
std::string partsNote(const std::string& path);

// The deep image as one flat image: per pixel the samples composited nearest first with "over",
// the non-depth channels under their own names, and "Z" the nearest sample's front depth.
// Pixels with no sample are 0 with Z at the far limit, the largest finite float.
FlatImage flattenDeep(const DeepImage& deep);
// The same in two steps, for a caller that keeps pixels in planes of its own: the windows and
// channel names (no planes), then the pixels on up to `threads` threads into one plane per
// channel, each box.w() * box.h() floats, bottom row first and zero filled.
FlatImage flattenedHeader(const DeepImage& deep);
void flattenDeep(const DeepImage& deep, const std::vector<float*>& planes, unsigned threads);

// What a file name asks for when written.
enum class FileKind { Exr, Display, Unknown };
FileKind fileKindFor(const std::string& path);

// An EXR: the format as display window, the box as data window. Without a header, 32-bit float
// and zip; with one, its attributes, compression, line order and pixel types.
void writeExr(const std::string& path, const FlatImage& image, const ExrHeader* header = nullptr);

// 8-bit (TIFF: 16-bit) sRGB for a quick look: the display window only (see quickLookWindow),
// 0 outside the box.
// red/green/blue/alpha are channel indices of `image`, -1 where absent; with none of the three
// colours, the first channel is written as grey.
void writeDisplayImage(const std::string& path, const FlatImage& image, int red, int green,
                       int blue, int alpha);

// A deep EXR, one run of samples per pixel as stored.
void writeDeepExr(const std::string& path, const DeepImage& image);

// A small text file (a preset).
void writeTextFile(const std::string& path, const std::string& text);

// Every writer streams the file into a temporary one through app/Output.h: complete or not at
// all, an existing file left as it was on failure. Failures throw RenderError.

// All of `paths` from one image, each by its kind (.exr, or a quick look): every file replaced,
// or none.
// With a header, EXRs keep what it says (see writeExr).
void writeOutputs(const std::vector<std::string>& paths, const FlatImage& image, int red,
                  int green, int blue, int alpha, const ExrHeader* header = nullptr);

// A quick look covers the display window unless that is larger than this many pixels and more
// than four times the data window, when it covers the data window.
constexpr long kQuickLookPixels = 4096L * 4096L;
Rect quickLookWindow(const FlatImage& image);

}  // namespace vorelapp
