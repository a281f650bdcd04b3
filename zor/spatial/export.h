#pragma once
// Export marker of the spatial library (zor_spatial). Symbols are hidden by default;
// the classes and functions that callers use carry ZOR_SPATIAL_API.
#if defined(_WIN32)
#if defined(ZOR_SPATIAL_BUILDING)
#define ZOR_SPATIAL_API __declspec(dllexport)
#else
#define ZOR_SPATIAL_API __declspec(dllimport)
#endif
#else
#define ZOR_SPATIAL_API __attribute__((visibility("default")))
#endif
