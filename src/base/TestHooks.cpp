#include "base/TestHooks.h"

#ifdef SPARROWDECK_TEST_HOOKS

#include <mutex>

namespace sd::testhooks {
namespace {
std::mutex lock;
std::function<void(const std::string&)> beforeOpen;
std::function<void()> hashed;
std::function<void()> scanResult;
std::function<void()> historySave;

void run(const std::function<void()>& slot) {
    std::function<void()> hook;
    {
        std::lock_guard guard(lock);
        hook = slot;
    }
    if (hook) {
        hook();
    }
}
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
    run(hashed);
}

void setBeforeScanResult(std::function<void()> hook) {
    std::lock_guard guard(lock);
    scanResult = std::move(hook);
}

void beforeScanResult() {
    run(scanResult);
}

void setMidHistorySave(std::function<void()> hook) {
    std::lock_guard guard(lock);
    historySave = std::move(hook);
}

void midHistorySave() {
    run(historySave);
}

} // namespace sd::testhooks

#endif
