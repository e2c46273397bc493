// What a Linux user reads: their own folders as their desktop names them, and no word of
// another system's anywhere the command line speaks.
#include "Fixture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace sd {
namespace {

constexpr std::uint64_t mib = 1'048'576;

struct CliRun {
    int status;
    std::string output;
};

// The command with its standard error folded into its output: everything a person reads.
CliRun sparrowdeck(const std::string& home, const std::string& arguments,
                   const std::string& configHome = {}) {
    std::string environment = "SPARROWDECK_HOME=" + test::shellQuote(home) + " ";
    if (!configHome.empty()) {
        environment += "XDG_CONFIG_HOME=" + test::shellQuote(configHome) + " ";
    }
    test::CommandResult r = test::runShell(environment + SPARROWDECK_CLI " " + arguments + " 2>&1");
    return {r.status, r.output};
}

TEST(LinuxPresentation, TheDesktopsOwnFoldersAreNeverOffered) {
    const std::string home = test::freshFolder("user-dirs");
    const std::string config = home + "/.config";
    test::makeDirs(config);
    test::writeFile(config + "/user-dirs.dirs", "XDG_VIDEOS_DIR=\"$HOME/Vidéos\"\n"
                                                "XDG_PICTURES_DIR=\"$HOME/Bilder\"\n"
                                                "XDG_DOCUMENTS_DIR=\"$HOME\"\n"
                                                "XDG_MUSIC_DIR=\"/tmp\"\n");
    for (const char* folder : {"Vidéos", "Videos", "Bilder", "stuff", "Templates"}) {
        test::makeDirs(home + "/" + folder);
    }
    // Each its own contents, so that none of them is a duplicate of another.
    test::writeFilledFile(home + "/Vidéos/wedding-2019.mp4", 3 * mib, 'v');
    test::writeFilledFile(home + "/Videos/holiday.mp4", 3 * mib, 'h');
    test::writeFilledFile(home + "/Templates/letter.odt", 3 * mib, 't');
    test::writeFilledFile(home + "/stuff/old.iso", 3 * mib, 'o');

    CliRun large = sparrowdeck(home, "large-old --json --older-than 0 --min-size 2097152", config);
    ASSERT_EQ(large.status, 0) << large.output;
    auto report = nlohmann::json::parse(large.output);
    EXPECT_EQ(report.at("items").size(), 4U);
    const auto notes = report.at("notes").dump();
    EXPECT_NE(notes.find("3 items are in Downloads, Documents, Videos or another folder "
                         "Sparrowdeck never moves things from."),
              std::string::npos)
        << notes;

    // Offered by hand, each is refused and stays; the ordinary file would have gone.
    for (const char* file :
         {"Vidéos/wedding-2019.mp4", "Videos/holiday.mp4", "Templates/letter.odt"}) {
        SCOPED_TRACE(file);
        CliRun moved =
            sparrowdeck(home, "trash --yes " + test::shellQuote(home + "/" + file), config);
        EXPECT_NE(moved.status, 0) << moved.output;
        EXPECT_TRUE(test::runShell("test -f " + test::shellQuote(home + "/" + file)).status == 0);
    }

    // A duplicate in a localized own folder is the copy kept, though the other is first by name.
    const std::string copy(2 * mib, 'd');
    test::writeFile(home + "/stuff/a-copy.jpg", copy);
    test::writeFile(home + "/Bilder/z-copy.jpg", copy);
    CliRun dups = sparrowdeck(home, "duplicates --json", config);
    ASSERT_EQ(dups.status, 0) << dups.output;
    auto groups = nlohmann::json::parse(dups.output).at("groups");
    ASSERT_EQ(groups.size(), 1U);
    EXPECT_EQ(groups[0].at("suggestedKeep"), home + "/Bilder/z-copy.jpg");
}

// The words of another system, as whole words; "~/Applications", a folder AppImages live in on
// Linux too, is a path and not the word.
std::vector<std::string> macWordsIn(const std::string& text) {
    static const std::vector<std::string> words{
        "Finder",   "Applications", "bundle ID", "Library",  "Movies",   "store variant",
        "this Mac", "Quick Look",   "Spotlight", "Siri",     "Xcode",    "macOS",
        "iCloud",   "Safari",       "com.apple", "Keychain", "App Store"};
    std::vector<std::string> found;
    for (const std::string& word : words) {
        for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
            bool path = at > 0 && text[at - 1] == '/';
            if (!path) {
                found.push_back(word + " in …" + text.substr(at > 60 ? at - 60 : 0, 120) + "…");
                break;
            }
        }
    }
    return found;
}

TEST(LinuxPresentation, NoCommandSpeaksOfAnotherSystem) {
    const std::string home = test::fixtureHome();
    const std::vector<std::string> commands{
        "--help",       "sweep",        "sweep --json",     "catalog",      "catalog --json",
        "clean --help", "large-old",    "large-old --json", "duplicates",   "duplicates --json",
        "activity",     "space --help", "measure --help",   "trash --help", "put-back --help",
        "sweep --help", "snapshots",    "assistant status"};
    for (const std::string& command : commands) {
        SCOPED_TRACE(command);
        CliRun run = sparrowdeck(home, command);
        EXPECT_LT(run.status, 2) << run.output;
        EXPECT_EQ(macWordsIn(run.output), std::vector<std::string>{});
    }
    // Nothing of ~/Library is listed, and no target is left without a place on this system.
    auto catalog = nlohmann::json::parse(sparrowdeck(home, "catalog --json").output);
    ASSERT_FALSE(catalog.empty());
    for (const auto& target : catalog) {
        SCOPED_TRACE(target.at("id").get<std::string>());
        EXPECT_FALSE(target.at("paths").empty());
        for (const auto& path : target.at("paths")) {
            EXPECT_FALSE(path.at("template").get<std::string>().starts_with("~/Library"));
        }
    }
}

} // namespace
} // namespace sd
