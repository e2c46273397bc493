#pragma once

#include "platform/Trash.h"

#include <stop_token>
#include <vector>

namespace sd {

// Every item in the user's Trashes, whoever put it there, each with its allocated size: a folder
// whose size the Trash's own cache does not vouch for is measured, hard links once.
std::vector<platform::TrashedEntry> listTrashMeasured(const std::stop_token& stop = {});

} // namespace sd
