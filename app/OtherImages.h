#pragma once
// Image files that are not EXRs (PNG, TIFF, JPEG, ...), read and written through OpenImageIO.
// Debian's OpenImageIO brings in some 260 libraries and takes about 0.4 s to load, a fifth of a
// 2K frame's whole render on two cores, so it lives in a module of its own (vorel_images.so)
// that is loaded the first time a file of another kind comes. EXRs go through OpenEXR alone.
//
// The module and vorel are built together, so the table below passes C++ types as they are; each
// entry returns "" or the reason it failed, as one line.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vorelapp {

// A header entry as OpenImageIO holds it: text, or numbers (`count` per value: 2 or 3 for a
// vector, 9 or 16 for a matrix).
struct OtherAttribute {
  enum class Kind { Text, Int, Float, Double } kind = Kind::Text;
  std::string name;
  std::string text;
  std::vector<double> numbers;
  int count = 1;
};

// Windows as the file has them: y down, rows counted from the top.
struct OtherHeader {
  int x = 0, y = 0, width = 0, height = 0;
  int fullX = 0, fullY = 0, fullWidth = 0, fullHeight = 0;
  bool volume = false;  // more than one slice deep
  std::vector<std::string> channels;
  std::vector<OtherAttribute> attributes;  // all but OpenImageIO's notes about the file's layout
};

// What a quick look is written from: linear pixels, rows from the top, channels interleaved.
struct DisplayPixels {
  int width = 0, height = 0, channels = 0;
  bool withAlpha = false;  // the last channel is alpha
  bool sixteenBit = false;
  const float* pixels = nullptr;
};

// The encoder writes through this: all of `size` bytes at `offset`, false if it failed.
using WriteAt = std::function<bool(const void* data, std::size_t size, std::int64_t offset)>;

struct OtherImages {
  std::string (*readHeader)(const std::string& path, OtherHeader& header);
  // Every pixel as float, rows from the top, channels interleaved.
  std::string (*readPixels)(const std::string& path, std::vector<float>& pixels);
  // sRGB from linear; `path` names the kind of file by its extension.
  std::string (*writeDisplay)(const std::string& path, const DisplayPixels& image,
                              const WriteAt& writeAt, const std::function<std::int64_t()>& size);
};

// The module, loaded on first use. Throws RenderError if it cannot be found or loaded.
const OtherImages& otherImages();

}  // namespace vorelapp

// The one symbol the module exports.
extern "C" const vorelapp::OtherImages* vorelOtherImages();
