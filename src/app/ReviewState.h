#pragma once

#include <QColor>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace sd {
// Why the vault keeps an item in place (reclaim/VaultTypes.h); only named here.
enum class VaultDenyReason;
} // namespace sd

namespace sd::app {

// What the review screens show: the last report, the vault's verdicts, the ticks, and what
// already went to the Trash from it.
template <typename Report> struct ReviewState {
    std::optional<Report> report;
    std::map<std::string, VaultDenyReason> denied;
    std::set<std::string> ticked;
    std::set<std::string> moved;
};

// The ink of a note that says why the vault keeps a row in place.
inline const QColor deniedInk(0x8a, 0x5a, 0x00);

} // namespace sd::app
