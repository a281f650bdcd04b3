#pragma once
// Export marker of the pair-level library (zor_pair). Symbols are hidden by default;
// the functions that callers use carry ZOR_PAIR_API.
#if defined(_WIN32)
#if defined(ZOR_PAIR_BUILDING)
#define ZOR_PAIR_API __declspec(dllexport)
#else
#define ZOR_PAIR_API __declspec(dllimport)
#endif
#else
#define ZOR_PAIR_API __attribute__((visibility("default")))
#endif
