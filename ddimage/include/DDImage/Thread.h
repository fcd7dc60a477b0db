#pragma once

namespace DD {
namespace Image {

class Thread {
public:
  typedef void (*ThreadFunction)(unsigned index, unsigned nThreads, void* userData);

  // Runs f(i, n, userData) for i in 0..n-1, each on a thread of its own. False (and nothing run)
  // for n == 0 or no function.
  static bool spawn(ThreadFunction f, unsigned nThreads, void* userData);
  // Returns when every thread spawned with userData has ended.
  static void wait(void* userData);
  // The machine's hardware thread count (at least 1). Assignable.
  static unsigned numCPUs;
};

}  // namespace Image
}  // namespace DD
