#include "Tolan/ConstStringCache.h"

#include <fmt/format.h>

#include <memory>

#include "Tolan/Assert.h"

namespace Tolan {

const std::string& ConstStringRef::emptyString() noexcept {
  // Never destroyed: references may be read while static destructors run.
  static const NoDestructor<std::string> empty;
  return *empty;
}

void ConstStringRef::Elem::release() const {
  if (cache_) {
    cache_->eraseElem(*this);
  } else {
    // Orphaned by a cache destroyed with open references: nobody else knows it.
    delete this;
  }
}

ConstStringCache::~ConstStringCache() noexcept(false) {
  if (TOLAN_LIKELY(elems_.empty())) return;
  // Leave the survivors readable and self-freeing rather than dangling into
  // a destroyed cache; the assertion below reports the leak of references.
  for (auto& entry : elems_) entry.second->cache_ = nullptr;
  elems_.clear();
  TOLAN_FAIL_C(ConstStringCache, "Destroying ConstStringCache with open references");
}

ConstStringRef ConstStringCache::intern(std::string_view text) {
  auto found = elems_.find(text);
  ConstStringRef::Elem* elem;
  if (found != elems_.end()) {
    elem = found->second;
  } else {
    auto owned = std::make_unique<ConstStringRef::Elem>(this, std::string(text));
    elems_.emplace(std::string_view(owned->str()), owned.get());
    elem = owned.release();
  }
  elem->refCountInc();
  return ConstStringRef(elem);
}

uint32_t ConstStringCache::refCount(std::string_view text) const noexcept {
  auto found = elems_.find(text);
  return found == elems_.end() ? 0 : found->second->refCount();
}

void ConstStringCache::eraseElem(const ConstStringRef::Elem& elem) {
  // Look up by the string, then make sure it is this very element: a stray
  // element with the same text must not take the real one down with it.
  auto found = elems_.find(std::string_view(elem.str()));
  TOLAN_ASSERT_C(found != elems_.end() && found->second == &elem, ConstStringCache,
                 "element \"{}\" is not in its cache", elem.str());
  elems_.erase(found);
  delete &elem;
}

}  // namespace Tolan

fmt::format_context::iterator fmt::formatter<Tolan::ConstStringRef>::format(const Tolan::ConstStringRef& ref,
                                                                            format_context& ctx) const {
  return formatter<string_view>::format(string_view(ref.str()), ctx);
}
