#include "app/ImageFiles.h"

#include <OpenImageIO/deepdata.h>
#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <OpenImageIO/imageio.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <numeric>
#include <system_error>
#include <thread>

#include "DDImage/Host.h"
#include "app/AppError.h"
#include "app/InputChecks.h"
#include "app/Metadata.h"
#include "app/Output.h"

namespace fs = std::filesystem;
using OIIO::ImageSpec;
using OIIO::TypeDesc;

namespace vorelapp {

namespace {

// Host row of a file row, and back: the flip about the display window.
int flipY(const Rect& format, int y) {
  return format.y + format.t - 1 - y;
}

Rect displayWindow(const ImageSpec& spec) {
  return {spec.full_x, spec.full_y, spec.full_x + spec.full_width, spec.full_y + spec.full_height};
}

// The data window in host coordinates.
Rect dataWindow(const ImageSpec& spec, const Rect& format) {
  const int fileTop = spec.y, fileBottom = spec.y + spec.height;  // half open, y down
  return {spec.x, flipY(format, fileBottom - 1), spec.x + spec.width, flipY(format, fileTop) + 1};
}

std::string oiioError(const std::string& fallback) {
  std::string e = OIIO::geterror();
  if (e.empty())
    e = fallback;
  std::replace(e.begin(), e.end(), '\n', ' ');
  while (!e.empty() && e.back() == ' ')
    e.pop_back();
  return e;
}

std::string oneLine(std::string e) {
  std::replace(e.begin(), e.end(), '\n', ' ');
  while (!e.empty() && e.back() == ' ')
    e.pop_back();
  return e;
}

template <class T>
std::string inputError(T& in) {
  std::string e = in.geterror();
  std::replace(e.begin(), e.end(), '\n', ' ');
  return e.empty() ? oiioError("unknown error") : e;
}

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

// The part chosen for the file, by index or by name.
void seekPart(OIIO::ImageInput& in, const std::string& path) {
  const int index = chosenPartIndex(path);
  if (index >= 0 && !in.seek_subimage(index, 0))
    throw UsageError("cannot read part " + std::to_string(index) + " of " + path + ": " +
                     inputError(in));
}

std::unique_ptr<OIIO::ImageInput> openInput(const std::string& path) {
  requireRegularFile(path);
  auto in = OIIO::ImageInput::open(path);
  if (!in)
    throw UsageError("cannot read " + path + ": " + oiioError("not an image file"));
  seekPart(*in, path);
  const ImageSpec& spec = in->spec();
  if (spec.width <= 0 || spec.height <= 0 || spec.nchannels <= 0 || spec.depth > 1)
    throw UsageError("cannot read " + path + ": not a 2D image with channels");
  return in;
}


std::string lower(std::string s) {
  for (char& c : s)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::unique_ptr<OIIO::ImageOutput> createOutput(const std::string& finalPath) {
  auto out = OIIO::ImageOutput::create(finalPath);
  if (!out)
    throw RenderError("cannot write " + finalPath + ": " + oiioError("unsupported file type"));
  return out;
}

// The encoder's bytes go straight into the temporary file, through writes that are all checked:
// the file is never held whole in memory.
class StagingProxy : public OIIO::Filesystem::IOProxy {
public:
  StagingProxy(const std::string& path, StagingFile& file)
      : IOProxy(path, IOProxy::Write), file_(file) {}
  const char* proxytype() const override { return "vorel-staging"; }
  size_t write(const void* data, size_t size) override {
    const size_t done = pwrite(data, size, m_pos);
    m_pos += std::int64_t(done);
    return done;
  }
  size_t pwrite(const void* data, size_t size, int64_t offset) override {
    return file_.writeAt(data, size, offset) ? size : 0;
  }
  size_t size() const override { return size_t(file_.size()); }

private:
  StagingFile& file_;
};

// A writer for the kind of file `finalPath` names, encoding into the staged file.
std::unique_ptr<OIIO::ImageOutput> createOutput(const std::string& finalPath, StagingProxy& proxy) {
  auto out = createOutput(finalPath);
  if (!out->supports("ioproxy") || !out->set_ioproxy(&proxy))
    throw RenderError("cannot write " + finalPath + ": the file type cannot be streamed");
  return out;
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
  auto in = OIIO::ImageInput::open(path);
  if (!in)
    throw UsageError("cannot read " + path + ": " + oiioError("not an image file"));
  std::vector<std::string> names;
  for (int i = 0; in->seek_subimage(i, 0); ++i) {
    const std::string name = in->spec().get_string_attribute("name");
    names.push_back(name.empty() ? std::to_string(i) : name);
  }
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
  auto in = openInput(path);
  return in->spec().deep;
}

FlatImage readFlatHeader(const std::string& path) {
  auto in = openInput(path);
  const ImageSpec& spec = in->spec();
  if (spec.deep)
    throw UsageError(path + " is a deep image; give it with --deep");
  FlatImage image;
  image.format = displayWindow(spec);
  image.box = dataWindow(spec, image.format);
  image.channels.assign(spec.channelnames.begin(), spec.channelnames.end());
  image.channels.resize(std::size_t(spec.nchannels));
  checkImageFits(path, spec.width, spec.height, spec.nchannels, 2);
  for (std::size_t c = 0; c < image.channels.size(); ++c)
    if (image.channels[c].empty())
      image.channels[c] = "channel" + std::to_string(c);
  return image;
}

void readFlatPixels(const std::string& path, const std::vector<float*>& planes,
                    BadPixelCount* badCount) {
  auto in = openInput(path);
  const ImageSpec spec = in->spec();
  if (spec.deep)
    throw UsageError(path + " is a deep image; give it with --deep");
  const int nch = spec.nchannels;
  if (int(planes.size()) != nch)
    throw RenderError("cannot read " + path + ": it changed while being read");
  const Rect format = displayWindow(spec);
  const Rect box = dataWindow(spec, format);
  const std::size_t w = std::size_t(spec.width);
  BadPixelCount count;
  std::vector<std::string> names(spec.channelnames.begin(), spec.channelnames.end());
  names.resize(std::size_t(nch));
  count.resize(names);
  std::vector<char> depth(static_cast<std::size_t>(nch));
  for (int c = 0; c < nch; ++c)
    depth[std::size_t(c)] = isDepthName(names[std::size_t(c)]);
  auto scatter = [&](const float* src, int fileY0, int fileY1) {
    for (int fy = fileY0; fy < fileY1; ++fy) {
      const std::size_t row = std::size_t(flipY(format, fy) - box.y) * w;
      const float* line = src + std::size_t(fy - fileY0) * w * nch;
      for (int c = 0; c < nch; ++c) {
        float* dst = planes[std::size_t(c)] + row;
        for (std::size_t i = 0; i < w; ++i)
          dst[i] = readValue(line[i * nch + c], std::size_t(c), depth[std::size_t(c)], count);
      }
    }
  };

  bool ok = true;
  if (spec.tile_width == 0) {
    // Scanline files are read in bands, so that only the planes hold the whole image.
    const int band = 64;
    std::vector<float> buffer(w * nch * band);
    for (int fy = spec.y; ok && fy < spec.y + spec.height; fy += band) {
      const int end = std::min(fy + band, spec.y + spec.height);
      ok = in->read_scanlines(in->current_subimage(), 0, fy, end, 0, 0, nch, TypeDesc::FLOAT,
                              buffer.data());
      if (ok)
        scatter(buffer.data(), fy, end);
    }
  } else {
    std::vector<float> buffer(w * std::size_t(spec.height) * nch);
    ok = in->read_image(in->current_subimage(), 0, 0, nch, TypeDesc::FLOAT, buffer.data());
    if (ok)
      scatter(buffer.data(), spec.y, spec.y + spec.height);
  }
  if (!ok)
    throw UsageError("cannot read " + path + ": " + inputError(*in) +
                     " (the file is truncated or damaged)");
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

namespace {

// How many threads of `threads` have work with `n` jobs.
unsigned workersFor(unsigned threads, std::size_t n) {
  return unsigned(std::max<std::size_t>(1, std::min<std::size_t>(std::max(1u, threads), n)));
}

// Runs job(i, worker) for every i in [0, n) on `workers` threads, `worker` naming the thread (for
// what each keeps of its own). The first exception a job throws is rethrown here, once every
// thread has stopped; the jobs not started by then are not run.
template <class Job>
void onThreads(unsigned workers, std::size_t n, const Job& job) {
  std::atomic<std::size_t> next{0};
  std::mutex failed;
  std::exception_ptr failure;
  auto work = [&](unsigned worker) {
    try {
      for (std::size_t i = next++; i < n; i = next++)
        job(i, worker);
    } catch (...) {
      std::lock_guard<std::mutex> lock(failed);
      if (!failure)
        failure = std::current_exception();
      next = n;
    }
  };
  std::vector<std::thread> pool;
  for (unsigned t = 1; t < workers; ++t) {
    try {
      pool.emplace_back(work, t);
    } catch (const std::system_error&) {
      break;  // the threads there are take the jobs one by one, so they do them all
    }
  }
  work(0);
  for (std::thread& t : pool)
    t.join();
  if (failure)
    std::rethrow_exception(failure);
}

// File rows [y0, y1) of a deep file as decoded.
struct DeepBand {
  int y0 = 0, y1 = 0;
  OIIO::DeepData data;
};

// A whole number of chunks of a deep scanline file whatever its compression (1, 16 or 32 rows).
constexpr int kDeepBandRows = 64;

// The file's samples, a band of rows at a time. One input decodes one chunk at a time, so each
// thread reads its bands through an input of its own. A tiled file is one band, read whole.
std::vector<DeepBand> decodeDeepBands(const std::string& path, const ImageSpec& spec,
                                      unsigned threads) {
  const auto damaged = [&](OIIO::ImageInput& in) {
    return UsageError("cannot read " + path + ": " + inputError(in) +
                      " (the file is truncated or damaged)");
  };
  if (spec.tile_width) {
    std::vector<DeepBand> whole(1);
    whole[0].y0 = spec.y;
    whole[0].y1 = spec.y + spec.height;
    auto in = openInput(path);
    if (!in->read_native_deep_image(in->current_subimage(), 0, whole[0].data))
      throw damaged(*in);
    return whole;
  }
  std::vector<DeepBand> bands(std::size_t((spec.height + kDeepBandRows - 1) / kDeepBandRows));
  for (std::size_t b = 0; b < bands.size(); ++b) {
    bands[b].y0 = spec.y + int(b) * kDeepBandRows;
    bands[b].y1 = std::min(bands[b].y0 + kDeepBandRows, spec.y + spec.height);
  }
  const unsigned readers = workersFor(threads, bands.size());
  std::vector<std::unique_ptr<OIIO::ImageInput>> inputs(readers);
  onThreads(readers, bands.size(), [&](std::size_t b, unsigned reader) {
    if (!inputs[reader])
      inputs[reader] = openInput(path);
    OIIO::ImageInput& in = *inputs[reader];
    if (!in.read_native_deep_scanlines(in.current_subimage(), 0, bands[b].y0, bands[b].y1, 0, 0,
                                       spec.nchannels, bands[b].data))
      throw damaged(in);
  });
  return bands;
}

// Each host pixel's first sample, from the bands' counts: host rows run bottom up, file rows top
// down.
void countDeepSamples(const std::vector<DeepBand>& bands, DeepImage& image) {
  const int w = image.box.w();
  image.offsets.assign(std::size_t(w) * std::size_t(image.box.h()) + 1, 0);
  for (const DeepBand& band : bands) {
    const unsigned* counts = band.data.all_samples().data();
    for (int fy = band.y0; fy < band.y1; ++fy) {
      const std::size_t to = image.pixelIndex(image.box.x, flipY(image.format, fy)) + 1;
      std::copy_n(counts + std::size_t(fy - band.y0) * std::size_t(w), w, &image.offsets[to]);
    }
  }
  std::partial_sum(image.offsets.begin(), image.offsets.end(), image.offsets.begin());
}

// True when the band's samples lie one after another, every channel a float: as the file's rows
// are laid out in the image, so a row is copied in one run.
bool packedFloats(const OIIO::DeepData& data, std::size_t samples) {
  for (const TypeDesc& t : data.all_channeltypes())
    if (t != TypeDesc::FLOAT)
      return false;
  return data.samplesize() == std::size_t(data.channels()) * sizeof(float) &&
         std::size_t(data.all_data().size()) == samples * data.samplesize();
}

// The band's samples in their place in the image, as badPixels() says.
void placeDeepBand(const DeepBand& band, DeepImage& image, const std::vector<char>& depth,
                   BadPixelCount& count) {
  const OIIO::DeepData& dd = band.data;
  const std::size_t nch = image.channels.size();
  const int w = image.box.w();
  std::size_t bandSamples = 0;
  for (unsigned n : dd.all_samples())
    bandSamples += n;
  const bool packed = packedFloats(dd, bandSamples);
  const auto* values = reinterpret_cast<const float*>(dd.all_data().data());
  std::size_t read = 0;  // samples of the band before this row
  for (int fy = band.y0; fy < band.y1; ++fy) {
    const std::size_t first = image.pixelIndex(image.box.x, flipY(image.format, fy));
    float* out = image.samples.data() + image.offsets[first] * nch;
    const std::size_t rowSamples = image.offsets[first + std::size_t(w)] - image.offsets[first];
    if (packed) {
      const float* in = values + read * nch;
      for (std::size_t i = 0; i < rowSamples * nch; i += nch)
        for (std::size_t c = 0; c < nch; ++c)
          out[i + c] = readValue(in[i + c], c, depth[c], count);
    } else {
      const std::int64_t from = std::int64_t(fy - band.y0) * w;
      for (int x = 0; x < w; ++x)
        for (int s = 0, n = dd.samples(from + x); s < n; ++s, out += nch)
          for (std::size_t c = 0; c < nch; ++c)
            out[c] = readValue(dd.deep_value(from + x, int(c), s), c, depth[c], count);
    }
    read += rowSamples;
  }
}

}  // namespace

DeepImage readDeepImage(const std::string& path, BadPixelCount* badCount, unsigned threads) {
  auto in = openInput(path);
  const ImageSpec spec = in->spec();
  if (!spec.deep)
    throw UsageError(path + " is not a deep image");
  in.reset();

  DeepImage image;
  image.format = displayWindow(spec);
  image.box = dataWindow(spec, image.format);
  image.channels.assign(spec.channelnames.begin(), spec.channelnames.end());
  image.channels.resize(std::size_t(spec.nchannels));
  if (image.channelIndex("Z") < 0)
    throw UsageError("deep image " + path + " has no Z channel");
  checkImageFits(path, spec.width, spec.height, 2);

  std::vector<DeepBand> bands = decodeDeepBands(path, spec, threads);
  countDeepSamples(bands, image);
  const std::size_t nch = image.channels.size();
  DD::Image::host::zeroedPlane(image.samples, image.offsets.back() * nch);

  BadPixelCount count;
  count.resize(image.channels);
  std::vector<char> depth(nch);
  for (std::size_t c = 0; c < nch; ++c)
    depth[c] = isDepthName(image.channels[c]);
  // Counted per band, not per thread, so that which thread took which band does not matter.
  std::vector<BadPixelCount> counts(bands.size(), count);
  onThreads(workersFor(threads, bands.size()), bands.size(), [&](std::size_t b, unsigned) {
    placeDeepBand(bands[b], image, depth, counts[b]);
    bands[b].data.free();
  });
  for (const BadPixelCount& c : counts)
    for (std::size_t k = 0; k < nch; ++k) {
      count.nan[k] += c.nan[k];
      count.inf[k] += c.inf[k];
    }
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

// Display window from the format, data window from the box, rows counted from the top as files
// store them. The data window's size is passed in, since a flat file needs at least one pixel.
ImageSpec windowedSpec(const Rect& format, const Rect& box, int width, int height,
                       const std::vector<std::string>& channels) {
  ImageSpec spec(width, height, int(channels.size()), TypeDesc::FLOAT);
  spec.full_x = format.x;
  spec.full_y = format.y;
  spec.full_width = format.w();
  spec.full_height = format.h();
  spec.x = box.x;
  spec.y = flipY(format, box.t - 1);
  spec.channelnames = channels;
  return spec;
}

}  // namespace

namespace {

// Every pixel of every part of a file just written decodes; throws RenderError naming `path`
// otherwise.
void requireWholeFile(const std::string& written, const std::string& path) {
  auto in = OIIO::ImageInput::open(written);
  bool ok = bool(in);
  for (int part = 0; ok && in->seek_subimage(part, 0); ++part) {
    const ImageSpec& spec = in->spec();
    if (spec.deep) {
      OIIO::DeepData deep;
      ok = in->read_native_deep_image(part, 0, deep);
    } else if (spec.tile_width) {
      std::vector<unsigned char> pixels(spec.image_bytes(true));
      ok = in->read_image(part, 0, 0, spec.nchannels, TypeDesc::UNKNOWN, pixels.data());
    } else {
      const int band = 64;
      std::vector<unsigned char> pixels(spec.scanline_bytes(true) * band);
      for (int y = spec.y; ok && y < spec.y + spec.height; y += band)
        ok = in->read_scanlines(part, 0, y, std::min(y + band, spec.y + spec.height), 0, 0,
                                spec.nchannels, TypeDesc::UNKNOWN, pixels.data());
    }
  }
  if (!ok)
    throw RenderError("cannot write " + path + ": the file came out incomplete (is the disk full?)");
}

ImageSpec flatExrSpec(const FlatImage& image, const ExrHeader* header) {
  ImageSpec spec = windowedSpec(image.format, image.box, std::max(1, image.box.w()),
                                std::max(1, image.box.h()), image.channels);
  spec.alpha_channel = image.channelIndex("A");
  spec.z_channel = image.channelIndex("Z");
  spec.attribute("compression", "zip");
  if (header)
    applyExrHeader(spec, *header);
  return spec;
}

// The image's rows in file order, a band of them at a time interleaved for the writer.
bool writeFlatRows(OIIO::ImageOutput& out, const ImageSpec& spec, const FlatImage& image) {
  const int nch = int(image.channels.size());
  const std::size_t w = std::size_t(std::max(0, image.box.w()));
  const int band = 64;
  std::vector<float> buffer(std::max<std::size_t>(1, w) * nch * band, 0.0f);
  if (image.box.empty())  // an empty box still makes a valid file: one black pixel
    return out.write_scanline(spec.y, 0, TypeDesc::FLOAT, buffer.data());
  bool ok = true;
  for (int fy = spec.y; ok && fy < spec.y + spec.height; fy += band) {
    const int end = std::min(fy + band, spec.y + spec.height);
    for (int row = fy; row < end; ++row) {
      const int y = flipY(image.format, row);
      float* line = buffer.data() + std::size_t(row - fy) * w * nch;
      for (int c = 0; c < nch; ++c) {
        const float* src = image.row(c, y);
        for (std::size_t i = 0; i < w; ++i)
          line[i * nch + c] = src[i];
      }
    }
    ok = out.write_scanlines(fy, end, 0, TypeDesc::FLOAT, buffer.data());
  }
  return ok;
}

// The whole EXR through `out`, opened on `target`; with a header of several parts, the input's
// other parts around the rendered one.
void encodeExr(OIIO::ImageOutput& out, const std::string& path, const std::string& target,
               const FlatImage& image, const ExrHeader* header) {
  const ImageSpec spec = flatExrSpec(image, header);
  const bool opened = header ? openExrParts(out, target, spec, *header) : out.open(target, spec);
  if (!opened)
    throw RenderError("cannot write " + path + ": " + inputError(out));
  bool ok = writeFlatRows(out, spec, image);
  ok = ok && (!header || finishExrParts(out, target, *header));
  ok = ok && out.close();
  if (!ok)
    throw RenderError("cannot write " + path + ": " + inputError(out));
}

void stageExr(OutputBatch& batch, const std::string& path, const FlatImage& image,
              const ExrHeader* header) {
  if (header && header->parts.size() >= 2) {
    // OpenEXR writes several parts only to a file it opens itself, whose writes it does not all
    // check: the file is decoded again to be sure it is whole.
    batch.stageNamed(path, [&](const std::string& temp) {
      auto out = createOutput(path);
      encodeExr(*out, path, temp, image, header);
      out.reset();
      requireWholeFile(temp, path);
    });
    return;
  }
  batch.stage(path, [&](StagingFile& file) {
    StagingProxy proxy(path, file);
    auto out = createOutput(path, proxy);
    encodeExr(*out, path, path, image, header);
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
  const int nch = int(source.size());

  const Rect f = quickLookWindow(image);
  ImageSpec spec(std::max(1, f.w()), std::max(1, f.h()), nch, TypeDesc::FLOAT);
  if (withAlpha)
    spec.alpha_channel = nch - 1;
  OIIO::ImageBuf linear(spec);
  std::vector<float> line(std::size_t(std::max(1, f.w())) * nch);
  for (int y = f.y; y < f.t; ++y) {
    std::fill(line.begin(), line.end(), 0.0f);
    if (y >= image.box.y && y < image.box.t) {
      const int x0 = std::max(f.x, image.box.x), x1 = std::min(f.r, image.box.r);
      for (int c = 0; c < nch; ++c) {
        if (source[c] < 0)
          continue;
        const float* src = image.row(source[c], y);
        for (int x = x0; x < x1; ++x) {
          const float v = src[x - image.box.x];
          line[std::size_t(x - f.x) * nch + c] = std::isfinite(v) ? v : (v > 0 ? FLT_MAX : 0.0f);
        }
      }
    }
    const int fileRow = flipY(f, y) - f.y;
    linear.set_pixels(OIIO::ROI(0, f.w(), fileRow, fileRow + 1, 0, 1, 0, nch), TypeDesc::FLOAT,
                      line.data());
  }

  OIIO::ImageBuf display;
  if (!OIIO::ImageBufAlgo::colorconvert(display, linear, "linear", "sRGB", withAlpha))
    throw RenderError("cannot write " + path + ": " + display.geterror());

  linear.reset();
  ImageSpec fileSpec = display.spec();
  fileSpec.set_format(tiff ? TypeDesc::UINT16 : TypeDesc::UINT8);
  batch.stage(path, [&](StagingFile& file) {
    StagingProxy proxy(path, file);
    auto out = createOutput(path, proxy);
    const bool ok = out->open(path, fileSpec) && display.write(out.get()) && out->close();
    if (!ok) {
      const std::string e = out->geterror() + display.geterror();
      throw RenderError("cannot write " + path + ": " + oneLine(e.empty() ? "encoding failed" : e));
    }
  });
}

// OpenImageIO writes deep files only to a file it opens itself, whose writes it does not all
// check: the file is decoded again in full to be sure it is whole.
void stageDeepExr(OutputBatch& batch, const std::string& path, const DeepImage& image) {
  auto out = createOutput(path);
  if (!out->supports("deepdata"))
    throw RenderError("cannot write " + path + ": the file type holds no deep data");
  const int nch = int(image.channels.size());
  ImageSpec spec = windowedSpec(image.format, image.box, image.box.w(), image.box.h(), image.channels);
  spec.channelformats.assign(nch, TypeDesc::FLOAT);
  spec.alpha_channel = image.channelIndex("A");
  spec.z_channel = image.channelIndex("Z");
  spec.deep = true;
  spec.attribute("compression", "zips");

  OIIO::DeepData dd;
  dd.init(spec);
  const int w = image.box.w();
  std::vector<unsigned int> counts(std::size_t(w) * image.box.h());
  for (int y = image.box.y; y < image.box.t; ++y)
    for (int x = image.box.x; x < image.box.r; ++x)
      counts[std::size_t(flipY(image.format, y) - spec.y) * w + (x - image.box.x)] =
          unsigned(image.sampleCount(x, y));
  dd.set_all_samples(counts);
  for (int y = image.box.y; y < image.box.t; ++y)
    for (int x = image.box.x; x < image.box.r; ++x) {
      const std::int64_t p = std::int64_t(flipY(image.format, y) - spec.y) * w + (x - image.box.x);
      const std::size_t n = image.sampleCount(x, y);
      for (std::size_t s = 0; s < n; ++s)
        for (int c = 0; c < nch; ++c)
          dd.set_deep_value(p, c, int(s), image.sample(x, y, s)[c]);
    }

  batch.stageNamed(path, [&](const std::string& temp) {
    const bool ok = out->open(temp, spec) && out->write_deep_image(dd) && out->close();
    if (!ok)
      throw RenderError("cannot write " + path + ": " + inputError(*out));
    out.reset();
    OIIO::DeepData check;
    auto in = OIIO::ImageInput::open(temp);
    if (!in || !in->read_native_deep_image(0, 0, check) || check.pixels() != dd.pixels())
      throw RenderError("cannot write " + path +
                        ": the file came out incomplete (is the disk full?)");
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
