#pragma once

#include <cstdint>
#include <limits>

namespace sd {

// Byte and entry counts stop at the largest value instead of wrapping round to small numbers.
constexpr std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) noexcept {
    std::uint64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? std::numeric_limits<std::uint64_t>::max() : sum;
}

constexpr std::uint64_t saturatingSub(std::uint64_t a, std::uint64_t b) noexcept {
    return a > b ? a - b : 0;
}

constexpr std::uint64_t saturatingMul(std::uint64_t a, std::uint64_t b) noexcept {
    std::uint64_t product = 0;
    return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<std::uint64_t>::max()
                                                  : product;
}

// Allocated bytes of a stat record: blocks of 512 bytes, a negative count taken as none.
template <typename Stat> constexpr std::uint64_t allocatedBytesOf(const Stat& st) noexcept {
    return st.st_blocks <= 0 ? 0 : saturatingMul(static_cast<std::uint64_t>(st.st_blocks), 512);
}

} // namespace sd
