#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace sd {

// The one error type of the file-system core and of cleaning. Its message is a sentence for the
// user; the kind tells callers how to react without re-reading the text.
class CleanerError : public std::runtime_error {
public:
    enum class Kind { accessDenied, operationCancelled, ioError, invalidPath, safetyViolation };

    CleanerError(Kind kind, const std::string& message)
        : std::runtime_error(message), kind_(kind) {}

    Kind kind() const noexcept { return kind_; }
    std::string message() const { return what(); }

    static CleanerError cancelled() { return {Kind::operationCancelled, "Operation cancelled"}; }
    static CleanerError safety(const std::string& message) {
        return {Kind::safetyViolation, message};
    }
    static CleanerError invalidPath(const std::string& message) {
        return {Kind::invalidPath, message};
    }

private:
    Kind kind_;
};

// The words that start every message made from a failing system call.
namespace operation {
inline constexpr std::string_view opening = "Opening";
inline constexpr std::string_view openingDirectory = "Opening directory";
inline constexpr std::string_view openingAncestor = "Opening ancestor of";
inline constexpr std::string_view duplicatingDirectory = "Duplicating directory";
inline constexpr std::string_view readingDirectory = "Reading directory";
inline constexpr std::string_view readingMetadata = "Reading metadata for";
inline constexpr std::string_view readingParentMetadata = "Reading parent metadata for";
inline constexpr std::string_view readingCloneAttributes = "Reading clone attributes for";
inline constexpr std::string_view removing = "Removing";
} // namespace operation

// Turns a failed system call into an error: "<operation> <path>: <strerror(errno)>". EPERM and
// EACCES are accessDenied, ELOOP (what a no-follow open gives on a symbolic link) is a safety
// violation, everything else an I/O error.
CleanerError makeCoreError(std::string_view operation, std::string_view path, int error);

const char* kindName(CleanerError::Kind kind) noexcept;

// The system's sentence for an errno value ("No such file or directory"), safe to ask from any
// thread, unlike strerror.
std::string errorText(int error);

} // namespace sd
