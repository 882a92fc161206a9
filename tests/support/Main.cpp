#include "support/Scenario.h"

#include <gtest/gtest.h>

int main(int argc, char **argv) {
    if (Testing::Scenario::requested()) {
        return Testing::Scenario::runRequested();
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
