#include <weftmap/frame/debug_output.hpp>

#include <array>

namespace WM {

DebugChannel::~DebugChannel() = default;
void DebugChannel::Flush() {}

void DebugOutput::Print(std::string const& text) {
    channel->Write(text.c_str());
}

namespace {

std::array<std::uint32_t, 256> const& crc_table() {
    static std::array<std::uint32_t, 256> const table = [] {
        std::array<std::uint32_t, 256> t{};
        for (std::uint32_t n = 0; n < 256; ++n) {
            std::uint32_t c = n;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    return table;
}

}  // namespace

// Pixels are fed in memory order (little-endian: the low byte of a 16-bit
// channel first, the x coordinate of an offset pair first).
template <class ViewT>
std::uint32_t view_crc32(ViewT const& view) {
    auto const& table = crc_table();
    std::uint32_t crc = 0xFFFFFFFFu;
    auto const row_bytes = view.width() * sizeof(typename ViewT::value_type);
    for (std::ptrdiff_t y = 0; y < view.height(); ++y) {
        auto const* bytes = reinterpret_cast<unsigned char const*>(&*view.row_begin(y));
        for (std::size_t i = 0; i < row_bytes; ++i)
            crc = table[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
    }
    return ~crc;
}

template <class ViewT>
void OutputDebugChecksum(char const* label, ViewT const& view) {
    DebugOutput* out = debug_output();
    if (out == nullptr || !out->channel->checksumsEnabled) return;
    boost::format text("CHECKSUM (%s): %s%d\n");
    text % out->channel->channelName % label % view_crc32(view);
    out->Print(text.str());
}

// The two-part shapes build their label only when checksums or images are on.
static bool two_part_label_wanted(DebugOutput const* out) {
    return out != nullptr && (out->channel->checksumsEnabled || out->channel->imagesEnabled);
}

template <class ViewT>
void OutputDebugChecksum(char const* prefix, char const* label, ViewT const& view) {
    if (!two_part_label_wanted(debug_output())) return;
    OutputDebugChecksum((std::string(prefix) + label).c_str(), view);
}

template <class ViewT>
void OutputDebugChecksum(std::string const& prefix, char const* label, ViewT const& view) {
    if (!two_part_label_wanted(debug_output())) return;
    OutputDebugChecksum((prefix + label).c_str(), view);
}

#define WEFTMAP_INSTANTIATE_CHECKSUM(P)                                                      \
    template WEFTMAP_API std::uint32_t view_crc32(View<P> const&);                           \
    template WEFTMAP_API std::uint32_t view_crc32(ConstView<P> const&);                      \
    template WEFTMAP_API void OutputDebugChecksum(char const*, View<P> const&);              \
    template WEFTMAP_API void OutputDebugChecksum(char const*, ConstView<P> const&);         \
    template WEFTMAP_API void OutputDebugChecksum(char const*, char const*, View<P> const&); \
    template WEFTMAP_API void OutputDebugChecksum(std::string const&, char const*, View<P> const&);
WEFTMAP_FOR_EACH_CHECKSUM_PIXEL(WEFTMAP_INSTANTIATE_CHECKSUM)

}  // namespace WM
