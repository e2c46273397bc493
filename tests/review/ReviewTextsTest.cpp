#include "review/ReviewTexts.h"

#include "reclaim/VaultTypes.h"

#include <algorithm>
#include <cctype>
#include <gtest/gtest.h>

namespace sd {
namespace {

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Whatever keeps a review row in place, the row says what happens to the person's file in words
// they know: never the machinery's name, never another system's words.
TEST(ReviewTexts, KeptInPlaceSaysWhatHappensInPlainWords) {
    for (int r = 0; r <= static_cast<int>(VaultDenyReason::identityChanged); ++r) {
        auto reason = static_cast<VaultDenyReason>(r);
        SCOPED_TRACE(std::string(denyReasonName(reason)));
        const std::string note = keptInPlaceNote(reason);
        const std::string detail = keptInPlaceDetail(reason);
        EXPECT_FALSE(note.empty());
        EXPECT_LE(note.size(), 60U) << "a row note fits one line: " << note;
        EXPECT_TRUE(detail.starts_with("Sparrowdeck keeps this where it is: ")) << detail;
        EXPECT_TRUE(detail.ends_with(" to decide.")) << detail;
        for (const std::string& text : {note, detail}) {
            for (const char* word : {"vault", "finder", "mac", "spotlight", "reveal"}) {
                EXPECT_EQ(lower(text).find(word), std::string::npos) << word << " in: " << text;
            }
        }
    }
    for (VaultDenyReason stays : {VaultDenyReason::protectedUserDir, VaultDenyReason::systemPath,
                                  VaultDenyReason::cloudStorage}) {
        EXPECT_TRUE(inFolderNeverMoved(stays));
    }
    for (VaultDenyReason moves : {VaultDenyReason::gitWorkingTree, VaultDenyReason::multiplyLinked,
                                  VaultDenyReason::identityChanged}) {
        EXPECT_FALSE(inFolderNeverMoved(moves));
    }
    EXPECT_EQ(keptInPlaceNote(VaultDenyReason::protectedUserDir),
              "In a folder Sparrowdeck never moves things from");
}

} // namespace
} // namespace sd
