#pragma once
// Export markers of the model library (zor_model). Symbols are hidden by default;
// the classes and functions that callers use carry ZOR_MODEL_API.
#if defined(_WIN32)
#if defined(ZOR_MODEL_BUILDING)
#define ZOR_MODEL_API __declspec(dllexport)
#else
#define ZOR_MODEL_API __declspec(dllimport)
#endif
#else
#define ZOR_MODEL_API __attribute__((visibility("default")))
#endif
