#pragma once
// Command-line helpers the benchmark programs share.
#include <cstdlib>
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

}  // namespace zorbench
