#pragma once
// The one way the per-frame work is spread over the host's threads: item i goes to thread
// i mod n. Each item is written by one thread only and depends on nothing another thread
// writes, so the result is the same bytes for any thread count.

#include <algorithm>

#include "DDImage/Thread.h"

namespace vorel {

// Calls body(i) for every i in [0, count) on up to Thread::numCPUs host threads, and returns when
// all of them are done.
template <class Body>
void parallelRows(int count, const Body& body) {
  if (count <= 0)
    return;
  struct Work {
    const Body* body;
    int count;
  } work{&body, count};
  const unsigned threads = std::max(1u, std::min<unsigned>(DD::Image::Thread::numCPUs, static_cast<unsigned>(count)));
  DD::Image::Thread::spawn(
      [](unsigned index, unsigned nThreads, void* data) {
        const Work& w = *static_cast<const Work*>(data);
        for (int i = static_cast<int>(index); i < w.count; i += static_cast<int>(nThreads))
          (*w.body)(i);
      },
      threads, &work);
  DD::Image::Thread::wait(&work);
}

}  // namespace vorel
