#pragma once

#include "base/TestHooks.h"

#include <QObject>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace sd::test {

// Qt Test classes register themselves here; the main runs each against the fixture home.
std::vector<std::function<std::unique_ptr<QObject>()>>& appTestClasses();

template <typename T> struct RegisterAppTest {
    RegisterAppTest() {
        appTestClasses().push_back([] { return std::make_unique<T>(); });
    }
};

// Caches of the kind a developer's home fills up with, at the places the catalog names, each
// file filled so that every block is allocated. Returns the folders made, relative to the home.
struct FixtureCache {
    std::string targetID;
    std::string folder;
    std::vector<std::pair<std::string, std::uint64_t>> files;
};
const std::vector<FixtureCache>& fixtureCaches();
void writeFixtureCaches(const std::string& home);

// sha256sum of every file under the folders, sorted, as one text.
std::string checksums(const std::vector<std::string>& folders);

// A gate a worker waits at until the test opens it.
class Gate {
public:
    void open() {
        std::lock_guard guard(lock_);
        open_ = true;
        changed_.notify_all();
    }
    void wait() {
        std::unique_lock guard(lock_);
        changed_.wait(guard, [this] { return open_; });
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool open_ = false;
};

#ifdef SPARROWDECK_TEST_HOOKS
// Holds the walk at the first folder it opens below `marker` until the gate opens, and counts
// the folders below it opened after that.
class WalkPause {
public:
    explicit WalkPause(std::string marker) : marker_(std::move(marker)) {
        testhooks::setBeforeOpenDirectory([this](const std::string& path) {
            if (path.find(marker_) == std::string::npos) {
                return;
            }
            if (!reached_.exchange(true)) {
                gate_.wait();
            } else if (released_) {
                ++afterRelease_;
            }
        });
    }
    ~WalkPause() { testhooks::setBeforeOpenDirectory({}); }
    bool reached() const { return reached_; }
    void release() {
        released_ = true;
        gate_.open();
    }
    int afterRelease() const { return afterRelease_; }

private:
    std::string marker_;
    Gate gate_;
    std::atomic<bool> reached_{false};
    std::atomic<bool> released_{false};
    std::atomic<int> afterRelease_{0};
};

#endif

} // namespace sd::test

#define SD_REGISTER_APP_TEST(Class)                                                                \
    static const sd::test::RegisterAppTest<Class> registered##Class {}
