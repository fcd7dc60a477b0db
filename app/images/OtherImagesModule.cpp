// The module behind app/OtherImages.h: OpenImageIO for every kind of file that is not an EXR.
#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>

#include "app/OtherImages.h"

using OIIO::ImageSpec;
using OIIO::TypeDesc;

namespace {

std::string oneLine(std::string e, const std::string& fallback) {
  if (e.empty())
    e = fallback;
  std::replace(e.begin(), e.end(), '\n', ' ');
  while (!e.empty() && e.back() == ' ')
    e.pop_back();
  return e;
}

template <class T>
std::string errorOf(T& io) {
  const std::string e = io.geterror();
  return oneLine(e.empty() ? OIIO::geterror() : e, "unknown error");
}

// OpenImageIO's notes about the file it read and the format's own layout, not what the image
// is of: none of it means anything in an EXR.
bool describesLayout(const std::string& name) {
  static const char* const kPrefixes[] = {"oiio:", "tiff:", "png:", "jpeg:", "bmp:", "gif:",
                                          "targa:", "dpx:", "cineon:", "webp:", "heif:"};
  for (const char* prefix : kPrefixes)
    if (name.rfind(prefix, 0) == 0)
      return true;
  return name == "compression" || name == "Software" || name == "tiles" || name == "planarconfig";
}

template <class T>
void copyNumbers(const OIIO::ParamValue& p, std::vector<double>& numbers) {
  const T* values = static_cast<const T*>(p.data());
  for (double& v : numbers)
    v = double(*values++);
}

bool toAttribute(const OIIO::ParamValue& p, vorelapp::OtherAttribute& a) {
  using Kind = vorelapp::OtherAttribute::Kind;
  const TypeDesc t = p.type();
  a.name = p.name().string();
  if (t == TypeDesc::STRING) {
    a.kind = Kind::Text;
    a.text = p.get_string();
    return true;
  }
  if (p.nvalues() != 1 || t.arraylen != 0)
    return false;
  a.count = int(t.basevalues());
  if (a.count != 1 && a.count != 2 && a.count != 3 && a.count != 9 && a.count != 16)
    return false;
  a.numbers.resize(std::size_t(a.count));
  a.kind = a.count <= 3 ? Kind::Int : Kind::Float;  // EXR has int vectors, not int matrices
  switch (t.basetype) {
  case TypeDesc::FLOAT: a.kind = Kind::Float; copyNumbers<float>(p, a.numbers); return true;
  case TypeDesc::DOUBLE: a.kind = Kind::Double; copyNumbers<double>(p, a.numbers); return true;
  case TypeDesc::INT: copyNumbers<int>(p, a.numbers); return true;
  case TypeDesc::UINT: copyNumbers<unsigned>(p, a.numbers); return true;
  case TypeDesc::INT16: copyNumbers<short>(p, a.numbers); return true;
  case TypeDesc::UINT16: copyNumbers<unsigned short>(p, a.numbers); return true;
  case TypeDesc::INT8: copyNumbers<signed char>(p, a.numbers); return true;
  case TypeDesc::UINT8: copyNumbers<unsigned char>(p, a.numbers); return true;
  default: return false;
  }
}

std::string readHeader(const std::string& path, vorelapp::OtherHeader& h) {
  auto in = OIIO::ImageInput::open(path);
  if (!in)
    return oneLine(OIIO::geterror(), "not an image file");
  const ImageSpec& s = in->spec();
  h.x = s.x;
  h.y = s.y;
  h.width = s.width;
  h.height = s.height;
  h.fullX = s.full_x;
  h.fullY = s.full_y;
  h.fullWidth = s.full_width;
  h.fullHeight = s.full_height;
  h.volume = s.depth > 1;
  h.channels.assign(s.channelnames.begin(), s.channelnames.end());
  h.channels.resize(std::size_t(std::max(0, s.nchannels)));
  for (const OIIO::ParamValue& p : s.extra_attribs) {
    vorelapp::OtherAttribute a;
    if (!describesLayout(p.name().string()) && toAttribute(p, a))
      h.attributes.push_back(std::move(a));
  }
  return "";
}

std::string readPixels(const std::string& path, std::vector<float>& pixels) {
  auto in = OIIO::ImageInput::open(path);
  if (!in)
    return oneLine(OIIO::geterror(), "not an image file");
  const ImageSpec& s = in->spec();
  pixels.assign(std::size_t(s.width) * std::size_t(s.height) * std::size_t(s.nchannels), 0.0f);
  if (!in->read_image(0, 0, 0, s.nchannels, TypeDesc::FLOAT, pixels.data()))
    return errorOf(*in) + " (the file is truncated or damaged)";
  return "";
}

// The encoder's bytes go straight to the caller's file, through writes that are all checked.
class WriteProxy : public OIIO::Filesystem::IOProxy {
public:
  WriteProxy(const std::string& path, const vorelapp::WriteAt& writeAt,
             const std::function<std::int64_t()>& size)
      : IOProxy(path, IOProxy::Write), writeAt_(writeAt), size_(size) {}
  const char* proxytype() const override { return "vorel-staging"; }
  size_t write(const void* data, size_t size) override {
    const size_t done = pwrite(data, size, m_pos);
    m_pos += std::int64_t(done);
    return done;
  }
  size_t pwrite(const void* data, size_t size, int64_t offset) override {
    return writeAt_(data, size, offset) ? size : 0;
  }
  size_t size() const override { return size_t(size_()); }

private:
  const vorelapp::WriteAt& writeAt_;
  const std::function<std::int64_t()>& size_;
};

std::string writeDisplay(const std::string& path, const vorelapp::DisplayPixels& image,
                         const vorelapp::WriteAt& writeAt, const std::function<std::int64_t()>& size) {
  ImageSpec spec(image.width, image.height, image.channels, TypeDesc::FLOAT);
  if (image.withAlpha)
    spec.alpha_channel = image.channels - 1;
  OIIO::ImageBuf linear(spec);
  linear.set_pixels(OIIO::ROI(0, image.width, 0, image.height, 0, 1, 0, image.channels),
                    TypeDesc::FLOAT, image.pixels);
  OIIO::ImageBuf display;
  if (!OIIO::ImageBufAlgo::colorconvert(display, linear, "linear", "sRGB", image.withAlpha))
    return oneLine(display.geterror(), "colour conversion failed");
  linear.reset();
  ImageSpec fileSpec = display.spec();
  fileSpec.set_format(image.sixteenBit ? TypeDesc::UINT16 : TypeDesc::UINT8);
  // The proxy outlives the writer, whose destructor may still write through it.
  WriteProxy proxy(path, writeAt, size);
  auto out = OIIO::ImageOutput::create(path);
  if (!out)
    return oneLine(OIIO::geterror(), "unsupported file type");
  if (!out->supports("ioproxy") || !out->set_ioproxy(&proxy))
    return "the file type cannot be streamed";
  if (!(out->open(path, fileSpec) && display.write(out.get()) && out->close()))
    return oneLine(out->geterror() + display.geterror(), "encoding failed");
  return "";
}

const vorelapp::OtherImages kTable{readHeader, readPixels, writeDisplay};

}  // namespace

extern "C" const vorelapp::OtherImages* vorelOtherImages() {
  return &kTable;
}
