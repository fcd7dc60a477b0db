#include "app/Json.h"

#include <cmath>
#include <cstdio>
#include <sstream>

#include "DDImage/Host.h"
#include "app/Knobs.h"

using namespace DD::Image;

namespace vorelapp {

namespace {

std::string number(double v) {
  if (!std::isfinite(v))
    return "null";
  std::ostringstream s;
  s.precision(9);
  s << v;
  return s.str();
}

std::string stringArray(const std::vector<std::string>& items) {
  std::string s = "[";
  for (std::size_t i = 0; i < items.size(); ++i)
    s += (i ? "," : "") + jsonString(items[i]);
  return s + "]";
}

// The default as JSON: numbers as numbers (arrays for several), switches as booleans, the rest
// (entries, channels) as the text `--set` takes.
std::string defaultValue(const Knob& k) {
  switch (k.kind()) {
    case INT_KNOB: return number(k.get_value());
    case BOOL_KNOB: return k.get_value() != 0.0 ? "true" : "false";
    case FLOAT_KNOB:
    case COLOR_KNOB: {
      if (k.arraySize() <= 1)
        return number(k.get_value());
      std::string s = "[";
      for (int i = 0; i < k.arraySize(); ++i)
        s += (i ? "," : "") + number(k.get_value(i));
      return s + "]";
    }
    default: return jsonString(valueText(k));
  }
}

std::string tabOf(const Knob* k, const std::string& tab) {
  return k->kind() == TAB_KNOB ? k->label() : tab;
}

}  // namespace

std::string jsonString(const std::string& text) {
  std::string s = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': s += "\\\""; break;
      case '\\': s += "\\\\"; break;
      case '\n': s += "\\n"; break;
      case '\r': s += "\\r"; break;
      case '\t': s += "\\t"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          s += buf;
        } else {
          s += char(c);
        }
    }
  }
  return s + "\"";
}

std::string knobsJson(const Op& op) {
  std::string s = "[";
  std::string tab;
  bool first = true;
  for (const Knob* k : host::knobs(op)) {
    tab = tabOf(k, tab);
    if (k->kind() == TAB_KNOB || k->kind() == TEXT_KNOB || k->name().empty())
      continue;
    s += first ? "\n" : ",\n";
    first = false;
    s += "{\"name\":" + jsonString(k->name()) + ",\"label\":" + jsonString(k->label()) +
         ",\"kind\":" + jsonString(kindName(k->kind())) + ",\"tab\":" + jsonString(tab) +
         ",\"default\":" + defaultValue(*k) + ",\"size\":" + std::to_string(k->arraySize());
    s += ",\"range\":";
    if (k->hasRange())
      s += "{\"min\":" + number(k->rangeMin()) + ",\"max\":" + number(k->rangeMax()) +
           ",\"clamped\":" + (k->flag(Knob::FORCE_RANGE) ? "true" : "false") + "}";
    else
      s += "null";
    s += ",\"entries\":" + (k->kind() == ENUMERATION_KNOB ? stringArray(k->enumerationEntries())
                                                          : std::string("null"));
    s += ",\"input\":" +
         (k->kind() == CHANNEL_KNOB ? std::to_string(k->inputNumber()) : std::string("null"));
    s += ",\"tooltip\":" + jsonString(k->tooltip()) + "}";
  }
  return s + "\n]";
}

std::string frameJson(const FrameRecord& r) {
  static const char* kStatus[] = {"done", "skipped", "failed"};
  const bool done = r.status == FrameRecord::Done;
  std::string s = "{\"frame\":" + (r.numbered ? std::to_string(r.frame) : std::string("null"));
  s += ",\"file\":" + (r.outputs.empty() ? std::string("null") : jsonString(r.outputs.front()));
  s += ",\"files\":" + stringArray(r.outputs);
  s += ",\"status\":" + jsonString(kStatus[r.status]);
  s += ",\"time\":" + (done ? number(r.summary.seconds) : std::string("null"));
  s += ",\"openTime\":" + (done ? number(r.summary.openSeconds) : std::string("null"));
  s += ",\"rowTime\":" + (done ? number(r.summary.rowSeconds) : std::string("null"));
  s += ",\"maxCoC\":" +
       (done && r.summary.maxCoC >= 0 ? std::to_string(r.summary.maxCoC) : std::string("null"));
  s += ",\"warnings\":" + stringArray(r.warnings);
  s += ",\"error\":" + (r.status == FrameRecord::Failed ? jsonString(r.error) : std::string("null"));
  return s + "}";
}

}  // namespace vorelapp
