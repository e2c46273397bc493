#include "platform/UserDefaults.h"

#include "base/CleanerError.h"
#include "base/FileIo.h"
#include "base/UniqueFd.h"
#include "platform/Dirs.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace sd::platform {

namespace {

using nlohmann::json;

// Every value this program stores is text; anything else means the file is not ours to trust.
std::optional<json> decodeStore(const std::string& text) {
    try {
        json parsed = json::parse(text);
        if (!parsed.is_object()) {
            return std::nullopt;
        }
        for (const auto& [key, value] : parsed.items()) {
            if (!value.is_string()) {
                return std::nullopt;
            }
        }
        return parsed;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// A store that cannot be read is read as empty; reading never changes the file.
json readStore(const std::string& path) {
    try {
        return decodeStore(readRecordFile(path).value_or("{}")).value_or(json::object());
    } catch (const CleanerError&) {
        return json::object();
    }
}

// The store as it is on disk under the lock; one that cannot be read is renamed aside first, so
// the write that follows never replaces what the person may still want.
json storeForWriting(const std::string& file, std::vector<std::string>& problems) {
    std::optional<std::string> text = readRecordFile(file);
    if (!text) {
        return json::object();
    }
    if (std::optional<json> decoded = decodeStore(*text)) {
        return *decoded;
    }
    problems.push_back("Your settings could not be read, so they were kept as " + keepAside(file) +
                       " and new settings were started.");
    return json::object();
}

} // namespace

UserDefaults UserDefaults::standard() {
    return UserDefaults(configHome() + "/sparrowdeck/defaults.json");
}

std::optional<std::string> UserDefaults::stored(std::string_view key) const {
    json store = readStore(file_);
    auto found = store.find(std::string(key));
    if (found == store.end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

bool UserDefaults::store(std::string_view key, std::optional<std::string_view> value) {
    try {
        makeDirectories(file_.substr(0, file_.rfind('/')), 0700);
        FileLock lock(file_);
        std::vector<std::string> keptAside;
        json store = storeForWriting(file_, keptAside);
        for (const std::string& sentence : keptAside) {
            noteProblem(sentence);
        }
        if (value) {
            store[std::string(key)] = std::string(*value);
        } else {
            store.erase(std::string(key));
        }
        replaceFileAtomically(file_, store.dump(2));
        return true;
    } catch (const std::exception& error) {
        noteFailedWrite(error.what());
        return false;
    }
}

} // namespace sd::platform
