#include "platform/UserDefaults.h"

#include "core/CleanerError.h"
#include "core/UniqueFd.h"
#include "platform/Dirs.h"

#include <cerrno>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <random>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sd::platform {
namespace {

using nlohmann::json;

std::string readFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    std::string text;
    if (!fd) {
        return text;
    }
    char buffer[16384];
    for (ssize_t n; (n = ::read(fd.get(), buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

// A store that does not decode is read as empty; it is only replaced when a key is written.
json readStore(const std::string& path) {
    try {
        json parsed = json::parse(readFile(path));
        return parsed.is_object() ? parsed : json::object();
    } catch (const std::exception&) {
        return json::object();
    }
}

void makeParents(const std::string& file) {
    std::string dir = file.substr(0, file.rfind('/'));
    for (size_t at = 1; at <= dir.size(); ++at) {
        if (at == dir.size() || dir[at] == '/') {
            std::string prefix = dir.substr(0, at);
            if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
                throw makeCoreError(operation::opening, prefix, errno);
            }
        }
    }
}

template <typename Change> void rewrite(const std::string& file, Change&& change) {
    makeParents(file);
    std::string lockPath = file + ".lock";
    UniqueFd lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) {
        throw makeCoreError(operation::opening, lockPath, errno);
    }
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            throw makeCoreError(operation::opening, lockPath, errno);
        }
    }
    json store = readStore(file);
    change(store);
    std::string text = store.dump(2);
    std::random_device random;
    std::string temporary =
        file + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(random());
    UniqueFd fd(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd) {
        throw makeCoreError(operation::opening, temporary, errno);
    }
    bool written =
        ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        ::fsync(fd.get()) == 0;
    fd.reset();
    if (!written || ::rename(temporary.c_str(), file.c_str()) != 0) {
        int error = errno;
        ::unlink(temporary.c_str());
        throw makeCoreError(operation::opening, file, error == 0 ? EIO : error);
    }
    ::flock(lock.get(), LOCK_UN);
}

} // namespace

UserDefaults UserDefaults::standard() {
    return UserDefaults(configHome() + "/sparrowdeck/defaults.json");
}

UserDefaults::UserDefaults(std::string file) : file_(std::move(file)) {}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
    json store = readStore(file_);
    auto found = store.find(std::string(key));
    if (found == store.end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

void UserDefaults::setString(std::string_view key, std::string_view value) {
    rewrite(file_, [&](json& store) { store[std::string(key)] = std::string(value); });
}

void UserDefaults::remove(std::string_view key) {
    rewrite(file_, [&](json& store) { store.erase(std::string(key)); });
}

} // namespace sd::platform
