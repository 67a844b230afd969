#include "support/helpers.hpp"

#include <gtest/gtest.h>

namespace WM {
namespace {

TEST(Exception, TextIsCutTo255AndSurvivesSlicing) {
    std::string const text(300, 'x');
    EXPECT_EQ(std::string(Exception(text)), text.substr(0, 255));
    try {
        raise_as(ErrorClass::MemoryLimit, "WEFTMAP_MEMORY_LIMIT: %s", "full");
        FAIL();
    } catch (Exception const& e) {
        Exception const copy = e;
        EXPECT_STREQ(copy, "WEFTMAP_MEMORY_LIMIT: full");
        EXPECT_NE(dynamic_cast<ExceptionMemoryLimit const*>(&e), nullptr);
    }
}

TEST(Exception, RaiseSelectsTheClassAndFormatsSixtyFourBitNumbers) {
    EXPECT_THROW(raise_as(ErrorClass::NotEnoughPatches, "WEFTMAP_HOLE_TOO_LARGE: x"),
                 ExceptionNotEnoughPatches);
    EXPECT_EQ(test::error_text([] {
                  raise("WEFTMAP_INTERNAL_ERROR:size (%dx%d) %f", 70000000000LL, -1LL, 0.5);
              }),
              "WEFTMAP_INTERNAL_ERROR:size (70000000000x-1) 0.500000");
    EXPECT_THROW(raise("%d %d", 1), boost::io::too_few_args);
}

}  // namespace
}  // namespace WM
