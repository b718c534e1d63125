// Common.h - small definitions every libTolan header shares.
//
// Branch hints, attributes for cold paths, the export mark of the public
// interface, the library's string type, a holder for objects that must never
// be destroyed, and the process assertion. Deliberately light: it pulls in
// only <iosfwd> and <new>, so that including it costs almost nothing.
// Everything here is usable from any thread.
#pragma once

#include <iosfwd>  // declares std::string, which String names
#include <new>

#define TOLAN_LIKELY(x) __builtin_expect(!!(x), 1)
#define TOLAN_UNLIKELY(x) __builtin_expect(!!(x), 0)
// For the out-of-line slow paths of macros (formatting, error reporting): keeps
// them out of the caller's instruction stream.
#define TOLAN_COLD __attribute__((cold, noinline))

// Marks the library's public interface. The library is built with hidden
// visibility, so only what carries this mark (classes, with their vtables and
// type information, and free functions) is exported from libTolan.so.
#define TOLAN_EXPORT __attribute__((visibility("default")))

// TOLAN_PROCESS_ASSERT(cond, "text") is for conditions the library itself can
// never recover from (a registry touched without the global lock, a descriptor
// the kernel refuses): it always ends the process through the C library's
// assertion report ("file:line: function: Assertion `text' failed."), even
// under NDEBUG. It needs nothing but the C library, so code at every layer may
// use it. Errors a caller may want to survive use TOLAN_ASSERT (Assert.h).
#define TOLAN_PROCESS_ASSERT(cond, text)                  \
  (TOLAN_LIKELY(cond) ? static_cast<void>(0)              \
                      : ::Tolan::Impl::processAssertFail(text, __FILE__, __LINE__, __PRETTY_FUNCTION__))

namespace Tolan {

using String = std::string;

// Holds a T that is constructed in place on first use and never destroyed.
// For process-wide singletons that other code may still reach while static
// destructors run (a trace line written at exit, a handler unregistering
// itself): as a function-local static it is built thread-safely on the first
// call, and since its own destructor is trivial nothing is registered with
// atexit.
//
//   Registry& registry() {
//     static NoDestructor<Registry> instance;
//     return *instance;
//   }
template <typename T>
class NoDestructor {
 public:
  template <typename... Args>
  explicit NoDestructor(Args&&... args) {
    ::new (static_cast<void*>(storage_)) T(static_cast<Args&&>(args)...);
  }
  NoDestructor(const NoDestructor&) = delete;
  NoDestructor& operator=(const NoDestructor&) = delete;

  T* get() noexcept { return std::launder(reinterpret_cast<T*>(storage_)); }
  const T* get() const noexcept { return std::launder(reinterpret_cast<const T*>(storage_)); }
  T& operator*() noexcept { return *get(); }
  const T& operator*() const noexcept { return *get(); }
  T* operator->() noexcept { return get(); }
  const T* operator->() const noexcept { return get(); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

namespace Impl {

// The C library's assertion report and abort, available even under NDEBUG.
[[noreturn]] TOLAN_EXPORT TOLAN_COLD void processAssertFail(const char* text, const char* file, unsigned line,
                                                            const char* func) noexcept;

}  // namespace Impl
}  // namespace Tolan
