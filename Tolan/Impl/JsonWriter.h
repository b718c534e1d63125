// Impl/JsonWriter.h - the RapidJSON writer behind TaskSchedulerPrintContext.
// Internal: public headers do not pull RapidJSON in.
#pragma once

#include <rapidjson/writer.h>

#include <cstddef>
#include <ostream>

namespace Tolan {
namespace Impl {

// A RapidJSON output stream that collects characters in a block and hands
// each full block to the ostream with one write(). RapidJSON's own
// BasicOStreamWrapper calls ostream::put() once per character, which costs
// a sentry and a buffer check each and made rendering several times slower
// than the writer itself.
class BlockOStream {
 public:
  using Ch = char;
  explicit BlockOStream(std::ostream& out) noexcept : out_(out) {}
  BlockOStream(const BlockOStream&) = delete;
  BlockOStream& operator=(const BlockOStream&) = delete;

  void Put(char c) {
    if (next_ == kSize) Flush();
    buffer_[next_++] = c;
  }
  // Hands the block to the ostream; does not flush the ostream itself.
  void Flush() {
    if (next_ != 0) out_.write(buffer_, static_cast<std::streamsize>(next_));
    next_ = 0;
  }

 private:
  static constexpr size_t kSize = 4096;
  std::ostream& out_;
  size_t next_ = 0;
  char buffer_[kSize];
};

class JsonWriter : public rapidjson::Writer<BlockOStream> {
 public:
  explicit JsonWriter(std::ostream& out) : rapidjson::Writer<BlockOStream>(block_), block_(out) {}
  void flushBlock() { block_.Flush(); }

 private:
  // Constructed after the base, which only stores its address.
  BlockOStream block_;
};

}  // namespace Impl
}  // namespace Tolan
