#pragma once
// Export marker of the shared library ZorStlRegistration. Symbols are hidden by
// default; the classes and functions that callers use carry ZOR_API.
#if defined(_WIN32)
#if defined(ZOR_BUILDING)
#define ZOR_API __declspec(dllexport)
#else
#define ZOR_API __declspec(dllimport)
#endif
#else
#define ZOR_API __attribute__((visibility("default")))
#endif
