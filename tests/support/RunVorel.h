#pragma once
// Running vorel as the tests of the command line, the shots and the farm need it: in this process
// through the program's own entry, or as the built program a user runs, each in a directory of
// its own per test.

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "app/ImageFiles.h"

namespace vorelapp {
namespace test {

using Names = std::vector<std::string>;

Names operator+(Names a, const Names& b);

// A directory of its own per test, emptied first and removed afterwards.
struct TempDir {
  const std::filesystem::path path;
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  std::string operator/(const std::string& name) const { return (path / name).string(); }
  // Names of everything in the directory, sorted, to see that nothing was left behind.
  Names entries() const;
};

// An image whose every value in the box is f(channel, x, y).
FlatImage image(Rect format, Rect box, Names channels,
                const std::function<float(int, int, int)>& f);

// A file's whole content.
std::string bytes(const std::string& path);

struct Outcome {
  int code;  // the exit status; -1 if the program did not exit by itself
  std::string out, err;
};

// vorel's entry in this process, which is quicker than the program: its start-up (OpenImageIO's)
// costs about as much as a small shot frame.
Outcome vorel(const Names& args, bool terminal = false);

// vorel run in `dir` (relative paths are the directory's), as the built program when `binary`,
// else in this process.
Outcome vorel(const TempDir& dir, const Names& args, bool binary = false, bool terminal = false);

// The built program as a user runs it, in `dir`.
Outcome vorelBinary(const Names& args, const TempDir& dir);

}  // namespace test
}  // namespace vorelapp
