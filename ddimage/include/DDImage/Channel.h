#pragma once
// Channel numbers. Names are registered at run time: the fixed ones below, and any other name
// gets the next free number, in the order first seen.

namespace DD {
namespace Image {

enum Channel {
  Chan_Black = 0,
  Chan_Red = 1,
  Chan_Green = 2,
  Chan_Blue = 3,
  Chan_Alpha = 4,
  Chan_Z = 5,
  Chan_DeepFront = 16,
  Chan_DeepBack = 17,
  Chan_Last = 1023
};

// Finds the channel of that name, creating it if it is new. Null, empty or a full table give
// Chan_Black. Thread-safe.
Channel getChannel(const char* name);
// Finds without creating: Chan_Black when the name is unknown.
Channel findChannel(const char* name);
// The channel's name: "none" for Chan_Black, "unnamed" for a number no name was given.
const char* getName(Channel z);

}  // namespace Image
}  // namespace DD
