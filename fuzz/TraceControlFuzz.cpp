// Trace control strings against a model of the rule algebra.
//
// Each 4-byte group of the input is one operation on names "Fz" + up to three
// letters a/b: set or clear a rule (specific or prefix, with a level mask,
// written as a control string with some ignored characters), or obtain a
// handler for a name and keep it. After every operation the levels of each
// kept handler and the listed Fz rules must equal the model's, which follows
// the documented algebra: rules start from the longest covering prefix rule,
// set ORs into the rule and pushes into matching handlers (a prefix rule also
// into longer rules), clear ANDs levels away and deletes rules left with none.
//
// An input whose first byte is 0xFF is instead taken whole as a control
// string (arbitrary bytes), set and cleared: anything must be accepted.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzSupport.h"

namespace {

TolanFuzz::CaptureBuffer gOut, gErr;

bool startsWith(const std::string& s, const std::string& p) { return s.compare(0, p.size(), p) == 0; }

std::string display(const std::string& name, bool wild, uint16_t mask) {
  std::string out = name + (wild ? "*/" : "/");
  if (mask == 1023) return out + "*";
  for (int l = 0; l < 10; ++l) {
    if (mask & (1 << l)) out += static_cast<char>('0' + l);
  }
  return out;
}

struct Model {
  std::map<std::string, uint16_t> specific, wildcard;
  std::vector<std::pair<std::string, uint16_t>> handlers;

  uint16_t covering(const std::string& name) const {
    for (size_t len = name.size() + 1; len-- > 0;) {
      auto it = wildcard.find(name.substr(0, len));
      if (it != wildcard.end()) return it->second;
    }
    return 0;
  }
  uint16_t levelsFor(const std::string& name) const {
    auto it = specific.find(name);
    return it != specific.end() ? it->second : covering(name);
  }
  void set(const std::string& name, bool wild, uint16_t levels) {
    if (!wild) {
      auto it = specific.find(name);
      const uint16_t r = it != specific.end() ? (it->second |= levels) : (specific[name] = levels | covering(name));
      for (auto& h : handlers) {
        if (h.first == name) h.second |= r;
      }
      return;
    }
    auto it = wildcard.find(name);
    const uint16_t r = it != wildcard.end() ? (it->second |= levels) : (wildcard[name] = levels | covering(name));
    for (auto& w : wildcard) {
      if (startsWith(w.first, name)) w.second |= r;
    }
    for (auto& s : specific) {
      if (startsWith(s.first, name)) s.second |= r;
    }
    for (auto& h : handlers) {
      if (startsWith(h.first, name)) h.second |= r;
    }
  }
  void clear(const std::string& name, bool wild, uint16_t levels) {
    auto narrow = [levels](std::map<std::string, uint16_t>& rules, auto match) {
      for (auto it = rules.begin(); it != rules.end();) {
        if (match(it->first) && (it->second &= ~levels) == 0) {
          it = rules.erase(it);
        } else {
          ++it;
        }
      }
    };
    if (!wild) {
      narrow(specific, [&](const std::string& n) { return n == name; });
      for (auto& h : handlers) {
        if (h.first == name) h.second &= ~levels;
      }
      return;
    }
    narrow(wildcard, [&](const std::string& n) { return startsWith(n, name); });
    narrow(specific, [&](const std::string& n) { return startsWith(n, name); });
    for (auto& h : handlers) {
      if (startsWith(h.first, name)) h.second &= ~levels;
    }
  }
  std::set<std::string> listing() const {
    std::set<std::string> out;
    for (const auto& s : specific) out.insert(display(s.first, false, s.second));
    for (const auto& w : wildcard) out.insert(display(w.first, true, w.second));
    return out;
  }
};

// The Fz rules of dumpTolanDebugMap (handlers excluded).
std::set<std::string> listedRules() {
  gOut.clear();
  Tolan::Orn::DebugControl::printAll();
  std::set<std::string> out;
  std::istringstream in(gOut.text());
  for (std::string line; std::getline(in, line);) {
    if (startsWith(line, "    Fz")) out.insert(line.substr(4));
  }
  return out;
}

std::string levelsText(uint16_t mask, uint8_t noise) {
  std::string out;
  for (int l = 0; l < 10; ++l) {
    if (mask & (1 << l)) out += static_cast<char>('0' + l);
  }
  if (noise & 1) out.insert(out.size() / 2, "x");  // ignored
  if ((noise & 2) && mask == 1023) out = "*";
  return out;
}

bool init() {
  TolanFuzz::captureStandardStreams(gOut, gErr, "/dev/null");
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = init();
  (void)ready;
  if (size == 0 || size > 512) return -1;
  gErr.clear();

  if (data[0] == 0xFF) {
    const std::string spec(reinterpret_cast<const char*>(data + 1), size - 1);
    Tolan::Platform::setupTolanDebug(spec.c_str());
    auto h = Tolan::Platform::getDebugHandler(std::string(spec.c_str()).substr(0, 8));
    if (h->activeLevels() & ~Tolan::Platform::kAllTraceLevels) __builtin_trap();
    Tolan::Platform::clearTolanDebug(spec.c_str());
    Tolan::Platform::clearTolanDebug("*/*");
    Tolan::Platform::setupTolanDebug("Tolan*/01");
    return 0;
  }

  Model model;
  std::vector<std::shared_ptr<Tolan::Platform::DebugHandler>> kept;
  for (size_t at = 0; at + 4 <= size; at += 4) {
    const uint8_t op = data[at] % 3, shape = data[at + 1];
    std::string name = "Fz";
    for (unsigned i = 0; i < (shape & 3u); ++i) name += (shape >> (2 + i)) & 1 ? 'b' : 'a';
    const bool wild = shape & 0x20;
    const uint16_t levels = static_cast<uint16_t>((data[at + 2] | data[at + 3] << 8) & 1023);
    const std::string item = name + (wild ? "*" : "") + "/" + levelsText(levels, data[at]);
    if (op == 0) {
      Tolan::Platform::setupTolanDebug(item.c_str());
      model.set(name, wild, levels);
    } else if (op == 1) {
      Tolan::Platform::clearTolanDebug(item.c_str());
      model.clear(name, wild, levels);
    } else {
      kept.push_back(Tolan::Platform::getDebugHandler(name + (wild ? "*" : "")));
      model.handlers.emplace_back(name, model.levelsFor(name));
    }
    for (size_t i = 0; i < kept.size(); ++i) {
      if (kept[i]->activeLevels() != model.handlers[i].second) __builtin_trap();
    }
    if (listedRules() != model.listing()) __builtin_trap();
  }
  Tolan::Platform::clearTolanDebug("Fz*/*");  // every Fz rule goes; kept handlers go with `kept`
  return 0;
}
