#include "base/TestHooks.h"

#ifdef SPARROWDECK_TEST_HOOKS

#include <mutex>

namespace sd::testhooks {
namespace {
std::mutex lock;
std::function<void(const std::string&)> beforeOpen;
std::function<void()> hashed;
} // namespace

void setBeforeOpenDirectory(std::function<void(const std::string& path)> hook) {
    std::lock_guard guard(lock);
    beforeOpen = std::move(hook);
}

void beforeOpenDirectory(const std::string& path) {
    std::function<void(const std::string&)> hook;
    {
        std::lock_guard guard(lock);
        hook = beforeOpen;
    }
    if (hook) {
        hook(path);
    }
}

void setAfterHashing(std::function<void()> hook) {
    std::lock_guard guard(lock);
    hashed = std::move(hook);
}

void afterHashing() {
    std::function<void()> hook;
    {
        std::lock_guard guard(lock);
        hook = hashed;
    }
    if (hook) {
        hook();
    }
}

} // namespace sd::testhooks

#endif
