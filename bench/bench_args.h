#pragma once
// Command-line helpers the benchmark programs share.
#include <cstdlib>
#include <string>
#include <vector>

namespace zorbench {

// "10000,100000" as numbers; stops at the first entry that is not a number.
inline std::vector<long> ParseList(const char* text) {
  std::vector<long> out;
  for (const char* p = text; *p != '\0';) {
    char* end = nullptr;
    const long value = std::strtol(p, &end, 10);
    if (end == p) break;
    out.push_back(value);
    p = *end == ',' ? end + 1 : end;
  }
  return out;
}

// "featured,box" as names; empty entries are dropped.
inline std::vector<std::string> ParseNames(const char* text) {
  std::vector<std::string> out;
  std::string item;
  for (const char* p = text;; ++p) {
    if (*p == ',' || *p == '\0') {
      if (!item.empty()) out.push_back(item);
      item.clear();
      if (*p == '\0') break;
    } else {
      item += *p;
    }
  }
  return out;
}

}  // namespace zorbench
