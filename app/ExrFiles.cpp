#include "app/ExrFiles.h"

#include <Imath/half.h>
#include <OpenEXR/IexBaseExc.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfDeepFrameBuffer.h>
#include <OpenEXR/ImfDeepScanLineInputPart.h>
#include <OpenEXR/ImfDeepScanLineOutputFile.h>
#include <OpenEXR/ImfDeepScanLineOutputPart.h>
#include <OpenEXR/ImfDeepTiledInputPart.h>
#include <OpenEXR/ImfDeepTiledOutputPart.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfInputPart.h>
#include <OpenEXR/ImfMultiPartInputFile.h>
#include <OpenEXR/ImfMultiPartOutputFile.h>
#include <OpenEXR/ImfOutputFile.h>
#include <OpenEXR/ImfOutputPart.h>
#include <OpenEXR/ImfPartType.h>
#include <OpenEXR/ImfThreading.h>
#include <OpenEXR/ImfTiledInputPart.h>
#include <OpenEXR/ImfTiledOutputPart.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <numeric>
#include <thread>

#include "DDImage/Host.h"
#include "app/AppError.h"
#include "app/InputChecks.h"
#include "app/Metadata.h"
#include "app/OnThreads.h"
#include "app/Output.h"

namespace vorelapp {

namespace {

using Imath::Box2i;
using Imath::V2i;

// OpenEXR decodes and encodes the chunks of one call on its global pool, sized to the machine's
// cores: file work runs before and after the rows, when the render's threads are idle.
void useAllCores() {
  static std::once_flag once;
  std::call_once(once, [] {
    Imf::setGlobalThreadCount(int(std::max(1u, std::thread::hardware_concurrency())));
  });
}

std::string oneLine(std::string e) {
  std::replace(e.begin(), e.end(), '\n', ' ');
  while (!e.empty() && e.back() == ' ')
    e.pop_back();
  return e.empty() ? "unknown error" : e;
}

UsageError unreadable(const std::string& path, const std::exception& e) {
  return UsageError("cannot read " + path + ": " + oneLine(e.what()));
}

UsageError damaged(const std::string& path, const std::exception& e) {
  return UsageError("cannot read " + path + ": " + oneLine(e.what()) +
                    " (the file is truncated or damaged)");
}

// An encoder's failure as one line naming the file; ours pass as they are.
template <class Encode>
void encoding(const std::string& path, const Encode& encode) {
  try {
    encode();
  } catch (const AppError&) {
    throw;
  } catch (const std::exception& e) {
    throw RenderError("cannot write " + path + ": " + oneLine(e.what()));
  }
}

// Within a layer: colour, then alpha, depth and its back, then the rest.
int channelRank(const std::string& suffix) {
  std::string s;
  for (char c : suffix)
    s += char(std::tolower(static_cast<unsigned char>(c)));
  static const char* const kOrder[][3] = {
      {"r", "red", ""}, {"g", "green", ""}, {"b", "blue", ""}, {"y", "real", "imag"},
      {"a", "alpha", ""}, {"z", "depth", ""}, {"zback", "", ""}};
  for (int rank = 0; rank < 7; ++rank)
    for (const char* name : kOrder[rank])
      if (*name && s == name)
        return rank;
  if (s.size() == 2 && (s[0] == 'a' || s[1] == 'a'))  // per-channel alphas: AR, RA, ...
    return 4;
  return 7;
}

// File rows [y0, y1) across the data window.
Box2i rowBand(const Box2i& data, int y0, int y1) {
  return Box2i(V2i(data.min.x, y0), V2i(data.max.x, y1 - 1));
}

// A pointer for OpenEXR's slices: `first` is the element of pixel (window.min.x, window.min.y),
// and (x, y) lies `xStride` and `yStride` bytes on per step. Computed on integers, since the
// origin it stands for may lie outside any object.
char* sliceBase(const void* first, const Box2i& window, std::ptrdiff_t xStride,
                std::ptrdiff_t yStride) {
  return reinterpret_cast<char*>(std::uintptr_t(first) -
                                 std::uintptr_t(std::ptrdiff_t(window.min.x) * xStride +
                                                std::ptrdiff_t(window.min.y) * yStride));
}

}  // namespace

bool isExrFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  char magic[4];
  return in.read(magic, 4) && std::memcmp(magic, "\x76\x2f\x31\x01", 4) == 0;
}

std::vector<Imf::Header> exrHeaders(const std::string& path) {
  useAllCores();
  try {
    Imf::MultiPartInputFile in(path.c_str());
    std::vector<Imf::Header> headers;
    for (int i = 0; i < in.parts(); ++i)
      headers.push_back(in.header(i));
    return headers;
  } catch (const std::exception& e) {
    throw unreadable(path, e);
  }
}

bool isDeepPart(const Imf::Header& header) {
  return header.hasType() && Imf::isDeepData(header.type());
}

Rect exrDisplayWindow(const Imf::Header& header) {
  const Box2i& d = header.displayWindow();
  return {d.min.x, d.min.y, d.max.x + 1, d.max.y + 1};
}

Rect exrDataWindow(const Imf::Header& header) {
  const Rect format = exrDisplayWindow(header);
  const Box2i& d = header.dataWindow();
  return {d.min.x, hostRow(format, d.max.y), d.max.x + 1, hostRow(format, d.min.y) + 1};
}

std::vector<std::string> exrChannels(const Imf::Header& header) {
  struct Entry {
    std::string name, layer;
    int rank, order;
  };
  std::vector<Entry> entries;
  for (auto c = header.channels().begin(); c != header.channels().end(); ++c) {
    const std::string name = c.name();
    const auto dot = name.rfind('.');
    const std::string layer = dot == std::string::npos ? "" : name.substr(0, dot);
    entries.push_back({name, layer, channelRank(name.substr(layer.empty() ? 0 : dot + 1)),
                       int(entries.size())});
  }
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    if (a.layer != b.layer)
      return a.layer < b.layer;
    return a.rank != b.rank ? a.rank < b.rank : a.order < b.order;
  });
  std::vector<std::string> names;
  for (const Entry& e : entries)
    names.push_back(e.name);
  return names;
}

void readExrPixels(const std::string& path, int part, const std::vector<float*>& planes) {
  useAllCores();
  try {
    Imf::MultiPartInputFile file(path.c_str());
    Imf::InputPart in(file, part);
    const Imf::Header& header = in.header();
    const std::vector<std::string> names = exrChannels(header);
    if (names.size() != planes.size())
      throw RenderError("cannot read " + path + ": it changed while being read");
    const Box2i& data = header.dataWindow();
    const std::ptrdiff_t w = std::ptrdiff_t(data.max.x) - data.min.x + 1;
    const std::ptrdiff_t h = std::ptrdiff_t(data.max.y) - data.min.y + 1;
    Imf::FrameBuffer frame;
    // File rows run down and the planes' rows up: the file's first row is the planes' last.
    for (std::size_t c = 0; c < names.size(); ++c)
      frame.insert(names[c], Imf::Slice(Imf::FLOAT,
                                        sliceBase(planes[c] + (h - 1) * w, data, sizeof(float),
                                                  -w * std::ptrdiff_t(sizeof(float))),
                                        sizeof(float), std::size_t(-w * std::ptrdiff_t(sizeof(float)))));
    in.setFrameBuffer(frame);
    in.readPixels(data.min.y, data.max.y);
  } catch (const AppError&) {
    throw;
  } catch (const std::exception& e) {
    throw damaged(path, e);
  }
}

namespace {

// A deep image's samples as OpenEXR's frame buffers, a band of file rows at a time: OpenEXR
// reaches each pixel's samples through a pointer per pixel and channel, which for the whole
// image would take more memory than the samples themselves. The counts cover the data window,
// file rows top down; a pixel outside the image's box has none.
class DeepFrames {
public:
  DeepFrames(const Box2i& data, const DeepImage& image)
      : data_(data), image_(image), width_(std::ptrdiff_t(data.max.x) - data.min.x + 1),
        counts_(std::size_t(width_) * std::size_t(std::ptrdiff_t(data.max.y) - data.min.y + 1)) {}

  // The image's counts, for a writer.
  void countsFromImage() {
    for (int fy = data_.min.y; fy <= data_.max.y; ++fy)
      for (int x = data_.min.x; x <= data_.max.x; ++x)
        if (inBox(x, hostRow(image_.format, fy)))
          counts_[index(x, fy)] = unsigned(image_.sampleCount(x, hostRow(image_.format, fy)));
  }

  // The counts a reader read, into `image`: each host pixel's first sample, and room for all.
  void countsIntoImage(DeepImage& image) const {
    image.offsets.assign(counts_.size() + 1, 0);
    for (int fy = data_.min.y; fy <= data_.max.y; ++fy)
      std::copy_n(&counts_[index(data_.min.x, fy)], width_,
                  &image.offsets[image.pixelIndex(image.box.x, hostRow(image.format, fy)) + 1]);
    std::partial_sum(image.offsets.begin(), image.offsets.end(), image.offsets.begin());
    DD::Image::host::zeroedPlane(image.samples, image.offsets.back() * image.channels.size());
  }

  Imf::DeepFrameBuffer countsOnly() const {
    Imf::DeepFrameBuffer frame;
    frame.insertSampleCountSlice(countSlice());
    return frame;
  }

  // The frame buffer for file rows [y0, y1], through `pointers`, which it must outlive. Slices
  // take pointers to change whichever way the data goes; a writer only reads through them.
  Imf::DeepFrameBuffer band(int y0, int y1, std::vector<char*>& pointers) const {
    const std::size_t nch = image_.channels.size();
    const std::size_t pixels = std::size_t(width_) * std::size_t(y1 - y0 + 1);
    pointers.assign(nch * pixels, nullptr);
    for (int fy = y0; fy <= y1; ++fy)
      for (int x = data_.min.x; x <= data_.max.x; ++x) {
        const int y = hostRow(image_.format, fy);
        if (!inBox(x, y))
          continue;
        const float* sample = image_.samples.data() + image_.offsets[image_.pixelIndex(x, y)] * nch;
        const std::size_t at = index(x, fy) - index(data_.min.x, y0);
        for (std::size_t c = 0; c < nch; ++c)
          pointers[c * pixels + at] = const_cast<char*>(reinterpret_cast<const char*>(sample + c));
      }
    Imf::DeepFrameBuffer frame = countsOnly();
    const Box2i window = rowBand(data_, y0, y1 + 1);
    const std::ptrdiff_t step = sizeof(char*);
    for (std::size_t c = 0; c < nch; ++c)
      frame.insert(image_.channels[c],
                   Imf::DeepSlice(Imf::FLOAT, sliceBase(&pointers[c * pixels], window, step, step * width_),
                                  std::size_t(step), std::size_t(step * width_), nch * sizeof(float)));
    return frame;
  }

private:
  bool inBox(int x, int y) const {
    return x >= image_.box.x && x < image_.box.r && y >= image_.box.y && y < image_.box.t;
  }
  std::size_t index(int x, int fy) const {
    return std::size_t(fy - data_.min.y) * std::size_t(width_) + std::size_t(x - data_.min.x);
  }
  Imf::Slice countSlice() const {
    const std::ptrdiff_t step = sizeof(unsigned);
    return Imf::Slice(Imf::UINT, sliceBase(counts_.data(), data_, step, step * width_),
                      std::size_t(step), std::size_t(step * width_));
  }

  Box2i data_;
  const DeepImage& image_;
  std::ptrdiff_t width_;
  std::vector<unsigned> counts_;  // read or written by OpenEXR through countSlice()
};

// Rows a band of a deep scanline part covers: a whole number of chunks whatever the compression.
constexpr int kDeepBandRows = 64;

// One thread's way into a deep part. OpenEXR decodes a deep part's chunks one at a time
// whatever its thread count, so each thread reads its bands through an input of its own.
// Band b is rows of scanlines, or the b-th row of tiles of a tiled part's first level.
class DeepInput {
public:
  DeepInput(const std::string& path, int part, bool tiled)
      : file_(path.c_str()) {
    if (tiled)
      tiles_ = std::make_unique<Imf::DeepTiledInputPart>(file_, part);
    else
      lines_ = std::make_unique<Imf::DeepScanLineInputPart>(file_, part);
  }

  void readCounts(const Imf::DeepFrameBuffer& frame, int band, const Box2i& rows) {
    setFrameBuffer(frame);
    if (tiles_)
      tiles_->readPixelSampleCounts(0, tiles_->numXTiles(0) - 1, band, band);
    else
      lines_->readPixelSampleCounts(rows.min.y, rows.max.y);
  }

  // The counts again, since a new frame buffer forgets those read before, then the samples.
  void readSamples(const Imf::DeepFrameBuffer& frame, int band, const Box2i& rows) {
    readCounts(frame, band, rows);
    if (tiles_)
      tiles_->readTiles(0, tiles_->numXTiles(0) - 1, band, band);
    else
      lines_->readPixels(rows.min.y, rows.max.y);
  }

  std::vector<char*> pointers;  // this thread's, for DeepFrames::band

private:
  void setFrameBuffer(const Imf::DeepFrameBuffer& frame) {
    if (tiles_)
      tiles_->setFrameBuffer(frame);
    else
      lines_->setFrameBuffer(frame);
  }

  Imf::MultiPartInputFile file_;
  std::unique_ptr<Imf::DeepTiledInputPart> tiles_;
  std::unique_ptr<Imf::DeepScanLineInputPart> lines_;
};

// The file rows of each band.
std::vector<Box2i> deepBands(const std::string& path, int part, const Box2i& data, bool tiled) {
  std::vector<Box2i> bands;
  if (tiled) {
    Imf::MultiPartInputFile file(path.c_str());
    Imf::DeepTiledInputPart in(file, part);
    for (int ty = 0; ty < in.numYTiles(0); ++ty)
      bands.push_back(in.dataWindowForTile(0, ty));
    return bands;
  }
  for (int y0 = data.min.y; y0 <= data.max.y; y0 += kDeepBandRows)
    bands.push_back(rowBand(data, y0, std::min(y0 + kDeepBandRows - 1, data.max.y) + 1));
  return bands;
}

}  // namespace

void readExrDeep(const std::string& path, int part, DeepImage& image, unsigned threads) {
  useAllCores();
  try {
    Imf::Header header;
    {
      Imf::MultiPartInputFile file(path.c_str());
      header = file.header(part);
    }
    const std::vector<std::string> names = exrChannels(header);
    if (names != image.channels)
      throw RenderError("cannot read " + path + ": it changed while being read");
    const Box2i data = header.dataWindow();
    const bool tiled = header.type() == Imf::DEEPTILE;
    const std::vector<Box2i> bands = deepBands(path, part, data, tiled);
    DeepFrames frames(data, image);
    const unsigned workers = workersFor(threads, bands.size());
    std::vector<std::unique_ptr<DeepInput>> inputs(workers);
    auto input = [&](unsigned worker) -> DeepInput& {
      if (!inputs[worker])
        inputs[worker] = std::make_unique<DeepInput>(path, part, tiled);
      return *inputs[worker];
    };
    const Imf::DeepFrameBuffer counts = frames.countsOnly();
    onThreads(workers, bands.size(), [&](std::size_t b, unsigned worker) {
      input(worker).readCounts(counts, int(b), bands[b]);
    });
    frames.countsIntoImage(image);
    onThreads(workers, bands.size(), [&](std::size_t b, unsigned worker) {
      DeepInput& in = input(worker);
      in.readSamples(frames.band(bands[b].min.y, bands[b].max.y, in.pointers), int(b), bands[b]);
    });
  } catch (const AppError&) {
    throw;
  } catch (const std::exception& e) {
    throw damaged(path, e);
  }
}

namespace {

// OpenEXR's output, into the staged file through writes that are all checked.
class StagingStream : public Imf::OStream {
public:
  StagingStream(const std::string& path, StagingFile& file) : OStream(path.c_str()), file_(file) {}
  void write(const char c[], int n) override {
    if (!file_.writeAt(c, std::size_t(n), std::int64_t(at_)))
      throw Iex::IoExc("a write to the file failed");
    at_ += std::uint64_t(n);
  }
  std::uint64_t tellp() override { return at_; }
  void seekp(std::uint64_t pos) override { at_ = pos; }

private:
  StagingFile& file_;
  std::uint64_t at_ = 0;
};

// Display window from the format, data window from the box (at least one pixel: an empty box
// still makes a valid file, of one black pixel), rows counted from the top as files store them.
Imf::Header windowedHeader(const Rect& format, const Rect& box) {
  const Box2i display(V2i(format.x, format.y), V2i(format.r - 1, format.t - 1));
  const int x0 = box.x, y0 = hostRow(format, box.t - 1);
  const Box2i data(V2i(x0, y0), V2i(x0 + std::max(1, box.w()) - 1, y0 + std::max(1, box.h()) - 1));
  return Imf::Header(display, data);
}

Imf::Header flatHeader(const FlatImage& image, const ExrHeader* header) {
  Imf::Header h = windowedHeader(image.format, image.box);
  h.compression() = Imf::ZIP_COMPRESSION;
  if (header)
    applyExrHeader(h, *header);
  for (const std::string& name : image.channels)
    h.channels().insert(name, Imf::Channel(exrPixelType(header, name)));
  return h;
}

// The planes as OpenEXR's frame buffer: the file's first row is the planes' last. The writer
// converts no pixel type, so a half channel is written from a copy in half; an empty box is
// written from one zero.
struct FlatFrame {
  Imf::FrameBuffer frame;
  std::vector<std::vector<Imath::half>> halves;
};

FlatFrame flatFrame(const FlatImage& image, const Imf::Header& header, const float* zero) {
  const Box2i& data = header.dataWindow();
  const std::ptrdiff_t w = image.box.w(), h = image.box.h();
  const std::ptrdiff_t step = sizeof(float), halfStep = sizeof(Imath::half);
  FlatFrame out;
  out.halves.reserve(image.channels.size());
  for (std::size_t c = 0; c < image.channels.size(); ++c) {
    const std::string& name = image.channels[c];
    const Imf::PixelType type = header.channels()[name].type;
    if (image.box.empty()) {
      out.frame.insert(name, Imf::Slice(type, sliceBase(zero, data, 0, 0), 0, 0));
    } else if (type == Imf::HALF) {
      std::vector<Imath::half>& copy = out.halves.emplace_back(std::size_t(w * h));
      for (std::ptrdiff_t row = 0; row < h; ++row) {
        const float* from = image.planes[c].data() + (h - 1 - row) * w;
        std::copy(from, from + w, copy.begin() + row * w);
      }
      out.frame.insert(name, Imf::Slice(Imf::HALF, sliceBase(copy.data(), data, halfStep, w * halfStep),
                                        std::size_t(halfStep), std::size_t(w * halfStep)));
    } else {
      out.frame.insert(name,
                       Imf::Slice(Imf::FLOAT,
                                  sliceBase(image.planes[c].data() + (h - 1) * w, data, step, -w * step),
                                  std::size_t(step), std::size_t(-w * step)));
    }
  }
  return out;
}

// The source's part `index` into the output's, chunk for chunk, whatever kind it is.
void copyPart(Imf::MultiPartInputFile& source, Imf::MultiPartOutputFile& out, int index) {
  const std::string type = source.header(index).hasType() ? source.header(index).type()
                                                          : Imf::SCANLINEIMAGE;
  if (type == Imf::TILEDIMAGE) {
    Imf::TiledInputPart in(source, index);
    Imf::TiledOutputPart(out, index).copyPixels(in);
  } else if (type == Imf::DEEPSCANLINE) {
    Imf::DeepScanLineInputPart in(source, index);
    Imf::DeepScanLineOutputPart(out, index).copyPixels(in);
  } else if (type == Imf::DEEPTILE) {
    Imf::DeepTiledInputPart in(source, index);
    Imf::DeepTiledOutputPart(out, index).copyPixels(in);
  } else {
    Imf::InputPart in(source, index);
    Imf::OutputPart(out, index).copyPixels(in);
  }
}

void encodeParts(Imf::OStream& stream, const Imf::Header& rendered, const Imf::FrameBuffer& frame,
                 const ExrHeader& h) {
  Imf::MultiPartInputFile source(h.source.c_str());
  if (source.parts() != h.partCount)
    throw RenderError("cannot copy the parts of " + h.source + ": it changed while being read");
  std::vector<Imf::Header> headers;
  for (int i = 0; i < source.parts(); ++i)
    headers.push_back(source.header(i));
  Imf::Header& ours = headers[std::size_t(h.part)];
  const std::string name = ours.hasName() ? ours.name() : "part" + std::to_string(h.part);
  ours = rendered;
  ours.setName(name);  // every part of a file needs its own
  ours.setType(Imf::SCANLINEIMAGE);
  Imf::MultiPartOutputFile out(stream, headers.data(), int(headers.size()), true);
  for (int i = 0; i < int(headers.size()); ++i) {
    if (i != h.part) {
      copyPart(source, out, i);
      continue;
    }
    Imf::OutputPart part(out, i);
    part.setFrameBuffer(frame);
    part.writePixels(rendered.dataWindow().max.y - rendered.dataWindow().min.y + 1);
  }
}

}  // namespace

void encodeFlatExr(StagingFile& file, const std::string& path, const FlatImage& image,
                   const ExrHeader* header) {
  useAllCores();
  encoding(path, [&] {
    StagingStream stream(path, file);
    const Imf::Header h = flatHeader(image, header);
    const float zero = 0.0f;
    const FlatFrame frame = flatFrame(image, h, &zero);
    if (header && header->partCount >= 2) {
      encodeParts(stream, h, frame.frame, *header);
      return;
    }
    Imf::OutputFile out(stream, h);
    out.setFrameBuffer(frame.frame);
    out.writePixels(h.dataWindow().max.y - h.dataWindow().min.y + 1);
  });
}

void encodeDeepExr(StagingFile& file, const std::string& path, const DeepImage& image) {
  useAllCores();
  encoding(path, [&] {
    StagingStream stream(path, file);
    Imf::Header h = windowedHeader(image.format, image.box);
    h.compression() = Imf::ZIPS_COMPRESSION;
    h.setType(Imf::DEEPSCANLINE);
    for (const std::string& name : image.channels)
      h.channels().insert(name, Imf::Channel(Imf::FLOAT));
    Imf::DeepScanLineOutputFile out(stream, h);
    const Box2i& data = h.dataWindow();
    DeepFrames frames(data, image);
    frames.countsFromImage();
    std::vector<char*> pointers;
    for (int fy = data.min.y; fy <= data.max.y; fy += kDeepBandRows) {
      const int last = std::min(fy + kDeepBandRows - 1, data.max.y);
      out.setFrameBuffer(frames.band(fy, last, pointers));
      out.writePixels(last - fy + 1);
    }
  });
}

}  // namespace vorelapp
