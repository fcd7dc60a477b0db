#include "app/InputChecks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <thread>

#include "app/AppError.h"
#include "app/ImageFiles.h"
#include "app/Knobs.h"
#include "app/Render.h"

namespace vorelapp {

namespace {

double g_budget = 0.0;  // bytes; 0: what the system has available
BadPixels g_badPixels = BadPixels::Keep;

std::string lower(std::string s) {
  for (char& c : s)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// MemAvailable from /proc/meminfo, else the free physical pages; 0 if neither is known.
double availableMemory() {
  std::ifstream meminfo("/proc/meminfo");
  std::string key;
  double kib = 0.0;
  std::string unit;
  while (meminfo >> key >> kib >> unit)
    if (key == "MemAvailable:")
      return kib * 1024.0;
  const long pages = ::sysconf(_SC_AVPHYS_PAGES), size = ::sysconf(_SC_PAGESIZE);
  return pages > 0 && size > 0 ? double(pages) * double(size) : 0.0;
}

bool endsWith(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

double parseMemorySize(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(text.c_str(), &end);
  std::string unit = lower(end ? std::string(end) : "");
  if (!unit.empty() && unit.back() == 'b')
    unit.pop_back();
  if (!unit.empty() && unit.back() == 'i')
    unit.pop_back();
  const std::string units = "kmgt";
  double scale = 1.0;
  if (unit.size() == 1 && units.find(unit[0]) != std::string::npos)
    scale = std::pow(1024.0, double(units.find(unit[0]) + 1));
  else if (!unit.empty())
    scale = -1.0;
  if (end == text.c_str() || errno == ERANGE || !std::isfinite(v) || v <= 0.0 || scale < 0.0)
    throw UsageError("--max-memory: expected a size such as 8G or 512M, got '" + text + "'");
  return v * scale;
}

void setMemoryBudget(double bytes) {
  g_budget = bytes;
}

std::string memoryText(double bytes) {
  const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  int u = 0;
  while (bytes >= 1024.0 && u < 6) {
    bytes /= 1024.0;
    ++u;
  }
  char buf[64];
  std::snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", bytes, units[u]);
  return buf;
}

void checkImageFits(const std::string& path, long long width, long long height, int channels,
                    int copies) {
  const double need = double(width) * double(height) * double(std::max(1, channels)) *
                      double(sizeof(float)) * double(copies);
  const bool given = g_budget > 0.0;
  const double budget = given ? g_budget : availableMemory();
  if (budget <= 0.0 || need <= budget)
    return;
  throw UsageError(path + ": " + std::to_string(width) + "x" + std::to_string(height) +
                   " pixels of " + std::to_string(channels) + " channels need " +
                   memoryText(need) + ", more than the " + memoryText(budget) +
                   (given ? " that --max-memory allows" : " of memory available") +
                   " (a damaged or hostile header?)");
}

void requireRegularFile(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0)
    throw UsageError(errno == ENOENT ? "no such file: " + path
                                     : "cannot read " + path + ": " + std::strerror(errno));
  if (S_ISREG(st.st_mode))
    return;
  const char* what = S_ISDIR(st.st_mode)    ? "a directory"
                     : S_ISFIFO(st.st_mode) ? "a FIFO"
                     : S_ISCHR(st.st_mode)  ? "a character device"
                     : S_ISBLK(st.st_mode)  ? "a block device"
                     : S_ISSOCK(st.st_mode) ? "a socket"
                                            : "not a regular file";
  throw UsageError(path + " is " + what + ", not an image file");
}

std::vector<std::string> hostChannelNames(const std::vector<std::string>& fileNames,
                                          const std::string& layer, const std::string& path,
                                          const std::function<void(const std::string&)>& note) {
  std::set<std::string> layers;  // those with a Combined pass
  bool plainColour = false, plainDepth = false;
  for (const std::string& n : fileNames) {
    const auto at = n.find(".Combined.");
    if (at != std::string::npos && at > 0)
      layers.insert(n.substr(0, at));
    const std::string l = lower(n);
    plainColour = plainColour || l == "r" || l == "g" || l == "b" || l == "rgba.red";
    plainDepth = plainDepth || l == "z" || l == "depth.z";
  }
  std::string chosen = layer;
  if (!chosen.empty() && !layers.count(chosen)) {
    std::string list;
    for (const std::string& l : layers)
      list += (list.empty() ? "" : ", ") + l;
    throw UsageError("--layer: " + path + " has no layer '" + chosen + "' with a Combined pass" +
                     (list.empty() ? "" : " (it has " + list + ")"));
  }
  if (chosen.empty() && layers.size() == 1 && !plainColour && !plainDepth) {
    chosen = *layers.begin();
    if (note)
      note(path + ": rendering layer " + chosen + " (Combined and Depth), the only one");
  }
  std::vector<std::string> names = fileNames;
  if (chosen.empty())
    return names;
  for (std::string& n : names) {
    const std::string file = n;
    const std::string combined = chosen + ".Combined.", depth = chosen + ".Depth.";
    if (n.rfind(combined, 0) == 0 && n.size() == combined.size() + 1)
      n = n.substr(combined.size());  // R G B A
    else if (n == depth + "Z")
      n = "Z";
    if (n != file)
      addChannelAlias(file, n);
  }
  return names;
}

BadPixels parseBadPixels(const std::string& text) {
  const std::string l = lower(text);
  if (l == "keep")
    return BadPixels::Keep;
  if (l == "zero")
    return BadPixels::Zero;
  throw UsageError("--bad-pixels: expected keep or zero, got '" + text + "'");
}

void setBadPixels(BadPixels mode) {
  g_badPixels = mode;
}

BadPixels badPixels() {
  return g_badPixels;
}

void BadPixelCount::resize(const std::vector<std::string>& names) {
  channels = names;
  nan.assign(names.size(), 0);
  inf.assign(names.size(), 0);
}

std::size_t BadPixelCount::total() const {
  std::size_t n = 0;
  for (std::size_t c = 0; c < channels.size(); ++c)
    n += nan[c] + inf[c];
  return n;
}

bool isDepthName(const std::string& name) {
  const std::string l = lower(name);
  return l == "z" || l == "zback" || endsWith(l, ".z") || l.rfind("depth.", 0) == 0;
}

std::string badPixelWarning(const std::string& path, const BadPixelCount& count) {
  std::string colour, depth;
  for (std::size_t c = 0; c < count.channels.size(); ++c) {
    std::string part;
    if (count.nan[c])
      part += std::to_string(count.nan[c]) + " NaN";
    if (count.inf[c])
      part += (part.empty() ? "" : " and ") + std::to_string(count.inf[c]) + " infinite";
    if (part.empty())
      continue;
    std::string& list = isDepthName(count.channels[c]) ? depth : colour;
    list += (list.empty() ? "" : ", ") + part + " in " + count.channels[c];
  }
  if (colour.empty() && depth.empty())
    return "";
  const bool zero = badPixels() == BadPixels::Zero;
  std::string s = path + ": ";
  if (!colour.empty())
    s += colour + (zero ? " (read as 0)"
                        : " (they spread over the blur; --bad-pixels zero reads them as 0)");
  if (!depth.empty())
    s += (colour.empty() ? "" : "; ") + depth +
         (zero ? " (NaN read as 0; an infinite depth is infinitely far)"
               : " (a NaN depth counts as infinitely far)");
  return s;
}

unsigned threadsToUse(unsigned asked, const std::function<void(const std::string&)>& note) {
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  if (asked == 0)
    return cores;
  const unsigned most = 4 * cores;
  if (asked > most) {
    if (note)
      note("--threads " + std::to_string(asked) + ": using " + std::to_string(most) +
           " (4 per core; more only cost memory)");
    return most;
  }
  return asked;
}

void applyInputOptions(const RenderOptions& o, const std::string& input0) {
  setBadPixels(parseBadPixels(o.badPixels));
  setMemoryBudget(o.maxMemory.empty() ? 0.0 : parseMemorySize(o.maxMemory));
  if (!o.part.empty())
    choosePart(input0, o.part);
}

}  // namespace vorelapp
