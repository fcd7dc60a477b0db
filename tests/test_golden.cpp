// The reference renders under tests/ref/: each case of cases.txt rendered again, in-process, must
// give back every value of its reference file bit for bit. scripts/regen-golden rewrites them
// when an output is meant to change.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "app/Cli.h"
#include "app/ImageFiles.h"

namespace fs = std::filesystem;

namespace {

struct Case {
  std::string name;
  std::vector<std::string> args;
};

// "name: arguments", words split on spaces, double quotes keeping spaces, {ref} the folder.
std::vector<Case> readCases(const std::string& ref) {
  std::vector<Case> cases;
  std::ifstream in(ref + "/cases.txt");
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#')
      continue;
    const std::size_t colon = line.find(':');
    Case c{line.substr(0, colon), {}};
    std::string word;
    bool quoted = false, any = false;
    for (char ch : line.substr(colon + 1) + " ") {
      if (ch == '"') {
        quoted = !quoted;
        any = true;
      } else if (ch == ' ' && !quoted) {
        if (any)
          c.args.push_back(word);
        word.clear();
        any = false;
      } else {
        word += ch;
        any = true;
      }
    }
    for (std::string& a : c.args)
      for (std::size_t at; (at = a.find("{ref}")) != std::string::npos;)
        a.replace(at, 5, ref);
    cases.push_back(c);
  }
  return cases;
}

// The first value that differs, channel by channel; empty when the two are the same.
std::string firstDifference(const vorelapp::FlatImage& got, const vorelapp::FlatImage& want) {
  if (got.channels != want.channels || got.planes.size() != want.planes.size())
    return "other channels";
  for (std::size_t c = 0; c < want.planes.size(); ++c) {
    if (got.planes[c].size() != want.planes[c].size())
      return "another size";
    for (std::size_t i = 0; i < want.planes[c].size(); ++i)
      if (std::memcmp(&got.planes[c][i], &want.planes[c][i], sizeof(float)) != 0) {
        std::ostringstream s;
        s << want.channels[c] << " at index " << i << ": " << got.planes[c][i] << " against "
          << want.planes[c][i];
        return s.str();
      }
  }
  return "";
}

TEST(Golden, EveryReferenceRenderComesBackBitForBit) {
  const std::string ref = VOREL_REF_DIR;
  const std::vector<Case> cases = readCases(ref);
  ASSERT_GE(cases.size(), 6u);
  const fs::path out = fs::temp_directory_path() / ("vorel_golden_" + std::to_string(::getpid()));
  fs::create_directories(out);
  for (const Case& c : cases) {
    const std::string target = (out / (c.name + ".exr")).string();
    std::vector<std::string> args = {"vorel", "render"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    args.insert(args.end(), {"-o", target, "-q"});
    std::vector<const char*> argv;
    for (const std::string& a : args)
      argv.push_back(a.c_str());
    std::ostringstream said, complained;
    ASSERT_EQ(vorelapp::vorelMain(int(argv.size()), argv.data(), said, complained, false), 0)
        << c.name << ": " << complained.str();
    const std::string difference = firstDifference(vorelapp::readFlatImage(target),
                                                   vorelapp::readFlatImage(ref + "/" + c.name + ".exr"));
    EXPECT_EQ(difference, "") << c.name;
  }
  fs::remove_all(out);
}

}  // namespace
