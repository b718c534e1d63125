#include "Tolan/Exception.h"

#include <iostream>

#include "Tolan/Assert.h"

namespace Tolan {

Exception::Exception(const String& msg, bool /*captureFlag*/) : message_(msg) {}

Exception::~Exception() = default;

String Exception::msg() const { return String(name()) + "(\"" + message_ + "\")"; }

const char* Exception::what() const noexcept {
  if (whatText_.empty()) whatText_ = msg() + "\n";
  return whatText_.c_str();
}

#define TOLAN_DEFINE_THROW_(Class) \
  void Class::throwException(const String& msg) { throw Class(msg); }

TOLAN_DEFINE_THROW_(MemoryResourceException)
TOLAN_DEFINE_THROW_(NoPermissionException)
TOLAN_DEFINE_THROW_(UnimplementedException)
TOLAN_DEFINE_THROW_(InvalidInitializeException)
TOLAN_DEFINE_THROW_(RuntimeException)
TOLAN_DEFINE_THROW_(OutOfRangeException)
TOLAN_DEFINE_THROW_(CorruptionDetectedException)
TOLAN_DEFINE_THROW_(InvalidSizeException)

#undef TOLAN_DEFINE_THROW_

void AssertException::throwException(const String& msg) {
  if (throwOnAssertFail()) throw AssertException(msg);
  std::cerr << "Tolan::Assert aborting because: " << msg << std::endl;
  std::terminate();
}

}  // namespace Tolan
