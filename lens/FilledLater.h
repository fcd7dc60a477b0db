#pragma once
// Storage for per-frame tables that the host's threads fill in full. A std::vector would clear
// every element on one thread first; here the elements are left as they come, so each page is
// first touched by the thread that fills it, and large tables sit on huge pages. First touches of
// fresh memory are what such a table mostly costs (on a virtual machine, several times its
// filling), so they are spread over the threads and made few.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include <sys/mman.h>

namespace vorel {

template <class T>
struct FilledLaterAllocator {
  using value_type = T;

  FilledLaterAllocator() = default;
  template <class U>
  FilledLaterAllocator(const FilledLaterAllocator<U>&) noexcept {}

  T* allocate(std::size_t n) {
    if (n > std::size_t(-1) / sizeof(T))
      throw std::bad_array_new_length();
    const std::size_t bytes = n * sizeof(T);
    if (bytes < kHugePage)
      return static_cast<T*>(::operator new(bytes));
    // Aligned, so that the advice covers every whole huge page of the table; the part of one
    // past them keeps small pages, and so no more memory than the table's own.
    void* p = nullptr;
    if (::posix_memalign(&p, kHugePage, bytes) != 0)
      throw std::bad_alloc();
#ifdef MADV_HUGEPAGE
    ::madvise(p, bytes / kHugePage * kHugePage, MADV_HUGEPAGE);
#endif
    return static_cast<T*>(p);
  }
  void deallocate(T* p, std::size_t n) noexcept {
    if (n * sizeof(T) < kHugePage)
      ::operator delete(p);
    else
      std::free(p);
  }

  // Made without a value: left as the memory holds it, for the filling thread to write.
  template <class U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }

  template <class U>
  bool operator==(const FilledLaterAllocator<U>&) const noexcept {
    return true;
  }
  template <class U>
  bool operator!=(const FilledLaterAllocator<U>&) const noexcept {
    return false;
  }

private:
  static constexpr std::size_t kHugePage = std::size_t(2) << 20;
};

// A table whose resize leaves new elements unset: every one must be written before it is read.
template <class T>
using FilledLater = std::vector<T, FilledLaterAllocator<T>>;

}  // namespace vorel
