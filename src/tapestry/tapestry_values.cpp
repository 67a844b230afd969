// The plain value types of the tapestry: the multi-level parameters and the
// base of a host's index map store.
#include <weftmap/tapestry/multi_tapestry_factory.hpp>
#include <weftmap/tapestry/tile_cache.hpp>

#include <utility>

namespace WM {

MultiTapestryParameters::MultiTapestryParameters()
    : inbetweens(10),
      island_tolerance(0),
      min_island_size(100),
      max_island_shift(10),
      generate_index_map(false) {}

TapestryIndexMapBase::TapestryIndexMapBase() = default;
TapestryIndexMapBase::TapestryIndexMapBase(std::vector<std::uint32_t> frame_numbers,
                                           std::int32_t level)
    : frame_numbers(std::move(frame_numbers)), level(level) {}
TapestryIndexMapBase::TapestryIndexMapBase(TapestryIndexMapBase const& other) = default;
TapestryIndexMapBase& TapestryIndexMapBase::operator=(TapestryIndexMapBase const& other) = default;
TapestryIndexMapBase::~TapestryIndexMapBase() = default;

}  // namespace WM
