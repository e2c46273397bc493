#include "base/CleanerError.h"

#include <cerrno>
#include <cstring>

namespace sd {
namespace {

// strerror_r comes in two shapes, the XSI one that fills the buffer and the GNU one that may
// return a static text instead; both are read the same way here.
[[maybe_unused]] const char* textOf(int result, const char* buffer) {
    return result == 0 ? buffer : "Unknown error";
}
[[maybe_unused]] const char* textOf(const char* result, const char*) {
    return result;
}

} // namespace

std::string errorText(int error) {
    char buffer[256] = {};
    return textOf(::strerror_r(error, buffer, sizeof buffer), buffer);
}

CleanerError makeCoreError(std::string_view operation, std::string_view path, int error) {
    std::string message;
    message.reserve(operation.size() + path.size() + 48);
    message.append(operation).append(" ").append(path).append(": ").append(errorText(error));
    CleanerError::Kind kind = CleanerError::Kind::ioError;
    if (error == EPERM || error == EACCES) {
        kind = CleanerError::Kind::accessDenied;
    } else if (error == ELOOP) {
        kind = CleanerError::Kind::safetyViolation;
    }
    return {kind, message};
}

const char* kindName(CleanerError::Kind kind) noexcept {
    switch (kind) {
    case CleanerError::Kind::accessDenied:
        return "accessDenied";
    case CleanerError::Kind::operationCancelled:
        return "operationCancelled";
    case CleanerError::Kind::ioError:
        return "ioError";
    case CleanerError::Kind::invalidPath:
        return "invalidPath";
    case CleanerError::Kind::safetyViolation:
        return "safetyViolation";
    }
    return "ioError";
}

} // namespace sd
