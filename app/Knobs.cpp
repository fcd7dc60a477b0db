#include "app/Knobs.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "DDImage/Host.h"
#include "app/AppError.h"

using namespace DD::Image;

namespace vorelapp {

namespace {

std::string trim(const std::string& s) {
  const auto b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos)
    return "";
  const auto e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

std::string lower(std::string s) {
  for (char& c : s)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string unquote(const std::string& s) {
  if (s.size() >= 2 && (s.front() == '"' || s.front() == '\'') && s.back() == s.front())
    return s.substr(1, s.size() - 2);
  return s;
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> parts;
  std::string cur;
  for (char c : text) {
    if (c == ',' || std::isspace(static_cast<unsigned char>(c))) {
      if (!cur.empty())
        parts.push_back(cur);
      cur.clear();
    } else {
      cur += c;
    }
  }
  if (!cur.empty())
    parts.push_back(cur);
  return parts;
}

}  // namespace

bool parseNumber(const std::string& text, double& v) {
  const std::string t = trim(text);
  if (t.empty())
    return false;
  char* end = nullptr;
  errno = 0;
  v = std::strtod(t.c_str(), &end);
  return end == t.c_str() + t.size() && errno != ERANGE && std::isfinite(v);
}

namespace {

bool parseInteger(const std::string& text, long& v) {
  const std::string t = trim(text);
  if (t.empty())
    return false;
  char* end = nullptr;
  errno = 0;
  v = std::strtol(t.c_str(), &end, 10);
  return end == t.c_str() + t.size() && errno != ERANGE;
}

bool parseBool(const std::string& text, bool& v) {
  const std::string t = lower(trim(text));
  if (t == "true" || t == "on" || t == "1" || t == "yes") {
    v = true;
    return true;
  }
  if (t == "false" || t == "off" || t == "0" || t == "no") {
    v = false;
    return true;
  }
  return false;
}

std::size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> prev(b.size() + 1), cur(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j)
    prev[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    cur[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j)
      cur[j] = std::min({prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (a[i - 1] != b[j - 1])});
    std::swap(prev, cur);
  }
  return prev[b.size()];
}

std::string formatNumber(double v) {
  std::ostringstream s;
  s.precision(7);
  s << v;
  return s.str();
}

std::string bad(const KnobSetting& s, const std::string& why) {
  return s.origin + ": bad value for " + s.name + ": '" + s.value + "' (" + why + ")";
}

std::string entryList(const Knob& k) {
  std::string list;
  const auto& entries = k.enumerationEntries();
  for (std::size_t i = 0; i < entries.size(); ++i)
    list += (i ? ", " : "") + std::to_string(i) + " \"" + entries[i] + "\"";
  return list;
}

// Numbers for a knob of `count` elements: one value for all, or one for each.
std::vector<double> parseNumbers(const KnobSetting& s, int count) {
  const std::vector<std::string> parts = splitList(s.value);
  if (parts.size() != 1 && int(parts.size()) != count)
    throw UsageError(bad(s, count == 1 ? "expected one number"
                                       : "expected 1 or " + std::to_string(count) + " numbers"));
  std::vector<double> values;
  for (const std::string& p : parts) {
    double v;
    if (!parseNumber(p, v))
      throw UsageError(bad(s, "'" + p + "' is not a finite number"));
    // The knob stores a float: anything beyond its range would be stored as infinity.
    if (std::fabs(v) > double(FLT_MAX))
      throw UsageError(bad(s, "'" + p + "' is beyond the largest value a float knob holds, 3.4e38"));
    values.push_back(v);
  }
  return values;
}

}  // namespace

KnobSetting parseSetting(const std::string& text, const std::string& origin) {
  const auto eq = text.find('=');
  if (eq == std::string::npos || trim(text.substr(0, eq)).empty())
    throw UsageError(origin + ": expected KNOB=VALUE, got '" + text + "'");
  return {trim(text.substr(0, eq)), unquote(trim(text.substr(eq + 1))), origin};
}

std::vector<KnobSetting> readPreset(const std::string& path) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec))
    throw UsageError("no such preset file: " + path);
  std::ifstream in(path);
  if (!in)
    throw UsageError("cannot read preset file " + path);
  std::vector<KnobSetting> settings;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const auto hash = line.find('#');
    if (hash != std::string::npos)
      line.erase(hash);
    line = trim(line);
    if (line.empty())
      continue;
    const std::string origin = path + ":" + std::to_string(number);
    const auto cut = line.find_first_of(" \t=");
    if (cut == std::string::npos)
      throw UsageError(origin + ": expected 'name value', got '" + line + "'");
    std::string value = trim(line.substr(cut));
    if (!value.empty() && value.front() == '=')
      value = trim(value.substr(1));
    if (value.empty())
      throw UsageError(origin + ": no value for " + line.substr(0, cut));
    settings.push_back({line.substr(0, cut), unquote(value), origin});
  }
  return settings;
}

namespace {

std::map<std::string, std::string>& channelAliases() {
  static std::map<std::string, std::string> aliases;
  return aliases;
}

}  // namespace

void addChannelAlias(const std::string& name, const std::string& hostName) {
  channelAliases()[name] = hostName;
}

Channel parseChannel(const std::string& text) {
  std::string t = trim(text);
  const std::string l = lower(t);
  if (l == "none" || l == "black" || l == "0")
    return Chan_Black;
  const auto alias = channelAliases().find(t);
  if (alias != channelAliases().end())
    t = alias->second;
  const Channel z = findChannel(t.c_str());
  if (z == Chan_Black)
    throw UsageError("unknown channel '" + t + "'");
  return z;
}

ChannelSet parseChannelSet(const std::string& text) {
  ChannelSet set;
  const std::vector<std::string> parts = splitList(text);
  if (parts.empty())
    throw UsageError("empty channel list");
  for (const std::string& p : parts) {
    const std::string l = lower(p);
    if (l == "all")
      set += Mask_All;
    else if (l == "none")
      continue;
    else if (l == "rgba")
      set += Mask_RGBA;
    else if (l == "rgb")
      set += Mask_RGB;
    else if (l == "alpha")
      set += Chan_Alpha;
    else if (l == "depth")
      set += Chan_Z;
    else
      set += parseChannel(p);
  }
  return set;
}

std::string channelSetText(const ChannelSet& channels) {
  if (channels.empty())
    return "none";
  if (channels == ChannelSet(Mask_All))
    return "all";
  if (channels == ChannelSet(Mask_RGBA))
    return "rgba";
  if (channels == ChannelSet(Mask_RGB))
    return "rgb";
  std::string s;
  foreach (z, channels)
    s += (s.empty() ? "" : ",") + std::string(getName(z));
  return s;
}

const char* kindName(int kind) {
  switch (kind) {
    case INT_KNOB: return "integer";
    case ENUMERATION_KNOB: return "enumeration";
    case BOOL_KNOB: return "boolean";
    case FLOAT_KNOB: return "float";
    case CHANNEL_MASK_KNOB: return "channels";
    case CHANNEL_KNOB: return "channel";
    case COLOR_KNOB: return "colour";
    case TAB_KNOB: return "tab";
    case TEXT_KNOB: return "text";
    default: return "other";
  }
}

namespace {

// Copies `from`'s value into `to` where it differs (doubles hold every field's value exactly);
// true when something was written.
bool copyValue(const Knob& from, Knob& to) {
  if (!from.field() || !to.field() || from.storeType() != to.storeType() ||
      from.arraySize() != to.arraySize())
    return false;
  if (from.storeType() == ChannelSetPtr) {
    const ChannelSet& value = *static_cast<const ChannelSet*>(from.field());
    if (*static_cast<const ChannelSet*>(to.field()) == value)
      return false;
    return to.setChannelSet(value);
  }
  bool changed = false;
  for (int i = 0; i < from.arraySize(); ++i) {
    if (from.storeType() == ChannelPtr) {
      const Channel z = static_cast<const Channel*>(from.field())[i];
      if (static_cast<const Channel*>(to.field())[i] != z)
        changed = to.setChannel(z, i) || changed;
      continue;
    }
    const double v = from.get_value(i), now = to.get_value(i);
    if (std::memcmp(&v, &now, sizeof v) != 0)
      changed = to.set_value(v, i) || changed;
  }
  return changed;
}

}  // namespace

void copyKnobValues(const Op& like, Op& op) {
  bool changed = false;
  for (const Knob* from : host::knobs(like)) {
    Knob* to = op.knob(from->name_c_str());
    if (to && copyValue(*from, *to)) {
      host::knobChanged(op, to);
      changed = true;
    }
  }
  if (changed)
    op.invalidate();
}

std::string valueText(const Knob& k) {
  switch (k.kind()) {
    case INT_KNOB: return std::to_string(long(k.get_value()));
    case BOOL_KNOB: return k.get_value() != 0.0 ? "true" : "false";
    case ENUMERATION_KNOB: {
      const long i = long(k.get_value());
      const auto& entries = k.enumerationEntries();
      return i >= 0 && std::size_t(i) < entries.size() ? entries[std::size_t(i)] : std::to_string(i);
    }
    case FLOAT_KNOB:
    case COLOR_KNOB: {
      std::string s;
      for (int i = 0; i < k.arraySize(); ++i)
        s += (i ? "," : "") + formatNumber(k.get_value(i));
      return s;
    }
    case CHANNEL_KNOB: {
      const Channel* z = static_cast<const Channel*>(k.field());
      return z ? getName(*z) : "none";
    }
    case CHANNEL_MASK_KNOB: {
      const ChannelSet* set = static_cast<const ChannelSet*>(k.field());
      return set ? channelSetText(*set) : "none";
    }
    case TEXT_KNOB: return k.text();
    default: return "";
  }
}

std::vector<std::string> nearestKnobNames(const Op& op, const std::string& name, std::size_t most) {
  const std::string want = lower(name);
  std::vector<std::pair<std::size_t, std::string>> scored;
  for (const Knob* k : host::knobs(op)) {
    if (k->name().empty())
      continue;
    const std::string have = lower(k->name());
    std::size_t d = editDistance(want, have);
    // A name that contains what was typed, or is contained in it, is a good guess too.
    if (want.size() >= 3 && (have.find(want) != std::string::npos || want.find(have) != std::string::npos))
      d = std::min<std::size_t>(d, 1);
    if (d <= std::max<std::size_t>(2, want.size() / 3))
      scored.emplace_back(d, k->name());
  }
  std::stable_sort(scored.begin(), scored.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> names;
  for (std::size_t i = 0; i < scored.size() && i < most; ++i)
    names.push_back(scored[i].second);
  return names;
}

std::string applySetting(Op& op, const KnobSetting& s) {
  Knob* k = s.name.empty() ? nullptr : op.knob(s.name.c_str());
  if (!k) {
    std::string message = s.origin + ": unknown knob '" + s.name + "'";
    const auto near = nearestKnobNames(op, s.name);
    for (std::size_t i = 0; i < near.size(); ++i)
      message += (i ? (i + 1 == near.size() ? " or " : ", ") : "; did you mean ") + near[i];
    throw UsageError(message + (near.empty() ? " (vorel knobs lists them all)" : "?"));
  }
  const char* name = s.name.c_str();
  bool stored = false;
  std::vector<double> asked;  // what the user asked for, to tell a clamped value
  switch (k->kind()) {
    case INT_KNOB: {
      long v;
      if (!parseInteger(s.value, v))
        throw UsageError(bad(s, "expected a whole number"));
      asked = {double(v)};
      stored = host::userEdit(op, name, double(v));
      break;
    }
    case BOOL_KNOB: {
      bool v;
      if (!parseBool(s.value, v))
        throw UsageError(bad(s, "expected true/false, on/off or 1/0"));
      stored = host::userEdit(op, name, v ? 1.0 : 0.0);
      break;
    }
    case ENUMERATION_KNOB: {
      const auto& entries = k->enumerationEntries();
      long index = -1;
      for (std::size_t i = 0; i < entries.size() && index < 0; ++i)
        if (entries[i] == s.value)
          index = long(i);
      for (std::size_t i = 0; i < entries.size() && index < 0; ++i)
        if (lower(entries[i]) == lower(s.value))
          index = long(i);
      long n;
      if (index < 0 && parseInteger(s.value, n) && n >= 0 && std::size_t(n) < entries.size())
        index = n;
      if (index < 0)
        throw UsageError(bad(s, "one of " + entryList(*k)));
      stored = host::userEdit(op, name, double(index));
      break;
    }
    case FLOAT_KNOB:
    case COLOR_KNOB: {
      const int count = std::max(1, k->arraySize());
      asked = parseNumbers(s, count);
      if (asked.size() == 1) {
        stored = host::userEdit(op, name, asked[0], -1);
        asked.assign(std::size_t(count), asked[0]);
      } else {
        stored = true;
        for (int i = 0; i < count && stored; ++i)
          stored = host::userEdit(op, name, asked[std::size_t(i)], i);
      }
      break;
    }
    case CHANNEL_KNOB: {
      Channel z;
      try {
        z = parseChannel(s.value);
      } catch (const UsageError& e) {
        throw UsageError(bad(s, e.what()));
      }
      stored = host::userEditChannel(op, name, z);
      break;
    }
    case CHANNEL_MASK_KNOB: {
      ChannelSet set;
      try {
        set = parseChannelSet(s.value);
      } catch (const UsageError& e) {
        throw UsageError(bad(s, e.what()));
      }
      stored = host::userEditChannels(op, name, set);
      break;
    }
    default:
      throw UsageError(s.origin + ": " + s.name + " is a " + kindName(k->kind()) +
                       " knob and holds no value");
  }
  if (!stored)
    throw UsageError(bad(s, "refused by the knob"));

  for (std::size_t i = 0; i < asked.size(); ++i) {
    const double got = k->get_value(int(i));
    if (std::fabs(got - asked[i]) > 1e-6 * std::max(1.0, std::fabs(asked[i])))
      return s.name + " " + s.value + " stored as " + valueText(*k) + " (its range is " +
             formatNumber(k->rangeMin()) + " to " + formatNumber(k->rangeMax()) + ")";
  }
  return "";
}

void printKnobList(const Op& op, std::ostream& out) {
  bool first = true;
  for (const Knob* k : host::knobs(op)) {
    if (k->kind() == TAB_KNOB) {
      out << (first ? "" : "\n") << "== " << k->label() << " ==\n";
      first = false;
      continue;
    }
    first = false;
    if (k->kind() == TEXT_KNOB) {
      out << "  (" << k->label() << ": " << k->text() << ")\n";
      continue;
    }
    out << "\n  " << k->name() << "  \"" << k->label() << "\"  " << kindName(k->kind());
    if (k->arraySize() > 1 && (k->kind() == FLOAT_KNOB || k->kind() == COLOR_KNOB))
      out << " x" << k->arraySize();
    if (k->kind() == CHANNEL_KNOB)
      out << " of input " << k->inputNumber();
    out << "\n      default: " << valueText(*k) << "\n";
    if (k->hasRange())
      out << "      range: " << formatNumber(k->rangeMin()) << " to " << formatNumber(k->rangeMax())
          << (k->flag(Knob::FORCE_RANGE) ? " (values are clamped to it)" : " (slider only)") << "\n";
    if (k->kind() == ENUMERATION_KNOB)
      out << "      entries: " << entryList(*k) << "\n";
    if (!k->tooltip().empty()) {
      std::istringstream lines(k->tooltip());
      std::string line;
      while (std::getline(lines, line))
        out << "      " << trim(line) << "\n";
    }
  }
}

namespace {

double knobValue(const Op& op, const char* name, int index = 0) {
  const Knob* k = op.knob(name);
  return k ? k->get_value(index) : 0.0;
}

// A value no image can come from, refused naming the knob and the values that work.
struct SaneRange {
  const char* knob;
  int index;
  bool (*sane)(double);
  const char* range;
  bool lensModelOnly;   // read only when realWorldLens is on
  bool cameraReplaces;  // replaced by a camera's value, so not checked with one
  int kernelType;       // checked only with this kernelType; -1 for all
};

bool positive(double v) { return v > 0.0; }
bool atLeastTwo(double v) { return v >= 2.0; }
bool aspect(double v) { return v > 0.0 && v <= 100.0; }
bool curvature(double v) { return v >= -1000.0; }
bool chromatic(double v) { return std::fabs(v) <= 50.0; }

const SaneRange kSaneRanges[] = {
    {"fStop", 0, positive, "above 0 (1.4, 2.8, 16 ...)", true, true, -1},
    {"focalPlane", 0, positive, "above 0, a distance in the scene's unit", true, true, -1},
    {"focalLength", 0, positive, "above 0, up to 300 mm", true, true, -1},
    {"apertureWidth", 0, positive, "above 0 mm", true, true, -1},
    {"apertureHeight", 0, positive, "above 0 mm", true, true, -1},
    {"worldScaleMultiplier", 0, positive, "above 0", true, false, -1},
    // The node's kernels below 2 pixels hold nothing, and the whole image comes out black.
    {"max_kernelsize", 0, atLeastTwo, "2 to 256", false, false, -1},
    // These squeeze or bend the kernel until no pixel of it is left: black.
    {"kAspectRatio", 0, aspect, "above 0, up to 100 (0.5 to 2 is usual)", false, false, -1},
    {"kCurvature", 0, curvature, "-1000 or more (-1 to 1 is usual)", false, false, 2},
    // A shift that moves most light out of the frame.
    {"kChrAbb", 0, chromatic, "-50 to 50 (-10 to 10 is usual)", false, false, -1},
};

}  // namespace

void checkKnobValues(const Op& op, bool hasCamera) {
  const bool lens = knobValue(op, "realWorldLens") != 0.0;
  const int kernelType = int(knobValue(op, "kernelType"));
  for (const SaneRange& r : kSaneRanges) {
    if ((r.lensModelOnly && !lens) || (r.cameraReplaces && hasCamera) ||
        (r.kernelType >= 0 && r.kernelType != kernelType) || !op.knob(r.knob))
      continue;
    const double v = knobValue(op, r.knob, r.index);
    if (!r.sane(v))
      throw UsageError(std::string(r.knob) + " " + formatNumber(v) +
                       " gives no image; use a value " + r.range +
                       (r.lensModelOnly ? " with realWorldLens on" : ""));
  }
}

}  // namespace vorelapp
