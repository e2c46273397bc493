#pragma once

#include <optional>
#include <string>

namespace sd {

enum class RestoreOutcome { restored, gone, replaced, unreachable, occupied };

// Moves the object at `trashPath` back to `originalPath`, descriptor by descriptor and never
// following a link. When `identityToken` is given, the object in the Trash must still carry it.
// Missing folders on the way back are created with mode 0700; anything now at the old location
// is never replaced.
RestoreOutcome restoreFromTrash(const std::string& trashPath, const std::string& originalPath,
                                const std::optional<std::string>& identityToken);

} // namespace sd
