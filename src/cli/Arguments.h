#pragma once

#include <CLI/CLI.hpp>
#include <cmath>
#include <string>

namespace sd::cli {

// An empty argument names nothing; it is never read as "the home folder" or "here".
inline CLI::Validator nonEmptyPath() {
    return CLI::Validator(
        [](std::string& text) {
            return text.empty() ? std::string("An empty path names nothing: give an absolute path "
                                              "inside your home folder.")
                                : std::string();
        },
        "PATH");
}

// A number of seconds: finite and not negative ("nan" and "inf" are not durations).
inline CLI::Validator finiteNonNegative() {
    return CLI::Validator(
        [](std::string& text) {
            double value = 0;
            try {
                size_t used = 0;
                value = std::stod(text, &used);
                if (used != text.size()) {
                    return std::string("“" + text + "” is not a number of seconds.");
                }
            } catch (const std::exception&) {
                return std::string("“" + text + "” is not a number of seconds.");
            }
            if (!std::isfinite(value) || value < 0) {
                return std::string("“" + text + "” is not a number of seconds: give 0 or more.");
            }
            return std::string();
        },
        "SECONDS");
}

} // namespace sd::cli
