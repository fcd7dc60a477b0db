#include "app/ImageFiles.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <numeric>
#include <system_error>
#include <thread>

#include "DDImage/Host.h"
#include "app/AppError.h"
#include "app/ExrFiles.h"
#include "app/InputChecks.h"
#include "app/Metadata.h"
#include "app/OnThreads.h"
#include "app/OtherImages.h"
#include "app/Output.h"

namespace fs = std::filesystem;

namespace vorelapp {

namespace {

std::map<std::string, std::string>& chosenParts() {
  static std::map<std::string, std::string> parts;
  return parts;
}

}  // namespace

int chosenPartIndex(const std::string& path) {
  const auto it = chosenParts().find(path);
  if (it == chosenParts().end())
    return -1;
  const std::vector<std::string> names = partNames(path);
  int index = -1;
  for (std::size_t i = 0; i < names.size(); ++i)
    if (names[i] == it->second)
      index = int(i);
  char* end = nullptr;
  const long n = std::strtol(it->second.c_str(), &end, 10);
  if (index < 0 && !it->second.empty() && *end == '\0' && n >= 0 && n < long(names.size()))
    index = int(n);
  if (index < 0) {
    std::string list;
    for (std::size_t i = 0; i < names.size(); ++i)
      list += (i ? ", " : "") + std::to_string(i) + " '" + names[i] + "'";
    throw UsageError("--part: " + path + " has no part '" + it->second + "' (it has " + list + ")");
  }
  return index;
}

namespace {

// What reading needs of a file's header, whatever kind of file it is: of an EXR, the part chosen
// for it.
struct SourceHeader {
  bool exr = false, deep = false;
  int part = 0;
  Rect format, box;
  std::vector<std::string> channels;
};

SourceHeader otherSource(const std::string& path) {
  OtherHeader o;
  const std::string e = otherImages().readHeader(path, o);
  if (!e.empty())
    throw UsageError("cannot read " + path + ": " + e);
  chosenPartIndex(path);  // such a file has one part: any other choice is refused
  if (o.width <= 0 || o.height <= 0 || o.volume)
    throw UsageError("cannot read " + path + ": not a 2D image with channels");
  SourceHeader s;
  s.format = {o.fullX, o.fullY, o.fullX + o.fullWidth, o.fullY + o.fullHeight};
  s.box = {o.x, hostRow(s.format, o.y + o.height - 1), o.x + o.width, hostRow(s.format, o.y) + 1};
  s.channels = o.channels;
  return s;
}

SourceHeader openSource(const std::string& path) {
  requireRegularFile(path);
  SourceHeader s;
  if (isExrFile(path)) {
    const std::vector<Imf::Header> parts = exrHeaders(path);
    s.exr = true;
    s.part = std::max(0, chosenPartIndex(path));
    const Imf::Header& h = parts[std::size_t(s.part)];
    s.deep = isDeepPart(h);
    s.format = exrDisplayWindow(h);
    s.box = exrDataWindow(h);
    s.channels = exrChannels(h);
  } else {
    s = otherSource(path);
  }
  if (s.channels.empty())
    throw UsageError("cannot read " + path + ": not a 2D image with channels");
  return s;
}

std::string lower(std::string s) {
  for (char& c : s)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

void checkDirectory(const std::string& path) {
  fs::path dir = fs::path(path).parent_path();
  std::error_code ec;
  if (!dir.empty() && !fs::is_directory(dir, ec))
    throw RenderError("cannot write " + path + ": no directory " + dir.string());
}

}  // namespace

void FlatImage::allocate() {
  // Plane by plane: a plane copied from a zeroed one would cost its size once more, and a copy.
  const std::size_t size = std::size_t(std::max(0, box.w())) * std::size_t(std::max(0, box.h()));
  planes.resize(channels.size());
  for (std::vector<float>& plane : planes)
    DD::Image::host::zeroedPlane(plane, size);
}

int FlatImage::channelIndex(const std::string& name) const {
  for (std::size_t i = 0; i < channels.size(); ++i)
    if (channels[i] == name)
      return int(i);
  return -1;
}

int DeepImage::channelIndex(const std::string& name) const {
  for (std::size_t i = 0; i < channels.size(); ++i)
    if (channels[i] == name)
      return int(i);
  return -1;
}

std::vector<std::string> partNames(const std::string& path) {
  requireRegularFile(path);
  if (!isExrFile(path))
    return {"0"};
  std::vector<std::string> names;
  for (const Imf::Header& h : exrHeaders(path))
    names.push_back(h.hasName() ? h.name() : std::to_string(names.size()));
  return names;
}

void choosePart(const std::string& path, const std::string& part) {
  chosenParts()[path] = part;
}

std::string partsNote(const std::string& path) {
  if (chosenParts().count(path))
    return "";
  const std::vector<std::string> names = partNames(path);
  if (names.size() < 2)
    return "";
  std::string list;
  for (std::size_t i = 0; i < names.size(); ++i)
    list += (i ? ", " : "") + std::to_string(i) + " '" + names[i] + "'";
  return path + " has " + std::to_string(names.size()) + " parts (" + list +
         "); reading part 0; choose one with --part NAME or INDEX";
}

bool isDeepFile(const std::string& path) {
  return openSource(path).deep;
}

FlatImage readFlatHeader(const std::string& path) {
  const SourceHeader s = openSource(path);
  if (s.deep)
    throw UsageError(path + " is a deep image; give it with --deep");
  FlatImage image;
  image.format = s.format;
  image.box = s.box;
  image.channels = s.channels;
  checkImageFits(path, s.box.w(), s.box.h(), int(s.channels.size()), 2);
  for (std::size_t c = 0; c < image.channels.size(); ++c)
    if (image.channels[c].empty())
      image.channels[c] = "channel" + std::to_string(c);
  return image;
}

namespace {

// Every value read as badPixels() says, counted: `values` interleaved by channel, in blocks of
// `block` values so that the threads share the work. Counts are kept per block, so that which
// thread took which block does not matter.
void screenValues(float* values, std::size_t count, const std::vector<std::string>& channels,
                  BadPixelCount& total, unsigned threads) {
  const std::size_t nch = channels.size();
  std::vector<char> depth(nch);
  for (std::size_t c = 0; c < nch; ++c)
    depth[c] = isDepthName(channels[c]);
  total.resize(channels);
  const std::size_t block = nch * 65536;
  const std::size_t blocks = (count + block - 1) / block;
  std::vector<BadPixelCount> counts(blocks, total);
  onThreads(workersFor(threads, blocks), blocks, [&](std::size_t b, unsigned) {
    float* v = values + b * block;
    const std::size_t n = std::min(block, count - b * block);
    for (std::size_t i = 0; i < n; i += nch)
      for (std::size_t c = 0; c < nch; ++c)
        v[i + c] = readValue(v[i + c], c, depth[c], counts[b]);
  });
  for (const BadPixelCount& c : counts)
    for (std::size_t k = 0; k < nch; ++k) {
      total.nan[k] += c.nan[k];
      total.inf[k] += c.inf[k];
    }
}

// The pixels of a file that is not an EXR, rows from the top and channels interleaved, into the
// planes.
void readOtherPixels(const std::string& path, const SourceHeader& s, const std::vector<float*>& planes) {
  std::vector<float> pixels;
  const std::string e = otherImages().readPixels(path, pixels);
  if (!e.empty())
    throw UsageError("cannot read " + path + ": " + e);
  const std::size_t w = std::size_t(s.box.w()), nch = planes.size();
  if (pixels.size() != w * std::size_t(s.box.h()) * nch)
    throw RenderError("cannot read " + path + ": it changed while being read");
  for (int y = s.box.y; y < s.box.t; ++y) {
    const float* line = pixels.data() + std::size_t(s.box.t - 1 - y) * w * nch;
    const std::size_t row = std::size_t(y - s.box.y) * w;
    for (std::size_t c = 0; c < nch; ++c)
      for (std::size_t i = 0; i < w; ++i)
        planes[c][row + i] = line[i * nch + c];
  }
}

}  // namespace

void readFlatPixels(const std::string& path, const std::vector<float*>& planes,
                    BadPixelCount* badCount) {
  const SourceHeader s = openSource(path);
  if (s.deep)
    throw UsageError(path + " is a deep image; give it with --deep");
  if (planes.size() != s.channels.size())
    throw RenderError("cannot read " + path + ": it changed while being read");
  if (s.exr)
    readExrPixels(path, s.part, planes);
  else
    readOtherPixels(path, s, planes);
  const std::size_t pixels = std::size_t(s.box.w()) * std::size_t(s.box.h());
  const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
  BadPixelCount count;
  count.resize(s.channels);
  for (std::size_t c = 0; c < planes.size(); ++c) {
    BadPixelCount one;
    screenValues(planes[c], pixels, {s.channels[c]}, one, threads);
    count.nan[c] = one.nan[0];
    count.inf[c] = one.inf[0];
  }
  if (badCount)
    *badCount = count;
}

FlatImage readFlatImage(const std::string& path, std::size_t* nanCount) {
  FlatImage image = readFlatHeader(path);
  image.allocate();
  std::vector<float*> planes;
  for (auto& p : image.planes)
    planes.push_back(p.data());
  BadPixelCount count;
  readFlatPixels(path, planes, &count);
  if (nanCount) {
    *nanCount = 0;
    for (std::size_t n : count.nan)
      *nanCount += n;
  }
  return image;
}

DeepImage readDeepImage(const std::string& path, BadPixelCount* badCount, unsigned threads) {
  const SourceHeader s = openSource(path);
  if (!s.deep)
    throw UsageError(path + " is not a deep image");
  DeepImage image;
  image.format = s.format;
  image.box = s.box;
  image.channels = s.channels;
  if (image.channelIndex("Z") < 0)
    throw UsageError("deep image " + path + " has no Z channel");
  checkImageFits(path, s.box.w(), s.box.h(), 2);
  readExrDeep(path, s.part, image, threads);
  BadPixelCount count;
  screenValues(image.samples.data(), image.samples.size(), image.channels, count, threads);
  if (badCount)
    *badCount = count;
  return image;
}

FlatImage flattenedHeader(const DeepImage& deep) {
  const int zc = deep.channelIndex("Z"), zbc = deep.channelIndex("ZBack");
  FlatImage flat;
  flat.format = deep.format;
  flat.box = deep.box;
  for (std::size_t c = 0; c < deep.channels.size(); ++c)
    if (int(c) != zc && int(c) != zbc)
      flat.channels.push_back(deep.channels[c]);
  flat.channels.push_back("Z");
  return flat;
}

namespace {

// One row of the flattened image: each pixel's samples nearest first, composited with "over".
void flattenRow(const DeepImage& deep, int y, const std::vector<int>& from,
                const std::vector<float*>& planes, std::vector<std::size_t>& order) {
  const int zc = deep.channelIndex("Z"), zbc = deep.channelIndex("ZBack");
  const int ac = deep.channelIndex("A");
  const std::size_t row = std::size_t(y - deep.box.y) * std::size_t(deep.box.w());
  float* depth = planes.back() + row;
  for (int x = deep.box.x; x < deep.box.r; ++x) {
    const std::size_t i = std::size_t(x - deep.box.x);
    const std::size_t n = deep.sampleCount(x, y);
    if (n == 0) {
      depth[i] = FLT_MAX;
      continue;
    }
    auto front = [&](std::size_t s) { return deep.sample(x, y, s)[zc]; };
    auto back = [&](std::size_t s) {
      return zbc >= 0 ? deep.sample(x, y, s)[zbc] : deep.sample(x, y, s)[zc];
    };
    order.resize(n);
    std::iota(order.begin(), order.end(), std::size_t(0));
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
      if (front(a) != front(b))
        return front(a) < front(b);
      return back(a) < back(b);
    });
    float coverage = 0.0f;  // alpha of what lies in front
    for (std::size_t s : order) {
      const float* v = deep.sample(x, y, s);
      const float transparency = 1.0f - coverage;
      for (std::size_t k = 0; k < from.size(); ++k)
        planes[k][row + i] += v[from[k]] * transparency;
      coverage += (ac >= 0 ? v[ac] : 1.0f) * transparency;
    }
    depth[i] = front(order.front());
  }
}

}  // namespace

void flattenDeep(const DeepImage& deep, const std::vector<float*>& planes, unsigned threads) {
  const int zc = deep.channelIndex("Z"), zbc = deep.channelIndex("ZBack");
  std::vector<int> from;  // deep channel of each flat channel but the last
  for (std::size_t c = 0; c < deep.channels.size(); ++c)
    if (int(c) != zc && int(c) != zbc)
      from.push_back(int(c));
  if (planes.size() != from.size() + 1)
    throw RenderError("flattening a deep image: " + std::to_string(planes.size()) +
                      " planes for " + std::to_string(from.size() + 1) + " channels");
  const int rows = std::max(0, deep.box.h());
  const int band = 16;
  const std::size_t bands = std::size_t((rows + band - 1) / band);
  const unsigned workers = workersFor(threads, bands);
  std::vector<std::vector<std::size_t>> orders(workers);
  onThreads(workers, bands, [&](std::size_t b, unsigned worker) {
    const int y0 = deep.box.y + int(b) * band;
    for (int y = y0; y < std::min(y0 + band, deep.box.t); ++y)
      flattenRow(deep, y, from, planes, orders[worker]);
  });
}

FlatImage flattenDeep(const DeepImage& deep) {
  FlatImage flat = flattenedHeader(deep);
  flat.allocate();
  std::vector<float*> planes;
  for (std::vector<float>& p : flat.planes)
    planes.push_back(p.data());
  flattenDeep(deep, planes, 1);
  return flat;
}

FileKind fileKindFor(const std::string& path) {
  const std::string ext = lower(fs::path(path).extension().string());
  if (ext == ".exr")
    return FileKind::Exr;
  if (ext == ".png" || ext == ".jpg" || ext == ".jpeg" || ext == ".tif" || ext == ".tiff")
    return FileKind::Display;
  return FileKind::Unknown;
}

namespace {

void stageExr(OutputBatch& batch, const std::string& path, const FlatImage& image,
              const ExrHeader* header) {
  batch.stage(path, [&](StagingFile& file) {
    encodeFlatExr(file, path, image, header);
  });
}

}  // namespace

Rect quickLookWindow(const FlatImage& image) {
  const double format = double(image.format.w()) * double(image.format.h());
  const double data = double(std::max(0, image.box.w())) * double(std::max(0, image.box.h()));
  // A display window far larger than the pixels the image holds would make a quick look of
  // mostly black at any cost in memory; the data window is what there is to look at.
  if (format > std::max(4.0 * data, double(kQuickLookPixels)) && !image.box.empty())
    return image.box;
  return image.format;
}

namespace {

// The quick look's pixels as the encoder takes them: rows from the top, channels interleaved,
// linear, every value finite.
std::vector<float> displayPixels(const FlatImage& image, const Rect& f, const std::vector<int>& source) {
  const std::size_t nch = source.size(), w = std::size_t(std::max(1, f.w()));
  std::vector<float> pixels(w * std::size_t(std::max(1, f.h())) * nch, 0.0f);
  for (int y = std::max(f.y, image.box.y); y < std::min(f.t, image.box.t); ++y) {
    float* line = pixels.data() + std::size_t(hostRow(f, y) - f.y) * w * nch;
    const int x0 = std::max(f.x, image.box.x), x1 = std::min(f.r, image.box.r);
    for (std::size_t c = 0; c < nch; ++c) {
      if (source[c] < 0)
        continue;
      const float* src = image.row(source[c], y);
      for (int x = x0; x < x1; ++x) {
        const float v = src[x - image.box.x];
        line[std::size_t(x - f.x) * nch + c] = std::isfinite(v) ? v : (v > 0 ? FLT_MAX : 0.0f);
      }
    }
  }
  return pixels;
}

void stageDisplayImage(OutputBatch& batch, const std::string& path, const FlatImage& image,
                       int red, int green, int blue, int alpha) {
  const std::string ext = lower(fs::path(path).extension().string());
  const bool jpeg = ext == ".jpg" || ext == ".jpeg";
  const bool tiff = ext == ".tif" || ext == ".tiff";

  std::vector<int> source;
  if (red < 0 && green < 0 && blue < 0) {
    if (image.channels.empty())
      throw RenderError("cannot write " + path + ": the image has no channels");
    source = {0};
  } else {
    source = {red, green, blue};
  }
  const bool withAlpha = alpha >= 0 && !jpeg;
  if (withAlpha)
    source.push_back(alpha);

  const Rect f = quickLookWindow(image);
  const std::vector<float> pixels = displayPixels(image, f, source);
  DisplayPixels display;
  display.width = std::max(1, f.w());
  display.height = std::max(1, f.h());
  display.channels = int(source.size());
  display.withAlpha = withAlpha;
  display.sixteenBit = tiff;
  display.pixels = pixels.data();
  const OtherImages& images = otherImages();
  batch.stage(path, [&](StagingFile& file) {
    const WriteAt writeAt = [&](const void* data, std::size_t size, std::int64_t offset) {
      return file.writeAt(data, size, offset);
    };
    const std::function<std::int64_t()> size = [&] { return file.size(); };
    const std::string e = images.writeDisplay(path, display, writeAt, size);
    if (!e.empty())
      throw RenderError("cannot write " + path + ": " + e);
  });
}

void stageDeepExr(OutputBatch& batch, const std::string& path, const DeepImage& image) {
  if (fileKindFor(path) != FileKind::Exr)
    throw RenderError("cannot write " + path + ": the file type holds no deep data");
  batch.stage(path, [&](StagingFile& file) {
    encodeDeepExr(file, path, image);
  });
}

}  // namespace

void writeExr(const std::string& path, const FlatImage& image, const ExrHeader* header) {
  checkDirectory(path);
  OutputBatch batch;
  stageExr(batch, path, image, header);
  batch.commit();
}

void writeDisplayImage(const std::string& path, const FlatImage& image, int red, int green,
                       int blue, int alpha) {
  checkDirectory(path);
  OutputBatch batch;
  stageDisplayImage(batch, path, image, red, green, blue, alpha);
  batch.commit();
}

void writeOutputs(const std::vector<std::string>& paths, const FlatImage& image, int red,
                  int green, int blue, int alpha, const ExrHeader* header) {
  OutputBatch batch;
  for (const std::string& path : paths) {
    checkDirectory(path);
    if (fileKindFor(path) == FileKind::Exr)
      stageExr(batch, path, image, header);
    else
      stageDisplayImage(batch, path, image, red, green, blue, alpha);
  }
  batch.commit();
}

void writeDeepExr(const std::string& path, const DeepImage& image) {
  checkDirectory(path);
  OutputBatch batch;
  stageDeepExr(batch, path, image);
  batch.commit();
}

void writeTextFile(const std::string& path, const std::string& text) {
  checkDirectory(path);
  writeFileAtomically(path, FileBytes(text.begin(), text.end()));
}

}  // namespace vorelapp
