#include "platform/UserDirs.h"

#include <gtest/gtest.h>

namespace sd {
namespace {

// The record as xdg-user-dirs-update writes it, and as people edit it by hand.
TEST(UserDirs, ReadsTheDesktopRecordOfTheUsersOwnFolders) {
    struct Row {
        const char* text;
        std::vector<std::string> rows;
    };
    const Row rows[] = {
        {"# This file is written by xdg-user-dirs-update\n"
         "XDG_DESKTOP_DIR=\"$HOME/Bureau\"\n"
         "XDG_DOWNLOAD_DIR=\"$HOME/Téléchargements\"\n"
         "XDG_VIDEOS_DIR=\"$HOME/Vidéos\"\n",
         {"Bureau", "Téléchargements", "Vidéos"}},
        // Blanks, a comment after the value, escapes, an absolute path inside the home.
        {"  XDG_PICTURES_DIR = \"$HOME/Bilder\"  # mine\n"
         "XDG_MUSIC_DIR=\"$HOME/My \\\"Music\\\"\"\n"
         "XDG_TEMPLATES_DIR=\"/home/u/Vorlagen\"\n"
         "XDG_PUBLICSHARE_DIR=\"$HOME/work/Öffentlich/\"\n",
         {"Bilder", "My \"Music\"", "Vorlagen", "work/Öffentlich"}},
        // The home itself, outside it, climbing out, a look-alike prefix and a sibling home.
        {"XDG_DESKTOP_DIR=\"$HOME\"\n"
         "XDG_DOCUMENTS_DIR=\"$HOME/\"\n"
         "XDG_DOWNLOAD_DIR=\"/tmp/downloads\"\n"
         "XDG_MUSIC_DIR=\"$HOME/../other/Music\"\n"
         "XDG_PICTURES_DIR=\"$HOMEWORK/Pictures\"\n"
         "XDG_VIDEOS_DIR=\"/home/user2/Videos\"\n",
         {}},
        // Keys that are not user folders, unquoted or unterminated values, text after the quote.
        {"XDG_CACHE_DIR=\"$HOME/cache\"\n"
         "XDG_MUSIC_DIR=$HOME/Music\n"
         "XDG_VIDEOS_DIR=\"$HOME/Videos\n"
         "XDG_DESKTOP_DIR=\"$HOME/Desktop\" rm -rf\n"
         "XDG_TEMPLATES_DIR=\"relative/Templates\"\n"
         "garbage without an equals sign\n"
         "XDG_DOCUMENTS_DIR=\"$HOME/Docs\"",
         {"Docs"}},
        // The same folder twice counts once.
        {"XDG_DOCUMENTS_DIR=\"$HOME/Stuff\"\nXDG_DOWNLOAD_DIR=\"$HOME/Stuff\"\n", {"Stuff"}},
        {"", {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(platform::parseUserDirectories(row.text, "/home/u"), row.rows);
    }
}

} // namespace
} // namespace sd
