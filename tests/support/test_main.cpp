#include "support/test_client.hpp"

#include <gtest/gtest.h>

namespace WM::test {

TestClient& client() {
    static TestClient instance;
    return instance;
}

}  // namespace WM::test

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    WM::Initialize(&WM::test::client());
    return RUN_ALL_TESTS();
}
