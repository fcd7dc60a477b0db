#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "DDImage/Thread.h"
#include "Access.h"

namespace DD {
namespace Image {

namespace {

unsigned hardwareThreads() {
  const unsigned n = std::thread::hardware_concurrency();
  return n ? n : 1;
}

std::mutex gMutex;
std::multimap<void*, std::thread>& running() {
  static std::multimap<void*, std::thread> m;
  return m;
}

}  // namespace

unsigned Thread::numCPUs = hardwareThreads();

bool Thread::spawn(ThreadFunction f, unsigned nThreads, void* userData) {
  if (!f || nThreads == 0)
    return false;
  std::vector<std::thread> made;
  made.reserve(nThreads);
  const bool fromOpen = insideOpen();
  for (unsigned i = 0; i < nThreads; ++i) {
    try {
      made.emplace_back([=]() {
        markOpenWorker(fromOpen);
        f(i, nThreads, userData);
      });
    } catch (...) {
      // No thread to be had: the work still has to be done, so do it here.
      f(i, nThreads, userData);
    }
  }
  std::lock_guard<std::mutex> lock(gMutex);
  for (auto& t : made)
    running().emplace(userData, std::move(t));
  return true;
}

void Thread::wait(void* userData) {
  std::vector<std::thread> mine;
  {
    std::lock_guard<std::mutex> lock(gMutex);
    auto range = running().equal_range(userData);
    for (auto it = range.first; it != range.second; ++it)
      mine.push_back(std::move(it->second));
    running().erase(range.first, range.second);
  }
  for (auto& t : mine)
    if (t.joinable())
      t.join();
}

}  // namespace Image
}  // namespace DD
