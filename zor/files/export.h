#pragma once
// Export marker of the mesh file library (zor_files). Symbols are hidden by default;
// the functions that callers use carry ZOR_FILES_API.
#if defined(_WIN32)
#if defined(ZOR_FILES_BUILDING)
#define ZOR_FILES_API __declspec(dllexport)
#else
#define ZOR_FILES_API __declspec(dllimport)
#endif
#else
#define ZOR_FILES_API __attribute__((visibility("default")))
#endif
