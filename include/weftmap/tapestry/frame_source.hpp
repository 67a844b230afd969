// Where a tapestry's frames come from: a host object that paints frame i
// into a view on request, so that a sequence never has to sit in memory.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <vector>

namespace WM {

// Written by the host. All frames have one size.
template <class Pixel>
class TapestryFrameSource {
public:
    using view_t = View<Pixel>;

    virtual ~TapestryFrameSource() = default;
    virtual int GetFrameCount() const = 0;
    virtual Point GetFrameSize() const = 0;
    virtual bool HasWeights() const { return false; }
    // Maps a position in this source to the frame number that the reverse
    // index map is to show; null means the position itself.
    virtual std::vector<unsigned> const* GetLookupTableForFrameNumbers() const { return nullptr; }
    // Paints frame `frame` into `out` with its top-left at `offset` in the
    // view's coordinates; `offset` may be negative and the frame may overhang
    // the view on any side: the host clips.
    virtual void GetFramePixels(int frame, view_t& out, Point offset) const = 0;
    // Frame weights (255 = important), painted like the pixels.
    virtual void GetWeights(int frame, GrayView& out, Point offset) const {
        (void)frame, (void)out, (void)offset;
    }
};

// A chosen subset of another source's frames, in the order of `frames`.
// Its lookup table is `frames` itself, so index maps built from it name
// frames of the full sequence. Weights of the source beneath are not used.
template <class Pixel>
class WEFTMAP_API SubFrameSource : public TapestryFrameSource<Pixel> {
public:
    using view_t = View<Pixel>;

    SubFrameSource(TapestryFrameSource<Pixel> const* source, std::vector<unsigned> const* frames)
        : source(source), frames(frames) {}

    int GetFrameCount() const override;
    Point GetFrameSize() const override;
    std::vector<unsigned> const* GetLookupTableForFrameNumbers() const override;
    void GetFramePixels(int frame, view_t& out, Point offset) const override;

    TapestryFrameSource<Pixel> const* source;  // borrowed
    std::vector<unsigned> const* frames;       // borrowed
};

}  // namespace WM
