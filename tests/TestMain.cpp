#include "Fixture.h"
#include "base/CleanerError.h"
#include "core/MockRoots.h"
#include "core/PathRules.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace sd::test {
namespace {
std::string root;
std::string home;
} // namespace

const std::string& fixtureRoot() {
    return root;
}
const std::string& fixtureHome() {
    return home;
}

} // namespace sd::test

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Every test runs against a fixture home in an owned temporary root, never the real one.
    sd::test::root = sd::MockRoots::create();
    sd::test::home = sd::test::root + "/home";
    sd::test::makeDirs(sd::test::home);
    ::setenv("SPARROWDECK_HOME", sd::test::home.c_str(), 1);
    ::setenv("XDG_DATA_HOME", (sd::test::home + "/.local/share").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (sd::test::home + "/.config").c_str(), 1);
    if (sd::homeDirectory() != sd::test::home) {
        std::fprintf(stderr, "fixture home was not taken: %s\n", sd::homeDirectory().c_str());
        return 1;
    }
    int status = RUN_ALL_TESTS();
    try {
        sd::MockRoots::tearDown(sd::test::root);
    } catch (const sd::CleanerError& e) {
        std::fprintf(stderr, "The fixture root could not be removed: %s\n", e.what());
        return 1;
    }
    return status;
}
