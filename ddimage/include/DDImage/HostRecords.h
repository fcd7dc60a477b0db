#pragma once
// Host side: what an op was asked for, kept so that tests can check it. Not part of the SDK.

#include "DDImage/Box.h"
#include "DDImage/ChannelSet.h"

namespace DD {
namespace Image {
namespace host {

struct Request {
  Box area;
  ChannelSet channels;
  int count = 1;
};

struct Access;  // the host's back door into ops (Host.cpp)

}  // namespace host
}  // namespace Image
}  // namespace DD
