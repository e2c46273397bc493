#pragma once

#include <span>
#include <string_view>

namespace sd::platform {

// Rows this platform adds after the shared tables of the scope rules. Paths are relative to the
// home folder; the shared rows always come first and are never dropped or reordered.
std::span<const std::string_view> extraProtectedLocations();
std::span<const std::string_view> extraAppDataLocations();

// The user's own folders this platform adds to the shared ones (Documents, Desktop, …), by name.
std::span<const std::string_view> extraOwnFolders();

// Cloud-synchronised folders this platform adds, whose contents may not be on this disk at all.
std::span<const std::string_view> extraCloudFolders();

// Folders below the home that the review searches leave to the Sweep on this platform, as
// component-wise globs ("*" stands for one folder name).
std::span<const std::string_view> extraReviewExclusions();

// Folders below the home where this platform's developer tools keep disk images and emulators;
// the large-and-old search walks them although they sit inside hidden or excluded folders.
std::span<const std::string_view> extraDeveloperFolders();

// Absolute folders of the operating system itself, under which nothing is ever moved.
std::span<const std::string_view> systemRoots();

// Where git is looked for, in order.
std::span<const std::string_view> gitCandidates();

} // namespace sd::platform
