// Common.h - small definitions every libTolan header shares.
//
// Branch hints, attributes for cold paths, and the library's string type.
// Header only; nothing here costs anything at run time.
#pragma once

#include <string>

#define TOLAN_LIKELY(x) __builtin_expect(!!(x), 1)
#define TOLAN_UNLIKELY(x) __builtin_expect(!!(x), 0)
// For the out-of-line slow paths of macros (formatting, error reporting): keeps
// them out of the caller's instruction stream.
#define TOLAN_COLD __attribute__((cold, noinline))

// Marks the library's public interface. The library is built with hidden
// visibility, so only what carries this mark (classes, with their vtables and
// type information, and free functions) is exported from libTolan.so.
#define TOLAN_EXPORT __attribute__((visibility("default")))

namespace Tolan {

using String = std::string;

}  // namespace Tolan
