// Typed-test lists, folders and error codes for the kit's tests.
#pragma once

#include "host/kit_pictures.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/image.hpp>
#include <weftmap/host/runtime.hpp>

#include <gtest/gtest.h>
#include <boost/mp11/algorithm.hpp>

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace WM::host::test {

// The nine formats, for typed tests.
template <class Pixel>
struct FormatOf {
    static constexpr PixelFormat value = detail::format_of<Pixel>();
};
using NinePixels = boost::mp11::mp_rename<image_pixel_types, ::testing::Types>;

// The code of the Error that `run` throws; a test failure when it throws none.
inline ErrorCode code_of(std::function<void()> const& run) {
    try {
        run();
    } catch (Error const& e) {
        return e.code();
    }
    ADD_FAILURE() << "no error";
    return ErrorCode::internal;
}

// A folder of the test's own, removed with what is left in it. The library's
// buffers that tests use directly need the kit's client.
struct TempFolder {
    TempFolder() {
        ensure_library();
        std::string pattern = ::testing::TempDir() + "weftmap-kit-XXXXXX";
        path = ::mkdtemp(pattern.data()) != nullptr ? pattern : "";
        EXPECT_FALSE(path.empty());
    }
    ~TempFolder() { std::filesystem::remove_all(path); }
    std::string at(std::string const& name) const { return path + "/" + name; }
    // The names in `sub`, sorted.
    std::vector<std::string> names(std::string const& sub = "") const {
        std::vector<std::string> result;
        for (auto const& e : std::filesystem::directory_iterator(at(sub)))
            result.push_back(e.path().filename().string());
        std::sort(result.begin(), result.end());
        return result;
    }
    std::string path;
};

}  // namespace WM::host::test
