#pragma once

#include <string>

// How the review screens say that a row stays where it is: in words about the person's files and
// what happens to them, never about the machinery that decided it.
namespace sd {

enum class VaultDenyReason;

// True for the places Sparrowdeck never moves anything from: the person's own and cloud folders
// and the system's own.
bool inFolderNeverMoved(VaultDenyReason reason);

// A few words for a one-line row: "In a folder Sparrowdeck never moves things from".
std::string keptInPlaceNote(VaultDenyReason reason);

// The whole sentence, for a tooltip: "Sparrowdeck keeps this where it is: …", ending with how the
// person can look and decide.
std::string keptInPlaceDetail(VaultDenyReason reason);

// The same for a group of copies that all stay, said once for the group.
std::string everyCopyStaysDetail();

} // namespace sd
