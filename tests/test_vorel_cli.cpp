// vorel, the command-line renderer: image files in and out (windows, row flip, channels, deep),
// knobs set by name, whole renders through the node, and every way a run can fail.
#include <gtest/gtest.h>

#include <OpenImageIO/deepdata.h>
#include <OpenImageIO/imageio.h>

#include <signal.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cfloat>
#include <chrono>
#include <thread>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "DDImage/Host.h"
#include "app/AppError.h"
#include "app/Cli.h"
#include "app/DemoScene.h"
#include "app/ImageFiles.h"
#include "app/Knobs.h"
#include "app/Render.h"

namespace fs = std::filesystem;
using namespace vorelapp;
using DD::Image::Channel;
using DD::Image::ChannelSet;

namespace {

// A directory of its own per test, removed afterwards.
class TempDir {
public:
  TempDir() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    path_ = fs::temp_directory_path() /
            ("vorel_cli_" + std::string(info->test_suite_name()) + "_" + info->name() + "_" +
             std::to_string(::getpid()));
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  // Names of everything in the directory, to see that nothing was left behind.
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(path_))
      names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

private:
  fs::path path_;
};

struct Outcome {
  int code;
  std::string out, err;
};

Outcome vorel(const std::vector<std::string>& args, const std::vector<std::string>& more = {}) {
  std::vector<const char*> argv = {"vorel"};
  for (const std::string& a : args)
    argv.push_back(a.c_str());
  for (const std::string& a : more)
    argv.push_back(a.c_str());
  std::ostringstream out, err;
  const int code = vorelMain(int(argv.size()), argv.data(), out, err, false);
  return {code, out.str(), err.str()};
}

std::string quote(const std::string& s) {
  std::string q = "'";
  for (char c : s)
    q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// The built program, as a user runs it.
Outcome vorelBinary(const std::vector<std::string>& args, const TempDir& dir) {
  std::string command = quote(VOREL_BINARY);
  for (const std::string& a : args)
    command += " " + quote(a);
  const std::string out = dir / "stdout.txt", err = dir / "stderr.txt";
  command += " >" + quote(out) + " 2>" + quote(err);
  const int status = std::system(command.c_str());
  auto slurp = [](const std::string& p) {
    std::ifstream f(p);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
  };
  Outcome r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
  fs::remove(out);
  fs::remove(err);
  return r;
}

// RGBA and Z over a w x h format and box; colour varies over the image so that a blur shows.
FlatImage scene(int w, int h, const std::function<float(int, int)>& depth) {
  FlatImage image;
  image.format = image.box = {0, 0, w, h};
  image.channels = {"R", "G", "B", "A", "Z"};
  image.allocate();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      image.row(0, y)[x] = 0.1f + 0.8f * float(x) / float(w);
      image.row(1, y)[x] = 0.2f + 0.6f * float(y) / float(h);
      image.row(2, y)[x] = ((x / 3 + y / 3) % 2) ? 0.9f : 0.1f;
      image.row(3, y)[x] = 1.0f;
      image.row(4, y)[x] = depth(x, y);
    }
  return image;
}

float maxDifference(const FlatImage& a, int ca, const FlatImage& b, int cb) {
  float d = 0.0f;
  for (int y = a.box.y; y < a.box.t; ++y)
    for (int x = a.box.x; x < a.box.r; ++x)
      d = std::max(d, std::fabs(a.row(ca, y)[x - a.box.x] - b.row(cb, y)[x - b.box.x]));
  return d;
}

double sum(const FlatImage& image, int c) {
  double s = 0.0;
  for (float v : image.planes[c])
    s += v;
  return s;
}

std::string bytes(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// A fast setting for renders that blur: small kernels, artistic model.
const std::vector<std::string> kSmall = {"--set", "max_kernelsize=12"};

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Image files

TEST(ImageFiles, ReadsWindowsAndFlipsRowsAboutTheDisplayWindow) {
  TempDir dir;
  // Written with OpenImageIO directly: display window 8 x 6, data window x 2..6, file rows 1..3.
  OIIO::ImageSpec spec(4, 3, 2, OIIO::TypeDesc::FLOAT);
  spec.x = 2;
  spec.y = 1;
  spec.full_x = 0;
  spec.full_y = 0;
  spec.full_width = 8;
  spec.full_height = 6;
  spec.channelnames = {"R", "Z"};
  std::vector<float> pixels;
  for (int fy = 1; fy < 4; ++fy)
    for (int x = 2; x < 6; ++x) {
      pixels.push_back(float(10 * x + fy));  // R tells the file position
      pixels.push_back(-1.0f);
    }
  const std::string path = dir / "windows.exr";
  auto out = OIIO::ImageOutput::create(path);
  ASSERT_TRUE(out && out->open(path, spec));
  ASSERT_TRUE(out->write_image(OIIO::TypeDesc::FLOAT, pixels.data()));
  out->close();

  const FlatImage image = readFlatImage(path);
  EXPECT_EQ(image.format, (Rect{0, 0, 8, 6}));
  // File rows 1..3 from the top of six are host rows 4..2 from the bottom.
  EXPECT_EQ(image.box, (Rect{2, 2, 6, 5}));
  ASSERT_EQ(image.channels, (std::vector<std::string>{"R", "Z"}));
  for (int y = 2; y < 5; ++y)
    for (int x = 2; x < 6; ++x)
      EXPECT_EQ(image.row(0, y)[x - 2], float(10 * x + (5 - y))) << x << "," << y;

  // Written back, both windows and every value come out where they were.
  const std::string again = dir / "again.exr";
  writeExr(again, image);
  auto in = OIIO::ImageInput::open(again);
  ASSERT_TRUE(in);
  const OIIO::ImageSpec& s = in->spec();
  EXPECT_EQ(s.format, OIIO::TypeDesc::FLOAT);
  EXPECT_EQ(std::make_tuple(s.x, s.y, s.width, s.height), std::make_tuple(2, 1, 4, 3));
  EXPECT_EQ(std::make_tuple(s.full_x, s.full_y, s.full_width, s.full_height),
            std::make_tuple(0, 0, 8, 6));
  std::vector<float> back(pixels.size());
  ASSERT_TRUE(in->read_image(0, 0, 0, 2, OIIO::TypeDesc::FLOAT, back.data()));
  EXPECT_EQ(back, pixels);
}

TEST(ImageFiles, OffsetDisplayWindowKeepsItsOffsets) {
  TempDir dir;
  FlatImage image;
  image.format = {10, 20, 30, 36};
  image.box = {12, 25, 28, 30};
  image.channels = {"R", "G", "B", "mask.a"};
  image.allocate();
  for (std::size_t c = 0; c < image.channels.size(); ++c)
    for (int y = image.box.y; y < image.box.t; ++y)
      for (int x = image.box.x; x < image.box.r; ++x)
        image.row(int(c), y)[x - image.box.x] = float(c) + 0.01f * float(x) + 0.001f * float(y);
  const std::string path = dir / "offset.exr";
  writeExr(path, image);

  const FlatImage back = readFlatImage(path);
  EXPECT_EQ(back.format, image.format);
  EXPECT_EQ(back.box, image.box);
  for (std::size_t c = 0; c < image.channels.size(); ++c) {
    const int b = back.channelIndex(image.channels[c]);
    ASSERT_GE(b, 0) << image.channels[c];
    EXPECT_EQ(back.planes[b], image.planes[c]) << image.channels[c];
  }
  EXPECT_EQ(dir.entries(), std::vector<std::string>{"offset.exr"});  // no temporary file left
}

TEST(ImageFiles, QuickLookIsSrgbOverTheFormatWithBlackOutsideTheBox) {
  TempDir dir;
  FlatImage image;
  image.format = {0, 0, 4, 3};
  image.box = {0, 1, 4, 3};  // the bottom row is outside the box
  image.channels = {"R", "G", "B"};
  image.allocate();
  for (int x = 0; x < 4; ++x) {
    image.row(0, 2)[x] = 0.5f;  // top row: linear 0.5 red
    image.row(1, 1)[x] = 1.0f;  // middle row: green
  }
  const std::string path = dir / "look.png";
  writeDisplayImage(path, image, 0, 1, 2, -1);
  auto in = OIIO::ImageInput::open(path);
  ASSERT_TRUE(in);
  ASSERT_EQ(in->spec().nchannels, 3);
  std::vector<unsigned char> px(4 * 3 * 3);
  ASSERT_TRUE(in->read_image(0, 0, 0, 3, OIIO::TypeDesc::UINT8, px.data()));
  EXPECT_EQ(px[0], 188);  // sRGB of linear 0.5, on the file's first (top) row
  EXPECT_EQ(px[1], 0);
  EXPECT_EQ(px[12 + 1], 255);
  for (int i = 24; i < 36; ++i)
    EXPECT_EQ(px[i], 0) << "outside the box, index " << i;
}

TEST(ImageFiles, DeepRoundTripAndFlattening) {
  TempDir dir;
  DeepImage deep;
  deep.format = {0, 0, 3, 2};
  deep.box = {0, 0, 3, 2};
  deep.channels = {"R", "A", "Z", "ZBack"};
  deep.offsets = {0};
  // Pixel (0,0): two samples stored far first. (1,0): one. (2,0): none. Top row: one each.
  const std::vector<std::vector<std::vector<float>>> pixels = {
      {{0.2f, 0.5f, 30.0f, 31.0f}, {0.4f, 0.5f, 10.0f, 12.0f}},
      {{0.7f, 1.0f, 5.0f, 5.0f}},
      {},
      {{0.1f, 0.25f, 1.0f, 1.0f}},
      {{0.1f, 0.25f, 2.0f, 2.0f}},
      {{0.1f, 0.25f, 3.0f, 3.0f}}};
  for (const auto& p : pixels) {
    for (const auto& s : p)
      deep.samples.insert(deep.samples.end(), s.begin(), s.end());
    deep.offsets.push_back(deep.offsets.back() + p.size());
  }
  const std::string path = dir / "deep.exr";
  writeDeepExr(path, deep);
  EXPECT_TRUE(isDeepFile(path));

  const DeepImage back = readDeepImage(path);
  EXPECT_EQ(back.format, deep.format);
  EXPECT_EQ(back.box, deep.box);
  EXPECT_EQ(back.offsets, deep.offsets);
  for (std::size_t c = 0; c < deep.channels.size(); ++c) {
    const int b = back.channelIndex(deep.channels[c]);
    ASSERT_GE(b, 0);
    for (std::size_t s = 0; s < deep.offsets.back(); ++s)
      EXPECT_EQ(back.samples[s * 4 + b], deep.samples[s * 4 + c]);
  }

  const FlatImage flat = flattenDeep(back);
  ASSERT_EQ(flat.channels.back(), "Z");
  const int r = flat.channelIndex("R"), a = flat.channelIndex("A"), z = flat.channelIndex("Z");
  EXPECT_LT(flat.channelIndex("ZBack"), 0);
  // Nearest (front 10) over the farther one, whatever the stored order.
  EXPECT_FLOAT_EQ(flat.row(r, 0)[0], 0.4f + 0.2f * 0.5f);
  EXPECT_FLOAT_EQ(flat.row(a, 0)[0], 0.75f);
  EXPECT_FLOAT_EQ(flat.row(z, 0)[0], 10.0f);
  EXPECT_FLOAT_EQ(flat.row(z, 0)[1], 5.0f);
  EXPECT_EQ(flat.row(r, 0)[2], 0.0f);
  EXPECT_EQ(flat.row(z, 0)[2], FLT_MAX);
  EXPECT_FLOAT_EQ(flat.row(z, 1)[2], 3.0f);

  // A deep file is refused where a flat one is wanted, and the other way round.
  EXPECT_THROW(readFlatImage(path), UsageError);
  writeExr(dir / "flat.exr", flat);
  EXPECT_THROW(readDeepImage(dir / "flat.exr"), UsageError);
}

TEST(ImageFiles, BadFilesAndValues) {
  TempDir dir;
  EXPECT_THROW(readFlatImage(dir / "missing.exr"), UsageError);
  std::ofstream(dir / "junk.exr") << "not an image at all";
  EXPECT_THROW(readFlatImage(dir / "junk.exr"), UsageError);
  EXPECT_THROW(readFlatImage(dir.operator/("")), UsageError);  // a directory

  FlatImage image = scene(3, 2, [](int, int) { return 1.0f; });
  image.row(0, 0)[1] = std::nanf("");
  image.row(4, 1)[2] = INFINITY;
  writeExr(dir / "nan.exr", image);
  std::size_t nans = 0;
  const FlatImage back = readFlatImage(dir / "nan.exr", &nans);
  EXPECT_EQ(nans, 1u);
  EXPECT_TRUE(std::isnan(back.row(0, 0)[1]));  // the node decides what a NaN means
  EXPECT_EQ(back.row(4, 1)[2], INFINITY);  // an infinite depth is a depth

  // Writing into a directory that does not exist fails and leaves nothing.
  EXPECT_THROW(writeExr(dir / "no/such/dir/out.exr", image), RenderError);
  EXPECT_EQ(dir.entries(), (std::vector<std::string>{"junk.exr", "nan.exr"}));
}

TEST(ImageFiles, DemoSceneIsConsistent) {
  const DemoScene demo = makeDemoScene(64, 36);
  EXPECT_EQ(demo.flat.channels, (std::vector<std::string>{"R", "G", "B", "A", "Z"}));
  // The flat image is the deep one composited: same colour, the same coverage.
  const FlatImage flattened = flattenDeep(demo.deep);
  for (int c = 0; c < 4; ++c)
    EXPECT_LT(maxDifference(demo.flat, c, flattened, flattened.channelIndex(demo.flat.channels[c])),
              1e-5f);
  std::size_t most = 0;
  for (int y = 0; y < 36; ++y)
    for (int x = 0; x < 64; ++x) {
      most = std::max(most, demo.deep.sampleCount(x, y));
      EXPECT_FLOAT_EQ(demo.flat.row(3, y)[x], 1.0f);
    }
  EXPECT_GE(most, 2u);
  EXPECT_LE(most, 3u);
}

// ---------------------------------------------------------------------------------------------
// Knobs as text

TEST(KnobText, EveryKindTakesItsValues) {
  auto node = makeNode();
  auto value = [&](const char* name) { return valueText(*node->knob(name)); };
  auto set = [&](const std::string& name, const std::string& v) {
    return applySetting(*node, {name, v, "--set"});
  };

  set("fStop", "2.8");
  EXPECT_EQ(value("fStop"), "2.8");
  for (const char* on : {"true", "on", "1", "YES"}) {
    set("realWorldLens", "false");
    set("realWorldLens", on);
    EXPECT_EQ(value("realWorldLens"), "true") << on;
  }
  set("realWorldLens", "off");
  EXPECT_EQ(value("realWorldLens"), "false");

  set("outputType", "Focus Matte");
  EXPECT_EQ(value("outputType"), "Focus Matte");
  set("outputType", "lens bloom");  // case does not matter
  EXPECT_EQ(value("outputType"), "Lens Bloom");
  set("kernelType", "2");
  EXPECT_EQ(value("kernelType"), "Aperture Blades");

  set("depthChannel", "rgba.alpha");
  EXPECT_EQ(value("depthChannel"), "rgba.alpha");
  set("depthChannel", "Z");
  EXPECT_EQ(value("depthChannel"), "depth.Z");
  set("bloomMatteChannel", "none");
  EXPECT_EQ(value("bloomMatteChannel"), "none");

  set("vorelChannels", "rgb");
  EXPECT_EQ(value("vorelChannels"), "rgb");
  set("vorelChannels", "rgba.red, B");
  EXPECT_EQ(value("vorelChannels"), "rgba.red,rgba.blue");
  set("vorelChannels", "all");
  EXPECT_EQ(value("vorelChannels"), "all");

  set("kChrAbbOff", "0.5,1,2");
  EXPECT_EQ(value("kChrAbbOff"), "0.5,1,2");
  set("kChrAbbOff", "0.25");  // one value for all
  EXPECT_EQ(value("kChrAbbOff"), "0.25,0.25,0.25");
  set("depthSlicesNearAndFar", "10,50");
  EXPECT_EQ(value("depthSlicesNearAndFar"), "10,50");
}

TEST(KnobText, StoredAsThePanelStoresThem) {
  auto node = makeNode();
  // A forced range clamps, and says so; a soft range does not.
  const std::string note = applySetting(*node, {"max_kernelsize", "300", "--set"});
  EXPECT_EQ(valueText(*node->knob("max_kernelsize")), "256");
  EXPECT_NE(note.find("256"), std::string::npos);
  EXPECT_EQ(applySetting(*node, {"kNumSides", "2", "--set"}).empty(), false);
  EXPECT_EQ(valueText(*node->knob("kNumSides")), "3");
  EXPECT_EQ(applySetting(*node, {"multiplier", "0.5", "--set"}), "");
  EXPECT_EQ(valueText(*node->knob("multiplier")), "0.5");

  // The panel's own reaction runs: a film format fills the film back.
  applySetting(*node, {"filmFormat", "Anamorphic", "--set"});
  EXPECT_EQ(valueText(*node->knob("apertureWidth")), "21.3");
  EXPECT_EQ(valueText(*node->knob("apertureHeight")), "17.8");
  EXPECT_FALSE(node->knob("apertureWidth")->isEnabled());
  applySetting(*node, {"filmFormat", "Custom", "--set"});
  EXPECT_TRUE(node->knob("apertureWidth")->isEnabled());
  EXPECT_EQ(valueText(*node->knob("apertureWidth")), "21.3");
}

TEST(KnobText, BadNamesAndValuesAreRefusedClearly) {
  auto node = makeNode();
  auto message = [&](const std::string& name, const std::string& v) -> std::string {
    try {
      applySetting(*node, {name, v, "--set"});
    } catch (const UsageError& e) {
      return e.what();
    }
    return "(accepted)";
  };
  EXPECT_NE(message("focalplane", "3").find("did you mean focalPlane"), std::string::npos);
  EXPECT_NE(message("fstop", "3").find("fStop"), std::string::npos);
  EXPECT_NE(message("zzzzzzzzzz", "3").find("unknown knob"), std::string::npos);
  EXPECT_NE(message("fStop", "abc").find("bad value for fStop"), std::string::npos);
  EXPECT_NE(message("fStop", "nan").find("bad value"), std::string::npos);
  EXPECT_NE(message("fStop", "inf").find("bad value"), std::string::npos);
  EXPECT_NE(message("fStop", "").find("bad value"), std::string::npos);
  EXPECT_NE(message("kNumSides", "2.5").find("whole number"), std::string::npos);
  EXPECT_NE(message("outputType", "Blurry").find("\"Focus Matte\""), std::string::npos);
  EXPECT_NE(message("outputType", "7").find("bad value"), std::string::npos);
  EXPECT_NE(message("realWorldLens", "maybe").find("bad value"), std::string::npos);
  EXPECT_NE(message("depthChannel", "no.such").find("unknown channel"), std::string::npos);
  EXPECT_NE(message("kChrAbbOff", "1,2").find("1 or 3"), std::string::npos);
  EXPECT_NE(message("vorelChannels", "").find("bad value"), std::string::npos);
  // The default stays where a value was refused.
  EXPECT_EQ(valueText(*node->knob("fStop")), "6");
  EXPECT_EQ(valueText(*node->knob("outputType")), "Defocused Image");
}

TEST(KnobText, PresetsAndTheOrderOfSettings) {
  TempDir dir;
  std::ofstream(dir / "a.preset") << "# a lens\n"
                                     "fStop 2.8   # wide open\n"
                                     "\n"
                                     "outputType \"Focus Matte\"\n"
                                     "focalPlane=250\n";
  const auto settings = readPreset(dir / "a.preset");
  ASSERT_EQ(settings.size(), 3u);
  EXPECT_EQ(settings[0].name, "fStop");
  EXPECT_EQ(settings[0].value, "2.8");
  EXPECT_EQ(settings[0].origin, dir / "a.preset" + ":2");
  EXPECT_EQ(settings[1].value, "Focus Matte");
  EXPECT_EQ(settings[2].name, "focalPlane");
  EXPECT_EQ(settings[2].value, "250");

  std::ofstream(dir / "bad.preset") << "fStop 2\nfocalPlane\n";
  try {
    readPreset(dir / "bad.preset");
    ADD_FAILURE() << "a line without a value was accepted";
  } catch (const UsageError& e) {
    EXPECT_NE(std::string(e.what()).find("bad.preset:2"), std::string::npos) << e.what();
  }
  EXPECT_THROW(readPreset(dir / "none.preset"), UsageError);
  EXPECT_THROW(parseSetting("fStop", "--set"), UsageError);
  EXPECT_EQ(parseSetting("outputType=Focus Matte", "--set").value, "Focus Matte");

  // On the command line, later settings win, across --set and --preset alike.
  FlatImage image = scene(8, 6, [](int x, int) { return x < 4 ? 50.0f : 200.0f; });
  writeExr(dir / "in.exr", image);
  auto matte = [&](const std::vector<std::string>& args) {
    const Outcome r = vorel({"render", dir / "in.exr", "-o", dir / "m.exr"}, args);
    EXPECT_EQ(r.code, 0) << r.err;
    return readFlatImage(dir / "m.exr");
  };
  // The preset asks for the focus matte; a --set after it takes the focal plane back to 100.
  FlatImage m = matte({"--set", "focalPlane=10", "--preset", dir / "a.preset", "--set", "focalPlane=100"});
  EXPECT_EQ(m.row(1, 0)[0], 1.0f);  // depth 50 is in front of 100: green
  EXPECT_EQ(m.row(2, 0)[7], 1.0f);  // depth 200 is behind: blue
  // Without it, the preset's 250 stands: both depths lie in front.
  m = matte({"--set", "focalPlane=10", "--preset", dir / "a.preset"});
  EXPECT_EQ(m.row(1, 0)[0], 1.0f);
  EXPECT_EQ(m.row(1, 0)[7], 1.0f);
}

TEST(KnobText, ListingShowsEveryKnob) {
  const Outcome r = vorel({"knobs"});
  ASSERT_EQ(r.code, 0) << r.err;
  auto node = makeNode();
  for (const DD::Image::Knob* k : DD::Image::host::knobs(*node)) {
    if (k->name().empty())
      continue;
    EXPECT_NE(r.out.find("  " + k->name() + "  \"" + k->label() + "\""), std::string::npos)
        << k->name();
  }
  EXPECT_NE(r.out.find("== Lens =="), std::string::npos);
  EXPECT_NE(r.out.find("range: 1 to 256 (values are clamped to it)"), std::string::npos);
  EXPECT_NE(r.out.find("1 \"Academy\""), std::string::npos);
  EXPECT_NE(r.out.find("The camera's focal length."), std::string::npos);
}

// ---------------------------------------------------------------------------------------------
// Whole renders

TEST(Render, InFocusImageComesOutAsItWentIn) {
  TempDir dir;
  // Depth 100 everywhere, on the default focal plane: nothing to blur. The input's data window is
  // smaller than its display window and has a channel of its own.
  FlatImage image;
  image.format = {0, 0, 24, 16};
  image.box = {3, 2, 20, 13};
  image.channels = {"R", "G", "B", "A", "Z", "mask.a"};
  image.allocate();
  for (std::size_t c = 0; c < image.channels.size(); ++c)
    for (int y = image.box.y; y < image.box.t; ++y)
      for (int x = image.box.x; x < image.box.r; ++x)
        image.row(int(c), y)[x - image.box.x] =
            c == 4 ? 100.0f : c == 3 ? 1.0f : 0.05f * float(c + 1) + 0.01f * float(x) + 0.02f * float(y);
  writeExr(dir / "in.exr", image);

  const Outcome r = vorel({"render", dir / "in.exr", "-o", dir / "out.exr", "-o", dir / "out.png"}, kSmall);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("wrote"), std::string::npos);
  EXPECT_NE(r.err.find("17x11"), std::string::npos) << r.err;  // the output box

  auto in = OIIO::ImageInput::open(dir / "out.exr");
  ASSERT_TRUE(in);
  const OIIO::ImageSpec& s = in->spec();
  EXPECT_EQ(s.format, OIIO::TypeDesc::FLOAT);
  EXPECT_EQ(std::make_tuple(s.full_x, s.full_y, s.full_width, s.full_height), std::make_tuple(0, 0, 24, 16));
  // Host rows 2..12 of 16 are file rows 3..13.
  EXPECT_EQ(std::make_tuple(s.x, s.y, s.width, s.height), std::make_tuple(3, 3, 17, 11));
  in.reset();

  const FlatImage out = readFlatImage(dir / "out.exr");
  std::vector<std::string> a = image.channels, b = out.channels;
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  EXPECT_EQ(a, b);
  for (std::size_t c = 0; c < image.channels.size(); ++c)
    EXPECT_LT(maxDifference(image, int(c), out, out.channelIndex(image.channels[c])), 1e-5f)
        << image.channels[c];

  // The quick look is the format, in sRGB.
  auto png = OIIO::ImageInput::open(dir / "out.png");
  ASSERT_TRUE(png);
  EXPECT_EQ(png->spec().width, 24);
  EXPECT_EQ(png->spec().height, 16);
  EXPECT_EQ(png->spec().nchannels, 4);
}

TEST(Render, DefocusSpreadsLightAndKeepsIt) {
  TempDir dir;
  // One bright pixel far behind the focal plane on black.
  FlatImage image = scene(21, 21, [](int, int) { return 1000.0f; });
  for (int c = 0; c < 3; ++c)
    std::fill(image.planes[c].begin(), image.planes[c].end(), 0.0f);
  image.row(0, 10)[10] = 100.0f;
  writeExr(dir / "in.exr", image);

  const Outcome r = vorel({"render", dir / "in.exr", "-o", dir / "out.exr", "--set", "focusRegionSize=10",
                       "--set", "multiplier=6"}, kSmall);
  ASSERT_EQ(r.code, 0) << r.err;
  const FlatImage out = readFlatImage(dir / "out.exr");
  const int red = out.channelIndex("R");
  EXPECT_LT(out.row(red, 10)[10], 50.0f);
  EXPECT_GT(out.row(red, 10)[12], 0.5f);
  EXPECT_GT(out.row(red, 12)[10], 0.5f);
  EXPECT_EQ(out.row(red, 0)[0], 0.0f);
  EXPECT_NEAR(sum(out, red), 100.0, 2.0);
  EXPECT_NE(r.err.find("maxCoC 6"), std::string::npos) << r.err;
}

TEST(Render, FocusMatteSplitsFrontFromBack) {
  TempDir dir;
  writeExr(dir / "in.exr", scene(10, 4, [](int x, int) { return x < 5 ? 40.0f : 400.0f; }));
  const Outcome r = vorel({"render", dir / "in.exr", "-o", dir / "m.exr", "--set", "outputType=Focus Matte"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err.find("maxCoC"), std::string::npos);  // not looked for by a preview
  const FlatImage m = readFlatImage(dir / "m.exr");
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 10; ++x) {
      EXPECT_EQ(m.row(m.channelIndex("G"), y)[x], x < 5 ? 1.0f : 0.0f) << x;
      EXPECT_EQ(m.row(m.channelIndex("B"), y)[x], x < 5 ? 0.0f : 1.0f) << x;
    }
}

TEST(Render, OnlyTheChannelsAsked) {
  TempDir dir;
  writeExr(dir / "in.exr", scene(6, 4, [](int, int) { return 100.0f; }));
  Outcome r = vorel({"render", dir / "in.exr", "-o", dir / "out.exr", "--channels", "rgb"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(readFlatImage(dir / "out.exr").channels.size(), 3u);
  r = vorel({"render", dir / "in.exr", "-o", dir / "out.exr", "--channels", "R,depth.Z"});
  ASSERT_EQ(r.code, 0) << r.err;
  std::vector<std::string> names = readFlatImage(dir / "out.exr").channels;
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"R", "Z"}));
}

TEST(Render, DeepAloneIsFlattenedForInputZero) {
  TempDir dir;
  // Every sample on the focal plane: the render is the flattened deep image.
  DeepImage deep;
  deep.format = deep.box = {0, 0, 8, 6};
  deep.channels = {"R", "G", "B", "A", "Z"};
  deep.offsets = {0};
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 8; ++x) {
      const float a = x == 0 ? 0.0f : 0.5f;
      deep.samples.insert(deep.samples.end(), {0.1f * x * a, 0.05f * y * a, 0.2f * a, a, 100.0f});
      deep.samples.insert(deep.samples.end(), {0.3f, 0.3f, 0.3f, 1.0f, 100.0f});
      deep.offsets.push_back(deep.offsets.back() + 2);
    }
  writeDeepExr(dir / "deep.exr", deep);

  for (const std::vector<std::string>& how :
       {std::vector<std::string>{"--deep", dir / "deep.exr"}, {dir / "deep.exr"}}) {
    const Outcome r = vorel({"render", "-o", dir / "out.exr"}, how + kSmall);
    ASSERT_EQ(r.code, 0) << r.err;
    const FlatImage out = readFlatImage(dir / "out.exr");
    const FlatImage expected = flattenDeep(readDeepImage(dir / "deep.exr"));
    for (const char* c : {"R", "G", "B", "A"})
      EXPECT_LT(maxDifference(expected, expected.channelIndex(c), out, out.channelIndex(c)), 1e-5f)
          << c;
    EXPECT_GE(out.channelIndex("Z"), 0);
  }
}

TEST(Render, DeepBesideFlatBlursBehindTheFocalPlane) {
  TempDir dir;
  const DemoScene demo = makeDemoScene(64, 36);
  writeExr(dir / "flat.exr", demo.flat);
  writeDeepExr(dir / "deep.exr", demo.deep);
  const Outcome r = vorel({"render", dir / "flat.exr", "--deep", dir / "deep.exr", "-o", dir / "out.exr",
                       "--set", "focalPlane=200", "--set", "focusRegionSize=20", "--set", "multiplier=4"}, kSmall);
  ASSERT_EQ(r.code, 0) << r.err;
  const FlatImage out = readFlatImage(dir / "out.exr");
  // The deep render differs from the input (the wall is blurred) but keeps its light.
  const int red = out.channelIndex("R");
  EXPECT_GT(maxDifference(demo.flat, 0, out, red), 0.01f);
  EXPECT_NEAR(sum(out, red) / sum(demo.flat, 0), 1.0, 0.05);
}

TEST(Render, KernelImageShapesTheBlur) {
  TempDir dir;
  FlatImage image = scene(25, 25, [](int, int) { return 1000.0f; });
  for (int c = 0; c < 3; ++c)
    std::fill(image.planes[c].begin(), image.planes[c].end(), 0.0f);
  image.row(0, 12)[12] = 100.0f;
  writeExr(dir / "in.exr", image);
  // A horizontal bar as the lens shape.
  FlatImage bar;
  bar.format = bar.box = {0, 0, 9, 9};
  bar.channels = {"R", "G", "B", "A"};
  bar.allocate();
  for (int c = 0; c < 4; ++c)
    for (int x = 0; x < 9; ++x)
      bar.row(c, 4)[x] = 1.0f;
  writeExr(dir / "bar.exr", bar);

  const std::vector<std::string> blur = {"--set", "focusRegionSize=10", "--set", "multiplier=8"};
  Outcome r = vorel({"render", dir / "in.exr", "--kernel", dir / "bar.exr", "-o", dir / "bar_out.exr"}, blur + kSmall);
  ASSERT_EQ(r.code, 0) << r.err;
  const FlatImage out = readFlatImage(dir / "bar_out.exr");
  const int red = out.channelIndex("R");
  EXPECT_GT(out.row(red, 12)[15], 10.0f * out.row(red, 15)[12] + 0.1f);  // wide, not tall

  // --kernel chose kernelType Input; a --set after it wins, and the blur is round again.
  r = vorel({"render", dir / "in.exr", "--kernel", dir / "bar.exr", "-o", dir / "round.exr", "--set",
             "kernelType=Circular", "--set", "max_kernelsize=64"}, blur);
  ASSERT_EQ(r.code, 0) << r.err;
  const FlatImage round = readFlatImage(dir / "round.exr");
  EXPECT_GT(round.row(red, 15)[12], 0.5f);
  EXPECT_NEAR(round.row(red, 12)[15], round.row(red, 15)[12], 0.05f * round.row(red, 15)[12]);
}

TEST(Render, MatteHoldsTheDefocusBack) {
  TempDir dir;
  writeExr(dir / "in.exr", scene(20, 8, [](int, int) { return 1000.0f; }));
  FlatImage mattes;
  mattes.format = mattes.box = {0, 0, 20, 8};
  mattes.channels = {"mask.a"};
  mattes.allocate();
  for (int y = 0; y < 8; ++y)
    for (int x = 10; x < 20; ++x)
      mattes.row(0, y)[x] = 1.0f;
  writeExr(dir / "mattes.exr", mattes);

  const Outcome r = vorel({"render", dir / "in.exr", "--mattes", dir / "mattes.exr", "-o", dir / "out.exr",
                       "--set", "defocusMatteChannel=mask.a", "--set", "focusRegionSize=10", "--set",
                       "multiplier=4", "--set", "correctiveSlices=1"}, kSmall);
  ASSERT_EQ(r.code, 0) << r.err;
  const FlatImage in = readFlatImage(dir / "in.exr"), out = readFlatImage(dir / "out.exr");
  const int b = out.channelIndex("B");
  // Left of the matte's edge (and out of reach of the blur from the right): sharp.
  for (int x = 0; x < 4; ++x)
    EXPECT_NEAR(out.row(b, 4)[x], in.row(2, 4)[x], 1e-5f) << x;
  // Right: the checkerboard is blurred.
  float change = 0.0f;
  for (int x = 14; x < 20; ++x)
    change = std::max(change, std::fabs(out.row(b, 4)[x] - in.row(2, 4)[x]));
  EXPECT_GT(change, 0.1f);
}

TEST(Render, CameraDrivesTheLens) {
  TempDir dir;
  writeExr(dir / "in.exr", scene(16, 10, [](int, int) { return 100.0f; }));
  // Focused where everything is: sharp, whatever the focalPlane knob says.
  Outcome r = vorel({"render", dir / "in.exr", "-o", dir / "sharp.exr", "--camera",
                 "focal=50,haperture=22,vaperture=16,focus=100,fstop=2", "--set", "focalPlane=7"}, kSmall);
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("camera"), std::string::npos) << r.err;  // focalPlane has no effect
  const FlatImage in = readFlatImage(dir / "in.exr");
  FlatImage out = readFlatImage(dir / "sharp.exr");
  EXPECT_LT(maxDifference(in, 2, out, out.channelIndex("B")), 1e-5f);
  // Focused far away, on a small film back so that 16 pixels make a wide CoC: blurred.
  r = vorel({"render", dir / "in.exr", "-o", dir / "soft.exr", "--camera", "focus=1000,fstop=1.4,haperture=4"},
            kSmall);
  ASSERT_EQ(r.code, 0) << r.err;
  out = readFlatImage(dir / "soft.exr");
  EXPECT_GT(maxDifference(in, 2, out, out.channelIndex("B")), 0.05f);
}

TEST(Render, OneThreadOrManyMakeTheSameFile) {
  TempDir dir;
  const DemoScene demo = makeDemoScene(48, 27);
  writeExr(dir / "in.exr", demo.flat);
  writeDeepExr(dir / "deep.exr", demo.deep);
  const std::vector<std::string> lens = {"--set", "realWorldLens=on", "--set", "focalPlane=200",
                                         "--set", "fStop=1.4", "--set", "bloom=0.3"};
  for (const std::vector<std::string>& inputs :
       {std::vector<std::string>{dir / "in.exr"}, {dir / "in.exr", "--deep", dir / "deep.exr"}}) {
    Outcome one = vorel({"render", "-o", dir / "one.exr", "--threads", "1"}, inputs + lens + kSmall);
    Outcome many = vorel({"render", "-o", dir / "many.exr", "--threads", "3"}, inputs + lens + kSmall);
    ASSERT_EQ(one.code, 0) << one.err;
    ASSERT_EQ(many.code, 0) << many.err;
    // The same windows, channels and bits (the files differ only in their time stamp).
    const FlatImage a = readFlatImage(dir / "one.exr"), b = readFlatImage(dir / "many.exr");
    EXPECT_EQ(a.format, b.format);
    EXPECT_EQ(a.box, b.box);
    EXPECT_EQ(a.channels, b.channels);
    EXPECT_TRUE(a.planes == b.planes);
  }
}

TEST(Render, WarningsAreShownAndTheRenderGoesOn) {
  TempDir dir;
  writeExr(dir / "in.exr", scene(16, 10, [](int x, int) { return x < 8 ? 100.0f : 1000.0f; }));
  const Outcome r = vorel({"render", dir / "in.exr", "-o", dir / "out.exr", "--set", "max_kernelsize=2",
                       "--set", "focusRegionSize=10", "--set", "multiplier=8"});
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.err.find("warning: Max kernel size is less than the maximum coc"), std::string::npos) << r.err;
  EXPECT_TRUE(fs::exists(dir / "out.exr"));

  // --quiet keeps the warning, drops the rest.
  const Outcome q = vorel({"render", dir / "in.exr", "-o", dir / "out.exr", "--quiet", "--set",
                       "max_kernelsize=2", "--set", "focusRegionSize=10", "--set", "multiplier=8"});
  ASSERT_EQ(q.code, 0) << q.err;
  EXPECT_NE(q.err.find("warning"), std::string::npos);
  EXPECT_EQ(q.err.find("wrote"), std::string::npos);
}

// ---------------------------------------------------------------------------------------------
// Failures: one line, the right status, and no output file

TEST(Failures, EachEndsWithOneLineAndNoFile) {
  TempDir dir;
  writeExr(dir / "in.exr", scene(8, 6, [](int, int) { return 100.0f; }));
  std::ofstream(dir / "junk.png") << "garbage";
  FlatImage noDepth = scene(8, 6, [](int, int) { return 0.0f; });
  noDepth.channels.pop_back();
  noDepth.planes.pop_back();
  writeExr(dir / "nodepth.exr", noDepth);
  const std::string out = dir / "out.exr";
  const std::vector<std::string> before = dir.entries();

  struct Case {
    std::vector<std::string> args;
    int code;
    std::string says;
  };
  const std::vector<Case> cases = {
      {{"render", dir / "missing.exr", "-o", out}, 2, "no such file"},
      {{"render", dir / "junk.png", "-o", out}, 2, "cannot read"},
      {{"render", dir / "in.exr", "-o", out, "--kernel", dir / "missing.png"}, 2, "no such file"},
      {{"render", dir / "in.exr", "-o", out, "--set", "focalplane=3"}, 2, "did you mean focalPlane"},
      {{"render", dir / "in.exr", "-o", out, "--set", "fStop=fast"}, 2, "bad value for fStop"},
      {{"render", dir / "in.exr", "-o", out, "--set", "fStop"}, 2, "KNOB=VALUE"},
      {{"render", dir / "in.exr", "-o", out, "--preset", dir / "missing.preset"}, 2, "no such preset"},
      {{"render", dir / "in.exr", "-o", out, "--channels", "mask.q"}, 2, "no channel"},
      {{"render", dir / "nodepth.exr", "-o", out}, 2, "no depth channel"},
      {{"render", dir / "in.exr", "-o", out, "--camera", "focal=50,zoom=2"}, 2, "--camera"},
      {{"render", dir / "in.exr", "-o", out, "--camera", "fstop=0"}, 2, "positive"},
      {{"render", dir / "in.exr", "-o", dir / "out.gif"}, 2, "must be .exr"},
      {{"render", "-o", out}, 2, "no input"},
      {{"render", dir / "in.exr"}, 2, "output"},
      {{"render", dir / "in.exr", "-o", out, "--frobnicate"}, 2, "frobnicate"},
      {{"render", dir / "in.exr", "-o", dir / "in.exr", "--set", "fStop=2"}, 2, "also an input"},
      {{"render", dir / "in.exr", "-o", out, "--set", "kernelType=Input"}, 1, "No input kernel connected!"},
      {{"render", dir / "in.exr", "-o", dir / "no/such/dir/out.exr"}, 2, "no directory"},
      {{"frobnicate"}, 2, "unknown command 'frobnicate'"},
      {{}, 2, "subcommand"},
  };
  const std::string inputBytes = bytes(dir / "in.exr");
  for (const Case& c : cases) {
    std::string line;
    for (const std::string& a : c.args)
      line += a + " ";
    const Outcome r = vorel(c.args);
    EXPECT_EQ(r.code, c.code) << line << "\n" << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << line << "\n" << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << line << "\n" << r.err;
    EXPECT_EQ(r.err.rfind("vorel: ", 0), 0u) << r.err;
    EXPECT_EQ(dir.entries(), before) << line;
  }
  EXPECT_TRUE(bytes(dir / "in.exr") == inputBytes);
}

TEST(Failures, AFailedRenderKeepsTheOldOutput) {
  TempDir dir;
  writeExr(dir / "in.exr", scene(8, 6, [](int, int) { return 100.0f; }));
  std::ofstream(dir / "out.exr") << "an earlier render";
  const Outcome r = vorel({"render", dir / "in.exr", "-o", dir / "out.exr", "--set", "kernelType=Input"});
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(bytes(dir / "out.exr"), "an earlier render");
  // A good render replaces it whole.
  ASSERT_EQ(vorel({"render", dir / "in.exr", "-o", dir / "out.exr"}).code, 0);
  EXPECT_EQ(readFlatImage(dir / "out.exr").box, (Rect{0, 0, 8, 6}));
  EXPECT_EQ(dir.entries(), (std::vector<std::string>{"in.exr", "out.exr"}));
}

TEST(Failures, TheProgramItselfExitsWithTheStatus) {
  TempDir dir;
  writeExr(dir / "in.exr", scene(8, 6, [](int, int) { return 100.0f; }));
  Outcome r = vorelBinary({"render", dir / "in.exr", "-o", dir / "out.png", "--quiet"}, dir);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_TRUE(fs::exists(dir / "out.png"));
  r = vorelBinary({"render", dir / "in.exr", "-o", dir / "bad.exr", "--set", "nosuchknob=1"}, dir);
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("unknown knob 'nosuchknob'"), std::string::npos) << r.err;
  r = vorelBinary({"render", dir / "in.exr", "-o", dir / "bad.exr", "--set", "kernelType=Input"}, dir);
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "vorel: No input kernel connected!\n");
  EXPECT_FALSE(fs::exists(dir / "bad.exr"));
  // The demo scene command writes what the demo needs.
  r = vorelBinary({"demo-scene", dir / "demo", "--width", "32", "--height", "18"}, dir);
  EXPECT_EQ(r.code, 0) << r.err;
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
