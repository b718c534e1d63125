// Util.h - the library's utility functions, in namespace Tolan::Util.
//
// Includes the hashing (HashMix.h), file and path helpers (UtilFile.h) and
// the /proc readers (UtilProc.h), and declares the small text encodings.
// Everything here is stateless and may be called from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "Tolan/Common.h"
#include "Tolan/HashMix.h"
#include "Tolan/UtilFile.h"
#include "Tolan/UtilProc.h"

namespace Tolan {
namespace Util {

// Six characters for a 32-bit value, least significant 6-bit group first,
// from the alphabet "A-Za-z0-9_=" ("_" is 62, "=" is 63). No padding. Short,
// fixed-width and safe in file names; not the MIME base64 alphabet.
TOLAN_EXPORT String base64Encode(uint32_t value);

}  // namespace Util
}  // namespace Tolan
