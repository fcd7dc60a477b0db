#include "app/Metadata.h"

#include <OpenImageIO/imageio.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "DDImage/Host.h"
#include "app/AppError.h"
#include "node/tzVorel.h"

using OIIO::ImageSpec;
using OIIO::TypeDesc;

namespace vorelapp {

namespace {

// Attributes the writer decides itself, from the image it writes: the layout and OpenImageIO's
// notes about the file it read.
bool describesLayout(const std::string& name) {
  if (name == "oiio:subimagename")  // a part's name is its own
    return false;
  return name.rfind("oiio:", 0) == 0 || name == "compression" || name == "openexr:lineOrder" ||
         name == "openexr:chunkCount" || name == "Software" || name == "tiles" ||
         name == "chunkCount";
}

std::string versionText() {
  return std::to_string(kVorelVersion[0]) + "." + std::to_string(kVorelVersion[1]) + "." +
         std::to_string(kVorelVersion[2]);
}

// A key as compared: the part after its last '/' or ':', lower case, without '_' or spaces, so
// that "Exif:FocalLength", "camera/focal_length" and "focalLength" meet.
std::string keyStem(const std::string& key) {
  const auto cut = key.find_last_of("/:");
  std::string stem;
  for (char c : cut == std::string::npos ? key : key.substr(cut + 1))
    if (c != '_' && c != ' ')
      stem += char(std::tolower(static_cast<unsigned char>(c)));
  return stem;
}

// The attribute's numbers: its float values, or a leading number in a string ("50.00 mm").
std::vector<double> numbers(const OIIO::ParamValue& p) {
  std::vector<double> values;
  const TypeDesc t = p.type();
  if (t.basetype == TypeDesc::STRING) {
    const std::string s = p.get_string();
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (end != s.c_str())
      values.push_back(v);
    return values;
  }
  const TypeDesc base(TypeDesc::BASETYPE(t.basetype));
  if (base.basetype == TypeDesc::UNKNOWN || base.basetype == TypeDesc::PTR)
    return values;
  values.resize(t.basevalues() * std::size_t(p.nvalues()));
  if (!OIIO::convert_type(base, p.data(), TypeDesc::DOUBLE, values.data(), int(values.size())))
    values.clear();
  return values;
}

struct LensKey {
  const char* what;
  std::vector<std::string> stems;  // in the order they are preferred
};

// Keys renderers and camera exporters write, by what they hold. The EXR standard's own
// attributes come first: `focalLength`, `focus` and `aperture` (an f-number).
const LensKey kFocal{"focal length", {"focallength", "camerafocallength", "lensfocallength",
                                      "nominalfocallength", "effectivefocallength", "focal", "lens"}};
const LensKey kFocus{"focus distance", {"focus", "focusdistance", "camerafocusdistance",
                                        "focaldistance", "subjectdistance", "dofdistance"}};
const LensKey kFstop{"f-stop", {"aperture", "fnumber", "camerafnumber", "fstop", "lensfstop"}};
const LensKey kFilmWidth{"film back width", {"filmbackwidth", "sensorwidth", "camerafilmwidth",
                                             "camerasensorwidth", "horizontalaperture",
                                             "haperture", "filmwidth", "aperturewidth"}};
const LensKey kFilmHeight{"film back height", {"filmbackheight", "sensorheight",
                                               "camerafilmheight", "camerasensorheight",
                                               "verticalaperture", "vaperture", "filmheight",
                                               "apertureheight"}};
// Both film back sides in one attribute, width first.
const LensKey kFilmBack{"film back", {"sensoroveralldimensions", "filmback", "sensorsize"}};

std::string keyList(const LensKey& key) {
  std::string s;
  for (const std::string& k : key.stems)
    s += (s.empty() ? "" : ", ") + k;
  return s;
}

// The first attribute, in the key's order of preference, with at least `count` numbers.
const OIIO::ParamValue* findKey(const OIIO::ParamValueList& attributes, const LensKey& key,
                                std::size_t count) {
  for (const std::string& stem : key.stems)
    for (const OIIO::ParamValue& p : attributes)
      if (keyStem(p.name().string()) == stem && numbers(p).size() >= count && numbers(p)[0] > 0.0)
        return &p;
  return nullptr;
}

// OpenImageIO writes the EXR line order it is given but does not report the one it reads, so it
// is read here from the first header: after the magic number and version, attributes as
// name, type, size, value, up to an empty name.
std::string exrLineOrder(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  char magic[8];
  if (!in.read(magic, 8) || std::memcmp(magic, "\x76\x2f\x31\x01", 4) != 0)
    return "";
  for (int attributes = 0; attributes < 1000; ++attributes) {
    std::string name, type;
    if (!std::getline(in, name, '\0') || name.empty() || !std::getline(in, type, '\0'))
      return "";
    unsigned char size[4];
    if (!in.read(reinterpret_cast<char*>(size), 4))
      return "";
    const std::uint32_t n = size[0] | size[1] << 8 | size[2] << 16 | std::uint32_t(size[3]) << 24;
    if (name == "lineOrder" && type == "lineOrder" && n == 1) {
      const int order = in.get();
      return order == 1 ? "decreasingY" : order == 2 ? "randomY" : "increasingY";
    }
    if (!in.seekg(n, std::ios::cur))
      return "";
  }
  return "";
}

std::string numberText(double v) {
  std::ostringstream s;
  s.precision(6);
  s << v;
  return s.str();
}

}  // namespace

ExrHeader readExrHeader(const std::string& path, int part) {
  ExrHeader header;
  auto in = OIIO::ImageInput::open(path);
  if (!in)
    return header;  // the reader proper names the problem
  if (part > 0 && !in->seek_subimage(part, 0))
    return header;
  header.part = std::max(0, part);
  const ImageSpec spec = in->spec();
  for (const OIIO::ParamValue& p : spec.extra_attribs)
    if (!describesLayout(p.name().string()))
      header.attributes.push_back(p);
  if (std::string(in->format_name()) == "openexr") {
    header.compression = spec.get_string_attribute("compression", "zip");
    header.lineOrder = exrLineOrder(path);
  }
  for (int c = 0; c < spec.nchannels; ++c)
    header.channelTypes.emplace_back(spec.channel_name(c), spec.channelformat(c));
  header.source = path;
  for (int i = 0; in->seek_subimage(i, 0); ++i)
    header.parts.push_back(in->spec());
  return header;
}

std::string settingsText(const DD::Image::Op& node, const DD::Image::Op& fresh) {
  std::string text;
  for (const DD::Image::Knob* k : DD::Image::host::knobs(node)) {
    if (k->name().empty() || k->kind() == DD::Image::TAB_KNOB || k->kind() == DD::Image::TEXT_KNOB)
      continue;
    const DD::Image::Knob* d = fresh.knob(k->name().c_str());
    const std::string value = valueText(*k);
    if (!d || valueText(*d) != value)
      text += k->name() + "=" + value + "\n";
  }
  return text;
}

SavedSettings readSavedSettings(const std::string& path) {
  auto in = OIIO::ImageInput::open(path);
  if (!in)
    throw UsageError("--settings-from: cannot read " + path);
  const ImageSpec& spec = in->spec();
  const OIIO::ParamValue* p = spec.find_attribute("vorel/settings", TypeDesc::STRING);
  if (!p)
    throw UsageError("--settings-from: " + path + " has no vorel/settings attribute");
  SavedSettings saved;
  std::istringstream lines(p->get_string(0));
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number)
    if (!line.empty())
      saved.settings.push_back(
          parseSetting(line, path + " vorel/settings:" + std::to_string(number)));
  saved.camera = spec.get_string_attribute("vorel/camera");
  return saved;
}

void addVorelAttributes(ExrHeader& header, const std::string& settings, const std::string& camera) {
  header.attributes.remove("vorel/settings");
  header.attributes.remove("vorel/camera");
  header.attributes.attribute("vorel/settings", settings);
  if (!camera.empty())
    header.attributes.attribute("vorel/camera", camera);
}

void applyExrHeader(ImageSpec& spec, const ExrHeader& header) {
  for (const OIIO::ParamValue& p : header.attributes)
    spec.attribute(p.name(), p.type(), p.data());
  spec.attribute("Software", "vorel " + versionText());
  spec.attribute("compression", header.compression);
  if (!header.lineOrder.empty())
    spec.attribute("openexr:lineOrder", header.lineOrder);

  spec.channelformats.clear();
  for (const std::string& name : spec.channelnames) {
    TypeDesc type = TypeDesc::FLOAT;
    if (header.pixelType == PixelType::Half)
      type = TypeDesc::HALF;
    else if (header.pixelType == PixelType::AsInput)
      for (const auto& c : header.channelTypes)
        if (c.first == name)
          type = c.second == TypeDesc::HALF ? TypeDesc::HALF : TypeDesc::FLOAT;
    spec.channelformats.push_back(type);
  }
  spec.format = spec.channelformats.empty() ? TypeDesc::FLOAT : spec.channelformats[0];
}

HeaderCamera cameraFromHeader(const OIIO::ParamValueList& attributes) {
  HeaderCamera camera;
  auto take = [&](const LensKey& key, std::optional<double>& value, std::size_t index,
                  const OIIO::ParamValue* p) {
    value = numbers(*p)[index];
    camera.taken.push_back(std::string(key.what) + " " + numberText(*value) + " (" +
                           p->name().string() + ")");
  };
  auto single = [&](const LensKey& key, std::optional<double>& value) {
    if (const OIIO::ParamValue* p = findKey(attributes, key, 1))
      take(key, value, 0, p);
  };
  single(kFocal, camera.focal);
  single(kFocus, camera.focus);
  single(kFstop, camera.fstop);
  single(kFilmWidth, camera.haperture);
  single(kFilmHeight, camera.vaperture);
  if (const OIIO::ParamValue* p = findKey(attributes, kFilmBack, 2)) {
    if (!camera.haperture)
      take(kFilmWidth, camera.haperture, 0, p);
    if (!camera.vaperture && numbers(*p)[1] > 0.0)
      take(kFilmHeight, camera.vaperture, 1, p);
  }
  auto need = [&](const LensKey& key, const std::optional<double>& value, const std::string& also) {
    if (!value)
      camera.missing.push_back(std::string(key.what) + " (one of " + keyList(key) + also + ")");
  };
  need(kFocal, camera.focal, "");
  need(kFocus, camera.focus, "");
  need(kFstop, camera.fstop, "");
  need(kFilmWidth, camera.haperture, ", or " + keyList(kFilmBack));
  need(kFilmHeight, camera.vaperture, ", or " + keyList(kFilmBack));
  return camera;
}

}  // namespace vorelapp
