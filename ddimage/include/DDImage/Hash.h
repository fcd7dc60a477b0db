#pragma once
// A 64-bit running hash (FNV-1a over the appended values' bytes).

#include <cstddef>
#include <cstdint>
#include <string>

namespace DD {
namespace Image {

class Hash {
public:
  Hash() = default;
  void reset() { value_ = kSeed; }
  void append(const void* data, std::size_t size) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
      value_ ^= p[i];
      value_ *= 1099511628211ull;
    }
  }
  void append(int v) { append(&v, sizeof v); }
  void append(unsigned v) { append(&v, sizeof v); }
  void append(long v) { append(&v, sizeof v); }
  void append(unsigned long v) { append(&v, sizeof v); }
  void append(long long v) { append(&v, sizeof v); }
  void append(unsigned long long v) { append(&v, sizeof v); }
  void append(float v) { append(&v, sizeof v); }
  void append(double v) { append(&v, sizeof v); }
  void append(bool v) { const unsigned char b = v ? 1 : 0; append(&b, 1); }
  // The string's characters and its terminator, so "ab"+"c" differs from "a"+"bc".
  void append(const char* s) {
    if (!s) s = "";
    append(s, std::char_traits<char>::length(s) + 1);
  }
  void append(const std::string& s) { append(s.c_str()); }
  void append(const Hash& h) { append(h.value_); }

  std::uint64_t value() const { return value_; }
  bool operator==(const Hash& h) const { return value_ == h.value_; }
  bool operator!=(const Hash& h) const { return value_ != h.value_; }

private:
  static constexpr std::uint64_t kSeed = 14695981039346656037ull;
  std::uint64_t value_ = kSeed;
};

}  // namespace Image
}  // namespace DD
