#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <vector>

#include "Tolan/HashMix.h"
#include "Tolan/Random.h"
#include "Tolan/Util.h"
#include "support/ChildProcess.h"

using Tolan::Impl::HashMix;
using ::testing::HasSubstr;

namespace {

// Reference fold written from the definition, byte by byte and without
// memcpy: whole words little-endian, then a short tail placed at the top of a
// zero word.
template <typename W>
W referenceHash(W h, const std::vector<unsigned char>& bytes) {
  constexpr size_t B = sizeof(W);
  const W prime = B == 4 ? W(16777619u) : W(0x100000001b3ull);
  size_t i = 0;
  for (; i + B <= bytes.size(); i += B) {
    W w = 0;
    for (size_t k = 0; k < B; ++k) w |= W(bytes[i + k]) << (8 * k);
    h = (h ^ w) * prime;
  }
  const size_t rest = bytes.size() - i;
  if (rest != 0) {
    W w = 0;
    for (size_t k = 0; k < rest; ++k) w |= W(bytes[i + k]) << (8 * (B - rest + k));
    h = (h ^ w) * prime;
  }
  return h;
}

template <typename W>
W byteWiseFnv1a(W h, const std::vector<unsigned char>& bytes) {
  const W prime = sizeof(W) == 4 ? W(16777619u) : W(0x100000001b3ull);
  for (unsigned char b : bytes) h = (h ^ b) * prime;
  return h;
}

std::vector<unsigned char> randomBytes(std::mt19937& gen, size_t n) {
  std::vector<unsigned char> v(n);
  for (auto& b : v) b = static_cast<unsigned char>(gen());
  return v;
}

}  // namespace

TEST(Hash, KnownValues) {
  EXPECT_EQ(Tolan::Util::hash(nullptr, 0), 0x811c9dc5u);
  EXPECT_EQ(Tolan::Util::hash64(nullptr, 0), 0xcbf29ce484222325ull);

  const unsigned char word[4] = {1, 0, 0, 0};
  EXPECT_EQ(Tolan::Util::hash(word, 4), uint32_t((0x811c9dc5u ^ 1u) * 16777619u));
  const unsigned char one = 1;
  EXPECT_EQ(Tolan::Util::hash(&one, 1), uint32_t((0x811c9dc5u ^ 0x01000000u) * 16777619u));
  EXPECT_EQ(Tolan::Util::hash64(&one, 1), (0xcbf29ce484222325ull ^ (1ull << 56)) * 0x100000001b3ull);
}

// Every length up to a few words, from every alignment, against the reference.
TEST(Hash, MatchesReferenceForAllLengthsAndAlignments) {
  std::mt19937 gen(1234);
  std::vector<unsigned char> buffer = randomBytes(gen, 64 + 8);
  for (size_t offset = 0; offset < 8; ++offset) {
    for (size_t len = 0; len <= 64; ++len) {
      const std::vector<unsigned char> bytes(buffer.begin() + offset, buffer.begin() + offset + len);
      const unsigned char* p = buffer.data() + offset;
      SCOPED_TRACE(testing::Message() << "offset " << offset << " len " << len);
      ASSERT_EQ(Tolan::Util::hash(p, len), referenceHash<uint32_t>(0x811c9dc5u, bytes));
      ASSERT_EQ(Tolan::Util::hash64(p, len), referenceHash<uint64_t>(0xcbf29ce484222325ull, bytes));
      HashMix<uint64_t> m;
      ASSERT_EQ(m.mix(p, len), Tolan::Util::hash64(p, len));
    }
  }
  // A long input exercises the loop rather than the tail.
  const auto big = randomBytes(gen, 4099);
  EXPECT_EQ(Tolan::Util::hash(big.data(), big.size()), referenceHash<uint32_t>(0x811c9dc5u, big));
  EXPECT_EQ(Tolan::Util::hash64(big.data(), big.size()), referenceHash<uint64_t>(0xcbf29ce484222325ull, big));
}

// Folding one word per step is deliberate: beyond a single byte the values
// must not be byte-wise FNV-1a's.
TEST(Hash, DiffersFromByteWiseFnv) {
  std::mt19937 gen(99);
  const auto bytes = randomBytes(gen, 16);
  EXPECT_NE(Tolan::Util::hash(bytes.data(), bytes.size()), byteWiseFnv1a<uint32_t>(0x811c9dc5u, bytes));
  EXPECT_NE(Tolan::Util::hash64(bytes.data(), bytes.size()), byteWiseFnv1a<uint64_t>(0xcbf29ce484222325ull, bytes));
}

TEST(Hash, AccumulatorChainsAndStrings) {
  const std::string a = "hello, ", b = "world and more";
  HashMix<uint32_t> m;
  m.mix(a);
  const uint32_t chained = m.mix(b);
  // Each call folds its own tail: the same as folding the two ranges one
  // after the other, not as hashing their concatenation.
  const uint32_t afterA = referenceHash<uint32_t>(0x811c9dc5u, std::vector<unsigned char>(a.begin(), a.end()));
  EXPECT_EQ(chained, referenceHash<uint32_t>(afterA, std::vector<unsigned char>(b.begin(), b.end())));
  EXPECT_EQ(m.value(), chained);

  HashMix<uint64_t> seeded(42);
  EXPECT_EQ(seeded.mixInline(b.data(), b.size()),
            referenceHash<uint64_t>(42, std::vector<unsigned char>(b.begin(), b.end())));
}

template <typename W, size_t N>
void expectFixedLenMatchesMix(const unsigned char* p) {
  HashMix<W> fixed(W(0x1234567)), ranged(W(0x1234567));
  EXPECT_EQ(fixed.template mixFixedLen<N>(p), ranged.mix(p, N)) << "width " << sizeof(W) * 8 << " N " << N;
}

TEST(Hash, FixedLengthEqualsRange) {
  const unsigned char bytes[9] = {0xde, 0xad, 0xbe, 0xef, 0x01, 0x80, 0x7f, 0xff, 0x55};
  for (size_t off = 0; off < 2; ++off) {  // also from an odd address
    expectFixedLenMatchesMix<uint32_t, 1>(bytes + off);
    expectFixedLenMatchesMix<uint32_t, 2>(bytes + off);
    expectFixedLenMatchesMix<uint32_t, 4>(bytes + off);
    expectFixedLenMatchesMix<uint32_t, 8>(bytes + off);
    expectFixedLenMatchesMix<uint64_t, 1>(bytes + off);
    expectFixedLenMatchesMix<uint64_t, 2>(bytes + off);
    expectFixedLenMatchesMix<uint64_t, 4>(bytes + off);
    expectFixedLenMatchesMix<uint64_t, 8>(bytes + off);
  }
  // The single byte goes to the top of the word.
  HashMix<uint32_t> m;
  EXPECT_EQ(m.mixFixedLen<1>(bytes), uint32_t((0x811c9dc5u ^ (0xdeu << 24)) * 16777619u));
}

TEST(Random, Rand64FollowsStandardEngineFromTheSeed) {
  Tolan::Random::setSeed();
  std::mt19937_64 reference(Tolan::Random::getSeed());
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(Tolan::Random::rand64(), reference()) << "draw " << i;

  // Re-seeding restarts the same sequence with the same seed.
  const uint32_t seed = Tolan::Random::getSeed();
  testing::internal::CaptureStderr();
  Tolan::Random::setSeed();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(Tolan::Random::getSeed(), seed);
  EXPECT_EQ(err, "Tolan::Random::setSeed(), setting seed to " + std::to_string(seed) + "\n");
  std::mt19937_64 again(seed);
  EXPECT_EQ(Tolan::Random::rand64(), again());
}

TEST(Random, RandomStringLengthAlphabetAndReproducibility) {
  const std::string alphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  Tolan::Random::setSeed();
  EXPECT_EQ(Tolan::Random::randomString(0), "");
  const std::string s = Tolan::Random::randomString(63 * 300);
  ASSERT_EQ(s.size(), 63u * 300);
  size_t nuls = 0;
  for (char c : s) {
    if (c == '\0') {
      ++nuls;
    } else {
      ASSERT_NE(alphabet.find(c), std::string::npos) << int(c);
    }
  }
  // About one in 63 is the terminating NUL; none at all would mean the quirk
  // was "fixed" (odds of that by chance: e^-300).
  EXPECT_GT(nuls, 0u);
  EXPECT_LT(nuls, 63u * 300 / 10);
  // Every letter shows up: the index covers the whole alphabet.
  for (char c : alphabet) EXPECT_NE(s.find(c), std::string::npos) << c;

  Tolan::Random::setSeed();
  const std::string first = Tolan::Random::randomString(100);
  Tolan::Random::setSeed();
  EXPECT_EQ(Tolan::Random::randomString(100), first);
}

// The seed variable is read once per process, so each run is its own process.
TEST(Random, SeedFromEnvironmentReproducesRuns) {
  auto run = [] {
    return Tolan::Test::ChildProcess(Tolan::Test::helperPath("ut_probe"))
        .arg("random")
        .arg("5")
        .env("KVTEST_RANDSEED", "5")
        .run();
  };
  const auto first = run(), second = run();
  ASSERT_TRUE(first.exitedWith(0)) << first.describe();
  ASSERT_TRUE(second.exitedWith(0)) << second.describe();
  EXPECT_EQ(first.out, second.out);
  EXPECT_THAT(first.err, HasSubstr("Tolan::Random::setSeed(), setting seed to 5\n"));

  std::ostringstream expected;
  expected << "seed 5\n";
  std::mt19937_64 reference(5);
  for (int i = 0; i < 5; ++i) expected << reference() << "\n";
  EXPECT_EQ(first.out, expected.str());

  const auto unseeded = Tolan::Test::ChildProcess(Tolan::Test::helperPath("ut_probe"))
                            .arg("random")
                            .arg("1")
                            .unsetEnv("KVTEST_RANDSEED")
                            .run();
  ASSERT_TRUE(unseeded.exitedWith(0)) << unseeded.describe();
  EXPECT_THAT(unseeded.err, HasSubstr("Tolan::Random::setSeed(), setting seed to "));
}

TEST(Base64, KnownValuesAndRoundTrip) {
  EXPECT_EQ(Tolan::Util::base64Encode(0), "AAAAAA");
  EXPECT_EQ(Tolan::Util::base64Encode(63), "=AAAAA");
  EXPECT_EQ(Tolan::Util::base64Encode(62), "_AAAAA");
  EXPECT_EQ(Tolan::Util::base64Encode(64), "ABAAAA");
  EXPECT_EQ(Tolan::Util::base64Encode(0xFFFFFFFFu), "=====D");

  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
  std::mt19937 gen(7);
  for (int i = 0; i < 1000; ++i) {
    const uint32_t v = gen();
    const std::string text = Tolan::Util::base64Encode(v);
    ASSERT_EQ(text.size(), 6u);
    uint64_t decoded = 0;
    for (size_t k = 0; k < 6; ++k) decoded |= uint64_t(alphabet.find(text[k])) << (6 * k);
    ASSERT_EQ(decoded, v) << text;
  }
}
