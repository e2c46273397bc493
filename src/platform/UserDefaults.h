#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sd::platform {

// The per-user settings store. Values are text (JSON where a setting is structured). Writers in
// several processes never lose each other's keys: each write changes only its own key.
class UserDefaults {
public:
    // The store of the running user.
    static UserDefaults standard();
    // A store kept in `file`, for tests.
    explicit UserDefaults(std::string file);

    std::optional<std::string> string(std::string_view key) const;
    void setString(std::string_view key, std::string_view value);
    void remove(std::string_view key);

    const std::string& file() const noexcept { return file_; }

private:
    std::string file_;
};

} // namespace sd::platform
