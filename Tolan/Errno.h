// Errno.h - the text of an error number, from any thread.
//
// std::strerror may share one buffer between threads; Tolan::strerror keeps
// one 256-byte buffer per thread instead. Cost: one GNU strerror_r call, no
// allocation. errno is left as it was, so it can be used while reporting.
#pragma once

#include "Tolan/Common.h"

namespace Tolan {

// The system's text for `errnum` ("Invalid argument" for EINVAL, "Unknown
// error 12345" for a number it does not know). The text stays valid until
// the same thread calls again. Library assertion if strerror_r itself fails.
TOLAN_EXPORT const char* strerror(int errnum);

}  // namespace Tolan
