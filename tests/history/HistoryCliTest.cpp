// The scan history as a user meets it: `space --changes`, `space --export` read back by ncdu and
// gdu, and a damaged history file.
#include "Fixture.h"

#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace sd {
namespace {

struct CliRun {
    int status;
    std::string output;
};

// Each test keeps its history in a support folder of its own, outside the folder it scans.
CliRun sparrowdeck(const std::string& dataHome, const std::string& arguments,
                   const std::string& redirect = "2>&1") {
    test::CommandResult r =
        test::runShell("env SPARROWDECK_HOME=" + test::shellQuote(test::fixtureHome()) +
                       " XDG_DATA_HOME=" + test::shellQuote(dataHome) + " " SPARROWDECK_CLI " " +
                       arguments + " " + redirect);
    return {r.status, r.output};
}

void append(const std::string& file, std::uint64_t bytes) {
    std::ofstream out(file, std::ios::binary | std::ios::app);
    std::string block(1 << 20, 'g');
    for (std::uint64_t done = 0; done < bytes; done += block.size()) {
        out.write(block.data(), static_cast<std::streamsize>(
                                    std::min<std::uint64_t>(block.size(), bytes - done)));
    }
}

std::uint64_t sumDsize(const nlohmann::json& entry) {
    if (entry.is_array()) {
        std::uint64_t sum = 0;
        for (const auto& e : entry) {
            sum += sumDsize(e);
        }
        return sum;
    }
    return entry.value("dsize", std::uint64_t{0});
}

std::uint64_t countFolders(const nlohmann::json& entry) {
    if (!entry.is_array()) {
        return 0;
    }
    std::uint64_t folders = 1;
    for (size_t i = 1; i < entry.size(); ++i) {
        folders += countFolders(entry[i]);
    }
    return folders;
}

TEST(HistoryCli, AFileGrownBy100MBShowsAlongItsChainOfFoldersOnly) {
    std::string data = test::freshFolder("history-cli-data");
    std::string t = test::freshFolder("history-cli");
    test::makeDirs(t + "/work/project/output");
    test::makeDirs(t + "/music");
    test::makeDirs(t + "/photos/2023");
    test::writeFilledFile(t + "/work/project/output/log.bin", 2'000'000);
    test::writeFilledFile(t + "/work/notes.bin", 3'000'000);
    test::writeFilledFile(t + "/music/song.bin", 4'000'000);
    test::writeFilledFile(t + "/photos/2023/pic.bin", 5'000'000);

    CliRun first = sparrowdeck(data, "space --changes " + test::shellQuote(t));
    ASSERT_EQ(first.status, 0) << first.output;
    EXPECT_NE(first.output.find("first scan kept"), std::string::npos) << first.output;

    append(t + "/work/project/output/log.bin", 100'000'000);
    CliRun second = sparrowdeck(data, "space --changes --json " + test::shellQuote(t), "");
    ASSERT_EQ(second.status, 0) << second.output;
    auto json = nlohmann::json::parse(second.output);
    std::vector<std::string> paths;
    for (const auto& change : json.at("changes")) {
        paths.push_back(change.at("path"));
        EXPECT_EQ(change.at("kind"), "grew");
        // The file's blocks, give or take the last partial one.
        EXPECT_NEAR(change.at("delta").get<double>(), 100'000'000.0, 8192.0) << change.dump();
    }
    EXPECT_EQ(paths, (std::vector<std::string>{t, t + "/work", t + "/work/project",
                                               t + "/work/project/output"}));
    ASSERT_FALSE(json.at("baselineScan").is_null());

    CliRun unchanged = sparrowdeck(data, "space --changes " + test::shellQuote(t));
    EXPECT_NE(unchanged.output.find("No folder grew or shrank"), std::string::npos)
        << "nothing changed since the scan just before: " << unchanged.output;

    ASSERT_EQ(::truncate((t + "/music/song.bin").c_str(), 0), 0);
    CliRun human = sparrowdeck(data, "space --changes " + test::shellQuote(t));
    EXPECT_NE(human.output.find("−4.0 MB  gone   " + t + "/music\n"), std::string::npos)
        << human.output;

    CliRun list = sparrowdeck(data, "history --json " + test::shellQuote(t), "");
    EXPECT_EQ(nlohmann::json::parse(list.output).at("scans").size(), 4U) << list.output;

    CliRun badDate = sparrowdeck(data, "space --changes --since yesterday " + test::shellQuote(t));
    EXPECT_EQ(badDate.status, 2);
    EXPECT_NE(badDate.output.find("YYYY-MM-DD"), std::string::npos);
}

TEST(HistoryCli, NcduAndGduOpenTheExportWithOurTotals) {
    if (!test::haveTool("ncdu") || !test::haveTool("gdu")) {
        GTEST_SKIP() << "ncdu and gdu are needed";
    }
    std::string data = test::freshFolder("export-data");
    std::string t = test::freshFolder("export");
    test::makeDirs(t + "/big/inner");
    test::writeFilledFile(t + "/big/inner/blob", 3'000'000);
    test::makeHardlink(t + "/big/inner/blob", t + "/big/again");
    test::makeDirs(t + "/odd \"name\" ü");
    test::writeFilledFile(t + "/odd \"name\" ü/f", 1'500'000);
    for (int i = 0; i < 40; ++i) {
        test::writeFilledFile(t + "/small" + std::to_string(i), 5000);
    }
    std::string file = data + "/scan.json";
    CliRun scan = sparrowdeck(
        data, "space --json --export " + test::shellQuote(file) + " " + test::shellQuote(t), "");
    ASSERT_EQ(scan.status, 0) << scan.output;
    std::uint64_t ours =
        nlohmann::json::parse(scan.output).at("tree").at("root").at("bytes").get<std::uint64_t>();
    EXPECT_EQ(ours, test::peerAllocatedBytes(t));

    // ncdu reads our file and writes its own export of what it loaded.
    test::CommandResult again = test::runShell("ncdu -f " + test::shellQuote(file) + " -o -");
    ASSERT_EQ(again.status, 0) << again.output;
    auto reexport = nlohmann::json::parse(again.output);
    EXPECT_EQ(reexport.at(3).at(0).at("name"), t);
    EXPECT_EQ(sumDsize(reexport.at(3)), ours);

    // gdu counts 4 KiB of its own for every folder it shows, whatever the file says.
    test::CommandResult gdu =
        test::runShell("gdu -n -s -p --no-prefix -f " + test::shellQuote(file));
    ASSERT_EQ(gdu.status, 0) << gdu.output;
    std::uint64_t folders = countFolders(
        nlohmann::json::parse(test::runShell("cat " + test::shellQuote(file)).output).at(3));
    EXPECT_EQ(std::stoull(gdu.output), ours + 4096 * folders) << gdu.output;
}

TEST(HistoryCli, ADamagedHistoryIsKeptAsideWithASentence) {
    std::string data = test::freshFolder("history-damaged-cli");
    test::makeDirs(data + "/Sparrowdeck");
    test::writeFile(data + "/Sparrowdeck/history.sqlite", "this is not a database, whatever it is");
    std::string t = test::freshFolder("history-damaged-scan");
    test::writeFilledFile(t + "/f", 2'000'000);
    CliRun run = sparrowdeck(data, "space " + test::shellQuote(t), "2>&1 >/dev/null");
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.output.find("could not be read (file is not a database), so it was kept aside "
                              "as history.sqlite.damaged-"),
              std::string::npos)
        << run.output;
    CliRun list = sparrowdeck(data, "history " + test::shellQuote(t));
    EXPECT_NE(list.output.find("Scans kept of " + t), std::string::npos) << list.output;
}

} // namespace
} // namespace sd
