#include "platform/UserDefaults.h"

#include <CoreFoundation/CoreFoundation.h>
#include <vector>

namespace sd::platform {
namespace {

// The application's own domain; the file argument only names it for tests.
CFStringRef domainOf(const std::string& file) {
    return CFStringCreateWithCString(nullptr, file.c_str(), kCFStringEncodingUTF8);
}

CFStringRef cfString(std::string_view text) {
    return CFStringCreateWithBytes(nullptr, reinterpret_cast<const UInt8*>(text.data()),
                                   static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

} // namespace

UserDefaults UserDefaults::standard() {
    return UserDefaults("com.sparrowdeck.app");
}

std::optional<std::string> UserDefaults::stored(std::string_view key) const {
    CFStringRef domain = domainOf(file_);
    CFStringRef name = cfString(key);
    CFPropertyListRef value = CFPreferencesCopyAppValue(name, domain);
    CFRelease(name);
    CFRelease(domain);
    if (value == nullptr) {
        return std::nullopt;
    }
    std::optional<std::string> out;
    if (CFGetTypeID(value) == CFStringGetTypeID()) {
        auto text = static_cast<CFStringRef>(value);
        CFIndex length =
            CFStringGetMaximumSizeForEncoding(CFStringGetLength(text), kCFStringEncodingUTF8) + 1;
        std::vector<char> buffer(static_cast<size_t>(length));
        if (CFStringGetCString(text, buffer.data(), length, kCFStringEncodingUTF8)) {
            out = std::string(buffer.data());
        }
    } else if (CFGetTypeID(value) == CFDataGetTypeID()) {
        auto data = static_cast<CFDataRef>(value);
        out = std::string(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
                          static_cast<size_t>(CFDataGetLength(data)));
    }
    CFRelease(value);
    return out;
}

bool UserDefaults::store(std::string_view key, std::optional<std::string_view> value) {
    CFStringRef domain = domainOf(file_);
    CFStringRef name = cfString(key);
    CFStringRef text = value ? cfString(*value) : nullptr;
    CFPreferencesSetAppValue(name, text, domain);
    bool saved = CFPreferencesAppSynchronize(domain);
    if (text != nullptr) {
        CFRelease(text);
    }
    CFRelease(name);
    CFRelease(domain);
    if (!saved) {
        noteFailedWrite("the preferences system refused the change");
    }
    return saved;
}

} // namespace sd::platform
