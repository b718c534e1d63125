// Impl/JsonWriter.h - the RapidJSON writer behind TaskSchedulerPrintContext.
// Internal: public headers do not pull RapidJSON in.
#pragma once

#include <rapidjson/stream.h>
#include <rapidjson/writer.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <ostream>

namespace Tolan {
namespace Impl {

// A RapidJSON output stream that collects characters in a block and hands
// each full block to the ostream with one write(). RapidJSON's own
// BasicOStreamWrapper calls ostream::put() once per character, which costs
// a sentry and a buffer check each and made rendering several times slower
// than the writer itself.
//
// The writer announces how many characters a value may take (PutReserve)
// and then puts them unchecked (PutUnsafe), as it does for its own
// StringBuffer: one room check per value, not per character. A value longer
// than the block (a very long name) grows the block.
class BlockOStream {
 public:
  using Ch = char;
  explicit BlockOStream(std::ostream& out) : out_(out) { growTo(4096); }
  BlockOStream(const BlockOStream&) = delete;
  BlockOStream& operator=(const BlockOStream&) = delete;

  void Put(char c) {
    if (next_ == end_) Flush();
    *next_++ = c;
  }
  void reserve(size_t n) {
    if (static_cast<size_t>(end_ - next_) >= n) return;
    Flush();
    if (static_cast<size_t>(end_ - next_) < n) growTo(n);
  }
  void putUnchecked(char c) { *next_++ = c; }
  void write(const char* s, size_t n) {
    reserve(n);
    std::memcpy(next_, s, n);
    next_ += n;
  }
  // Hands the block to the ostream; does not flush the ostream itself.
  void Flush() {
    if (next_ != block_.get()) out_.write(block_.get(), next_ - block_.get());
    next_ = block_.get();
  }

 private:
  void growTo(size_t size) {
    block_.reset(new char[size]);
    next_ = block_.get();
    end_ = next_ + size;
  }

  std::ostream& out_;
  std::unique_ptr<char[]> block_;
  char* next_;
  char* end_;
};

}  // namespace Impl
}  // namespace Tolan

namespace rapidjson {
template <>
inline void PutReserve(Tolan::Impl::BlockOStream& stream, size_t count) {
  stream.reserve(count);
}
template <>
inline void PutUnsafe(Tolan::Impl::BlockOStream& stream, char c) {
  stream.putUnchecked(c);
}
}  // namespace rapidjson

namespace Tolan {
namespace Impl {

class JsonWriter : public rapidjson::Writer<BlockOStream> {
 public:
  explicit JsonWriter(std::ostream& out) : rapidjson::Writer<BlockOStream>(block_), block_(out) {}
  void flushBlock() { block_.Flush(); }

  // Key(literal) for a key the compiler knows: the member names of the
  // document are plain ASCII, so they are copied whole, quotes included,
  // instead of being scanned for escapes one character at a time.
  template <size_t N>
  void literalKey(const char (&key)[N]) {
    static_assert(N >= 1, "a string literal");
    Prefix(rapidjson::kStringType);
    block_.reserve(N + 1);
    block_.putUnchecked('"');
    block_.write(key, N - 1);
    block_.putUnchecked('"');
  }
  // literalKey(key) then Bool(value), as one copy. The writer's own Bool
  // costs a Prefix and a room check of its own, and a task object has five.
  template <size_t N>
  void literalBool(const char (&key)[N], bool value) {
    literalKey(key);
    // The member's value, without the writer's Prefix: it would only add the
    // colon and count the value, which this does itself.
    block_.reserve(6);
    block_.putUnchecked(':');
    if (value)
      block_.write("true", 4);
    else
      block_.write("false", 5);
    ++level_stack_.template Top<Level>()->valueCount;
  }
  // String(s) for a value known to need no escaping (digits, letters).
  void plainString(const char* s, size_t n) {
    Prefix(rapidjson::kStringType);
    block_.reserve(n + 2);
    block_.putUnchecked('"');
    block_.write(s, n);
    block_.putUnchecked('"');
  }

 private:
  // Constructed after the base, which only stores its address.
  BlockOStream block_;
};

}  // namespace Impl
}  // namespace Tolan
