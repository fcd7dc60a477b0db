// vorel, the command-line renderer: image files in and out (windows, row flip, channels, deep),
// knobs set by name, whole renders through the node, and every way a run can fail.
#include <gtest/gtest.h>

#include <OpenImageIO/deepdata.h>
#include <OpenImageIO/half.h>
#include <OpenImageIO/imageio.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "app/AppError.h"
#include "app/Cli.h"
#include "app/DemoScene.h"
#include "app/ImageFiles.h"
#include "app/Knobs.h"
#include "app/Render.h"
#include "support/RunVorel.h"

namespace fs = std::filesystem;
using namespace vorelapp;
using namespace vorelapp::test;

namespace {

// A render that has to succeed, read back. It throws otherwise, which fails the calling test
// before it reads planes that are not there.
FlatImage renderTo(const std::string& out, const Names& args, std::string* err = nullptr) {
  const Outcome r = vorel(Names{"render", "-o", out} + args);
  if (r.code != 0)
    throw std::runtime_error("vorel exited with " + std::to_string(r.code) + ": " + r.err);
  if (err) *err = r.err;
  return readFlatImage(out);
}

std::string saved(const std::string& path, const FlatImage& image) {
  writeExr(path, image);
  return path;
}

// RGBA and Z over a w x h format and box; colour varies over the image so that a blur shows.
FlatImage scene(int w, int h, const std::function<float(int, int)>& depth) {
  return image({0, 0, w, h}, {0, 0, w, h}, {"R", "G", "B", "A", "Z"}, [&](int c, int x, int y) {
    const float colour[] = {0.1f + 0.8f * float(x) / float(w), 0.2f + 0.6f * float(y) / float(h),
                            ((x / 3 + y / 3) % 2) ? 0.9f : 0.1f, 1.0f};
    return c < 4 ? colour[c] : depth(x, y);
  });
}

// The largest difference over a's box in the named channels; infinite if either lacks one.
float worst(const FlatImage& a, const FlatImage& b, const Names& channels) {
  float d = 0.0f;
  for (const std::string& name : channels) {
    const int ca = a.channelIndex(name), cb = b.channelIndex(name);
    if (ca < 0 || cb < 0) return INFINITY;
    for (int y = a.box.y; y < a.box.t; ++y)
      for (int x = a.box.x; x < a.box.r; ++x)
        d = std::max(d, std::fabs(a.row(ca, y)[x - a.box.x] - b.row(cb, y)[x - b.box.x]));
  }
  return d;
}

double sum(const FlatImage& image, const std::string& channel) {
  const auto& plane = image.planes.at(std::size_t(image.channelIndex(channel)));
  return std::accumulate(plane.begin(), plane.end(), 0.0);
}

// A fast setting for renders that blur: small kernels.
const Names kSmall = {"--set", "max_kernelsize=12"};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Image files

TEST(ImageFiles, WindowsAndTheRowFlipSurviveTheFile) {
  TempDir dir;
  // A data window inside the display window; and both windows away from the origin.
  for (const auto& [format, box] : {std::pair<Rect, Rect>{{0, 0, 8, 6}, {2, 2, 6, 5}},
                                    std::pair<Rect, Rect>{{10, 20, 30, 36}, {12, 25, 28, 30}}}) {
    auto value = [](int c, int x, int y) {
      return float(c) + 0.01f * float(x) + 0.001f * float(y);
    };
    const FlatImage written = image(format, box, {"R", "Z", "mask.a"}, value);
    auto in = OIIO::ImageInput::open(saved(dir / "w.exr", written));
    ASSERT_TRUE(in);
    const OIIO::ImageSpec& s = in->spec();
    EXPECT_EQ(s.format, OIIO::TypeDesc::FLOAT);
    EXPECT_EQ(s.channelnames, written.channels);
    EXPECT_EQ(std::make_tuple(s.full_x, s.full_y, s.full_width, s.full_height),
              std::make_tuple(format.x, format.y, format.w(), format.h()));
    // The file stores its top row first: host row y is file row (2 * top + height - 1 - y).
    const int flip = 2 * format.y + format.h() - 1;
    EXPECT_EQ(std::make_tuple(s.x, s.y, s.width, s.height),
              std::make_tuple(box.x, flip + 1 - box.t, box.w(), box.h()));
    std::vector<float> file(std::size_t(box.w() * box.h() * 3));
    ASSERT_TRUE(in->read_image(0, 0, 0, 3, OIIO::TypeDesc::FLOAT, file.data()));
    for (std::size_t i = 0; i < file.size(); ++i) {
      const int x = box.x + int(i / 3) % box.w(), fileRow = s.y + int(i / 3) / box.w();
      ASSERT_EQ(file[i], value(int(i % 3), x, flip - fileRow)) << i;
    }
    in.reset();

    const FlatImage back = readFlatImage(dir / "w.exr");
    EXPECT_EQ(back.format, format);
    EXPECT_EQ(back.box, box);
    EXPECT_EQ(worst(written, back, written.channels), 0.0f);
    EXPECT_EQ(dir.entries(), Names{"w.exr"});  // no temporary file left
  }
}

// EXRs are read through one library and other files through another, loaded only for them: both
// must give the same host image, and an EXR's channels come in the usual order (colour, alpha,
// depth, the rest; the unlayered first), whatever order the file keeps them in.
TEST(ImageFiles, OtherFilesReadAsEXRsDoAndChannelsComeInTheUsualOrder) {
  TempDir dir;
  auto value = [](int c, int x, int y) { return float(c) + 0.125f * float(x) + 0.0625f * float(y); };
  const FlatImage written = image({0, 0, 5, 3}, {0, 0, 5, 3}, {"R", "G", "B", "A"}, value);
  std::vector<float> fileOrder;  // rows from the top, channels interleaved
  for (int y = 2; y >= 0; --y)
    for (int x = 0; x < 5; ++x)
      for (int c = 0; c < 4; ++c)
        fileOrder.push_back(value(c, x, y));
  OIIO::ImageSpec spec(5, 3, 4, OIIO::TypeDesc::FLOAT);
  spec.channelnames = written.channels;
  auto out = OIIO::ImageOutput::create(dir / "w.tif");
  ASSERT_TRUE(out->open(dir / "w.tif", spec) &&
              out->write_image(OIIO::TypeDesc::FLOAT, fileOrder.data()) && out->close());
  const FlatImage tiff = readFlatImage(dir / "w.tif");
  const FlatImage exr = readFlatImage(saved(dir / "w.exr", written));
  for (const FlatImage* back : {&tiff, &exr}) {
    EXPECT_EQ(back->channels, written.channels);
    EXPECT_EQ(back->box, written.box);
    EXPECT_EQ(worst(written, *back, written.channels), 0.0f);
  }

  const Names scrambled = {"mask.a", "Z", "diffuse.R", "A", "B", "G", "R", "ZBack", "Y", "foo"};
  const FlatImage layers = image({0, 0, 2, 2}, {0, 0, 2, 2}, scrambled,
                                 [](int c, int, int) { return float(c); });
  const FlatImage ordered = readFlatImage(saved(dir / "layers.exr", layers));
  EXPECT_EQ(ordered.channels, (Names{"R", "G", "B", "Y", "A", "Z", "ZBack", "foo", "diffuse.R",
                                     "mask.a"}));
  EXPECT_EQ(worst(layers, ordered, scrambled), 0.0f);
}

TEST(ImageFiles, NanAndInfinityAreKeptAndBadPathsRefused) {
  TempDir dir;
  FlatImage im = scene(3, 2, [](int, int) { return 1.0f; });
  im.row(0, 0)[1] = std::nanf("");
  im.row(4, 1)[2] = INFINITY;
  std::size_t nans = 0;
  const FlatImage back = readFlatImage(saved(dir / "nan.exr", im), &nans);
  EXPECT_EQ(nans, 1u);
  EXPECT_TRUE(std::isnan(back.row(0, 0)[1]));         // the node decides what a NaN means
  EXPECT_EQ(back.row(4, 1)[2], INFINITY);             // an infinite depth is a depth
  EXPECT_THROW(readFlatImage(dir / ""), UsageError);  // a directory
  EXPECT_THROW(writeExr(dir / "no/such/dir/out.exr", im), RenderError);
  EXPECT_EQ(dir.entries(), Names{"nan.exr"});
}

TEST(ImageFiles, QuickLookIsSrgbOverTheFormatWithBlackOutsideTheBox) {
  TempDir dir;
  // Host rows bottom up: outside the box, green, linear 0.5 red.
  writeDisplayImage(
      dir / "look.png",
      image({0, 0, 4, 3}, {0, 1, 4, 3}, {"R", "G", "B"},
            [](int c, int, int y) { return c == 0 && y == 2 ? 0.5f : float(c == 1 && y == 1); }),
      0, 1, 2, -1);
  auto in = OIIO::ImageInput::open(dir / "look.png");
  ASSERT_TRUE(in);
  ASSERT_EQ(in->spec().nchannels, 3);
  std::vector<unsigned char> px(4 * 3 * 3);
  ASSERT_TRUE(in->read_image(0, 0, 0, 3, OIIO::TypeDesc::UINT8, px.data()));
  const int fileRows[3][3] = {{188, 0, 0}, {0, 255, 0}, {0, 0, 0}};  // top row first
  for (std::size_t i = 0; i < px.size(); ++i)
    EXPECT_EQ(px[i], fileRows[i / 12][i % 3]) << "index " << i;
}

TEST(ImageFiles, DeepRoundTripAndFlattening) {
  TempDir dir;
  DeepImage deep;
  deep.format = deep.box = {0, 0, 3, 2};
  deep.channels = {"R", "A", "Z", "ZBack"};
  deep.offsets = {0};
  // Pixel (0,0): two samples stored far first. (1,0): one. (2,0): none. Top row: one each.
  for (const std::vector<float>& p :
       std::vector<std::vector<float>>{{0.2f, 0.5f, 30.0f, 31.0f, 0.4f, 0.5f, 10.0f, 12.0f},
                                       {0.7f, 1.0f, 5.0f, 5.0f},
                                       {},
                                       {0.1f, 0.25f, 1.0f, 1.0f},
                                       {0.1f, 0.25f, 2.0f, 2.0f},
                                       {0.1f, 0.25f, 3.0f, 3.0f}}) {
    deep.samples.insert(deep.samples.end(), p.begin(), p.end());
    deep.offsets.push_back(deep.offsets.back() + p.size() / 4);
  }
  const std::string path = dir / "deep.exr";
  writeDeepExr(path, deep);
  EXPECT_TRUE(isDeepFile(path));
  const DeepImage back = readDeepImage(path);
  EXPECT_EQ(back.format, deep.format);
  EXPECT_EQ(back.box, deep.box);
  EXPECT_EQ(back.offsets, deep.offsets);
  for (std::size_t c = 0; c < 4; ++c) {
    const int b = back.channelIndex(deep.channels[c]);
    ASSERT_GE(b, 0);
    for (std::size_t s = 0; s < deep.offsets.back(); ++s)
      EXPECT_EQ(back.samples[s * 4 + b], deep.samples[s * 4 + c]);
  }

  const FlatImage flat = flattenDeep(back);
  ASSERT_EQ(flat.channels, (Names{"R", "A", "Z"}));
  // Nearest (front 10) over the farther one, whatever the stored order.
  EXPECT_FLOAT_EQ(flat.row(0, 0)[0], 0.4f + 0.2f * 0.5f);
  EXPECT_FLOAT_EQ(flat.row(1, 0)[0], 0.75f);
  EXPECT_FLOAT_EQ(flat.row(2, 0)[0], 10.0f);
  EXPECT_FLOAT_EQ(flat.row(2, 0)[1], 5.0f);
  EXPECT_EQ(flat.row(0, 0)[2], 0.0f);
  EXPECT_EQ(flat.row(2, 0)[2], FLT_MAX);
  EXPECT_FLOAT_EQ(flat.row(2, 1)[2], 3.0f);

  // A deep file is refused where a flat one is wanted, and the other way round.
  EXPECT_THROW(readFlatImage(path), UsageError);
  EXPECT_THROW(readDeepImage(saved(dir / "flat.exr", flat)), UsageError);

  // An empty box still makes a valid file: one pixel without samples.
  DeepImage none = deep;
  none.box = {1, 1, 1, 1};
  none.offsets = {0};
  none.samples.clear();
  writeDeepExr(dir / "none.exr", none);
  const DeepImage empty = readDeepImage(dir / "none.exr");
  EXPECT_EQ(empty.box.w() * empty.box.h(), 1);
  EXPECT_EQ(empty.offsets.back(), 0u);
}

// A deep file is decoded a band of rows at a time on several threads, then put together in the
// host's row order: every thread count must give what the file holds, whatever the bands hold
// (bands of different sizes, empty pixels and empty rows and a whole empty band, bad values
// counted in late bands), in any pixel type and for a tiled file too.
TEST(ImageFiles, DeepFilesReadTheSameOnAnyNumberOfThreads) {
  TempDir dir;
  const int w = 7, h = 150;  // three bands of rows and a short one
  auto count = [](int x, int fy) {
    if (fy % 11 == 3 || (fy >= 64 && fy < 128))
      return 0;
    return (x * 3 + fy * 5) % (fy < 64 ? 2 : 5);
  };
  auto value = [](int x, int fy, int s, int c) {
    if (x == 1 && fy == 140 && s == 0 && c == 0)
      return std::nanf("");
    if (x == 3 && fy == 130 && s == 1 && c == 1)
      return INFINITY;
    return c == 2 ? float(10 * s + x) + 0.5f : float(x + fy * w) * 0.25f + float(s + c);
  };
  struct Case {
    const char* name;
    OIIO::TypeDesc type;
    int tile;
  };
  for (const Case& k : {Case{"float.exr", OIIO::TypeDesc::FLOAT, 0},
                        Case{"half.exr", OIIO::TypeDesc::HALF, 0},
                        Case{"tiled.exr", OIIO::TypeDesc::FLOAT, 32}}) {
    SCOPED_TRACE(k.name);
    OIIO::ImageSpec spec(w, h, 3, k.type);
    spec.channelnames = {"R", "A", "Z"};
    spec.channelformats.assign(3, k.type);
    spec.deep = true;
    spec.tile_width = spec.tile_height = k.tile;
    spec.attribute("compression", "zips");
    OIIO::DeepData dd;
    dd.init(spec);
    std::vector<unsigned> counts;
    for (int fy = 0; fy < h; ++fy)
      for (int x = 0; x < w; ++x)
        counts.push_back(unsigned(count(x, fy)));
    dd.set_all_samples(counts);
    for (int fy = 0; fy < h; ++fy)
      for (int x = 0; x < w; ++x)
        for (int s = 0; s < count(x, fy); ++s)
          for (int c = 0; c < 3; ++c)
            dd.set_deep_value(std::int64_t(fy) * w + x, c, s, value(x, fy, s, c));
    const std::string path = dir / k.name;
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out->open(path, spec) && out->write_deep_image(dd) && out->close())
        << out->geterror();

    for (unsigned threads : {1u, 2u, 5u}) {
      SCOPED_TRACE(threads);
      BadPixelCount bad;
      const DeepImage image = readDeepImage(path, &bad, threads);
      ASSERT_EQ(image.box, (Rect{0, 0, w, h}));
      ASSERT_EQ(image.offsets.size(), std::size_t(w * h + 1));
      EXPECT_EQ(bad.nan, (std::vector<std::size_t>{1, 0, 0}));
      EXPECT_EQ(bad.inf, (std::vector<std::size_t>{0, 1, 0}));
      for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
          const int fy = h - 1 - y;
          ASSERT_EQ(image.sampleCount(x, y), std::size_t(count(x, fy))) << x << "," << y;
          for (int s = 0; s < count(x, fy); ++s)
            for (int c = 0; c < 3; ++c) {
              const float want = k.type == OIIO::TypeDesc::HALF
                                     ? float(half(value(x, fy, s, c)))
                                     : value(x, fy, s, c);
              const float got = image.sample(x, y, std::size_t(s))[c];
              if (std::isnan(want))
                EXPECT_TRUE(std::isnan(got));
              else
                EXPECT_EQ(got, want) << x << "," << y << " sample " << s << " channel " << c;
            }
        }
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Knobs as text

TEST(KnobText, EveryKindTakesItsValuesAsThePanelStoresThem) {
  auto node = makeNode();
  // In order, each differing from the value before, so that one left unstored shows.
  const char* const cases[][3] = {
      {"fStop", "2.8", "2.8"},
      {"multiplier", "0.5", "0.5"},  // a soft range: no clamp
      {"realWorldLens", "on", "true"},
      {"realWorldLens", "off", "false"},
      {"realWorldLens", "1", "true"},
      {"realWorldLens", "false", "false"},
      {"realWorldLens", "YES", "true"},
      {"outputType", "Focus Matte", "Focus Matte"},
      {"outputType", "lens bloom", "Lens Bloom"},
      {"kernelType", "2", "Aperture Blades"},
      {"depthChannel", "rgba.alpha", "rgba.alpha"},
      {"depthChannel", "Z", "depth.Z"},
      {"bloomMatteChannel", "none", "none"},
      {"vorelChannels", "rgb", "rgb"},
      {"vorelChannels", "rgba.red, B", "rgba.red,rgba.blue"},
      {"vorelChannels", "all", "all"},
      {"kChrAbbOff", "0.5,1,2", "0.5,1,2"},
      {"kChrAbbOff", "0.25", "0.25,0.25,0.25"},
      {"depthSlicesNearAndFar", "10,50", "10,50"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(applySetting(*node, {c[0], c[1], "--set"}), "") << c[0] << "=" << c[1];
    EXPECT_EQ(valueText(*node->knob(c[0])), c[2]) << c[0] << "=" << c[1];
  }
  // A forced range clamps, and says so.
  EXPECT_NE(applySetting(*node, {"max_kernelsize", "300", "--set"}).find("256"), std::string::npos);
  EXPECT_EQ(valueText(*node->knob("max_kernelsize")), "256");
  EXPECT_NE(applySetting(*node, {"kNumSides", "2", "--set"}), "");
  EXPECT_EQ(valueText(*node->knob("kNumSides")), "3");

  // The panel's own reaction runs: a film format fills the film back and locks it.
  applySetting(*node, {"filmFormat", "Anamorphic", "--set"});
  EXPECT_EQ(valueText(*node->knob("apertureWidth")), "21.3");
  EXPECT_EQ(valueText(*node->knob("apertureHeight")), "17.8");
  EXPECT_FALSE(node->knob("apertureWidth")->isEnabled());
  applySetting(*node, {"filmFormat", "Custom", "--set"});
  EXPECT_TRUE(node->knob("apertureWidth")->isEnabled());
  EXPECT_EQ(valueText(*node->knob("apertureWidth")), "21.3");
}

// ---------------------------------------------------------------------------------------------
// Whole renders

TEST(Render, InFocusImageComesOutAsItWentIn) {
  TempDir dir;
  // Depth 100 everywhere, on the default focal plane: nothing to blur. The input's data window is
  // smaller than its display window and has a channel of its own.
  const FlatImage in = image(
      {0, 0, 24, 16}, {3, 2, 20, 13}, {"R", "G", "B", "A", "Z", "mask.a"}, [](int c, int x, int y) {
        return c == 4   ? 100.0f
               : c == 3 ? 1.0f
                        : 0.05f * float(c + 1) + 0.01f * float(x) + 0.02f * float(y);
      });
  std::string err;
  const FlatImage out = renderTo(
      dir / "out.exr", Names{saved(dir / "in.exr", in), "-o", dir / "out.png"} + kSmall, &err);
  EXPECT_NE(err.find("wrote"), std::string::npos);
  EXPECT_NE(err.find("17x11"), std::string::npos) << err;  // the output box
  EXPECT_EQ(out.format, in.format);
  EXPECT_EQ(out.box, in.box);
  EXPECT_EQ(out.channels.size(), in.channels.size());
  EXPECT_LT(worst(in, out, in.channels), 1e-5f);
  // The quick look is the format, in sRGB.
  auto png = OIIO::ImageInput::open(dir / "out.png");
  ASSERT_TRUE(png);
  EXPECT_EQ(std::make_tuple(png->spec().width, png->spec().height, png->spec().nchannels),
            std::make_tuple(24, 16, 4));
}

TEST(Render, DefocusSpreadsLightAsTheLensShapeSays) {
  TempDir dir;
  // One red pixel of 100 on black, far behind the focal plane.
  const std::string in = saved(
      dir / "in.exr",
      image({0, 0, 25, 25}, {0, 0, 25, 25}, {"R", "G", "B", "A", "Z"}, [](int c, int x, int y) {
        return c == 4 ? 1000.0f : c == 3 ? 1.0f : float(c == 0 && x == 12 && y == 12) * 100.0f;
      }));
  std::string err;
  FlatImage out =
      renderTo(dir / "round.exr",
               Names{in, "--set", "focusRegionSize=10", "--set", "multiplier=6"} + kSmall, &err);
  EXPECT_NE(err.find("maxCoC 6"), std::string::npos) << err;
  EXPECT_LT(out.row(0, 12)[12], 50.0f);
  EXPECT_GT(out.row(0, 12)[14], 0.5f);
  EXPECT_GT(out.row(0, 14)[12], 0.5f);
  EXPECT_EQ(out.row(0, 0)[0], 0.0f);
  EXPECT_NEAR(sum(out, "R"), 100.0, 2.0);

  // A horizontal bar as the lens shape: the blur is wide, not tall.
  const FlatImage bar = image({0, 0, 9, 9}, {0, 0, 9, 9}, {"R", "G", "B", "A"},
                              [](int, int, int y) { return float(y == 4); });
  const std::string kernel = saved(dir / "bar.exr", bar);
  const Names blur = {in,      "--kernel",    kernel, "--set", "focusRegionSize=10",
                      "--set", "multiplier=8"};
  out = renderTo(dir / "bar_out.exr", blur + kSmall);
  EXPECT_GT(out.row(0, 12)[15], 10.0f * out.row(0, 15)[12] + 0.1f);
  // --kernel chose kernelType Input; a --set after it wins, and the blur is round again.
  out = renderTo(dir / "round.exr",
                 blur + Names{"--set", "kernelType=Circular", "--set", "max_kernelsize=64"});
  EXPECT_GT(out.row(0, 15)[12], 0.5f);
  EXPECT_NEAR(out.row(0, 12)[15], out.row(0, 15)[12], 0.05f * out.row(0, 15)[12]);
}

// The CoC pass: 1 on the focal plane, the largest CoC on the far wall, in the output's windows;
// refused for a deep input, whose pixels have a CoC per sample, and for a file that is not an EXR.
// --timings is data for scripts, so --quiet leaves it on standard output.
TEST(Render, CocPassHoldsTheBlurEachPixelWasSpreadWith) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene(30, 20, [](int x, int) { return x < 10 ? 200.0f : 1000.0f; }));
  const Outcome r = vorel(Names{"render", in, "-o", dir / "out.exr", "--coc-out", dir / "coc.exr", "--set",
                                "focalPlane=200", "--set", "focusRegionSize=10", "--set", "multiplier=6",
                                "--timings", "--quiet"} + kSmall);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out.rfind("timings: read ", 0), 0u) << r.out;
  const FlatImage coc = readFlatImage(dir / "coc.exr");
  ASSERT_EQ(coc.channels, Names{"Y"});
  EXPECT_EQ(coc.box, (Rect{0, 0, 30, 20}));
  EXPECT_EQ(coc.row(0, 5)[3], 1.0f);
  EXPECT_EQ(coc.row(0, 5)[25], 6.0f);

  EXPECT_EQ(vorel(Names{"render", in, "-o", dir / "o.exr", "--coc-out", dir / "coc.png"}).code, 2);
  const DemoScene demo = makeDemoScene(32, 18);
  const std::string deep = dir / "deep.exr";
  writeDeepExr(deep, demo.deep);
  EXPECT_EQ(vorel(Names{"render", "--deep", deep, "-o", dir / "d.exr", "--coc-out", dir / "dcoc.exr"}).code, 2);
  EXPECT_FALSE(fs::exists(dir / "o.exr"));
  EXPECT_FALSE(fs::exists(dir / "d.exr"));
}

TEST(Render, FocusMatteAndPresetsWithLaterSettingsWinning) {
  TempDir dir;
  const std::string in =
      saved(dir / "in.exr", scene(10, 4, [](int x, int) { return x < 5 ? 50.0f : 200.0f; }));
  const std::string preset = dir / "a.preset";
  std::ofstream(preset)
      << "# a lens\nfStop 2.8   # wide open\n\noutputType \"Focus Matte\"\nfocalPlane=250\n";
  // The matte is green in front of the focal plane and blue behind it; the last setting of
  // focalPlane decides, across --set and --preset alike.
  const std::pair<Names, int> cases[] = {
      {{"--set", "outputType=Focus Matte"}, 5},  // the default plane, 100
      {{"--set", "focalPlane=10", "--preset", preset, "--set", "focalPlane=100"}, 5},
      {{"--set", "focalPlane=10", "--preset", preset}, 10},  // 250: both depths in front
      {{"--preset", preset, "--set", "focalPlane=10"}, 0},
  };
  for (const auto& [args, front] : cases) {
    std::string err;
    const FlatImage m = renderTo(dir / "m.exr", Names{in} + args, &err);
    EXPECT_EQ(err.find("maxCoC"), std::string::npos);  // not looked for by a preview
    for (int i = 0; i < 40; ++i) {
      EXPECT_EQ(m.planes[m.channelIndex("G")][i], float(i % 10 < front)) << args.back() << " " << i;
      EXPECT_EQ(m.planes[m.channelIndex("B")][i], float(i % 10 >= front))
          << args.back() << " " << i;
    }
  }
}

TEST(Render, OnlyTheChannelsAsked) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene(6, 4, [](int, int) { return 100.0f; }));
  for (const Names& asked : {Names{"rgb", "B", "G", "R"}, Names{"R,depth.Z", "R", "Z"}}) {
    Names got = renderTo(dir / "out.exr", {in, "--channels", asked[0]}).channels;
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, Names(asked.begin() + 1, asked.end())) << asked[0];
  }
}

TEST(Render, DeepInputs) {
  TempDir dir;
  const DemoScene demo = makeDemoScene(64, 36);
  EXPECT_LT(worst(demo.flat, flattenDeep(demo.deep), {"R", "G", "B", "A"}), 1e-5f);
  const std::string flat = saved(dir / "flat.exr", demo.flat), deep = dir / "deep.exr";
  writeDeepExr(deep, demo.deep);
  // Alone (named as such, or known by its kind) and all in focus, it renders as its flattening.
  for (const Names& how : {Names{"--deep", deep}, Names{deep}}) {
    const FlatImage out =
        renderTo(dir / "out.exr", how + Names{"--set", "focusRegionSize=100000"} + kSmall);
    EXPECT_LT(worst(demo.flat, out, {"R", "G", "B", "A"}), 1e-5f) << how[0];
    EXPECT_GE(out.channelIndex("Z"), 0);
  }
  // Beside the flat input with the wall behind the focal plane: blurred, its light kept.
  const FlatImage out =
      renderTo(dir / "out.exr", Names{flat, "--deep", deep, "--set", "focalPlane=200", "--set",
                                      "focusRegionSize=20", "--set", "multiplier=4"} +
                                    kSmall);
  EXPECT_GT(worst(demo.flat, out, {"R"}), 0.01f);
  EXPECT_NEAR(sum(out, "R") / sum(demo.flat, "R"), 1.0, 0.05);
}

TEST(Render, MatteHoldsTheDefocusBack) {
  TempDir dir;
  const FlatImage in = scene(20, 8, [](int, int) { return 1000.0f; });
  const FlatImage mattes =
      image(in.format, in.box, {"mask.a"}, [](int, int x, int) { return float(x >= 10); });
  const FlatImage out =
      renderTo(dir / "out.exr",
               Names{saved(dir / "in.exr", in), "--mattes", saved(dir / "mattes.exr", mattes),
                     "--set", "defocusMatteChannel=mask.a", "--set", "focusRegionSize=10", "--set",
                     "multiplier=4", "--set", "correctiveSlices=1"} +
                   kSmall);
  // Left of the matte's edge (and out of reach of the blur from the right): sharp. Right: blurred.
  auto change = [&](int x) {
    return std::fabs(out.row(out.channelIndex("B"), 4)[x] - in.row(2, 4)[x]);
  };
  for (int x = 0; x < 4; ++x)
    EXPECT_LT(change(x), 1e-5f) << x;
  float most = 0.0f;
  for (int x = 14; x < 20; ++x)
    most = std::max(most, change(x));
  EXPECT_GT(most, 0.1f);
}

TEST(Render, CameraDrivesTheLens) {
  TempDir dir;
  const FlatImage in = scene(16, 10, [](int, int) { return 100.0f; });
  const std::string file = saved(dir / "in.exr", in);
  // Focused where everything is: sharp, whatever the focalPlane knob says.
  std::string err;
  FlatImage out =
      renderTo(dir / "sharp.exr",
               Names{file, "--camera", "focal=50,haperture=22,vaperture=16,focus=100,fstop=2",
                     "--set", "focalPlane=7"} +
                   kSmall,
               &err);
  EXPECT_NE(err.find("camera"), std::string::npos) << err;  // focalPlane has no effect
  EXPECT_LT(worst(in, out, {"B"}), 1e-5f);
  // Focused far away, on a small film back so that 16 pixels make a wide CoC: blurred.
  out = renderTo(dir / "soft.exr",
                 Names{file, "--camera", "focal=50,focus=1000,fstop=1.4,haperture=4,vaperture=18.672"} + kSmall);
  EXPECT_GT(worst(in, out, {"B"}), 0.05f);
}

TEST(Render, OneThreadOrManyMakeTheSameFile) {
  TempDir dir;
  const DemoScene demo = makeDemoScene(48, 27);
  const std::string in = saved(dir / "in.exr", demo.flat);
  writeDeepExr(dir / "deep.exr", demo.deep);
  const Names lens = Names{"--set", "realWorldLens=on", "--set", "focalPlane=200",
                           "--set", "fStop=1.4",        "--set", "bloom=0.3"} +
                     kSmall;
  for (const Names& inputs : {Names{in}, Names{in, "--deep", dir / "deep.exr"}}) {
    const FlatImage a = renderTo(dir / "one.exr", inputs + lens + Names{"--threads", "1"});
    const FlatImage b = renderTo(dir / "many.exr", inputs + lens + Names{"--threads", "3"});
    // The same windows, channels and bits (the files differ only in their time stamp).
    EXPECT_TRUE(a.format == b.format && a.box == b.box && a.channels == b.channels);
    EXPECT_TRUE(a.planes == b.planes) << inputs.size() << " inputs";
  }
}

TEST(Render, WarningsAreShownAndTheRenderGoesOn) {
  TempDir dir;
  const std::string in =
      saved(dir / "in.exr", scene(16, 10, [](int x, int) { return x < 8 ? 100.0f : 1000.0f; }));
  const Names args = {in,      "--set",       "max_kernelsize=2", "--set", "focusRegionSize=10",
                      "--set", "multiplier=8"};
  for (const bool quiet : {false, true}) {  // --quiet keeps the warning, drops the rest
    std::string err;
    renderTo(dir / "out.exr", args + (quiet ? Names{"--quiet"} : Names{}), &err);
    EXPECT_NE(err.find("warning: Max kernel size is less than the maximum coc"), std::string::npos)
        << err;
    EXPECT_EQ(err.find("wrote") == std::string::npos, quiet) << err;
  }
}

// ---------------------------------------------------------------------------------------------
// Failures: one line, the right status, and no output file

TEST(Failures, EachEndsWithOneLineAndNoFileAndKeepsTheOldOutput) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene(8, 6, [](int, int) { return 100.0f; }));
  const std::string out = dir / "out.exr", earlier = "an earlier render";
  FlatImage noDepth = scene(8, 6, [](int, int) { return 0.0f; });
  noDepth.channels.pop_back();
  noDepth.planes.pop_back();
  writeExr(dir / "nodepth.exr", noDepth);
  std::ofstream(dir / "junk.png") << "garbage";
  std::ofstream(dir / "bad.preset") << "fStop 2\nfocalPlane\n";
  std::ofstream(out) << earlier;
  const Names before = dir.entries();
  const std::string inputBytes = bytes(in);
  auto set = [&](const std::string& s) { return Names{"render", in, "-o", out, "--set", s}; };

  struct Case {
    Names args;
    int code;
    std::string says;
  };
  const Case cases[] = {
      {{"render", dir / "missing.exr", "-o", out}, 2, "no such file"},
      {{"render", dir / "junk.png", "-o", out}, 2, "cannot read"},
      {{"render", dir / "nodepth.exr", "-o", out}, 2, "no depth channel"},
      {{"render", in, "-o", out, "--kernel", dir / "missing.png"}, 2, "no such file"},
      {{"render", in, "-o", out, "--preset", dir / "missing.preset"}, 2, "no such preset"},
      {{"render", in, "-o", out, "--preset", dir / "bad.preset"}, 2, "bad.preset:2"},
      {{"render", in, "-o", out, "--channels", "mask.q"}, 2, "no channel"},
      {{"render", in, "-o", out, "--camera", "focal=50,zoom=2"}, 2, "--camera"},
      {{"render", in, "-o", out, "--camera", "fstop=0"}, 2, "positive"},
      {{"render", in, "-o", dir / "out.gif"}, 2, "must be .exr"},
      {{"render", "-o", out}, 2, "no input"},
      {{"render", in}, 2, "output"},
      {{"render", in, "-o", out, "--frobnicate"}, 2, "frobnicate"},
      {{"render", in, "-o", in, "--set", "fStop=2"}, 2, "also an input"},
      {{"render", in, "-o", dir / "no/such/dir/out.exr"}, 2, "no directory"},
      {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
      {{}, 2, "subcommand"},
      {set("fStop"), 2, "KNOB=VALUE"},
      {set("focalplane=3"), 2, "did you mean focalPlane"},
      {set("fstop=3"), 2, "fStop"},
      {set("zzzzzzzzzz=3"), 2, "unknown knob"},
      {set("fStop=fast"), 2, "bad value for fStop"},
      {set("fStop=nan"), 2, "bad value"},
      {set("fStop=inf"), 2, "bad value"},
      {set("fStop="), 2, "bad value"},
      {set("kNumSides=2.5"), 2, "whole number"},
      {set("outputType=Blurry"), 2, "\"Focus Matte\""},
      {set("outputType=7"), 2, "bad value"},
      {set("realWorldLens=maybe"), 2, "bad value"},
      {set("depthChannel=no.such"), 2, "unknown channel"},
      {set("kChrAbbOff=1,2"), 2, "1 or 3"},
      {set("vorelChannels="), 2, "bad value"},
      {set("kernelType=Input"), 1, "No input kernel connected!"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const Outcome r = vorel(c.args);
    EXPECT_EQ(r.code, c.code) << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.err.rfind("vorel: ", 0), 0u) << r.err;
    EXPECT_EQ(dir.entries(), before);
    EXPECT_EQ(bytes(out), earlier);
  }
  EXPECT_TRUE(bytes(in) == inputBytes);
  // A good render replaces the old output whole.
  EXPECT_EQ(renderTo(out, {in}).box, (Rect{0, 0, 8, 6}));
  EXPECT_EQ(dir.entries(), before);
}

TEST(Failures, TheProgramItselfExitsWithTheStatus) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene(8, 6, [](int, int) { return 100.0f; }));
  Outcome r = vorelBinary({"render", in, "-o", dir / "out.png", "--quiet"}, dir);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(fs::exists(dir / "out.png"));
  EXPECT_EQ(vorelBinary({"render", in, "-o", dir / "bad.exr", "--set", "nosuchknob=1"}, dir).code,
            2);
  r = vorelBinary({"render", in, "-o", dir / "bad.exr", "--set", "kernelType=Input"}, dir);
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "vorel: No input kernel connected!\n");
  EXPECT_FALSE(fs::exists(dir / "bad.exr"));
  r = vorelBinary({"knobs"}, dir);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("fStop"), std::string::npos);
  // The demo scene command writes what the demo needs.
  EXPECT_EQ(vorelBinary({"demo-scene", dir / "demo", "--width", "32", "--height", "18"}, dir).code,
            0);
  for (const char* f : {"scene.exr", "scene_deep.exr", "kernel.exr", "lens.preset"})
    EXPECT_TRUE(fs::exists(dir / (std::string("demo/") + f))) << f;
}

TEST(Failures, AnInterruptedRenderLeavesNoFile) {
  TempDir dir;
  // Far slower than the interrupt's delay (the signal ends it, so the test doesn't wait for it).
  writeDemoScene(dir / "demo", 960, 540);
  const std::string out = dir / "demo/out.exr";
  const std::vector<std::string> args = {VOREL_BINARY, "render", dir / "demo/scene.exr", "-o", out,
                                         "--quiet", "--threads", "1", "--preset",
                                         dir / "demo/lens.preset", "--set", "fStop=0.25",
                                         "--set", "max_kernelsize=256"};
  std::vector<char*> argv;
  for (const std::string& a : args)
    argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, VOREL_BINARY, &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  std::this_thread::sleep_for(std::chrono::milliseconds(900));
  ::kill(pid, SIGINT);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);

  // Either it ended by the signal and left nothing, or it had already finished a whole file.
  if (WIFSIGNALED(status)) {
    EXPECT_EQ(WTERMSIG(status), SIGINT);
    EXPECT_FALSE(fs::exists(out));
  } else {
    ADD_FAILURE() << "the render finished before the interrupt; make it slower";
    EXPECT_EQ(readFlatImage(out).box, (Rect{0, 0, 960, 540}));
  }
  for (const auto& e : fs::directory_iterator(dir / "demo"))
    EXPECT_EQ(e.path().filename().string().find(".vorel-"), std::string::npos) << e.path();
}
