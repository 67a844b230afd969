#include "support/helpers.hpp"

#include <weftmap/frame/exceptions.hpp>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace WM {
namespace {

TEST(Exception, EveryConstructorKeepsTheText) {
    EXPECT_STREQ(Exception("WEFTMAP_INTERNAL_ERROR: a"), "WEFTMAP_INTERNAL_ERROR: a");
    EXPECT_STREQ(Exception(std::string("b")), "b");
    std::ostringstream stream;
    stream << "c" << 1;
    EXPECT_STREQ(Exception(stream), "c1");
    EXPECT_STREQ(Exception(boost::format("d%d") % 2), "d2");
    Exception const original("e");
    EXPECT_STREQ(Exception(original), "e");
}

TEST(Exception, LongTextIsCutTo255Characters) {
    std::string const text(300, 'x');
    Exception const e(text);
    EXPECT_EQ(std::strlen(e), 255u);
    EXPECT_EQ(std::string(e), text.substr(0, 255));
}

TEST(Exception, CatchingByBaseSlicesButKeepsTheText) {
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
