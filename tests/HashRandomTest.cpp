// Word-wise hashing, the seeded generator, random strings, base64 numbers.

#include "Tolan/HashMix.h"
#include "Tolan/Random.h"
#include "Tolan/Util.h"
#include "support/Support.h"

using namespace TolanTest;
using Tolan::Impl::HashMix;
using Bytes = std::vector<unsigned char>;
constexpr uint32_t kBasis32 = 0x811c9dc5u, kPrime32 = 16777619u;
constexpr uint64_t kBasis64 = 0xcbf29ce484222325ull, kPrime64 = 0x100000001b3ull;

// The fold written from its definition, byte by byte: whole words
// little-endian, then a short tail placed at the top of a zero word.
template <typename W>
W referenceHash(W h, const Bytes& bytes) {
  constexpr size_t B = sizeof(W);
  const W prime = B == 4 ? W(kPrime32) : W(kPrime64);
  for (size_t i = 0; i < bytes.size(); i += B) {
    const size_t n = std::min(B, bytes.size() - i);
    W w = 0;
    for (size_t k = 0; k < n; ++k) w |= W(bytes[i + k]) << (8 * (B - n + k));
    h = (h ^ w) * prime;
  }
  return h;
}

template <typename W, size_t... N>
void expectFixedLenMatchesMix(const unsigned char* p, std::index_sequence<N...>) {
  const W fixed[] = {HashMix<W>(W(0x1234567)).template mixFixedLen<N>(p)...};
  const W ranged[] = {HashMix<W>(W(0x1234567)).mix(p, N)...};
  EXPECT_THAT(fixed, ElementsAreArray(ranged)) << sizeof(W) << "-byte words";
}

// Every length up to a few words, from every alignment. Folding a word per
// step also makes these differ from byte-wise FNV-1a beyond one byte.
TEST(Hash, KnownValuesAndTheReferenceForAllLengthsAndAlignments) {
  EXPECT_EQ(Tolan::Util::hash(nullptr, 0), kBasis32);
  EXPECT_EQ(Tolan::Util::hash64(nullptr, 0), kBasis64);
  const unsigned char word[4] = {1, 0, 0, 0};
  EXPECT_EQ(Tolan::Util::hash(word, 4), uint32_t((kBasis32 ^ 1u) * kPrime32));
  EXPECT_EQ(Tolan::Util::hash(word, 1), uint32_t((kBasis32 ^ 0x01000000u) * kPrime32));
  EXPECT_EQ(Tolan::Util::hash64(word, 1), (kBasis64 ^ (1ull << 56)) * kPrime64);
  std::mt19937 gen(1234);
  Bytes buffer(64 + 8);
  for (auto& b : buffer) b = static_cast<unsigned char>(gen());
  for (size_t offset = 0; offset < 8; ++offset) {
    for (size_t len = 0; len <= 64; ++len) {
      const unsigned char* p = buffer.data() + offset;
      const Bytes bytes(p, p + len);
      SCOPED_TRACE(Message() << "offset " << offset << " len " << len);
      ASSERT_EQ(Tolan::Util::hash(p, len), referenceHash<uint32_t>(kBasis32, bytes));
      ASSERT_EQ(Tolan::Util::hash64(p, len), referenceHash<uint64_t>(kBasis64, bytes));
      ASSERT_EQ(HashMix<uint64_t>().mix(p, len), Tolan::Util::hash64(p, len));
    }
    expectFixedLenMatchesMix<uint32_t>(buffer.data() + offset, std::index_sequence<1, 2, 4, 8>());
    expectFixedLenMatchesMix<uint64_t>(buffer.data() + offset, std::index_sequence<1, 2, 4, 8>());
  }
  // Each call folds its own tail: chained calls are not the hash of the concatenation.
  const std::string a = "hello, ", b = "world and more";
  HashMix<uint32_t> m;
  m.mix(a);
  const uint32_t chained = m.mix(b);
  EXPECT_EQ(chained, referenceHash<uint32_t>(referenceHash<uint32_t>(kBasis32, Bytes(a.begin(), a.end())),
                                             Bytes(b.begin(), b.end())));
  EXPECT_EQ(m.value(), chained);
  EXPECT_EQ(HashMix<uint64_t>(42).mixInline(b.data(), b.size()), referenceHash<uint64_t>(42, Bytes(b.begin(), b.end())));
}

TEST(Random, Rand64FollowsTheStandardEngineAndStringsKeepTheirQuirk) {
  uint32_t seed = 0;
  const std::string err = traceOf([&] {
    Tolan::Random::setSeed();
    seed = Tolan::Random::getSeed();
    std::mt19937_64 reference(seed);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(Tolan::Random::rand64(), reference()) << "draw " << i;
    Tolan::Random::setSeed();  // re-seeding restarts the same sequence with the same seed
    EXPECT_EQ(Tolan::Random::rand64(), std::mt19937_64(seed)());
  });
  const std::string announced = "Tolan::Random::setSeed(), setting seed to " + std::to_string(seed) + "\n";
  EXPECT_EQ(err, announced + announced);

  const std::string alphabet = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  EXPECT_EQ(Tolan::Random::randomString(0), "");
  const std::string s = Tolan::Random::randomString(63 * 300);
  ASSERT_EQ(s.size(), 63u * 300);
  for (char c : s) ASSERT_TRUE(c == '\0' || alphabet.find(c) != std::string::npos) << int(c);
  // About one in 63 is the terminating NUL; none at all would mean the quirk
  // was "fixed" (odds of that by chance: e^-300).
  const auto nuls = std::count(s.begin(), s.end(), '\0');
  EXPECT_GT(nuls, 0);
  EXPECT_LT(nuls, 63 * 300 / 10);
  for (char c : alphabet) EXPECT_NE(s.find(c), std::string::npos) << c;
  traceOf([] {
    Tolan::Random::setSeed();
    const std::string first = Tolan::Random::randomString(100);
    Tolan::Random::setSeed();
    EXPECT_EQ(Tolan::Random::randomString(100), first);
  });
}

// The seed variable is read once per process, so each run is its own process.
TEST(Random, SeedFromEnvironmentReproducesRuns) {
  std::ostringstream expected;
  expected << "seed 5\n";
  std::mt19937_64 reference(5);
  for (int i = 0; i < 5; ++i) expected << reference() << "\n";
  for (int run = 0; run < 2; ++run) {
    const auto r = runChild(helperPath("ut_probe"), {"random", "5"}, {{"KVTEST_RANDSEED", "5"}});
    ASSERT_TRUE(r.exitedWith(0)) << r.describe();
    EXPECT_EQ(r.out, expected.str());
    EXPECT_THAT(r.err, HasSubstr("Tolan::Random::setSeed(), setting seed to 5\n"));
  }
}

TEST(Base64, KnownValuesAndRoundTrip) {
  EXPECT_EQ(Tolan::Util::base64Encode(0), "AAAAAA");
  EXPECT_EQ(Tolan::Util::base64Encode(63), "=AAAAA");
  EXPECT_EQ(Tolan::Util::base64Encode(64), "ABAAAA");
  EXPECT_EQ(Tolan::Util::base64Encode(0xFFFFFFFFu), "=====D");
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
  std::mt19937 gen(7);
  for (int i = 0; i < 1000; ++i) {
    const uint32_t v = i < 64 ? i : gen();  // every digit, then random words
    const std::string text = Tolan::Util::base64Encode(v);
    ASSERT_EQ(text.size(), 6u);
    uint64_t decoded = 0;
    for (size_t k = 0; k < 6; ++k) decoded |= uint64_t(alphabet.find(text[k])) << (6 * k);
    ASSERT_EQ(decoded, v) << text;
  }
}
