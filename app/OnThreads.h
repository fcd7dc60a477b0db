#pragma once
// Jobs shared among a few threads of the renderer's own, for file work done outside the host's
// row loop (decoding, screening and flattening images).

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace vorelapp {

// How many threads of `threads` have work with `n` jobs.
inline unsigned workersFor(unsigned threads, std::size_t n) {
  return unsigned(std::max<std::size_t>(1, std::min<std::size_t>(std::max(1u, threads), n)));
}

// Runs job(i, worker) for every i in [0, n) on `workers` threads, `worker` naming the thread (for
// what each keeps of its own). The first exception a job throws is rethrown here, once every
// thread has stopped; the jobs not started by then are not run.
template <class Job>
void onThreads(unsigned workers, std::size_t n, const Job& job) {
  std::atomic<std::size_t> next{0};
  std::mutex failed;
  std::exception_ptr failure;
  auto work = [&](unsigned worker) {
    try {
      for (std::size_t i = next++; i < n; i = next++)
        job(i, worker);
    } catch (...) {
      std::lock_guard<std::mutex> lock(failed);
      if (!failure)
        failure = std::current_exception();
      next = n;
    }
  };
  std::vector<std::thread> pool;
  for (unsigned t = 1; t < workers; ++t) {
    try {
      pool.emplace_back(work, t);
    } catch (const std::system_error&) {
      break;  // the threads there are take the jobs one by one, so they do them all
    }
  }
  work(0);
  for (std::thread& t : pool)
    t.join();
  if (failure)
    std::rethrow_exception(failure);
}

}  // namespace vorelapp
