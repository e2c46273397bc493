#include "core/ByteFormat.h"

#include <gtest/gtest.h>

namespace sd {
namespace {

TEST(ByteFormat, DecimalUnitsAsADesktopShowsThem) {
    struct Case {
        std::uint64_t bytes;
        const char* text;
    };
    const Case cases[]{
        {0, "0 bytes"},
        {1, "1 byte"},
        {999, "999 bytes"},
        {1000, "1.0 KB"},
        {1500, "1.5 KB"},
        {999949, "999.9 KB"},
        {999950, "1.0 MB"},
        {12345678, "12.3 MB"},
        {1234567890, "1.23 GB"},
        {99994999999, "99.99 GB"},
        {123456789012, "123.5 GB"},
        {4100000000000, "4.10 TB"},
        {18446744073709551615ULL, "18.45 EB"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(formatBytes(c.bytes), c.text) << c.bytes;
    }
}

TEST(ByteFormat, CountsGroupThousands) {
    EXPECT_EQ(formatCount(0), "0");
    EXPECT_EQ(formatCount(999), "999");
    EXPECT_EQ(formatCount(1000), "1,000");
    EXPECT_EQ(formatCount(1234567), "1,234,567");
    EXPECT_EQ(formatCount(100000), "100,000");
}

TEST(ByteFormat, DurationsRoundOnceAcrossTheMinute) {
    struct Case {
        double seconds;
        const char* text;
    };
    const Case cases[]{
        {0, "0.0 s"},          {0.44, "0.4 s"},         {59.94, "59.9 s"},
        {59.96, "1 min 00 s"}, {60, "1 min 00 s"},      {119.4, "1 min 59 s"},
        {119.6, "2 min 00 s"}, {3665.2, "61 min 05 s"}, {-3, "0.0 s"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(formatDuration(c.seconds), c.text) << c.seconds;
    }
}

} // namespace
} // namespace sd
