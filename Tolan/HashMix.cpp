#include "Tolan/HashMix.h"

namespace Tolan {
namespace Impl {

template <typename W>
W HashMix<W>::mix(const void* data, size_t len) noexcept {
  return mixInline(data, len);
}

template class HashMix<uint32_t>;
template class HashMix<uint64_t>;

}  // namespace Impl

namespace Util {

uint32_t hash(const void* data, size_t len) noexcept { return Impl::HashMix<uint32_t>().mixInline(data, len); }

uint64_t hash64(const void* data, size_t len) noexcept { return Impl::HashMix<uint64_t>().mixInline(data, len); }

}  // namespace Util
}  // namespace Tolan
