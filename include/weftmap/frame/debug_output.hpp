// The diagnostic channel: text messages and labelled checksums of
// intermediate images, reached through the client's GetDebugOutput.
#pragma once

#include <weftmap/frame/client.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <boost/format.hpp>
#include <cstdint>
#include <string>

namespace WM {

// A host object that receives finished texts.
class WEFTMAP_API DebugChannel {
public:
    virtual ~DebugChannel();
    virtual void Flush();
    // Receives one finished text; the library adds no line ending.
    virtual void Write(char const* text) = 0;

    bool checksumsEnabled = false;
    std::string channelName;
    bool imagesEnabled = false;
};

// What GetDebugOutput returns: a holder of the channel.
class WEFTMAP_API DebugOutput {
public:
    explicit DebugOutput(DebugChannel* channel = nullptr) : channel(channel) {}
    void Print(std::string const& text);

    void* reserved = nullptr;
    DebugChannel* channel;
};

// The output to log to, or null (also before Initialize): message building
// starts only when non-null.
inline DebugOutput* debug_output() {
    WeftmapProcClient* client = GetClientProcs();
    return client != nullptr ? client->GetDebugOutput() : nullptr;
}

// Prints a formatted message when a diagnostic output is installed; without
// one the format is never built.
template <class... Args>
void debug_log(char const* format, Args const&... args) {
    if (DebugOutput* out = debug_output()) {
        if constexpr (sizeof...(Args) == 0) {
            out->Print(format);
        } else {
            boost::format text(format);
            (text % ... % args);
            out->Print(text.str());
        }
    }
}

// CRC-32 (reflected 0x04C11DB7) of a view's pixel bytes, row by row, without
// the gap between rows.
template <class ViewT>
WEFTMAP_API std::uint32_t view_crc32(ViewT const& view);

// Publishes "CHECKSUM (<channel>): <label><crc>" when checksums are enabled.
template <class ViewT>
WEFTMAP_API void OutputDebugChecksum(char const* label, ViewT const& view);
template <class ViewT>
WEFTMAP_API void OutputDebugChecksum(char const* prefix, char const* label, ViewT const& view);
template <class ViewT>
WEFTMAP_API void OutputDebugChecksum(std::string const& prefix, char const* label,
                                     ViewT const& view);

// Pixel types that carry checksums: the nine image pixels and four
// auxiliary ones.
#define WEFTMAP_FOR_EACH_CHECKSUM_PIXEL(X) \
    WEFTMAP_FOR_EACH_PIXEL(X)              \
    X(offset_pixel_t)                      \
    X(int_gray_pixel_t)                    \
    X(float_gray_pixel_t)                  \
    X(ll_gray_pixel_t)

#define WEFTMAP_DECLARE_CHECKSUM(P)                                                         \
    extern template WEFTMAP_API std::uint32_t view_crc32(View<P> const&);                   \
    extern template WEFTMAP_API std::uint32_t view_crc32(ConstView<P> const&);              \
    extern template WEFTMAP_API void OutputDebugChecksum(char const*, View<P> const&);      \
    extern template WEFTMAP_API void OutputDebugChecksum(char const*, ConstView<P> const&); \
    extern template WEFTMAP_API void OutputDebugChecksum(char const*, char const*,          \
                                                         View<P> const&);                   \
    extern template WEFTMAP_API void OutputDebugChecksum(std::string const&, char const*,   \
                                                         View<P> const&);
WEFTMAP_FOR_EACH_CHECKSUM_PIXEL(WEFTMAP_DECLARE_CHECKSUM)
#undef WEFTMAP_DECLARE_CHECKSUM

}  // namespace WM
