// Multi-part EXRs written back whole: the parts vorel did not render are copied in their own
// pixel types, tiling and deep samples, straight from the input.
#include <OpenImageIO/deepdata.h>

#include "app/Metadata.h"

using OIIO::ImageSpec;
using OIIO::TypeDesc;

namespace vorelapp {

namespace {

bool copyPart(OIIO::ImageOutput& out, const std::string& source, int part) {
  auto in = OIIO::ImageInput::open(source);
  if (!in || !in->seek_subimage(part, 0))
    return false;
  const ImageSpec& spec = in->spec();
  if (spec.deep) {
    OIIO::DeepData deep;
    return in->read_native_deep_image(part, 0, deep) && out.write_deep_image(deep);
  }
  std::vector<unsigned char> pixels(spec.image_bytes(true));
  return in->read_image(part, 0, 0, spec.nchannels, TypeDesc::UNKNOWN, pixels.data()) &&
         out.write_image(TypeDesc::UNKNOWN, pixels.data());
}

bool appendAndCopy(OIIO::ImageOutput& out, const std::string& path, const ExrHeader& h, int part) {
  return out.open(path, h.parts[std::size_t(part)], OIIO::ImageOutput::AppendSubimage) &&
         copyPart(out, h.source, part);
}

}  // namespace

bool openExrParts(OIIO::ImageOutput& out, const std::string& path, const ImageSpec& rendered,
                  const ExrHeader& h) {
  const int count = int(h.parts.size());
  if (count < 2 || h.part < 0 || h.part >= count)
    return out.open(path, rendered);
  std::vector<ImageSpec> specs = h.parts;
  const std::string name = specs[std::size_t(h.part)].get_string_attribute("name");
  specs[std::size_t(h.part)] = rendered;
  if (!name.empty())
    specs[std::size_t(h.part)].attribute("name", name);  // every part of a file needs its own
  if (!out.open(path, count, specs.data()))
    return false;
  for (int i = 0; i < h.part; ++i)
    if (!(i == 0 ? copyPart(out, h.source, 0) : appendAndCopy(out, path, h, i)))
      return false;
  return h.part == 0 || out.open(path, specs[std::size_t(h.part)], OIIO::ImageOutput::AppendSubimage);
}

bool finishExrParts(OIIO::ImageOutput& out, const std::string& path, const ExrHeader& h) {
  const int count = int(h.parts.size());
  if (count < 2 || h.part < 0 || h.part >= count)
    return true;
  for (int i = h.part + 1; i < count; ++i)
    if (!appendAndCopy(out, path, h, i))
      return false;
  return true;
}

}  // namespace vorelapp
