#include "base/TestHooks.h"

#ifdef SPARROWDECK_TEST_HOOKS

#include <csignal>
#include <cstdlib>
#include <mutex>
#include <string_view>

namespace sd::testhooks {
namespace {
std::mutex lock;
std::function<void(const std::string&)> beforeOpen;
std::function<void()> hashed;
std::function<void()> scanResult;
std::function<void()> historySave;
std::function<void()> journalRecord;

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

void setBeforeJournalRecord(std::function<void()> hook) {
    std::lock_guard guard(lock);
    journalRecord = std::move(hook);
}

void beforeJournalRecord() {
    run(journalRecord);
}

void installFromEnvironment() {
    const char* hook = std::getenv("SPARROWDECK_TEST_HOOK");
    if (hook != nullptr && std::string_view(hook) == "killBeforeJournalRecord") {
        setBeforeJournalRecord([] { std::raise(SIGKILL); });
    }
}

} // namespace sd::testhooks

#endif
