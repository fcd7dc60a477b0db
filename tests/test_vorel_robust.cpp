// vorel against what real use throws at it: full disks, signals, hostile headers, odd windows,
// knob values that make no image, files laid out by other programs. Every case runs the built
// program on a generated file, as a user would.
#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "app/ImageFiles.h"
#include "support/RunVorel.h"

namespace fs = std::filesystem;
using namespace vorelapp;
using Names = std::vector<std::string>;

namespace {

// A directory of its own per test: `work` for the files a run may touch, the run's own output
// beside it so that it does not show among them.
struct TempDir {
  const fs::path path =
      fs::temp_directory_path() /
      ("vorel_robust_" +
       std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "_" +
       std::to_string(::getpid()));
  TempDir() {
    fs::remove_all(path);
    fs::create_directories(path / "work");
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path, ec);
  }
  std::string operator/(const std::string& name) const { return (path / "work" / name).string(); }
  std::string log(const char* name) const { return (path / name).string(); }
  Names entries() const {
    Names names;
    for (const auto& e : fs::directory_iterator(path / "work"))
      names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
};

using vorelapp::test::bytes;
using vorelapp::test::image;

struct Outcome {
  int code = -1;    // the exit status, -1 if a signal ended it
  int signal = 0;   // the signal that ended it
  std::string out, err;
};

// Runs the built program in a child process, optionally under a file size limit (the usual way
// to fake a full disk) and with `meanwhile` called with its pid while it runs.
Outcome vorel(const TempDir& dir, const Names& args, rlim_t fileSizeLimit = RLIM_INFINITY,
              const std::function<void(pid_t)>& meanwhile = {}) {
  std::vector<std::string> all = {VOREL_BINARY};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : all)
    argv.push_back(a.data());
  argv.push_back(nullptr);
  const std::string outPath = dir.log("stdout"), errPath = dir.log("stderr");
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(out, STDOUT_FILENO);
    ::dup2(err, STDERR_FILENO);
    const rlimit limit = {fileSizeLimit, fileSizeLimit};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  if (meanwhile)
    meanwhile(pid);
  // A run that hangs is ended, so that the test fails instead of waiting for ever.
  int status = 0;
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > until) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  Outcome r;
  if (WIFEXITED(status))
    r.code = WEXITSTATUS(status);
  else if (WIFSIGNALED(status))
    r.signal = WTERMSIG(status);
  r.out = bytes(outPath);
  r.err = bytes(errPath);
  return r;
}

std::string describe(const Outcome& r) {
  return "exit " + std::to_string(r.code) + ", signal " + std::to_string(r.signal) + ", stderr: " +
         r.err;
}

// RGBA and Z, colour in a pattern that a blur changes, depth from `depth`.
FlatImage scene(Rect format, Rect box, const std::function<float(int, int)>& depth) {
  return image(format, box, {"R", "G", "B", "A", "Z"}, [&](int c, int x, int y) {
    const float colour[] = {0.1f + 0.05f * float((x * 7 + y * 3) % 17),
                            0.2f + 0.03f * float((x + 2 * y) % 11),
                            ((x / 3 + y / 3) % 2) ? 0.9f : 0.1f, 1.0f};
    return c < 4 ? colour[c] : depth(x, y);
  });
}

std::string saved(const std::string& path, const FlatImage& im) {
  writeExr(path, im);
  return path;
}

// Any file a run left behind under a temporary name.
Names leftovers(const TempDir& dir) {
  Names found;
  for (const std::string& n : dir.entries())
    if (n.find(".vorel-") != std::string::npos || n.find(".tmp") != std::string::npos)
      found.push_back(n);
  return found;
}

Names operator+(Names a, const Names& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

int lines(const std::string& s) {
  return int(std::count(s.begin(), s.end(), '\n'));
}

// A file of two parts: "matte", one channel of zeros, then "beauty", the image given (16 x 12).
std::string twoParts(const std::string& path, const FlatImage& beauty) {
  OIIO::ImageSpec matte(16, 12, 1, OIIO::TypeDesc::FLOAT), main(16, 12, 5, OIIO::TypeDesc::FLOAT);
  matte.channelnames = {"mask"};
  matte.attribute("name", "matte");
  main.channelnames = {"R", "G", "B", "A", "Z"};
  main.attribute("name", "beauty");
  auto out = OIIO::ImageOutput::create(path);
  const OIIO::ImageSpec specs[] = {matte, main};
  std::vector<float> zeros(16 * 12), pixels(16 * 12 * 5);
  for (int i = 0; i < 16 * 12; ++i)
    for (int c = 0; c < 5; ++c)
      pixels[std::size_t(i * 5 + c)] =
          beauty.planes[std::size_t(c)][std::size_t((11 - i / 16) * 16 + i % 16)];
  const bool ok = out->open(path, 2, specs) && out->write_image(OIIO::TypeDesc::FLOAT, zeros.data()) &&
                  out->open(path, main, OIIO::ImageOutput::AppendSubimage) &&
                  out->write_image(OIIO::TypeDesc::FLOAT, pixels.data()) && out->close();
  EXPECT_TRUE(ok) << out->geterror();
  return path;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Data that must never be lost

TEST(NothingLost, AFullDiskFailsEveryWriterAndKeepsTheOldFile) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 64, 48}, {0, 0, 64, 48},
                                                    [](int, int) { return 100.0f; }));
  for (const char* ext : {"png", "jpg", "tif", "exr"}) {
    SCOPED_TRACE(ext);
    const std::string out = dir / (std::string("out.") + ext);
    std::ofstream(out) << "yesterday's render";
    const Outcome r = vorel(dir, {"render", in, "-o", out, "--quiet"}, 1000);
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.err.rfind("vorel: cannot write " + out + ": ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find("too large"), std::string::npos) << r.err;
    EXPECT_EQ(lines(r.err), 1) << r.err;
    EXPECT_EQ(bytes(out), "yesterday's render");
    EXPECT_EQ(leftovers(dir), Names{});
  }
}

TEST(NothingLost, ADiskThatFillsHalfwayThroughAFileLeavesTheOldOne) {
  TempDir dir;
  // A multi-part output is written by OpenEXR to a file it opens itself, the others streamed.
  const FlatImage beauty = scene({0, 0, 16, 12}, {0, 0, 16, 12}, [](int x, int) { return 50.0f + x; });
  const std::string parts = twoParts(dir / "parts.exr", beauty);
  const std::string big = saved(dir / "big.exr", scene({0, 0, 400, 300}, {0, 0, 400, 300},
                                                      [](int x, int y) { return 50.0f + x + y; }));
  struct Case {
    Names args;
    std::string out;
  };
  const Case cases[] = {{{"render", big, "-o", dir / "out.exr"}, dir / "out.exr"},
                        {{"render", big, "-o", dir / "out.png"}, dir / "out.png"},
                        {{"render", parts, "--part", "beauty", "-o", dir / "out.exr"}, dir / "out.exr"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[1] + " " + c.args.back());
    const Outcome done = vorel(dir, c.args + Names{"-q"});
    ASSERT_EQ(done.code, 0) << describe(done);
    const auto size = fs::file_size(c.out);
    std::ofstream(c.out) << "yesterday's render";
    const Outcome r = vorel(dir, c.args + Names{"-q"}, rlim_t(size / 2));
    EXPECT_EQ(r.code, 1) << describe(r);
    EXPECT_EQ(r.err.rfind("vorel: cannot write " + c.out + ": ", 0), 0u) << r.err;
    EXPECT_EQ(lines(r.err), 1) << r.err;
    EXPECT_EQ(bytes(c.out), "yesterday's render");
    EXPECT_EQ(leftovers(dir), Names{});
  }
}

TEST(NothingLost, SeveralOutputsAreAllReplacedOrNone) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 64, 48}, {0, 0, 64, 48},
                                                    [](int, int) { return 100.0f; }));
  // The sizes the two files come out at; a limit between them lets the first be written and
  // stops the second.
  ASSERT_EQ(vorel(dir, {"render", in, "-o", dir / "a.png", "-o", dir / "b.tif", "-q"}).code, 0);
  const auto small = fs::file_size(dir / "a.png"), large = fs::file_size(dir / "b.tif");
  ASSERT_LT(small + 200, large);
  std::ofstream(dir / "a.png") << "old a";
  std::ofstream(dir / "b.tif") << "old b";
  const Outcome r = vorel(dir, {"render", in, "-o", dir / "a.png", "-o", dir / "b.tif", "-q"},
                          rlim_t((small + large) / 2));
  EXPECT_EQ(r.code, 1) << describe(r);
  EXPECT_NE(r.err.find("cannot write " + dir / "b.tif"), std::string::npos) << r.err;
  EXPECT_EQ(bytes(dir / "a.png"), "old a");
  EXPECT_EQ(bytes(dir / "b.tif"), "old b");
  EXPECT_EQ(leftovers(dir), Names{});
}

TEST(NothingLost, AnyNameTheFileSystemTakesCanBeWritten) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 8, 6}, {0, 0, 8, 6},
                                                    [](int, int) { return 100.0f; }));
  const long most = ::pathconf(dir.path.c_str(), _PC_NAME_MAX);
  ASSERT_GT(most, 10);
  const std::string name = std::string(std::size_t(most) - 4, 'x') + ".exr";
  const Outcome r = vorel(dir, {"render", in, "-o", dir / name, "-q"});
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_EQ(readFlatImage(dir / name).box, (Rect{0, 0, 8, 6}));
  EXPECT_EQ(leftovers(dir), Names{});
}

TEST(NothingLost, EverySignalThatEndsARunRemovesItsTemporaryFiles) {
  TempDir dir;
  // Many outputs of a big image: writing them takes long enough to be caught in the middle.
  const std::string in = saved(dir / "in.exr", scene({0, 0, 900, 500}, {0, 0, 900, 500},
                                                    [](int x, int) { return float(50 + x); }));
  Names args = {"render", in, "-q", "--set", "outputType=Focus Matte"};
  for (int i = 0; i < 16; ++i)
    args.insert(args.end(), {"-o", dir / ("out" + std::to_string(i) + ".exr")});
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    SCOPED_TRACE(strsignal(sig));
    bool caught = false;
    const Outcome r = vorel(dir, args, RLIM_INFINITY, [&](pid_t pid) {
      // Waits for the first temporary file, then sends the signal.
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      while (!caught && std::chrono::steady_clock::now() < until) {
        caught = !leftovers(dir).empty();
        if (!caught)
          std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
      ::kill(pid, sig);
    });
    ASSERT_TRUE(caught) << "no temporary file was ever seen";
    EXPECT_EQ(r.signal, sig) << describe(r);
    EXPECT_EQ(leftovers(dir), Names{});
    EXPECT_EQ(dir.entries(), Names{"in.exr"});  // and no output, since not all were done
  }
}

// ---------------------------------------------------------------------------------------------
// Work and memory bounded by the data

namespace {

// A file whose header claims `width` x `height` pixels and holds none: the header of a small
// EXR (16 scanlines a block) with its data window rewritten, and a table of block offsets as long
// as the claim needs, so that the file opens.
std::string hostileHeader(const TempDir& dir, int width, int height) {
  const std::string path =
      saved(dir / "hostile.exr", scene({0, 0, 4, 4}, {0, 0, 4, 4}, [](int, int) { return 1.0f; }));
  std::string file = bytes(path);
  std::size_t at = 8, dataWindow = 0;  // attributes follow the magic number and version
  while (at < file.size() && file[at] != '\0') {
    const std::size_t nameEnd = file.find('\0', at), typeEnd = file.find('\0', nameEnd + 1);
    std::int32_t size = 0;
    std::memcpy(&size, file.data() + typeEnd + 1, 4);
    if (file.compare(at, nameEnd - at, "dataWindow") == 0)
      dataWindow = typeEnd + 5;
    at = typeEnd + 5 + std::size_t(size);
  }
  if (!dataWindow)
    return "";
  const std::int32_t box[4] = {0, 0, width - 1, height - 1};
  file.replace(dataWindow, 16, reinterpret_cast<const char*>(box), 16);
  file.resize(at + 1);
  file.append(std::size_t(height + 15) / 16 * 8, '\0');
  std::ofstream(path, std::ios::binary) << file;
  return path;
}

}  // namespace

TEST(BoundedWork, ImagesTooLargeForMemoryAreRefusedBeforeAnythingIsSpent) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 64, 48}, {0, 0, 64, 48},
                                                    [](int, int) { return 100.0f; }));
  // An honest file under a small budget.
  Outcome r = vorel(dir, {"render", in, "-o", dir / "out.exr", "--max-memory", "50K"});
  EXPECT_EQ(r.code, 2) << describe(r);
  EXPECT_NE(r.err.find("64x48 pixels of 5 channels need 120.0 KiB, more than the 50.0 KiB that "
                       "--max-memory allows"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(vorel(dir, {"render", in, "-o", dir / "out.exr", "--max-memory", "1G"}).code, 0);
  EXPECT_EQ(vorel(dir, {"render", in, "-o", dir / "x.exr", "--max-memory", "lots"}).code, 2);
  // A header that claims 100000 x 100000 pixels: refused against the memory there is.
  const std::string hostile = hostileHeader(dir, 100000, 100000);
  ASSERT_FALSE(hostile.empty());
  r = vorel(dir, {"render", hostile, "-o", dir / "x.exr"});
  EXPECT_EQ(r.code, 2) << describe(r);
  EXPECT_NE(r.err.find("100000x100000 pixels"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("of memory available"), std::string::npos) << r.err;
  EXPECT_FALSE(fs::exists(dir / "x.exr"));
}

TEST(BoundedWork, WhatIsNotAFileOrNotWholeIsRefused) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 64, 48}, {0, 0, 64, 48},
                                                    [](int, int) { return 100.0f; }));
  ASSERT_EQ(::mkfifo((dir / "fifo.exr").c_str(), 0644), 0);
  fs::create_directory(dir / "folder.exr");
  const std::string whole = bytes(in);
  std::ofstream(dir / "cut.exr", std::ios::binary) << whole.substr(0, whole.size() / 2);
  const std::pair<Names, std::string> cases[] = {
      {{"/dev/zero"}, "/dev/zero is a character device, not an image file"},
      {{dir / "fifo.exr"}, "fifo.exr is a FIFO, not an image file"},
      {{dir / "folder.exr"}, "folder.exr is a directory, not an image file"},
      {{in, "--kernel", dir / "fifo.exr"}, "fifo.exr is a FIFO"},
      {{in, "--mattes", "/dev/zero"}, "/dev/zero is a character device"},
      {{dir / "cut.exr"}, "(the file is truncated or damaged)"},
  };
  for (const auto& [inputs, says] : cases) {
    SCOPED_TRACE(inputs.front());
    Names args = {"render", "-o", dir / "out.exr"};
    args.insert(args.end(), inputs.begin(), inputs.end());
    const Outcome r = vorel(dir, args);
    EXPECT_EQ(r.code, 2) << describe(r);
    EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
    EXPECT_EQ(lines(r.err), 1) << r.err;
  }
  EXPECT_FALSE(fs::exists(dir / "out.exr"));
}

// A render that walked the display window (the CoC scan, the tables) would take minutes here.
TEST(BoundedWork, AHugeDisplayWindowCostsNoMoreThanItsData) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 1000000, 1000000}, {0, 0, 16, 16},
                                                    [](int, int) { return 1000.0f; }));
  const Outcome r = vorel(dir, {"render", in, "-o", dir / "out.exr", "-o", dir / "out.png",
                                "--set", "max_kernelsize=8", "--set", "multiplier=4"});
  EXPECT_EQ(r.code, 0) << describe(r);
  auto png = OIIO::ImageInput::open(dir / "out.png");
  ASSERT_TRUE(png);
  EXPECT_EQ(png->spec().width * png->spec().height, 16 * 16);
}

TEST(BoundedWork, TheQuickLookOfAHugeDisplayWindowIsItsData) {
  const FlatImage small = scene({0, 0, 1000000, 1000000}, {5, 7, 21, 23}, [](int, int) { return 1.0f; });
  EXPECT_EQ(quickLookWindow(small), (Rect{5, 7, 21, 23}));
  const FlatImage usual = scene({0, 0, 2048, 1556}, {5, 7, 21, 23}, [](int, int) { return 1.0f; });
  EXPECT_EQ(quickLookWindow(usual), usual.format);
}

// ---------------------------------------------------------------------------------------------
// Knob values that give no image

TEST(KnobValues, ValuesThatGiveNoImageAreRefusedNamingTheKnobAndItsRange) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 32, 24}, {0, 0, 32, 24},
                                                    [](int x, int) { return float(50 + 20 * x); }));
  const Names lens = {"--set", "realWorldLens=on"};
  struct Case {
    Names args;
    std::string says;
  };
  const Case cases[] = {
      {lens + Names{"--set", "fStop=0"}, "fStop 0 gives no image; use a value above 0"},
      {lens + Names{"--set", "fStop=-2"}, "fStop -2 gives no image"},
      {lens + Names{"--set", "focalPlane=0"}, "focalPlane 0 gives no image"},
      {lens + Names{"--set", "focalLength=0"}, "focalLength 0 gives no image"},
      {lens + Names{"--set", "worldScaleMultiplier=0"}, "worldScaleMultiplier 0"},
      {lens + Names{"--set", "filmFormat=Custom", "--set", "apertureWidth=0"}, "apertureWidth 0"},
      {{"--set", "fStop=1e39"}, "beyond the largest value a float knob holds"},
      {{"--set", "kChrAbbOff=1,1e40,1"}, "beyond the largest value"},
      {{"--set", "max_kernelsize=1"}, "max_kernelsize 1 gives no image; use a value 2 to 256"},
      {{"--set", "max_kernelsize=0"}, "max_kernelsize 1 gives no image"},
      {{"--set", "kAspectRatio=0"}, "kAspectRatio 0 gives no image"},
      {{"--set", "kAspectRatio=1000"}, "kAspectRatio 1000"},
      {{"--set", "kernelType=Aperture Blades", "--set", "kCurvature=-1e30"}, "kCurvature -1e+30"},
      {{"--set", "kChrAbb=1000"}, "kChrAbb 1000 gives no image; use a value -50 to 50"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const Outcome r = vorel(dir, Names{"render", in, "-o", dir / "out.exr", "-q"} + c.args);
    EXPECT_EQ(r.code, 2) << describe(r);
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_EQ(lines(r.err), 1) << r.err;
  }
  EXPECT_FALSE(fs::exists(dir / "out.exr"));
  // Values the panel allows that give an image still render; fStop 0 without the lens model is
  // never read; a camera's values replace the knobs.
  for (const Names& fine : {Names{"--set", "fStop=0"}, Names{"--set", "kAspectRatio=0.5"},
                            Names{"--set", "kCurvature=-1e30"},
                            Names{"--camera", "fstop=2", "--set", "fStop=0"}}) {
    const Outcome r = vorel(dir, Names{"render", in, "-o", dir / "out.exr", "-q"} + fine);
    EXPECT_EQ(r.code, 0) << ::testing::PrintToString(fine) << describe(r);
  }
}

TEST(KnobValues, ABlackRenderIsNotWrittenAndClampsAreToldOnce) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 32, 24}, {0, 0, 32, 24},
                                                    [](int x, int) { return float(50 + 40 * x); }));
  // Blades bent to nothing at these sizes.
  Outcome r = vorel(dir, {"render", in, "-o", dir / "out.exr", "--set", "multiplier=20", "--set",
                          "kernelType=Aperture Blades", "--set", "max_kernelsize=4", "--set",
                          "kCurvature=-10"});
  EXPECT_EQ(r.code, 1) << describe(r);
  EXPECT_NE(r.err.find("vorel: the render came out black where the input is not"),
            std::string::npos)
      << r.err;
  EXPECT_FALSE(fs::exists(dir / "out.exr"));
  // One focus region asked for, and nothing in it: black is the answer.
  r = vorel(dir, {"render", in, "-o", dir / "out.exr", "--set", "focalPlane=1", "--set",
                  "focusOutput=Front", "-q"});
  EXPECT_EQ(r.code, 0) << describe(r);
  // A clamp from a preset and again from --set: said once.
  std::ofstream(dir / "p.preset") << "max_kernelsize 300\n";
  r = vorel(dir, {"render", in, "-o", dir / "out.exr", "--preset", dir / "p.preset", "--set",
                  "max_kernelsize=999"});
  EXPECT_EQ(r.code, 0) << describe(r);
  const auto said = r.err.find("stored as 256");
  ASSERT_NE(said, std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("stored as 256", said + 1), std::string::npos) << r.err;
  // Far more threads than cores: a note, and the render.
  r = vorel(dir, {"render", in, "-o", dir / "out.exr", "--threads", "1000"});
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_NE(r.err.find("--threads 1000: using"), std::string::npos) << r.err;
}

// ---------------------------------------------------------------------------------------------
// Saying so when nothing would happen

namespace {

// A render as Blender writes it: every channel under a view layer's passes.
FlatImage blenderScene(const std::string& layer) {
  FlatImage s = scene({0, 0, 32, 24}, {0, 0, 32, 24}, [](int x, int) { return float(2 + x); });
  s.channels = {layer + ".Combined.R", layer + ".Combined.G", layer + ".Combined.B",
                layer + ".Combined.A", layer + ".Depth.Z"};
  return s;
}

double planeSum(const FlatImage& im, const std::string& channel) {
  double total = 0.0;
  for (float v : im.planes.at(std::size_t(im.channelIndex(channel))))
    total += v;
  return total;
}

}  // namespace

TEST(SayWhy, LayerChannelsAreFoundByTheirLayer) {
  TempDir dir;
  const FlatImage one = blenderScene("ViewLayer");
  const std::string in = saved(dir / "blender.exr", one);
  const Names blur = {"--set", "focalPlane=10", "--set", "focusRegionSize=2", "--set",
                      "multiplier=6", "--set", "max_kernelsize=12"};
  // The one layer is picked by itself, said so, and blurred; the output keeps the file's names.
  Outcome r = vorel(dir, Names{"render", in, "-o", dir / "auto.exr"} + blur);
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_NE(r.err.find("rendering layer ViewLayer"), std::string::npos) << r.err;
  const FlatImage automatic = readFlatImage(dir / "auto.exr");
  EXPECT_EQ(automatic.channels, one.channels);
  EXPECT_NE(planeSum(automatic, "ViewLayer.Combined.G"), 0.0);
  EXPECT_NE(automatic.planes[1], one.planes[1]) << "nothing was blurred";
  // Named by the layer, or by its channels' full names: the same render.
  r = vorel(dir, Names{"render", in, "-o", dir / "named.exr", "--layer", "ViewLayer", "--set",
                       "depthChannel=ViewLayer.Depth.Z", "--set",
                       "vorelChannels=ViewLayer.Combined.R,ViewLayer.Combined.G,"
                       "ViewLayer.Combined.B,ViewLayer.Combined.A"} +
                 blur);
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_EQ(readFlatImage(dir / "named.exr").planes, automatic.planes);

  // Two layers: no guess; the channels to blur are missing and the message lists the file's.
  FlatImage two = one;
  for (const std::string& n : blenderScene("Other").channels)
    two.channels.push_back(n);
  for (std::size_t c = 0; c < 5; ++c)
    two.planes.push_back(two.planes[c]);
  const std::string both = saved(dir / "two.exr", two);
  r = vorel(dir, {"render", both, "-o", dir / "x.exr", "--set", "depthChannel=ViewLayer.Depth.Z"});
  EXPECT_EQ(r.code, 2) << describe(r);
  EXPECT_NE(r.err.find("has none of the channels to blur"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("Other.Combined.R"), std::string::npos) << r.err;
  r = vorel(dir, {"render", both, "-o", dir / "x.exr"});
  EXPECT_EQ(r.code, 2) << describe(r);
  EXPECT_NE(r.err.find("no depth channel"), std::string::npos) << r.err;
  r = vorel(dir, {"render", both, "-o", dir / "x.exr", "--layer", "Nope"});
  EXPECT_EQ(r.code, 2) << describe(r);
  EXPECT_NE(r.err.find("has no layer 'Nope' with a Combined pass (it has Other, ViewLayer)"),
            std::string::npos)
      << r.err;
  r = vorel(dir, Names{"render", both, "-o", dir / "other.exr", "--layer", "Other", "-q"} + blur);
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_FALSE(fs::exists(dir / "x.exr"));
}

TEST(SayWhy, APartOfAMultiPartFileIsChosen) {
  TempDir dir;
  // Part 0 "matte" has no depth, part 1 "beauty" is the scene.
  const FlatImage beauty = scene({0, 0, 16, 12}, {0, 0, 16, 12}, [](int, int) { return 100.0f; });
  const std::string path = twoParts(dir / "parts.exr", beauty);
  Outcome r = vorel(dir, {"render", path, "-o", dir / "x.exr"});
  EXPECT_EQ(r.code, 2) << describe(r);
  EXPECT_NE(r.err.find("has 2 parts (0 'matte', 1 'beauty'); reading part 0"), std::string::npos)
      << r.err;
  for (const char* part : {"beauty", "1"}) {
    r = vorel(dir, {"render", path, "-o", dir / "out.exr", "--part", part});
    EXPECT_EQ(r.code, 0) << part << describe(r);
    // The output comes back with both parts, the chosen one rendered in its place.
    EXPECT_EQ(partNames(dir / "out.exr"), (Names{"matte", "beauty"})) << part;
    choosePart(dir / "out.exr", "beauty");
    EXPECT_EQ(readFlatImage(dir / "out.exr").planes[2], beauty.planes[2]) << part;
  }
  r = vorel(dir, {"render", path, "-o", dir / "x.exr", "--part", "2"});
  EXPECT_EQ(r.code, 2) << describe(r);
  EXPECT_NE(r.err.find("has no part '2' (it has 0 'matte', 1 'beauty')"), std::string::npos) << r.err;
}

TEST(SayWhy, ALensThatBlursNothingOrAFocusFarFromTheDepthsIsWarnedAbout) {
  TempDir dir;
  // Depths of 2 to 9 metres written in centimetres, 320 x 240 pixels on the default film back.
  const std::string in = saved(dir / "cm.exr", scene({0, 0, 320, 240}, {0, 0, 320, 240}, [](int x, int) {
                                 return 200.0f + 100.0f * float(x % 8);
                               }));
  const Names lens = {"--set", "realWorldLens=on", "--set", "focalPlane=500", "--set",
                      "fStop=1.4", "--set", "max_kernelsize=16"};
  // Read in the wrong unit, metres: the scene is kilometres away and the lens blurs nothing.
  Outcome r = vorel(dir, Names{"render", in, "-o", dir / "out.exr", "--set", "worldScale=m"} + lens);
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_NE(r.err.find("warning: the lens blurs nothing: its circle of confusion stays below one "
                       "pixel for depths 200 to 900 with the focus distance at 500 (worldScale "
                       "m); is the depth in the unit worldScale says? Set worldScale to the "
                       "depth's unit"),
            std::string::npos)
      << r.err;
  // In centimetres it blurs, and nothing is said.
  r = vorel(dir, Names{"render", in, "-o", dir / "out.exr"} + lens);
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_EQ(r.err.find("warning"), std::string::npos) << r.err;
  // A focal plane a thousand times beyond the farthest depth.
  r = vorel(dir, {"render", in, "-o", dir / "out.exr", "--set", "focalPlane=1000000"});
  EXPECT_NE(r.err.find("warning: the focal plane 1e+06 lies orders of magnitude outside the depth "
                       "range 200 to 900"),
            std::string::npos)
      << r.err;
}

TEST(SayWhy, BadPixelsAreCountedPerChannelAndCanBeReadAsZero) {
  TempDir dir;
  FlatImage im = scene({0, 0, 32, 24}, {0, 0, 32, 24}, [](int, int) { return 1000.0f; });
  for (int i = 0; i < 100; ++i)
    im.planes[1][std::size_t(i * 7)] = std::nanf("");
  im.planes[2][5] = INFINITY;
  const std::string in = saved(dir / "in.exr", im);
  const Names blur = {"--set", "focusRegionSize=10", "--set", "multiplier=4", "--set",
                      "max_kernelsize=8"};
  Outcome r = vorel(dir, Names{"render", in, "-o", dir / "kept.exr"} + blur);
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_NE(r.err.find("100 NaN in G, 1 infinite in B (they spread over the blur; --bad-pixels "
                       "zero reads them as 0)"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.err.find("depth"), std::string::npos) << r.err;  // depth is not to blame
  r = vorel(dir, Names{"render", in, "-o", dir / "zero.exr", "--bad-pixels", "zero"} + blur);
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_NE(r.err.find("100 NaN in G, 1 infinite in B (read as 0)"), std::string::npos) << r.err;
  const FlatImage kept = readFlatImage(dir / "kept.exr"), zero = readFlatImage(dir / "zero.exr");
  auto bad = [](const FlatImage& f) {
    std::size_t n = 0;
    for (const auto& p : f.planes)
      for (float v : p)
        n += !std::isfinite(v);
    return n;
  };
  EXPECT_GT(bad(kept), 101u);  // the specified arithmetic spreads them
  EXPECT_EQ(bad(zero), 0u);
  EXPECT_EQ(vorel(dir, {"render", in, "-o", dir / "x.exr", "--bad-pixels", "maybe"}).code, 2);
}

// ---------------------------------------------------------------------------------------------
// Small things a new user meets

TEST(NewUser, StandardOutputHoldsResultsOnlyAndTheVersionIsThere) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 8, 6}, {0, 0, 8, 6},
                                                    [](int, int) { return 100.0f; }));
  Outcome r = vorel(dir, {"render", in, "-o", dir / "out.exr"});
  EXPECT_EQ(r.code, 0) << describe(r);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.find("tzVorel v"), std::string::npos) << r.err;
  r = vorel(dir, {"knobs"});
  EXPECT_EQ(r.out.rfind("== Vorel ==", 0), 0u) << r.out.substr(0, 80);
  r = vorel(dir, {"--version"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "vorel 1.4.3 (tzVorel node 1.4.3)\n");
}

TEST(NewUser, ACameraWithNoValuesIsTheLensKnobsDefaults) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 32, 24}, {0, 0, 32, 24},
                                                    [](int x, int) { return float(20 + 12 * x); }));
  const Names small = {"--set", "max_kernelsize=16", "-q"};
  ASSERT_EQ(vorel(dir, Names{"render", in, "-o", dir / "camera.exr", "--camera", "fstop=6"} + small)
                .code,
            0);
  ASSERT_EQ(vorel(dir, Names{"render", in, "-o", dir / "knobs.exr", "--set", "realWorldLens=on"} +
                           small)
                .code,
            0);
  const FlatImage camera = readFlatImage(dir / "camera.exr"), knobs = readFlatImage(dir / "knobs.exr");
  EXPECT_EQ(camera.planes, knobs.planes);
  EXPECT_NE(camera.planes[0], readFlatImage(in).planes[0]) << "the lens blurred nothing";
}

// ---------------------------------------------------------------------------------------------
// Translation invariance: both windows of every input shifted by the same offset shift the
// output by it and change nothing else.

namespace {

struct Placement {
  Rect format, box;
};

Rect shifted(Rect r, int dx, int dy) {
  return {r.x + dx, r.y + dy, r.r + dx, r.t + dy};
}

// Colour and depth as functions of the position within the data window, so that a shifted scene
// holds the same pixels.
FlatImage placedScene(const Placement& p, int dx, int dy) {
  const Rect box = shifted(p.box, dx, dy);
  return image(shifted(p.format, dx, dy), box, {"R", "G", "B", "A", "Z"}, [&](int c, int x, int y) {
    const int u = x - box.x, v = y - box.y;
    const float colour[] = {0.1f + 0.05f * float((u * 7 + v * 3) % 17), 0.2f + 0.03f * float((u + 2 * v) % 11),
                            ((u / 3 + v / 3) % 2) ? 0.9f : 0.1f, 1.0f};
    return c < 4 ? colour[c] : 40.0f + 15.0f * float(u % 13) + 7.0f * float(v % 5);
  });
}

DeepImage placedDeepScene(const Placement& p, int dx, int dy) {
  const FlatImage flat = placedScene(p, dx, dy);
  DeepImage deep;
  deep.format = flat.format;
  deep.box = flat.box;
  deep.channels = {"R", "G", "B", "A", "Z", "ZBack"};
  deep.offsets = {0};
  for (int y = flat.box.y; y < flat.box.t; ++y)
    for (int x = flat.box.x; x < flat.box.r; ++x) {
      const std::size_t i = std::size_t(y - flat.box.y) * std::size_t(flat.box.w()) +
                            std::size_t(x - flat.box.x);
      const float z = flat.planes[4][i];
      // A half-transparent sample in front of an opaque one, every other pixel.
      const int u = x - flat.box.x;
      if (u % 2 == 0) {
        const float front[] = {flat.planes[0][i] * 0.5f, 0.1f, 0.2f, 0.5f, z, z + 1.0f};
        deep.samples.insert(deep.samples.end(), front, front + 6);
      }
      const float back[] = {0.3f, flat.planes[1][i], flat.planes[2][i], 1.0f, z + 30.0f, z + 31.0f};
      deep.samples.insert(deep.samples.end(), back, back + 6);
      deep.offsets.push_back(deep.samples.size() / 6);
    }
  return deep;
}

// How far two renders are from being the same image shifted by (dx, dy): windows and values.
std::string shiftDifference(const FlatImage& a, const FlatImage& b, int dx, int dy) {
  if (b.format != shifted(a.format, dx, dy) || b.box != shifted(a.box, dx, dy) ||
      a.channels != b.channels)
    return "windows or channels differ";
  std::size_t differ = 0, total = 0;
  for (std::size_t c = 0; c < a.planes.size(); ++c)
    for (std::size_t i = 0; i < a.planes[c].size(); ++i, ++total) {
      const float u = a.planes[c][i], v = b.planes[c][i];
      differ += !(u == v || std::fabs(u - v) <= 1e-4f * std::max(std::fabs(u), std::fabs(v)));
    }
  return differ ? std::to_string(differ) + " of " + std::to_string(total) + " values differ" : "";
}

const Names kShiftBlur = {"--set", "focalPlane=100", "--set", "focusRegionSize=20", "--set",
                          "multiplier=5", "--set", "max_kernelsize=12", "-q"};

void expectTranslationInvariance(const std::vector<Placement>& placements, bool deep) {
  TempDir dir;
  for (const Placement& p : placements)
    for (const auto& [dx, dy] : {std::pair<int, int>{-37, -5}, {13, 7}, {1000, -2000}}) {
      SCOPED_TRACE(::testing::PrintToString(std::make_tuple(p.format.x, p.format.r, p.box.x,
                                                            p.box.r, dx, dy)));
      FlatImage renders[2];
      for (int k = 0; k < 2; ++k) {
        const int ox = k ? dx : 0, oy = k ? dy : 0;
        Names args = {"render", "-o", dir / "out.exr"};
        if (deep) {
          writeDeepExr(dir / "in.exr", placedDeepScene(p, ox, oy));
          args.insert(args.end(), {"--deep", dir / "in.exr"});
        } else {
          args.push_back(saved(dir / "in.exr", placedScene(p, ox, oy)));
        }
        const Outcome r = vorel(dir, args + kShiftBlur);
        ASSERT_EQ(r.code, 0) << describe(r);
        renders[k] = readFlatImage(dir / "out.exr");
      }
      EXPECT_EQ(shiftDifference(renders[0], renders[1], dx, dy), "");
    }
}

}  // namespace

// The data window inside the display window, and partly outside it.
const std::vector<Placement> kPlacements = {{{0, 0, 40, 30}, {0, 0, 40, 30}},
                                            {{0, 0, 40, 30}, {-6, 4, 34, 36}}};
// The data window wholly outside the display window.
const std::vector<Placement> kOutside = {{{0, 0, 40, 30}, {50, -3, 90, 27}}};

TEST(TranslationInvariance, Flat) {
  expectTranslationInvariance(kPlacements, false);
}
TEST(TranslationInvariance, FlatOutsideTheDisplayWindow) {
  expectTranslationInvariance(kOutside, false);
}
TEST(TranslationInvariance, Deep) {
  expectTranslationInvariance(kPlacements, true);
}
TEST(TranslationInvariance, DeepOutsideTheDisplayWindow) {
  expectTranslationInvariance(kOutside, true);
}

TEST(SayWhy, AKernelImageWithoutAlphaShapesAlphaWithItsRed) {
  TempDir dir;
  const std::string in = saved(dir / "in.exr", scene({0, 0, 24, 16}, {0, 0, 24, 16},
                                                    [](int, int) { return 1000.0f; }));
  const std::string kernel = saved(
      dir / "k.exr", image({0, 0, 9, 9}, {0, 0, 9, 9}, {"R", "G", "B"}, [](int, int x, int y) {
        return float((x - 4) * (x - 4) + (y - 4) * (y - 4) <= 16);
      }));
  const Outcome r = vorel(dir, {"render", in, "-o", dir / "out.exr", "--kernel", kernel, "--set",
                                "focusRegionSize=10", "--set", "multiplier=4", "--set",
                                "max_kernelsize=12", "-q"});
  ASSERT_EQ(r.code, 0) << describe(r);
  const FlatImage out = readFlatImage(dir / "out.exr");
  for (float a : out.planes[std::size_t(out.channelIndex("A"))])
    ASSERT_NEAR(a, 1.0f, 1e-4f);  // an opaque input stays opaque
}
