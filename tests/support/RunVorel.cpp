#include "support/RunVorel.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "app/Cli.h"

namespace fs = std::filesystem;

namespace vorelapp {
namespace test {

namespace {

// The text as one word for the shell, whatever it holds.
std::string quoted(const std::string& text) {
  std::string q = "'";
  for (char c : text)
    q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

}  // namespace

Names operator+(Names a, const Names& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The process id keeps test programs that share a test name apart when ctest runs them at once.
TempDir::TempDir()
    : path(fs::temp_directory_path() /
           ("vorel_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) +
            "_" + std::to_string(::getpid()))) {
  fs::remove_all(path);
  fs::create_directories(path);
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path, ec);
}

Names TempDir::entries() const {
  Names names;
  for (const auto& e : fs::directory_iterator(path))
    names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// An image whose every value in the box is f(channel, x, y).
FlatImage image(Rect format, Rect box, Names channels,
                const std::function<float(int, int, int)>& f) {
  FlatImage im;
  im.format = format;
  im.box = box;
  im.channels = std::move(channels);
  im.allocate();
  for (int c = 0; c < int(im.channels.size()); ++c)
    for (int y = box.y; y < box.t; ++y)
      for (int x = box.x; x < box.r; ++x)
        im.row(c, y)[x - box.x] = f(c, x, y);
  return im;
}

std::string bytes(const std::string& path) {
  std::stringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

Outcome vorel(const Names& args, bool terminal) {
  std::vector<const char*> argv = {"vorel"};
  for (const std::string& a : args)
    argv.push_back(a.c_str());
  std::ostringstream out, err;
  const int code = vorelMain(int(argv.size()), argv.data(), out, err, terminal);
  return {code, out.str(), err.str()};
}

Outcome vorel(const TempDir& dir, const Names& args, bool binary, bool terminal) {
  if (binary)
    return vorelBinary(args, dir);
  const fs::path back = fs::current_path();
  fs::current_path(dir.path);
  const Outcome r = vorel(args, terminal);
  fs::current_path(back);
  return r;
}

Outcome vorelBinary(const Names& args, const TempDir& dir) {
  std::string command = "cd " + quoted(dir.path.string()) + " && " + quoted(VOREL_BINARY);
  for (const std::string& a : args)
    command += " " + quoted(a);
  const int status = std::system((command + " >.out 2>.err").c_str());
  Outcome r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, bytes(dir / ".out"), bytes(dir / ".err")};
  fs::remove(dir / ".out");
  fs::remove(dir / ".err");
  return r;
}

}  // namespace test
}  // namespace vorelapp
