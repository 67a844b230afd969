// The kit's side of the library's process-wide state: its client, the
// memory limit and the diagnostic channel.
#pragma once

#include <weftmap/host/export.hpp>

#include <string>

namespace WM {
class DebugChannel;
}

namespace WM::host {

// Registers the kit's client with the library unless a client is already
// registered; every entry point calls it, so hosts need not. Thread-safe.
WEFTMAP_HOST_API void ensure_library();

// The library's version, "1.1.0".
WEFTMAP_HOST_API std::string library_version();

// Diagnostics (messages, checksums and the parameter block of each run) go
// to `channel`, or nowhere with null. The channel must outlive its use.
WEFTMAP_HOST_API void set_diagnostic_channel(DebugChannel* channel);

// The process-wide limit of image memory, and what is held now.
WEFTMAP_HOST_API void set_memory_limit(unsigned long long bytes);
WEFTMAP_HOST_API unsigned long long memory_limit();
WEFTMAP_HOST_API unsigned long long memory_in_use();

}  // namespace WM::host
