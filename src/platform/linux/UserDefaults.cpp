#include "platform/UserDefaults.h"

#include "base/CleanerError.h"
#include "base/FileIo.h"
#include "base/UniqueFd.h"
#include "platform/Dirs.h"

#include <cerrno>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace sd::platform {
namespace {

using nlohmann::json;

// A store that does not decode is read as empty; it is only replaced when a key is written.
json readStore(const std::string& path) {
    try {
        UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        json parsed = json::parse(fd ? readAll(fd.get()) : std::string());
        return parsed.is_object() ? parsed : json::object();
    } catch (const std::exception&) {
        return json::object();
    }
}

template <typename Change> void rewrite(const std::string& file, Change&& change) {
    makeDirectories(file.substr(0, file.rfind('/')), 0700);
    FileLock lock(file);
    json store = readStore(file);
    change(store);
    replaceFileAtomically(file, store.dump(2));
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
