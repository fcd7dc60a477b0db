// zlib's one-call compress and uncompress, answered by libdeflate.
//
// OpenEXR compresses and decompresses every ZIP and ZIPS chunk with these calls. libdeflate makes
// the same zlib streams in about half of zlib's time, which is most of what writing a frame
// costs. Defined in the vorel program itself, these definitions come before libz's for every
// library the program loads; the results and return codes are zlib's own, so a caller cannot tell
// the difference except by the time it takes and the exact bytes chosen. Only the program links
// this: a host or an interpreter loading our libraries keeps its own zlib.

#include <libdeflate.h>
#include <zlib.h>

#include <memory>

namespace {

struct FreeCompressor {
  void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
};
struct FreeDecompressor {
  void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// Making a compressor costs more than a small chunk: each thread keeps one per level it has used.
libdeflate_compressor* compressorFor(int level) {
  thread_local std::unique_ptr<libdeflate_compressor, FreeCompressor> byLevel[10];
  std::unique_ptr<libdeflate_compressor, FreeCompressor>& c = byLevel[level];
  if (!c)
    c.reset(libdeflate_alloc_compressor(level));
  return c.get();
}

libdeflate_decompressor* decompressor() {
  thread_local std::unique_ptr<libdeflate_decompressor, FreeDecompressor> d(libdeflate_alloc_decompressor());
  return d.get();
}

}  // namespace

extern "C" {

int compress2(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen, int level) {
  if (level == Z_DEFAULT_COMPRESSION)
    level = 6;
  if (level < 0 || level > 9)
    return Z_STREAM_ERROR;
  libdeflate_compressor* c = compressorFor(level);
  if (!c)
    return Z_MEM_ERROR;
  const std::size_t written = libdeflate_zlib_compress(c, source, sourceLen, dest, *destLen);
  if (written == 0)
    return Z_BUF_ERROR;
  *destLen = static_cast<uLongf>(written);
  return Z_OK;
}

int compress(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen) {
  return compress2(dest, destLen, source, sourceLen, Z_DEFAULT_COMPRESSION);
}

// zlib's codes: a stream that ends early or is damaged is Z_DATA_ERROR, one that does not fit
// Z_BUF_ERROR. On an error *destLen is 0, where zlib gives what it wrote before stopping; OpenEXR
// reads it only on success.
int uncompress(Bytef* dest, uLongf* destLen, const Bytef* source, uLong sourceLen) {
  libdeflate_decompressor* d = decompressor();
  if (!d)
    return Z_MEM_ERROR;
  std::size_t written = 0;
  const libdeflate_result r = libdeflate_zlib_decompress(d, source, sourceLen, dest, *destLen, &written);
  if (r == LIBDEFLATE_SUCCESS) {
    *destLen = static_cast<uLongf>(written);
    return Z_OK;
  }
  *destLen = 0;
  return r == LIBDEFLATE_INSUFFICIENT_SPACE ? Z_BUF_ERROR : Z_DATA_ERROR;
}

}  // extern "C"
