// `sparrowdeck disk` as a user runs it, with the home on a small file system of its own, so that
// nothing else writes to it while the figures are compared with df's.
#include "Fixture.h"
#include "LoopVolume.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

namespace sd {
namespace {

struct CliRun {
    int status;
    std::string output;
};

CliRun disk(const std::string& home, const std::string& prefix = {}) {
    test::CommandResult r =
        test::runShell(prefix + "env SPARROWDECK_HOME=" + test::shellQuote(home) +
                       " XDG_DATA_HOME=" + test::shellQuote(home + "/.local/share") +
                       " XDG_CONFIG_HOME=" + test::shellQuote(home + "/.config") +
                       " " SPARROWDECK_CLI " disk --json --budget 20 2>/dev/null");
    return {r.status, r.output};
}

std::uint64_t sumOf(const nlohmann::json& volume) {
    std::uint64_t sum = volume.at("unexplainedBytes").get<std::uint64_t>();
    for (const auto& row : volume.at("rows")) {
        sum += row.at("bytes").get<std::uint64_t>();
    }
    return sum;
}

// df's own figures for the file system holding `path`: size, used, available.
std::vector<std::uint64_t> dfFigures(const std::string& path) {
    std::string out =
        test::runShell("df -B1 --output=size,used,avail " + test::shellQuote(path) + " | tail -1")
            .output;
    std::istringstream in(out);
    std::vector<std::uint64_t> figures(3);
    in >> figures[0] >> figures[1] >> figures[2];
    return figures;
}

std::uint64_t duBytes(const std::string& path) {
    return std::stoull(test::runShell("du -s -x -B1 " + test::shellQuote(path)).output);
}

// (f_bfree − f_bavail) × f_frsize, asked of Python's statvfs.
std::uint64_t pythonReserved(const std::string& path) {
    std::string out = test::runShell("python3 -c 'import os,sys; s=os.statvfs(sys.argv[1]); "
                                     "print((s.f_bfree-s.f_bavail)*s.f_frsize)' " +
                                     test::shellQuote(path))
                          .output;
    return std::stoull(out);
}

class DiskCommand : public ::testing::Test {
protected:
    void SetUp() override {
        std::string whyNot;
        volume_ =
            test::LoopVolume::mount("ext4", test::freshFolder("disk-volume") + "/mnt", whyNot);
        if (!volume_) {
            GTEST_SKIP() << whyNot;
        }
        home_ = volume_->path() + "/home";
        test::makeDirs(home_ + "/Projects/build");
        test::writeFilledFile(home_ + "/Projects/build/out.bin", 6'000'000);
        test::makeDirs(home_ + "/.local/share/Trash/files");
        test::makeDirs(home_ + "/.local/share/Trash/info");
        test::writeFilledFile(home_ + "/.local/share/Trash/files/old.iso", 3'000'000);
        volume_->sync();
    }

    std::unique_ptr<test::LoopVolume> volume_;
    std::string home_;
};

TEST_F(DiskCommand, FiguresMatchDfAndRowsAddUpToUsed) {
    CliRun run = disk(home_);
    ASSERT_EQ(run.status, 0) << run.output;
    auto json = nlohmann::json::parse(run.output);
    const auto& volumes = json.at("volumes");
    ASSERT_GE(volumes.size(), 2U) << "the root file system is another one here";
    const auto& home = volumes.at(0);
    EXPECT_EQ(home.at("holdsHome"), true);
    EXPECT_EQ(home.at("mountPoint"), volume_->path());
    EXPECT_EQ(home.at("fileSystemType"), "ext4");
    std::vector<std::uint64_t> df = dfFigures(home_);
    EXPECT_EQ(home.at("totalBytes").get<std::uint64_t>(), df[0]);
    EXPECT_EQ(home.at("usedBytes").get<std::uint64_t>(), df[1]);
    EXPECT_EQ(home.at("freeBytes").get<std::uint64_t>(), df[2]);
    EXPECT_EQ(home.at("reservedBytes").get<std::uint64_t>(), pythonReserved(home_));
    EXPECT_GT(home.at("reservedBytes").get<std::uint64_t>(), 0U) << "ext4 keeps 5% by default";
    EXPECT_EQ(sumOf(home), home.at("usedBytes").get<std::uint64_t>());

    // The Trash is a row of its own and is not counted in the home row a second time.
    std::map<std::string, nlohmann::json> rows;
    for (const auto& row : home.at("rows")) {
        rows[row.at("id")] = row;
    }
    ASSERT_TRUE(rows.contains("home") && rows.contains("trash")) << home.dump(2);
    // A row counts its folders' blocks as du does; the home row, from the space scan, its files.
    // The scan history was written after the home was scanned.
    EXPECT_EQ(rows["trash"].at("bytes").get<std::uint64_t>(),
              duBytes(home_ + "/.local/share/Trash"));
    EXPECT_EQ(rows["home"].at("bytes").get<std::uint64_t>(),
              test::peerAllocatedBytes(home_) -
                  test::peerAllocatedBytes(home_ + "/.local/share/Trash") -
                  test::peerAllocatedBytes(home_ + "/.local/share/Sparrowdeck"));
    EXPECT_EQ(rows["trash"].at("reclaimCommands"), nlohmann::json::array({"gio trash --empty"}));
    // Nothing but our two rows lives on this file system: the rest is its own records.
    EXPECT_EQ(home.at("rows").size(), 2U);
    EXPECT_LT(home.at("unexplainedBytes").get<std::uint64_t>(),
              home.at("usedBytes").get<std::uint64_t>());

    // The root file system: the system's rows, each with its sentence, adding up again.
    const auto& root = volumes.at(1);
    EXPECT_EQ(root.at("mountPoint"), "/");
    EXPECT_EQ(sumOf(root), root.at("usedBytes").get<std::uint64_t>());
    bool sawSystem = false;
    for (const auto& row : root.at("rows")) {
        EXPECT_FALSE(row.at("sentence").get<std::string>().empty()) << row.dump();
        sawSystem = sawSystem || row.at("id") == "system";
        if (row.at("id") == "logs") {
            EXPECT_EQ(row.at("reclaimCommands"),
                      nlohmann::json::array({"sudo journalctl --vacuum-size=200M"}));
        }
        if (row.at("id") == "packageCaches") {
            EXPECT_EQ(row.at("reclaimCommands"), nlohmann::json::array({"sudo apt-get clean"}));
        }
        if (json.at("readsEverything") == true) {
            EXPECT_EQ(row.at("unreadableFolders"), 0) << row.dump();
        }
    }
    EXPECT_TRUE(sawSystem);
}

TEST_F(DiskCommand, AnOrdinaryAccountIsToldWhatItCouldNotRead) {
    if (::geteuid() != 0 || !test::haveTool("setpriv")) {
        GTEST_SKIP() << "needs root to run the command as another account";
    }
    // The account "nobody" gets the home on the small file system; everything else it may only
    // read where the system lets any account read.
    ASSERT_EQ(test::runShell("chown -R 65534:65534 " + test::shellQuote(home_)).status, 0);
    ASSERT_EQ(::chmod(volume_->path().c_str(), 0755), 0);
    // Our own temporary folders on the way to it may be passed through, not listed.
    for (std::string at = volume_->path(); at.size() > 1; at = at.substr(0, at.rfind('/'))) {
        struct stat st {};
        ASSERT_EQ(::stat(at.c_str(), &st), 0);
        if ((st.st_mode & S_IXOTH) != 0) {
            continue;
        }
        if (at != test::fixtureRoot() && !at.starts_with(test::fixtureRoot() + "/")) {
            GTEST_SKIP() << at << " is not searchable by other accounts";
        }
        ASSERT_EQ(::chmod(at.c_str(), (st.st_mode & 07777) | S_IXOTH), 0);
    }
    CliRun run = disk(home_, "setpriv --reuid=65534 --regid=65534 --clear-groups ");
    ASSERT_EQ(run.status, 0) << run.output;
    auto json = nlohmann::json::parse(run.output);
    EXPECT_EQ(json.at("readsEverything"), false);
    std::uint64_t unreadable = 0;
    for (const auto& volume : json.at("volumes")) {
        EXPECT_EQ(sumOf(volume), volume.at("usedBytes").get<std::uint64_t>());
        for (const auto& row : volume.at("rows")) {
            if (row.at("unreadableFolders").get<std::uint64_t>() > 0) {
                unreadable += row.at("unreadableFolders").get<std::uint64_t>();
                EXPECT_EQ(row.at("isComplete"), false);
                EXPECT_NE(row.at("sentence").get<std::string>().find("could not read"),
                          std::string::npos)
                    << row.dump();
            }
        }
        if (volume.at("mountPoint") == "/") {
            EXPECT_NE(volume.at("unexplainedSentence").get<std::string>().find("cannot read"),
                      std::string::npos);
        }
    }
    // /var/cache/apt/archives/partial and the private logs belong to the system alone.
    EXPECT_GT(unreadable, 0U);
}

} // namespace
} // namespace sd
