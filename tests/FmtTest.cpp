#include "Tolan/Fmt.h"

#include <gtest/gtest.h>

namespace {

TEST(Fmt, TimesPrintAsSecondsAndPointersAsAddresses) {
  EXPECT_EQ(fmt::format("{}", timeval{0, 7}), "0.000007");
  // Normalised negative values: -1.5 s is {-2, 500000}.
  EXPECT_EQ(fmt::format("{}", timeval{-2, 500000}), "-1.500000");
  EXPECT_EQ(fmt::format("{}", timeval{-1, 500000}), "-0.500000");
  EXPECT_EQ(fmt::format("[{}]", timeval{1700000000, 999999}), "[1700000000.999999]");
  EXPECT_EQ(fmt::format("{}", timespec{2, 5}), "2.000000005");
  EXPECT_EQ(fmt::format("{}", timespec{-1, 0}), "-1.000000000");

  const char* text = "not printed";
  const Tolan::DisplayPointer p(text);
  EXPECT_EQ(fmt::format("{}", p), fmt::format("{}", static_cast<const void*>(text)));
  EXPECT_EQ(Tolan::DisplayPointer(reinterpret_cast<void*>(0xBEEF)).toString(), "0xbeef");
}

}  // namespace
