// Full-frame renders through the host's protocol as `vorel render` drives it: per frame an
// invalidation, validate, request, open (kernel bank and per-frame tables included) and every row of the box on
// N threads taking rows in turn, each row through Iop::engine into a Row and copied out. File reading and writing is left out of these timings;
// the end-to-end `vorel render` run at the end (wall time and peak memory) has it.
//
// Beside the frames, the accumulation floor: every kernel row the flat frame adds, replayed into
// per-slice accumulators with the per-pixel CoC, slice, entry and weights worked out beforehand.
// It is what the frame costs with nothing but the adds (through the engines' own accumulation
// routine), the zeroing of the accumulators and the walk over the visits that reach each row.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DDImage/Host.h"
#include "DDImage/Row.h"
#include "DDImage/Thread.h"
#include "app/ImageFiles.h"
#include "app/Knobs.h"
#include "bench/SceneGenerator.h"
#include "engines/Splat.h"
#include "lens/CircleOfConfusion.h"
#include "lens/KernelBank.h"
#include "node/tzVorel.h"

using namespace DD::Image;

namespace {

const Op::Description& kNodeDescription = tzVorel::description;

struct Options {
  int width = 2048, height = 1556;
  int reps = 3;
  std::string sceneDir;  // written for the `vorel render` run
  std::string vorel;     // path of the vorel executable; empty: no end-to-end run
  std::vector<unsigned> threads = {1, 2};
} options;

vorelbench::Scene& scene() {
  static vorelbench::Scene s = [] {
    vorelbench::SceneSpec spec;
    spec.width = options.width;
    spec.height = options.height;
    return vorelbench::makeScene(spec);
  }();
  return s;
}

Format formatOf(const vorelapp::Rect& f) { return Format(f.w(), f.h(), f.x, f.y, f.r, f.t); }

std::unique_ptr<host::FlatImage> hostFlat(const vorelapp::FlatImage& image) {
  ChannelSet set;
  std::vector<Channel> channels;
  for (const std::string& name : image.channels) {
    channels.push_back(getChannel(name.c_str()));
    set += channels.back();
  }
  auto op = std::make_unique<host::FlatImage>(
      formatOf(image.format), Box(image.box.x, image.box.y, image.box.r, image.box.t), set);
  for (std::size_t c = 0; c < channels.size(); ++c)
    std::memcpy(op->plane(channels[c]), image.planes[c].data(), image.planes[c].size() * sizeof(float));
  return op;
}

std::unique_ptr<host::DeepImage> hostDeep(const vorelapp::DeepImage& deep) {
  std::vector<Channel> channels;
  ChannelSet set;
  for (const std::string& name : deep.channels) {
    if (name == "Z")
      channels.push_back(Chan_DeepFront);
    else if (name == "ZBack")
      channels.push_back(Chan_DeepBack);
    else {
      channels.push_back(getChannel(name.c_str()));
      set += channels.back();
    }
  }
  auto op = std::make_unique<host::DeepImage>(
      formatOf(deep.format), Box(deep.box.x, deep.box.y, deep.box.r, deep.box.t), set);
  std::vector<std::pair<Channel, float>> values(channels.size());
  for (int y = deep.box.y; y < deep.box.t; ++y)
    for (int x = deep.box.x; x < deep.box.r; ++x)
      for (std::size_t s = 0; s < deep.sampleCount(x, y); ++s) {
        const float* v = deep.sample(x, y, s);
        for (std::size_t c = 0; c < channels.size(); ++c)
          values[c] = {channels[c], v[c]};
        op->addSample(x, y, values);
      }
  op->finish();
  return op;
}

using Settings = std::vector<std::pair<std::string, std::string>>;

// The lens every frame case starts from.
const Settings kRealLens = {
    {"realWorldLens", "on"}, {"focalLength", "50"},   {"fStop", "2.8"},
    {"focalPlane", "200"},   {"worldScale", "cm"},    {"filmFormat", "35mm"},
    {"max_kernelsize", "64"}, {"correctiveSlices", "10"}, {"kernelType", "Circular"},
    {"outputType", "Defocused Image"}};

struct Case {
  const char* name;
  bool deep;
  Settings extra;
};

const std::vector<Case>& cases() {
  static const std::vector<Case> list = {
      {"DefocusedImage", false, {}},
      {"BloomChromatic", false, {{"bloom", "1"}, {"kChrAbb", "10"}}},
      {"ApertureBlades", false, {{"kernelType", "Aperture Blades"}}},
      {"Deep", true, {}},
      {"FocusMatte", false, {{"outputType", "Focus Matte"}}},
  };
  return list;
}

Settings settingsOf(const Case& c) {
  Settings s = kRealLens;
  s.insert(s.end(), c.extra.begin(), c.extra.end());
  return s;
}

// A node wired to the scene as `vorel render` wires it: a flat input, or the deep image with its
// flattened self on input 0.
struct Setup {
  std::unique_ptr<host::FlatImage> input;
  std::unique_ptr<host::DeepImage> deep;
  std::unique_ptr<Op> nodeOp;
  tzVorel* node = nullptr;
  Box box;
  ChannelSet channels;
  std::vector<Channel> outChannels;
  std::vector<std::vector<float>> out;

  explicit Setup(const Case& c) {
    if (c.deep) {
      input = hostFlat(vorelapp::flattenDeep(scene().deep));
      deep = hostDeep(scene().deep);
    } else {
      input = hostFlat(scene().flat);
    }
    nodeOp = host::create(kNodeDescription.name);
    node = dynamic_cast<tzVorel*>(nodeOp.get());
    host::connect(*node, 0, input.get());
    if (deep)
      host::connect(*node, 3, deep.get());
    for (const auto& s : settingsOf(c))
      vorelapp::applySetting(*node, {s.first, s.second, "bench"});
    node->validate(true);
    if (host::hasError(*node))
      std::fprintf(stderr, "%s: %s\n", c.name, host::errorText(*node).c_str());
    box = Box(node->x(), node->y(), node->r(), node->t());
    channels = node->channels();
    foreach (z, channels)
      outChannels.push_back(z);
    out.assign(outChannels.size(), std::vector<float>(std::size_t(box.w()) * box.h()));
  }

  // A new frame: the host opens a node once per invalidation, so each frame starts with one.
  void open(unsigned threads) {
    Thread::numCPUs = threads;
    node->invalidate();
    node->validate(true);
    node->request(box, channels, 1);
    node->open();
  }

  // The renderer's loop: rows taken in turn, each into a fresh Row, copied out.
  void rows(unsigned threads) {
    host::renderRows(*node, box, channels, threads, [&](int y, const Row& row) {
      for (std::size_t c = 0; c < outChannels.size(); ++c)
        std::memcpy(out[c].data() + std::size_t(y - box.y()) * box.w(), row[outChannels[c]] + box.x(),
                    std::size_t(box.w()) * sizeof(float));
    });
  }
};

void frame(benchmark::State& state, const Case& c) {
  const unsigned threads = unsigned(state.range(0));
  Setup setup(c);
  for (auto _ : state) {
    setup.open(threads);
    setup.rows(threads);
    benchmark::ClobberMemory();
  }
  state.counters["rows"] = setup.box.h();
  state.counters["maxCoC"] = setup.node->frame()->maxCoC;
  state.counters["radius"] = setup.node->frame()->kernelRadius;
}

// ---- the accumulation floor ------------------------------------------------------------------

// One pass of one source pixel: the entry and weight the splat would use, and its colour times
// the weight, per channel.
struct Visit {
  int sx;
  int entry;
  int half;
  unsigned slice;
  float w;
  float cw[4];
};

void accumulationFloor(benchmark::State& state) {
  const unsigned threads = unsigned(state.range(0));
  Setup setup(cases()[0]);
  setup.open(threads);
  const std::shared_ptr<const vorel::Frame> frame = setup.node->frame();
  const vorel::NodeParameters& p = frame->params;
  const std::vector<vorel::Kernel>& bank = frame->kernelBank.entries();
  const unsigned n = unsigned(bank.size());
  const int W = setup.box.w(), H = setup.box.h(), R = std::max(0, frame->kernelRadius);
  const int N = std::max(1, p.correctiveSlices);
  const Channel rgba[4] = {Chan_Red, Chan_Green, Chan_Blue, Chan_Alpha};
  const vorelapp::FlatImage& flat = scene().flat;
  const bool sharedWeights = frame->kernelPlanesAlike && p.kChrAbb == 0.0f;

  // Per source row, its visits sorted by reach, so a row walks only those that reach it.
  std::vector<std::vector<Visit>> visits(static_cast<std::size_t>(H));
  for (int fy = 0; fy < H; ++fy) {
    auto& list = visits[std::size_t(fy)];
    for (int sx = -R; sx < W + R; ++sx) {
      const int cx = std::max(0, std::min(W - 1, sx));
      const vorel::LensSample lens = frame->sample(flat.row(4, fy)[cx], vorel::DepthSource::FlatChannel);
      const vorel::KernelBlend blend = vorel::kernelBlend(bank.data(), n, std::max(lens.coc, 1.0f), 1.0f);
      for (unsigned pass = 0; pass < blend.count; ++pass) {
        const unsigned e = blend.pass[pass].entry;
        const float w = blend.pass[pass].weight;
        Visit v{sx, int(e), bank[e].half, lens.slice, w, {}};
        for (int c = 0; c < 4; ++c)
          v.cw[c] = flat.row(c, fy)[cx] * w;
        list.push_back(v);
      }
    }
    std::stable_sort(list.begin(), list.end(), [](const Visit& a, const Visit& b) { return a.half > b.half; });
  }

  std::atomic<long long> kernelRows{0}, elements{0};
  for (auto _ : state) {
    kernelRows = 0;
    elements = 0;
    std::atomic<int> next{0};
    auto worker = [&] {
      std::vector<float> acc(std::size_t(N) * 8 * std::size_t(W) + 16);
      // Both rows of a slice and channel start 16-byte aligned, as the host's rows do.
      float* base = acc.data() + ((16 - (reinterpret_cast<std::uintptr_t>(acc.data()) & 15)) & 15) / 4;
      long long rowsAdded = 0, added = 0;
      for (int y = next++; y < H; y = next++) {
        std::fill(base, base + std::size_t(N) * 8 * W, 0.0f);
        for (int sy = y - R; sy <= y + R; ++sy) {
          const int dy = sy - y;
          const int reach = std::abs(dy);
          const auto& list = visits[std::size_t(std::max(0, std::min(H - 1, sy)))];
          for (const Visit& v : list) {
            if (v.half < reach)
              break;
            const vorel::Kernel& k = bank[std::size_t(v.entry)];
            const int h = v.half;
            if (v.sx - W > h || -v.sx > h)
              continue;
            const int left = std::min(v.sx - h, 0);
            int koff = (dy + h) * k.width - left;
            int start = std::max(v.sx - h, 0);
            int count = k.width + left;
            if (start + count > W)
              count = W - start;
            if (count <= 0)
              continue;
            float* slice = base + std::size_t(v.slice) * 8 * W;
            for (int c = 0; c < 4; ++c) {
              // As the engine does: with one kernel for all channels only the first adds weights.
              if (c > 0 && sharedWeights)
                vorel::accumulateKernelRowColour(slice + std::size_t(c) * W + start, k.plane(rgba[c]) + koff,
                                                 v.cw[c], count);
              else
                vorel::accumulateKernelRow(slice + std::size_t(c) * W + start,
                                           slice + std::size_t(4 + c) * W + start, k.plane(rgba[c]) + koff,
                                           v.cw[c], v.w, count);
            }
            rowsAdded += 4;
            added += 4LL * count;
          }
        }
        benchmark::DoNotOptimize(base);
        benchmark::ClobberMemory();
      }
      kernelRows += rowsAdded;
      elements += added;
    };
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < threads; ++t)
      pool.emplace_back(worker);
    worker();
    for (auto& t : pool)
      t.join();
  }
  state.counters["rows"] = H;
  state.counters["kernelRows"] = double(kernelRows.load());
  state.counters["floats"] = double(elements.load());
}

// ---- the table -----------------------------------------------------------------------------

struct Best {
  double seconds = 0.0;
  double cpu = 0.0;  // of all threads, in the fastest repetition
  double rows = 0.0;
  int count = 0;
};

class TableReporter : public benchmark::ConsoleReporter {
public:
  TableReporter() : ConsoleReporter(OO_Tabular) {}
  std::map<std::string, Best> best;  // "case/threads" -> fastest repetition
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred)
        continue;
      const double seconds = run.GetAdjustedRealTime() * benchmark::GetTimeUnitMultiplier(run.time_unit);
      Best& b = best[run.run_name.function_name + "/" + run.run_name.args];
      if (b.count == 0 || seconds < b.seconds) {
        b.seconds = seconds;
        b.cpu = run.GetAdjustedCPUTime() * benchmark::GetTimeUnitMultiplier(run.time_unit);
      }
      auto rows = run.counters.find("rows");
      if (rows != run.counters.end())
        b.rows = rows->second.value;
      ++b.count;
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

struct EndToEnd {
  bool ran = false;
  double seconds = 0.0;
  long maxRssKb = 0;
  int status = -1;
};

// `vorel render` on the flat scene as a child process: its own peak resident set, untouched by
// this process's memory.
EndToEnd runVorel(unsigned threads) {
  EndToEnd result;
  if (options.vorel.empty() || options.sceneDir.empty())
    return result;
  vorelbench::writeScene(scene(), options.sceneDir);
  std::vector<std::string> args = {options.vorel, "render", options.sceneDir + "/scene.exr", "-o",
                                   options.sceneDir + "/out.exr", "--threads", std::to_string(threads),
                                   "-q"};
  for (const auto& s : settingsOf(cases()[0])) {
    args.push_back("--set");
    args.push_back(s.first + "=" + s.second);
  }
  std::vector<char*> argv;
  for (auto& a : args)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (pid < 0)
    return result;
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.ran = true;
  result.maxRssKb = usage.ru_maxrss;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

void printTable(const TableReporter& reporter, const EndToEnd& e2e, unsigned e2eThreads) {
  auto find = [&](const std::string& name) -> const Best* {
    auto it = reporter.best.find(name);
    return it == reporter.best.end() ? nullptr : &it->second;
  };
  auto key = [](const std::string& c, unsigned t) { return c + "/threads:" + std::to_string(t); };
  std::printf("\n%-22s %7s %9s %9s %9s %9s %9s\n", "case", "threads", "wall s", "cpu s", "rows/s",
              "x floor", "speed-up");
  std::vector<std::string> names;
  for (const Case& c : cases())
    names.push_back(std::string("Frame/") + c.name);
  names.push_back("AccumulationFloor");
  for (const std::string& name : names)
    for (unsigned t : options.threads) {
      const Best* b = find(key(name, t));
      if (!b)
        continue;
      const Best* floorRun = find(key("AccumulationFloor", t));
      const Best* one = find(key(name, 1));
      char ratio[32] = "-", speed[32] = "-";
      if (floorRun && name != "AccumulationFloor")
        std::snprintf(ratio, sizeof ratio, "%.2f", b->seconds / floorRun->seconds);
      if (one && t != 1)
        std::snprintf(speed, sizeof speed, "%.2f", one->seconds / b->seconds);
      std::printf("%-22s %7u %9.3f %9.3f %9.1f %9s %9s\n", name.c_str(), t, b->seconds, b->cpu,
                  b->rows / b->seconds, ratio, speed);
    }
  const Best* flat = find(key("Frame/DefocusedImage", 2));
  const Best* deep = find(key("Frame/Deep", 2));
  if (flat && deep)
    std::printf("deep / flat at 2 threads: %.2f\n", deep->seconds / flat->seconds);
  double load[3] = {0, 0, 0};
  if (getloadavg(load, 3) == 3)
    std::printf("load average now: %.2f %.2f %.2f (wall times are only as good as the cores were free;"
                " cpu s is the sum over threads)\n", load[0], load[1], load[2]);
  if (e2e.ran) {
    const double pixels = double(options.width) * options.height;
    const double ioBytes = pixels * 5 * 4 * 2;  // R G B A Z in, the same out, as float
    std::printf("vorel render, flat case, %u threads: exit %d, %.3f s end to end, peak RSS %.1f MB, "
                "input+output pixels %.1f MB, ratio %.2f\n",
                e2eThreads, e2e.status, e2e.seconds, double(e2e.maxRssKb) / 1024.0, ioBytes / 1048576.0,
                double(e2e.maxRssKb) * 1024.0 / ioBytes);
  }
}

bool takeFlag(const char* arg, const char* name, std::string& value) {
  const std::size_t n = std::strlen(name);
  if (std::strncmp(arg, name, n) != 0 || arg[n] != '=')
    return false;
  value = arg + n + 1;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  // Our own flags first; the rest goes to the benchmark library.
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    std::string v;
    if (i > 0 && takeFlag(argv[i], "--width", v))
      options.width = std::stoi(v);
    else if (i > 0 && takeFlag(argv[i], "--height", v))
      options.height = std::stoi(v);
    else if (i > 0 && takeFlag(argv[i], "--reps", v))
      options.reps = std::max(1, std::stoi(v));
    else if (i > 0 && takeFlag(argv[i], "--scene-dir", v))
      options.sceneDir = v;
    else if (i > 0 && takeFlag(argv[i], "--vorel", v))
      options.vorel = v;
    else if (i > 0 && takeFlag(argv[i], "--threads", v)) {
      options.threads.clear();
      for (std::size_t pos = 0; pos < v.size();) {
        const std::size_t comma = v.find(',', pos);
        options.threads.push_back(unsigned(std::stoul(v.substr(pos, comma - pos))));
        pos = comma == std::string::npos ? v.size() : comma + 1;
      }
    } else
      rest.push_back(argv[i]);
  }
  int restCount = int(rest.size());
  benchmark::Initialize(&restCount, rest.data());
  if (benchmark::ReportUnrecognizedArguments(restCount, rest.data()))
    return 1;

  for (const Case& c : cases()) {
    auto* b = benchmark::RegisterBenchmark((std::string("Frame/") + c.name).c_str(),
                                           [&c](benchmark::State& s) { frame(s, c); });
    for (unsigned t : options.threads)
      b->Arg(t);
    b->ArgName("threads")->Iterations(1)->Repetitions(options.reps)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kSecond);
  }
  auto* f = benchmark::RegisterBenchmark("AccumulationFloor", accumulationFloor);
  for (unsigned t : options.threads)
    f->Arg(t);
  f->ArgName("threads")->Iterations(1)->Repetitions(options.reps)->MeasureProcessCPUTime()->UseRealTime()->Unit(benchmark::kSecond);

  TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const unsigned e2eThreads = options.threads.empty() ? 2 : options.threads.back();
  const EndToEnd e2e = runVorel(e2eThreads);
  printTable(reporter, e2e, e2eThreads);
  benchmark::Shutdown();
  return 0;
}
