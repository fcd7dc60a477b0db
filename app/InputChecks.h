#pragma once
// What vorel checks about its inputs before it spends time or memory on them, and what it tells
// the user when a render would come out unchanged for a reason the user can fix.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace vorelapp {

// --- memory -------------------------------------------------------------------------------

// "8G", "512M", "2.5GiB", "1000000" (bytes). Throws UsageError.
double parseMemorySize(const std::string& text);
// The memory an image may take: `bytes`, or when 0, the memory the system has available.
void setMemoryBudget(double bytes);
// Refuses (UsageError, exit 2) an image whose pixels, held as floats `copies` times (an input 0
// is held once as input and once as output), would not fit in the budget, naming its size.
void checkImageFits(const std::string& path, long long width, long long height, int channels,
                    int copies = 1);
// Memory as people write it: "1.5 GiB".
std::string memoryText(double bytes);

// --- files --------------------------------------------------------------------------------

// Refuses (UsageError) anything that is not a regular file: a directory, a device such as
// /dev/zero, a FIFO or a socket, which would hang or fail obscurely when read as an image.
void requireRegularFile(const std::string& path);

// --- channels -----------------------------------------------------------------------------

// The channel each of a file's channels stands for in the host. Normally its own name; with
// `layer` ("ViewLayer"), the layer's Combined R G B A are the colour and its Depth Z the depth
// (names kept in the output). With no layer given and no plain colour or depth in the file,
// the one layer that has a Combined pass is picked, and `note` says so. Throws UsageError for a
// layer the file does not have, listing the ones it has.
std::vector<std::string> hostChannelNames(const std::vector<std::string>& fileNames,
                                          const std::string& layer, const std::string& path,
                                          const std::function<void(const std::string&)>& note);

// --- bad pixels ---------------------------------------------------------------------------

enum class BadPixels { Keep, Zero };
// "keep" or "zero". Throws UsageError.
BadPixels parseBadPixels(const std::string& text);
// The mode for reading: set once per run.
void setBadPixels(BadPixels mode);
BadPixels badPixels();

// NaN and infinite values found while reading, per channel of the file.
struct BadPixelCount {
  std::vector<std::string> channels;
  std::vector<std::size_t> nan, inf;
  void resize(const std::vector<std::string>& names);
  std::size_t total() const;
};
// True for a channel that holds depth ("Z", "depth.Z", "ViewLayer.Depth.Z"): an infinite depth
// is a depth, infinitely far, and is kept even under BadPixels::Zero.
bool isDepthName(const std::string& name);
// The value as read under the mode, counted.
inline float readValue(float v, std::size_t c, bool depth, BadPixelCount& count) {
  if (v != v) {
    ++count.nan[c];
    return badPixels() == BadPixels::Zero ? 0.0f : v;
  }
  if (v - v != 0.0f) {
    ++count.inf[c];
    return badPixels() == BadPixels::Zero && !depth ? 0.0f : v;
  }
  return v;
}
// The warning for a file with bad values, naming the channels; "" when there are none.
std::string badPixelWarning(const std::string& path, const BadPixelCount& count);

// --- threads ------------------------------------------------------------------------------

// The number of threads to run: what was asked (0 for every core), at most 4 per core; `note`
// says when a request was lowered.
unsigned threadsToUse(unsigned asked, const std::function<void(const std::string&)>& note);

}  // namespace vorelapp
