// Everything a host needs from Weftmap.
#pragma once

#include <weftmap/frame/client.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/frame/parallel.hpp>

#include <weftmap/image/inset_view.hpp>
#include <weftmap/image/masks.hpp>
#include <weftmap/image/memory.hpp>
#include <weftmap/image/mipmap.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>
#include <weftmap/image/resample.hpp>
#include <weftmap/image/roifill.hpp>

#include <weftmap/correspondence/minnn.hpp>
#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/correspondence/random.hpp>
#include <weftmap/correspondence/region_masks.hpp>
#include <weftmap/correspondence/sample_regions.hpp>
#include <weftmap/correspondence/search.hpp>
#include <weftmap/correspondence/vote.hpp>
#include <weftmap/correspondence/weftmap.hpp>

#include <weftmap/recomposer/hole_measures.hpp>
#include <weftmap/recomposer/level_buffers.hpp>
#include <weftmap/recomposer/parameters.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <weftmap/twopass/pixel_access.hpp>
#include <weftmap/twopass/tile_array.hpp>
#include <weftmap/twopass/two_pass_synthesis.hpp>

#include <weftmap/tapestry/frame_source.hpp>
#include <weftmap/tapestry/multi_tapestry_factory.hpp>
#include <weftmap/tapestry/tapestry_factory.hpp>
#include <weftmap/tapestry/tapestry_json.hpp>
#include <weftmap/tapestry/tile_cache.hpp>
