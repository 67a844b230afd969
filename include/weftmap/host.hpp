// Everything a host needs from the Weftmap host kit.
#pragma once

#include <weftmap/host/errors.hpp>
#include <weftmap/host/export.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/image.hpp>
#include <weftmap/host/large_fill.hpp>
#include <weftmap/host/mirrored_patches.hpp>
#include <weftmap/host/options.hpp>
#include <weftmap/host/rim_texture.hpp>
#include <weftmap/host/row_bands.hpp>
#include <weftmap/host/runtime.hpp>
#include <weftmap/host/search_window.hpp>
#include <weftmap/host/synthesis.hpp>
