// The vorel program answers zlib's one-call codec with libdeflate. These check it against zlib's
// streaming calls, which it leaves alone: the streams must be zlib's, both ways, and the return
// codes those OpenEXR tells a damaged file by.

#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<Bytef>;

// Something like a chunk of float pixels: smooth, with a little noise in the low bits.
Bytes pixelBytes(std::size_t floats, unsigned seed) {
  std::vector<float> values(floats);
  std::uint32_t state = seed * 2654435761u + 1u;
  for (std::size_t i = 0; i < floats; ++i) {
    state = state * 1664525u + 1013904223u;
    values[i] = std::sin(float(i) * 0.01f) + float(state >> 20) * 1e-6f;
  }
  Bytes bytes(floats * sizeof(float));
  if (floats)
    std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

// zlib's own inflate, by stream: the reference decoder.
Bytes inflateByStream(const Bytes& packed, std::size_t size) {
  Bytes out(size + 16);
  z_stream z{};
  EXPECT_EQ(inflateInit(&z), Z_OK);
  z.next_in = const_cast<Bytef*>(packed.data());
  z.avail_in = uInt(packed.size());
  z.next_out = out.data();
  z.avail_out = uInt(out.size());
  EXPECT_EQ(inflate(&z, Z_FINISH), Z_STREAM_END);
  out.resize(z.total_out);
  inflateEnd(&z);
  return out;
}

Bytes deflateByStream(const Bytes& data, int level) {
  Bytes out(compressBound(uLong(data.size())));
  z_stream z{};
  EXPECT_EQ(deflateInit(&z, level), Z_OK);
  z.next_in = const_cast<Bytef*>(data.data());
  z.avail_in = uInt(data.size());
  z.next_out = out.data();
  z.avail_out = uInt(out.size());
  EXPECT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

Bytes compressed(const Bytes& data, int level) {
  uLongf size = compressBound(uLong(data.size()));
  Bytes out(size);
  EXPECT_EQ(compress2(out.data(), &size, data.data(), uLong(data.size()), level), Z_OK);
  out.resize(size);
  return out;
}

TEST(DeflateCalls, StreamsAreZlibsBothWaysAtEveryLevel) {
  for (std::size_t floats : {std::size_t(0), std::size_t(1), std::size_t(16 * 4096 * 5)}) {
    const Bytes data = pixelBytes(floats, unsigned(floats));
    for (int level : {Z_DEFAULT_COMPRESSION, 0, 1, 4, 6, 9}) {
      SCOPED_TRACE("floats " + std::to_string(floats) + ", level " + std::to_string(level));
      EXPECT_EQ(inflateByStream(compressed(data, level), data.size()), data);
      const Bytes packed = deflateByStream(data, level);
      Bytes back(data.size() + 1);
      uLongf size = uLongf(back.size());
      ASSERT_EQ(uncompress(back.data(), &size, packed.data(), uLong(packed.size())), Z_OK);
      back.resize(size);
      EXPECT_EQ(back, data);
    }
  }
  // compress is compress2 at the default level.
  const Bytes data = pixelBytes(1000, 7);
  uLongf size = compressBound(uLong(data.size()));
  Bytes out(size);
  ASSERT_EQ(compress(out.data(), &size, data.data(), uLong(data.size())), Z_OK);
  out.resize(size);
  EXPECT_EQ(inflateByStream(out, data.size()), data);
}

TEST(DeflateCalls, FailuresAreReportedWithZlibsCodes) {
  const Bytes data = pixelBytes(4096, 3);
  const Bytes packed = compressed(data, 4);
  Bytes out(data.size());

  uLongf size = 16;  // no room for the stream
  EXPECT_EQ(compress2(out.data(), &size, data.data(), uLong(data.size()), 4), Z_BUF_ERROR);
  size = uLongf(out.size());
  EXPECT_EQ(compress2(out.data(), &size, data.data(), uLong(data.size()), 10), Z_STREAM_ERROR);

  size = uLongf(data.size() - 1);  // one byte short of the pixels
  EXPECT_EQ(uncompress(out.data(), &size, packed.data(), uLong(packed.size())), Z_BUF_ERROR);

  size = uLongf(out.size());  // a truncated file
  EXPECT_EQ(uncompress(out.data(), &size, packed.data(), uLong(packed.size() / 2)), Z_DATA_ERROR);

  Bytes damaged = packed;  // the checksum no longer matches
  damaged[damaged.size() / 2] ^= 0x5a;
  size = uLongf(out.size());
  EXPECT_EQ(uncompress(out.data(), &size, damaged.data(), uLong(damaged.size())), Z_DATA_ERROR);

  const Bytes noise = pixelBytes(64, 11);  // not a zlib stream at all
  size = uLongf(out.size());
  EXPECT_EQ(uncompress(out.data(), &size, noise.data(), uLong(noise.size())), Z_DATA_ERROR);
}

// OpenEXR calls these from its pool's threads, each level kept per thread.
TEST(DeflateCalls, ThreadsAtDifferentLevelsDoNotMix) {
  std::vector<std::thread> threads;
  std::vector<int> good(4, 0);
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, &good] {
      for (int i = 0; i < 20; ++i) {
        const Bytes data = pixelBytes(20000, unsigned(t * 100 + i));
        const int level = (t + i) % 2 ? 1 : 6;
        uLongf size = compressBound(uLong(data.size()));
        Bytes out(size), back(data.size());
        if (compress2(out.data(), &size, data.data(), uLong(data.size()), level) != Z_OK)
          return;
        uLongf backSize = uLongf(back.size());
        if (uncompress(back.data(), &backSize, out.data(), size) != Z_OK || back != data)
          return;
      }
      good[std::size_t(t)] = 1;
    });
  for (std::thread& t : threads)
    t.join();
  EXPECT_EQ(good, std::vector<int>(4, 1));
}

}  // namespace
