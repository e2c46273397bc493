#pragma once

#include <QObject>
#include <functional>
#include <memory>
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

} // namespace sd::test

#define SD_REGISTER_APP_TEST(Class)                                                                \
    static const sd::test::RegisterAppTest<Class> registered##Class {}
