#include "Tolan/Mappings.h"

#include <fmt/format.h>

#include <charconv>

#include "Tolan/Assert.h"
#include "Tolan/Debug.h"
#include "Tolan/Impl/ProcParsers.h"
#include "Tolan/UtilFile.h"

namespace Tolan {

String MappingInfo::toString() const {
  return fmt::format(
      "MappingInfo {{ start:{:#x} end:{:#x} perms:{} offset:{:#x} major:{:#x} minor:{:#x} inode:{:#x} path:{} }}",
      start, end, perms, offset, major, minor, inode, path);
}

void MappingInfos::insert(const MappingInfo& info) { byStart_[info.start] = info; }

const MappingInfo* MappingInfos::find(const void* address) const {
  const auto a = reinterpret_cast<uintptr_t>(address);
  auto it = byStart_.upper_bound(a);
  if (it == byStart_.begin()) return nullptr;
  --it;
  return it->second.contains(a) ? &it->second : nullptr;
}

const MappingInfos& PidMappings::mappingInfos(pid_t pid) {
  auto it = cache_.find(pid);
  if (it != cache_.end()) return it->second;
  populate(pid);
  return cache_[pid];
}

bool PidMappings::populate(pid_t pid) {
  const String file = fmt::format("/proc/{}/maps", pid);
  MappingInfos& infos = cache_[pid];
  infos = MappingInfos();
  String text;
  if (!Util::readFile(*TOLAN_DEFAULT_HANDLE, file, text)) return false;
  Impl::parseMaps(text, file, infos);
  return true;
}

namespace Impl {
namespace {

// A small cursor over one line; every step checks the bounds.
class Cursor {
 public:
  Cursor(const char* p, const char* end) : p_(p), end_(end) {}

  template <typename T>
  bool number(T& value, int base) {
    auto r = std::from_chars(p_, end_, value, base);
    if (r.ec != std::errc() || r.ptr == p_) return false;
    p_ = r.ptr;
    return true;
  }
  bool literal(char c) {
    if (p_ == end_ || *p_ != c) return false;
    ++p_;
    return true;
  }
  // One or more blanks.
  bool blanks() {
    const char* start = p_;
    while (p_ != end_ && *p_ == ' ') ++p_;
    return p_ != start;
  }
  bool word(String& out) {
    const char* start = p_;
    while (p_ != end_ && *p_ != ' ') ++p_;
    out.assign(start, p_);
    return p_ != start;
  }
  String rest() {
    while (p_ != end_ && (*p_ == ' ' || *p_ == '\t')) ++p_;
    String out(p_, end_);
    p_ = end_;
    return out;
  }
  bool atEnd() const { return p_ == end_; }

 private:
  const char* p_;
  const char* end_;
};

}  // namespace

bool parseMapsLine(const char* line, size_t len, MappingInfo& info) {
  Cursor c(line, line + len);
  if (!(c.number(info.start, 16) && c.literal('-') && c.number(info.end, 16) && c.blanks() &&
        c.word(info.perms) && c.blanks() && c.number(info.offset, 16) && c.blanks() &&
        c.number(info.major, 16) && c.literal(':') && c.number(info.minor, 16) && c.blanks() &&
        c.number(info.inode, 10))) {
    return false;
  }
  if (c.atEnd()) {
    info.path.clear();
    return true;
  }
  if (!c.blanks()) return false;  // junk glued to the inode
  info.path = c.rest();
  return true;
}

void parseMaps(const String& text, const String& file, MappingInfos& infos) {
  size_t begin = 0;
  while (begin < text.size()) {
    size_t eol = text.find('\n', begin);
    if (eol == String::npos) eol = text.size();
    if (eol > begin) {
      MappingInfo info;
      const bool ok = parseMapsLine(text.data() + begin, eol - begin, info);
      TOLAN_ASSERT(ok, "malformed line in {}: \"{}\"", file, text.substr(begin, eol - begin));
      infos.insert(info);
    }
    begin = eol + 1;
  }
}

}  // namespace Impl
}  // namespace Tolan

fmt::format_context::iterator fmt::formatter<Tolan::MappingInfo>::format(const Tolan::MappingInfo& info,
                                                                         format_context& ctx) const {
  return formatter<string_view>::format(info.toString(), ctx);
}
