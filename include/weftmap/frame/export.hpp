// Symbol visibility of the public interface: the library is built with hidden
// visibility, and only what carries WEFTMAP_API is exported.
#pragma once

#if defined(_WIN32)
#if defined(WEFTMAP_BUILDING_LIBRARY)
#define WEFTMAP_API __declspec(dllexport)
#else
#define WEFTMAP_API __declspec(dllimport)
#endif
#else
#define WEFTMAP_API __attribute__((visibility("default")))
#endif
