#include "Tolan/Util.h"

namespace Tolan {
namespace Util {

String base64Encode(uint32_t value) {
  static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
  static_assert(sizeof kAlphabet == 65, "64 characters");
  // 6 x 6 bits = 36 > 32: the last character carries only the top 2 bits.
  String out(6, 'A');
  for (unsigned k = 0; k < 6; ++k) out[k] = kAlphabet[(value >> (6 * k)) & 63u];
  return out;
}

}  // namespace Util
}  // namespace Tolan
