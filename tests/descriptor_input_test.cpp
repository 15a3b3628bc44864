// The probe's input over a descriptor: the bytes it hands libavformat must be the file's own at every
// position, whatever mix of runs, seeks and ends the demuxer makes; and a seek must not cost more than
// the read asked for.
#include <fcntl.h>
#include <unistd.h>

#include <random>

#include "formats_testutil.h"
#include "meta/descriptor_input.h"
#include "platform/fd_owner.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

using namespace formats_test;

namespace {

// A byte that differs from its neighbours and repeats only far apart.
unsigned char PatternByte(int64_t at) { return static_cast<unsigned char>((at * 131 + (at >> 9) * 7 + (at >> 17)) & 0xFF); }

// A file of `size` pattern bytes, opened for reading.
int PatternFile(const TempDir& dir, int64_t size) {
  std::string bytes(static_cast<size_t>(size), '\0');
  for (int64_t i = 0; i < size; ++i) bytes[static_cast<size_t>(i)] = static_cast<char>(PatternByte(i));
  WriteBytes(dir.File("pattern.bin"), bytes);
  return open(dir.File("pattern.bin").c_str(), O_RDONLY | O_CLOEXEC);
}

// Reading the counter (BytesReadSoFar) counts too: some 100 bytes.
constexpr long long kCounterSlack = 1024;

TEST(DescriptorInputBytes, EveryReadGivesTheFilesBytesAtItsPositionThroughRunsSeeksAndTheEnd) {
  TempDir dir;
  const int64_t size = 3 * kLongestRunRead + 12345;  // runs reach the longest refill and end mid-refill
  FdOwner fd(PatternFile(dir, size));
  ASSERT_GE(fd.get(), 0);
  DescriptorInput in;
  in.fd = fd.get();
  ASSERT_EQ(DescriptorInputSeek(&in, 0, AVSEEK_SIZE), size);

  std::mt19937 random(7);
  std::vector<uint8_t> buf(70000);
  int64_t expected = 0;  // where the input should stand
  for (int step = 0; step < 4000; ++step) {
    const unsigned op = random() % 10;
    if (op == 0) {  // anywhere, past the end included
      expected = static_cast<int64_t>(random() % static_cast<unsigned>(size + 100));
      ASSERT_EQ(DescriptorInputSeek(&in, expected, SEEK_SET), expected);
    } else if (op == 1) {  // a little back or on: often inside what the last refill holds
      int64_t delta = static_cast<int64_t>(random() % 80000) - 40000;
      if (expected + delta < 0) delta = -expected;
      expected += delta;
      ASSERT_EQ(DescriptorInputSeek(&in, delta, SEEK_CUR), expected);
    } else if (op == 2) {  // the tail, as index and end-of-stream scans read it
      expected = size - static_cast<int64_t>(random() % 300000 % size);
      ASSERT_EQ(DescriptorInputSeek(&in, expected - size, SEEK_END), expected);
    }
    // Mostly whole buffers, as libavformat reads, sometimes odd small or larger sizes.
    const int want = op < 6 ? 32768 : 1 + static_cast<int>(random() % buf.size());
    const int n = DescriptorInputRead(&in, buf.data(), want);
    if (expected >= size) {
      ASSERT_EQ(n, AVERROR_EOF) << "step " << step << " at " << expected;
      continue;
    }
    // A short count is allowed (libavformat reads on), but never nothing before the end.
    ASSERT_GT(n, 0) << "step " << step << " at " << expected;
    ASSERT_LE(n, std::min<int64_t>(want, size - expected)) << "step " << step;
    for (int i = 0; i < n; ++i)
      ASSERT_EQ(buf[static_cast<size_t>(i)], PatternByte(expected + i)) << "step " << step << " byte " << i << " at "
                                                                         << expected;
    expected += n;
    ASSERT_EQ(in.position, expected);
  }
  EXPECT_EQ(DescriptorInputSeek(&in, -1, SEEK_SET), AVERROR(EINVAL));
  EXPECT_EQ(DescriptorInputSeek(&in, 0, 42), AVERROR(EINVAL));
}

TEST(DescriptorInputBytes, ASeekReadsOnlyWhatIsAskedAndARunAtMostOneRefillMore) {
  TempDir dir;
  const int64_t size = 8 * kLongestRunRead;
  FdOwner fd(PatternFile(dir, size));
  ASSERT_GE(fd.get(), 0);
  DescriptorInput in;
  in.fd = fd.get();
  std::vector<uint8_t> buf(32768);

  // Reads after seeks, as a demuxer reads a header at the end or an index.
  for (int64_t at : {size - 100000, int64_t{4096}, size / 2, size - 32768}) {
    DescriptorInputSeek(&in, at, SEEK_SET);
    const long long before = BytesReadSoFar();
    ASSERT_EQ(DescriptorInputRead(&in, buf.data(), 32768), 32768);
    EXPECT_NEAR(BytesReadSoFar() - before, 32768, kCounterSlack) << "at " << at;
  }

  // A run of whole buffers from the start over 1 MiB: the refills may read ahead, but never more than
  // one longest refill past what was taken.
  DescriptorInputSeek(&in, 0, SEEK_SET);
  const long long before = BytesReadSoFar();
  int64_t taken = 0;
  for (int i = 0; i < 1000 && taken < 4 * kLongestRunRead; ++i) {
    const int n = DescriptorInputRead(&in, buf.data(), 32768);
    ASSERT_GT(n, 0);
    taken += n;
  }
  const long long read = BytesReadSoFar() - before;
  EXPECT_GE(read, taken);
  EXPECT_LE(read, taken + kLongestRunRead + kCounterSlack);
}

}  // namespace
