#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd::platform {

// The per-user settings store. Values are text (JSON where a setting is structured). Writers in
// several processes never lose each other's keys: each write changes only its own key. A store
// that cannot be read is never overwritten: the first write keeps it aside under a new name and
// says so. Writing never throws; a write that fails is a sentence in problems().
class UserDefaults {
public:
    // The store of the running user.
    static UserDefaults standard();
    // A store kept in `file`, for tests.
    explicit UserDefaults(std::string file);

    std::optional<std::string> string(std::string_view key) const;
    // True when the value is stored (or held, see holdWrites).
    bool setString(std::string_view key, std::string_view value);
    bool remove(std::string_view key);

    // From now on writes are kept in memory, where reads see them, until they are committed or
    // dropped: an action the person may still decline leaves no trace. Copies share the state.
    void holdWrites();
    bool commitHeldWrites();
    void dropHeldWrites();

    // Sentences for the person: a store kept aside, a write that failed. Shared by copies.
    std::vector<std::string> problems() const;
    // How many writes failed so far; a caller compares counts around what the person asked for.
    std::size_t failedWrites() const;

    const std::string& file() const noexcept { return file_; }

private:
    struct State;
    // The store itself, per platform: the stored value, and a write to the store that never
    // throws (a failure is noted in `state_`).
    std::optional<std::string> stored(std::string_view key) const;
    bool store(std::string_view key, std::optional<std::string_view> value);
    bool write(std::string_view key, std::optional<std::string_view> value);
    void noteFailedWrite(const std::string& why);
    void noteProblem(const std::string& sentence);

    std::string file_;
    std::shared_ptr<State> state_;
};

} // namespace sd::platform
