#pragma once

// Helpers shared by the apps suites: files written with their folders, and the data query of an
// app as the listing would build it.
#include "Fixture.h"
#include "apps/AppDataLocations.h"

#include <string>
#include <string_view>

namespace sd::test {

inline std::string parentOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

// Writes a file, making its folders first.
inline void put(const std::string& path, std::string_view contents) {
    makeDirs(parentOf(path));
    writeFile(path, contents);
}

inline void putFilled(const std::string& path, std::uint64_t bytes, char fill = 'x') {
    makeDirs(parentOf(path));
    writeFilledFile(path, bytes, fill);
}

inline AppDataQuery queryFor(const std::string& id, const std::string& name) {
    AppDataQuery query;
    query.bundleId = id;
    query.appName = name;
    return query;
}

} // namespace sd::test
