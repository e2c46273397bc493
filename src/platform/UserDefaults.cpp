#include "platform/UserDefaults.h"

#include <map>
#include <mutex>

namespace sd::platform {

struct UserDefaults::State {
    std::mutex lock;
    std::vector<std::string> problems;
    std::size_t failedWrites = 0;
    bool holding = false;
    std::map<std::string, std::optional<std::string>, std::less<>> held;
};

UserDefaults::UserDefaults(std::string file)
    : file_(std::move(file)), state_(std::make_shared<State>()) {}

std::optional<std::string> UserDefaults::string(std::string_view key) const {
    {
        std::lock_guard guard(state_->lock);
        auto held = state_->held.find(key);
        if (held != state_->held.end()) {
            return held->second;
        }
    }
    return stored(key);
}

bool UserDefaults::setString(std::string_view key, std::string_view value) {
    return write(key, value);
}

bool UserDefaults::remove(std::string_view key) {
    return write(key, std::nullopt);
}

bool UserDefaults::write(std::string_view key, std::optional<std::string_view> value) {
    {
        std::lock_guard guard(state_->lock);
        if (state_->holding) {
            state_->held[std::string(key)] =
                value ? std::optional<std::string>(std::string(*value)) : std::nullopt;
            return true;
        }
    }
    return store(key, value);
}

void UserDefaults::noteFailedWrite(const std::string& why) {
    std::lock_guard guard(state_->lock);
    ++state_->failedWrites;
    state_->problems.push_back("Your settings could not be saved (" + why + ").");
}

void UserDefaults::noteProblem(const std::string& sentence) {
    std::lock_guard guard(state_->lock);
    state_->problems.push_back(sentence);
}

void UserDefaults::holdWrites() {
    std::lock_guard guard(state_->lock);
    state_->holding = true;
}

bool UserDefaults::commitHeldWrites() {
    std::map<std::string, std::optional<std::string>, std::less<>> held;
    {
        std::lock_guard guard(state_->lock);
        state_->holding = false;
        held.swap(state_->held);
    }
    bool saved = true;
    for (const auto& [key, value] : held) {
        saved = store(key, value ? std::optional<std::string_view>(*value) : std::nullopt) && saved;
    }
    return saved;
}

void UserDefaults::dropHeldWrites() {
    std::lock_guard guard(state_->lock);
    state_->holding = false;
    state_->held.clear();
}

std::vector<std::string> UserDefaults::problems() const {
    std::lock_guard guard(state_->lock);
    return state_->problems;
}

std::size_t UserDefaults::failedWrites() const {
    std::lock_guard guard(state_->lock);
    return state_->failedWrites;
}

} // namespace sd::platform
