#include "base/CleanerError.h"

#include <cerrno>
#include <cstring>

namespace sd {

CleanerError makeCoreError(std::string_view operation, std::string_view path, int error) {
    std::string message;
    message.reserve(operation.size() + path.size() + 48);
    message.append(operation).append(" ").append(path).append(": ").append(std::strerror(error));
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
