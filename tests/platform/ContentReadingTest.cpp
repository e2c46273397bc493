#include "platform/ContentReading.h"

#include "Fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace sd {
namespace {

// The first block's place orders a cold read; the file system is asked, never guessed at.
TEST(ContentReading, FirstPhysicalOffsetIsThePlaceOfTheFirstBlock) {
    const std::string dir = test::freshFolder("place");
    test::writeFilledFile(dir + "/written", 200'000);
    test::writeFile(dir + "/empty", "");
    ::sync(); // delayed allocation has no place until written back
    UniqueFd written(::open((dir + "/written").c_str(), O_RDONLY | O_CLOEXEC));
    UniqueFd empty(::open((dir + "/empty").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(written && empty);
    EXPECT_FALSE(platform::firstPhysicalOffset(empty.get())) << "no block, no place";

    // filefrag prints the physical block of each extent; the first one must agree with ours.
    test::CommandResult peer =
        test::runShell("filefrag -e -b1 " + test::shellQuote(dir + "/written") +
                       " | awk '$1 == \"0:\" {split($4, a, \"[.]\"); print a[1]}'");
    if (peer.status != 0 || peer.output.empty()) {
        GTEST_SKIP() << "filefrag cannot map extents here: " << peer.output;
    }
    std::optional<std::uint64_t> place = platform::firstPhysicalOffset(written.get());
    ASSERT_TRUE(place);
    EXPECT_EQ(*place, std::stoull(peer.output));
}

} // namespace
} // namespace sd
