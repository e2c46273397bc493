#include "base/PathText.h"

#include <cstdint>

namespace sd {

std::vector<std::string_view> splitComponents(std::string_view path) {
    std::vector<std::string_view> parts;
    size_t at = 0;
    while (at < path.size()) {
        size_t slash = path.find('/', at);
        size_t end = slash == std::string_view::npos ? path.size() : slash;
        if (end > at) {
            parts.push_back(path.substr(at, end - at));
        }
        at = end + 1;
    }
    return parts;
}

std::string childPath(std::string_view parent, std::string_view name) {
    std::string path;
    path.reserve(parent.size() + name.size() + 1);
    path.append(parent == "/" ? std::string_view() : parent).append("/").append(name);
    return path;
}

std::string lastComponent(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') {
        path.remove_suffix(1);
    }
    size_t slash = path.rfind('/');
    std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    return std::string(name.empty() ? path : name);
}

bool isUtf8(std::string_view text) noexcept {
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    size_t n = text.size();
    size_t i = 0;
    while (i < n) {
        unsigned char c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t extra = 0;
        std::uint32_t point = 0;
        if ((c & 0xE0) == 0xC0) {
            extra = 1;
            point = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2;
            point = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3;
            point = c & 0x07;
        } else {
            return false;
        }
        if (i + extra >= n) {
            return false;
        }
        for (size_t k = 1; k <= extra; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) {
                return false;
            }
            point = (point << 6) | (s[i + k] & 0x3F);
        }
        static constexpr std::uint32_t smallest[] = {0, 0x80, 0x800, 0x10000};
        if (point < smallest[extra] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
            return false;
        }
        i += extra + 1;
    }
    return true;
}

} // namespace sd
