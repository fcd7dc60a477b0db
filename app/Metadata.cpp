#include "app/Metadata.h"

#include <OpenEXR/IexBaseExc.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfCompression.h>
#include <OpenEXR/ImfDoubleAttribute.h>
#include <OpenEXR/ImfFloatAttribute.h>
#include <OpenEXR/ImfIntAttribute.h>
#include <OpenEXR/ImfMatrixAttribute.h>
#include <OpenEXR/ImfRationalAttribute.h>
#include <OpenEXR/ImfStringAttribute.h>
#include <OpenEXR/ImfVecAttribute.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <type_traits>

#include "DDImage/Host.h"
#include "app/AppError.h"
#include "app/ExrFiles.h"
#include "app/InputChecks.h"
#include "app/OtherImages.h"
#include "node/tzVorel.h"

namespace vorelapp {

namespace {

// Attributes the writer decides itself, from the image it writes.
bool describesLayout(const std::string& name) {
  static const char* const kLayout[] = {"channels", "compression", "dataWindow", "displayWindow",
                                        "lineOrder", "tiles", "type", "chunkCount", "version",
                                        "maxSamplesPerPixel", "Software"};
  for (const char* layout : kLayout)
    if (name == layout)
      return true;
  return false;
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

// An attribute of type A's numbers onto `values`: a number, or a vector's or matrix's elements.
template <class A>
bool addNumbers(const Imf::Attribute& a, std::vector<double>& values) {
  const auto* typed = dynamic_cast<const A*>(&a);
  if (!typed)
    return false;
  const auto& v = typed->value();
  if constexpr (std::is_arithmetic_v<std::decay_t<decltype(v)>>) {
    values.push_back(double(v));
  } else if constexpr (std::is_same_v<std::decay_t<decltype(v)>, Imf::Rational>) {
    values.push_back(double(v));
  } else {
    const auto* first = v.getValue();
    for (std::size_t i = 0; i < sizeof v / sizeof *first; ++i)
      values.push_back(double(first[i]));
  }
  return true;
}

// The attribute's numbers: its values, or a leading number in a string ("50.00 mm").
std::vector<double> numbers(const Imf::Attribute& a) {
  std::vector<double> values;
  if (const auto* s = dynamic_cast<const Imf::StringAttribute*>(&a)) {
    char* end = nullptr;
    const double v = std::strtod(s->value().c_str(), &end);
    if (end != s->value().c_str())
      values.push_back(v);
    return values;
  }
  addNumbers<Imf::FloatAttribute>(a, values) || addNumbers<Imf::DoubleAttribute>(a, values) ||
      addNumbers<Imf::IntAttribute>(a, values) || addNumbers<Imf::RationalAttribute>(a, values) ||
      addNumbers<Imf::V2fAttribute>(a, values) || addNumbers<Imf::V2iAttribute>(a, values) ||
      addNumbers<Imf::V2dAttribute>(a, values) || addNumbers<Imf::V3fAttribute>(a, values) ||
      addNumbers<Imf::V3iAttribute>(a, values) || addNumbers<Imf::V3dAttribute>(a, values) ||
      addNumbers<Imf::M33fAttribute>(a, values) || addNumbers<Imf::M44fAttribute>(a, values);
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

struct Found {
  std::string name;
  std::vector<double> values;
};

// The first attribute, in the key's order of preference, with at least `count` numbers.
std::optional<Found> findKey(const Imf::Header& attributes, const LensKey& key, std::size_t count) {
  for (const std::string& stem : key.stems)
    for (auto a = attributes.begin(); a != attributes.end(); ++a) {
      if (keyStem(a.name()) != stem)
        continue;
      std::vector<double> values = numbers(a.attribute());
      if (values.size() >= count && values[0] > 0.0)
        return Found{a.name(), std::move(values)};
    }
  return std::nullopt;
}

const std::pair<const char*, Imf::Compression> kCompressions[] = {
    {"none", Imf::NO_COMPRESSION},     {"rle", Imf::RLE_COMPRESSION},
    {"zips", Imf::ZIPS_COMPRESSION},   {"zip", Imf::ZIP_COMPRESSION},
    {"piz", Imf::PIZ_COMPRESSION},     {"pxr24", Imf::PXR24_COMPRESSION},
    {"b44", Imf::B44_COMPRESSION},     {"b44a", Imf::B44A_COMPRESSION},
    {"dwaa", Imf::DWAA_COMPRESSION},   {"dwab", Imf::DWAB_COMPRESSION}};

std::string compressionName(Imf::Compression c) {
  for (const auto& [name, id] : kCompressions)
    if (id == c)
      return name;
  return "zip";
}

Imf::Compression compressionId(const std::string& name) {
  for (const auto& [n, id] : kCompressions)
    if (name == n)
      return id;
  throw RenderError("unknown EXR compression '" + name + "'");
}

// A header entry of a file that is not an EXR, as EXR holds it; null for what EXR cannot.
std::unique_ptr<Imf::Attribute> exrAttribute(const OtherAttribute& a) {
  using Kind = OtherAttribute::Kind;
  const std::vector<double>& v = a.numbers;
  if (a.kind == Kind::Text)
    return std::make_unique<Imf::StringAttribute>(a.text);
  if (a.kind == Kind::Int && a.count == 1)
    return std::make_unique<Imf::IntAttribute>(int(v[0]));
  if (a.kind == Kind::Int && a.count == 2)
    return std::make_unique<Imf::V2iAttribute>(Imath::V2i(int(v[0]), int(v[1])));
  if (a.kind == Kind::Int && a.count == 3)
    return std::make_unique<Imf::V3iAttribute>(Imath::V3i(int(v[0]), int(v[1]), int(v[2])));
  if (a.kind == Kind::Double && a.count == 1)
    return std::make_unique<Imf::DoubleAttribute>(v[0]);
  if (a.count == 1)
    return std::make_unique<Imf::FloatAttribute>(float(v[0]));
  if (a.count == 2)
    return std::make_unique<Imf::V2fAttribute>(Imath::V2f(float(v[0]), float(v[1])));
  if (a.count == 3)
    return std::make_unique<Imf::V3fAttribute>(Imath::V3f(float(v[0]), float(v[1]), float(v[2])));
  if (a.count == 9)
    return std::make_unique<Imf::M33fAttribute>(
        Imath::M33f(float(v[0]), float(v[1]), float(v[2]), float(v[3]), float(v[4]), float(v[5]),
                    float(v[6]), float(v[7]), float(v[8])));
  if (a.count == 16) {
    float m[4][4];
    for (int i = 0; i < 16; ++i)
      m[i / 4][i % 4] = float(v[std::size_t(i)]);
    return std::make_unique<Imf::M44fAttribute>(Imath::M44f(m));
  }
  return nullptr;
}

ExrHeader otherHeader(const std::string& path) {
  ExrHeader header;
  OtherHeader other;
  if (!otherImages().readHeader(path, other).empty())
    return header;  // the reader proper names the problem
  for (const OtherAttribute& a : other.attributes)
    if (auto attribute = exrAttribute(a))
      header.attributes.insert(a.name, *attribute);
  header.source = path;
  return header;
}

std::string numberText(double v) {
  std::ostringstream s;
  s.precision(6);
  s << v;
  return s.str();
}

}  // namespace

ExrHeader readExrHeader(const std::string& path, int part) {
  if (!isExrFile(path))
    return otherHeader(path);
  ExrHeader header;
  std::vector<Imf::Header> parts;
  try {
    parts = exrHeaders(path);
  } catch (const AppError&) {
    return header;  // the reader proper names the problem
  }
  header.part = std::max(0, part);
  if (header.part >= int(parts.size()))
    return header;
  const Imf::Header& h = parts[std::size_t(header.part)];
  for (auto a = h.begin(); a != h.end(); ++a)
    if (!describesLayout(a.name()))
      header.attributes.insert(a.name(), a.attribute());
  header.compression = compressionName(h.compression());
  header.lineOrder = h.lineOrder() == Imf::DECREASING_Y ? "decreasingY"
                     : h.lineOrder() == Imf::RANDOM_Y   ? "randomY"
                                                        : "increasingY";
  for (auto c = h.channels().begin(); c != h.channels().end(); ++c)
    header.channelTypes.emplace_back(c.name(), c.channel().type);
  header.source = path;
  header.partCount = int(parts.size());
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
  requireRegularFile(path);
  const ExrHeader header = readExrHeader(path, 0);
  const auto* settings = header.attributes.findTypedAttribute<Imf::StringAttribute>("vorel/settings");
  if (!settings)
    throw UsageError("--settings-from: " + path + " has no vorel/settings attribute");
  SavedSettings saved;
  std::istringstream lines(settings->value());
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number)
    if (!line.empty())
      saved.settings.push_back(
          parseSetting(line, path + " vorel/settings:" + std::to_string(number)));
  if (const auto* camera = header.attributes.findTypedAttribute<Imf::StringAttribute>("vorel/camera"))
    saved.camera = camera->value();
  return saved;
}

void addVorelAttributes(ExrHeader& header, const std::string& settings, const std::string& camera) {
  header.attributes.erase("vorel/settings");
  header.attributes.erase("vorel/camera");
  header.attributes.insert("vorel/settings", Imf::StringAttribute(settings));
  if (!camera.empty())
    header.attributes.insert("vorel/camera", Imf::StringAttribute(camera));
}

void applyExrHeader(Imf::Header& h, const ExrHeader& header) {
  for (auto a = header.attributes.begin(); a != header.attributes.end(); ++a) {
    if (describesLayout(a.name()))
      continue;
    try {
      h.insert(a.name(), a.attribute());
    } catch (const Iex::TypeExc&) {
      // A standard attribute of another type than the standard's: the writer's own stands.
    }
  }
  h.insert("Software", Imf::StringAttribute("vorel " + versionText()));
  h.compression() = compressionId(header.compression);
  if (header.lineOrder == "decreasingY")
    h.lineOrder() = Imf::DECREASING_Y;
  else if (header.lineOrder == "increasingY")
    h.lineOrder() = Imf::INCREASING_Y;
}

Imf::PixelType exrPixelType(const ExrHeader* header, const std::string& channel) {
  if (!header || header->pixelType == PixelType::Float)
    return Imf::FLOAT;
  if (header->pixelType == PixelType::Half)
    return Imf::HALF;
  for (const auto& c : header->channelTypes)
    if (c.first == channel)
      return c.second == Imf::HALF ? Imf::HALF : Imf::FLOAT;
  return Imf::FLOAT;
}

HeaderCamera cameraFromHeader(const Imf::Header& attributes) {
  HeaderCamera camera;
  auto take = [&](const LensKey& key, std::optional<double>& value, std::size_t index,
                  const Found& found) {
    value = found.values[index];
    camera.taken.push_back(std::string(key.what) + " " + numberText(*value) + " (" + found.name +
                           ")");
  };
  auto single = [&](const LensKey& key, std::optional<double>& value) {
    if (const std::optional<Found> found = findKey(attributes, key, 1))
      take(key, value, 0, *found);
  };
  single(kFocal, camera.focal);
  single(kFocus, camera.focus);
  single(kFstop, camera.fstop);
  single(kFilmWidth, camera.haperture);
  single(kFilmHeight, camera.vaperture);
  if (const std::optional<Found> found = findKey(attributes, kFilmBack, 2)) {
    if (!camera.haperture)
      take(kFilmWidth, camera.haperture, 0, *found);
    if (!camera.vaperture && found->values[1] > 0.0)
      take(kFilmHeight, camera.vaperture, 1, *found);
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
