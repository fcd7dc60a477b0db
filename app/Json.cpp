#include "app/Json.h"

#include <cmath>
#include <cstdio>
#include <sstream>

#include "app/KnobRecords.h"

using DD::Image::Op;

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
std::string defaultValue(const KnobRecord& k) {
  if (k.isSwitch)
    return k.defaultNumbers.at(0) != 0.0 ? "true" : "false";
  if (k.defaultNumbers.empty())
    return jsonString(k.defaultText);
  if (k.defaultNumbers.size() == 1)
    return number(k.defaultNumbers[0]);
  std::string s = "[";
  for (std::size_t i = 0; i < k.defaultNumbers.size(); ++i)
    s += (i ? "," : "") + number(k.defaultNumbers[i]);
  return s + "]";
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
  bool first = true;
  for (const KnobRecord& k : knobRecords(op)) {
    s += first ? "\n" : ",\n";
    first = false;
    s += "{\"name\":" + jsonString(k.name) + ",\"label\":" + jsonString(k.label) +
         ",\"kind\":" + jsonString(k.kind) + ",\"tab\":" + jsonString(k.tab) +
         ",\"default\":" + defaultValue(k) + ",\"size\":" + std::to_string(k.size);
    s += ",\"range\":";
    if (k.range)
      s += "{\"min\":" + number(k.range->min) + ",\"max\":" + number(k.range->max) +
           ",\"clamped\":" + (k.range->clamped ? "true" : "false") + "}";
    else
      s += "null";
    s += ",\"entries\":" + (k.entries ? stringArray(*k.entries) : std::string("null"));
    s += ",\"input\":" + (k.input ? std::to_string(*k.input) : std::string("null"));
    s += ",\"tooltip\":" + jsonString(k.tooltip) + "}";
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
  s += ",\"readTime\":" + (done ? number(r.summary.readSeconds) : std::string("null"));
  s += ",\"openTime\":" + (done ? number(r.summary.openSeconds) : std::string("null"));
  s += ",\"scanTime\":" + (done ? number(r.summary.scanSeconds) : std::string("null"));
  s += ",\"bankTime\":" + (done ? number(r.summary.bankSeconds) : std::string("null"));
  s += ",\"tableTime\":" + (done ? number(r.summary.tableSeconds) : std::string("null"));
  s += ",\"bankReused\":" + (done ? std::string(r.summary.bankReused ? "true" : "false") : std::string("null"));
  s += ",\"rowTime\":" + (done ? number(r.summary.rowSeconds) : std::string("null"));
  s += ",\"writeTime\":" + (done ? number(r.summary.writeSeconds) : std::string("null"));
  s += ",\"maxCoC\":" +
       (done && r.summary.maxCoC >= 0 ? std::to_string(r.summary.maxCoC) : std::string("null"));
  s += ",\"warnings\":" + stringArray(r.warnings);
  s += ",\"error\":" + (r.status == FrameRecord::Failed ? jsonString(r.error) : std::string("null"));
  return s + "}";
}

}  // namespace vorelapp
