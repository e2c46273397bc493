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

struct StoreText {
    bool exists = false;
    std::string text;
};

StoreText readText(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) {
        if (errno == ENOENT) {
            return {};
        }
        throw makeCoreError(operation::opening, path, errno);
    }
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
        throw makeCoreError(operation::readingMetadata, path, errno);
    }
    if (!S_ISREG(st.st_mode)) {
        // A folder where the file should be is nothing to read and nothing to replace.
        throw makeCoreError(operation::opening, path, S_ISDIR(st.st_mode) ? EISDIR : EINVAL);
    }
    return {true, readAll(fd.get(), size_t(1) << 26)};
}

// A store that cannot be read is read as empty; reading never changes the file.
json readStore(const std::string& path) {
    try {
        StoreText store = readText(path);
        return decodeStore(store.exists ? store.text : "{}").value_or(json::object());
    } catch (const CleanerError&) {
        return json::object();
    }
}

std::string timestampForName() {
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &utc);
    return text;
}

std::string fileNameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// The store as it is on disk under the lock; one that cannot be read is renamed aside first, so
// the write that follows never replaces what the person may still want.
json storeForWriting(const std::string& file, std::vector<std::string>& problems) {
    StoreText store = readText(file);
    if (!store.exists) {
        return json::object();
    }
    if (std::optional<json> decoded = decodeStore(store.text)) {
        return *decoded;
    }
    std::string aside = file + ".unreadable-" + timestampForName();
    for (int n = 2; ::access(aside.c_str(), F_OK) == 0; ++n) {
        aside = file + ".unreadable-" + timestampForName() + "-" + std::to_string(n);
    }
    if (::rename(file.c_str(), aside.c_str()) != 0) {
        throw makeCoreError(operation::opening, file, errno);
    }
    problems.push_back("Your settings could not be read, so they were kept as " +
                       fileNameOf(aside) + " and new settings were started.");
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
