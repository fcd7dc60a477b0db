#pragma once
// Frame numbers in file names and frame ranges, as compositors write them.
//
// A path's frame pattern is every run of '#' or '@' (one digit each: "####" is 1001, "@" is
// 7 or 1001) and every printf-style "%d" or "%0Nd". A range is a comma list of "A", "A-B" or
// "A-BxS" (every S-th frame from A up to B); frames may be negative ("-5--1").

#include <string>
#include <vector>

namespace vorelapp {

bool hasFramePattern(const std::string& path);

// The path with every frame pattern replaced by `frame`, zero padded to the pattern's width
// (a negative frame keeps its sign in front of the padding, as printf does).
std::string framePath(const std::string& path, int frame);

// The frames of a range in the order written, each once. Throws UsageError for a range that does
// not parse, runs backwards, has a step below 1, or names more than a million frames.
std::vector<int> parseFrames(const std::string& text);

// "1001-1003, 1007": frames as a short text, runs of consecutive frames joined.
std::string frameListText(const std::vector<int>& frames);

// "1001-1009x2,1020": frames as a range that parseFrames reads back as the same list in the same
// order, runs of three or more frames at one step joined.
std::string frameRangeText(const std::vector<int>& frames);

}  // namespace vorelapp
