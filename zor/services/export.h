#pragma once
// Export marker of the services library (zor_services). Symbols are hidden by default;
// the classes and functions that callers use carry ZOR_SERVICES_API.
#if defined(_WIN32)
#if defined(ZOR_SERVICES_BUILDING)
#define ZOR_SERVICES_API __declspec(dllexport)
#else
#define ZOR_SERVICES_API __declspec(dllimport)
#endif
#else
#define ZOR_SERVICES_API __attribute__((visibility("default")))
#endif
