#pragma once

#include <string_view>

// Words in user-facing sentences that name something of the platform itself. The sentences
// around them are shared; only these words change from one system to the other.
namespace sd::platform {

// The system's own name: "macOS", "Linux".
std::string_view systemName();

// Where the system keeps its record of when files were last opened.
std::string_view openedRecordName();

// The same record as the large-and-old description phrases it between its dashes.
std::string_view openedRecordDescription();

// The file manager a person opens to look at a file and decide: "Finder", "Files".
std::string_view fileManagerName();

// The action offered beside a row the program will not move: the person looks and decides.
std::string_view revealActionText();

// How sentences name the machine they run on ("this Mac").
std::string_view thisMachineText();

// What people call copies that share their storage with the original on this system.
std::string_view cloneCopiesName();

// The sentence that tells what the large-and-old search looked at and what it left out.
std::string_view largeOldScopeText();

// The same for the duplicate search.
std::string_view duplicatesScopeText();

// A few of the user's own folders, by the names this system gives them, to stand for all of
// them in a sentence: "Downloads, Documents, Movies".
std::string_view ownFoldersExamples();

// What an app's own identifier is called ("bundle ID").
std::string_view appIdName();

} // namespace sd::platform
