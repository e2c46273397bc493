// Our Trash is only right if tools no one here wrote agree with it: trash-cli and gio read what we
// moved and we read what they moved, through the same fixture Trash.
#include "Fixture.h"
#include "core/CoreFileSystem.h"
#include "core/Ledgers.h"
#include "platform/Trash.h"
#include "reclaim/PutBack.h"
#include "reclaim/TrashListing.h"
#include "reclaim/VaultService.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sd::test {
namespace {

std::string dataHome() {
    return fixtureHome() + "/.local/share";
}
std::string homeTrash() {
    return dataHome() + "/Trash";
}

// Every outside tool gets the fixture's data folder, so it works on the fixture Trash only. The
// time limit turns a tool that loops (trash-put does on a name it cannot fit) into a failure.
std::string tool(const std::string& command) {
    return "env XDG_DATA_HOME=" + shellQuote(dataHome()) + " timeout 60 " + command;
}

using test::exists;
using test::readAll;

struct stat lstatOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
}

// Names and contents of every file below `path` (or of `path` itself), as sha256sum sees them.
std::string digest(const std::string& path) {
    return runShell("find " + shellQuote(path) +
                    " -type f -print0 | sort -z | xargs -0 -r sha256sum")
        .output;
}

// How Python's urllib writes a path into a .trashinfo, which is what trash-cli does too.
std::string peerQuote(const std::string& text) {
    return runShell("python3 -c 'import sys, urllib.parse; "
                    "sys.stdout.write(urllib.parse.quote(sys.argv[1], \"/\"))' " +
                    shellQuote(text))
        .output;
}

std::string infoFileOf(const std::string& trashPath) {
    size_t at = trashPath.rfind("/files/");
    return trashPath.substr(0, at) + "/info/" + trashPath.substr(at + 7) + ".trashinfo";
}

std::string infoField(const std::string& infoText, const std::string& key) {
    std::istringstream lines(infoText);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key + "=")) {
            return line.substr(key.size() + 1);
        }
    }
    return {};
}

// trash-list prints the deletion date with a space where the record has a "T".
std::string listedLine(const std::string& trashPath, const std::string& originalPath) {
    std::string date = infoField(readAll(infoFileOf(trashPath)), "DeletionDate");
    std::replace(date.begin(), date.end(), 'T', ' ');
    return date + " " + originalPath + "\n";
}

std::string trashList() {
    return runShell(tool("trash-list") + " 2>/dev/null").output;
}

std::vector<platform::TrashedEntry> entriesFrom(const std::string& originalPath) {
    std::vector<platform::TrashedEntry> found;
    for (platform::TrashedEntry& entry : listTrashMeasured()) {
        if (entry.originalPath == originalPath) {
            found.push_back(std::move(entry));
        }
    }
    return found;
}

// The production move, as the vault makes it.
std::string moveOurs(const std::string& path, std::uint64_t bytes = 0) {
    std::vector<RecycleAnswer> answers =
        recycleToTrash({{path, EntryIdentity::of(lstatOf(path)), bytes}});
    EXPECT_TRUE(answers.at(0).trashPath.has_value()) << path << ": " << answers.at(0).error;
    return answers.at(0).trashPath.value_or(std::string());
}

struct Name {
    const char* label;
    std::string name;
    bool folder = false;
    bool toolsCanMoveIt = true;
};

std::vector<Name> awkwardNames() {
    std::string longName;
    for (int i = 0; i < 125; ++i) {
        longName += "\xC3\xA9"; // 250 bytes: too long to keep ".trashinfo" on it
    }
    return {
        {"spaces", "with some spaces.txt"},
        {"percent", "100% sure %41 %zz.txt"},
        {"newline", "line\nbreak"},
        {"NFC", "caf\xC3\xA9 na\xC3\xAFve.txt"},
        {"decomposed", "cafe\xCC\x81 nai\xCC\x88ve.txt"},
        // trash-put and gio keep the name whole and cannot write its record.
        {"long multibyte", longName, false, false},
        {"folder", "a folder %20 \xC3\xA9\nsecond line", true},
    };
}

// Creates the item; a folder gets files at two levels. Sizes are not multiples of a block, so an
// apparent size never passes for allocated bytes.
void makeItem(const std::string& path, const Name& n) {
    if (!n.folder) {
        writeFilledFile(path, 5000, n.label[0]);
        return;
    }
    makeDirs(path + "/inner dir");
    writeFilledFile(path + "/top file", 7000, 'a');
    writeFilledFile(path + "/inner dir/deep %file", 13000, 'b');
}

TEST(TrashInterop, WhatWeMoveTrashCliListsAndRestores) {
    ASSERT_TRUE(haveTool("trash-list") && haveTool("trash-restore"));
    for (const Name& n : awkwardNames()) {
        SCOPED_TRACE(n.label);
        std::string folder = freshFolder("ours");
        std::string item = folder + "/" + n.name;
        makeItem(item, n);
        std::string before = digest(item);
        ASSERT_FALSE(before.empty());

        std::string trashPath = moveOurs(item, peerAllocatedBytes(item));
        ASSERT_FALSE(trashPath.empty());
        EXPECT_FALSE(exists(item));
        EXPECT_NE(trashList().find(listedLine(trashPath, item)), std::string::npos)
            << "trash-list shows the original path and date";

        // trash-restore offers what came from the folder it runs in; ours is the only one.
        CommandResult restored =
            runShell("cd " + shellQuote(folder) + " && echo 0 | " + tool("trash-restore 2>&1"));
        EXPECT_EQ(restored.status, 0) << restored.output;
        EXPECT_EQ(digest(item), before) << restored.output;
        EXPECT_FALSE(exists(trashPath));
        EXPECT_FALSE(exists(infoFileOf(trashPath)));
    }
}

// Moves each awkward name with an outside tool, then reads it through listTrash and puts it back
// with our own code.
void readsBackWhatToolMoved(const std::string& command) {
    for (const Name& n : awkwardNames()) {
        if (!n.toolsCanMoveIt) {
            continue;
        }
        SCOPED_TRACE(n.label);
        std::string item = freshFolder("theirs") + "/" + n.name;
        makeItem(item, n);
        std::string before = digest(item);

        CommandResult moved = runShell(tool(command + " " + shellQuote(item) + " 2>&1"));
        ASSERT_EQ(moved.status, 0) << moved.output;
        ASSERT_FALSE(exists(item)) << moved.output;

        std::vector<platform::TrashedEntry> found = entriesFrom(item);
        ASSERT_EQ(found.size(), 1U) << "listed once, under its original path";
        const platform::TrashedEntry& entry = found.front();
        std::string info = readAll(infoFileOf(entry.trashPath));
        EXPECT_FALSE(infoField(info, "DeletionDate").empty()) << info;
        EXPECT_EQ(entry.deletionDate, infoField(info, "DeletionDate"));
        EXPECT_EQ(entry.isDirectory, n.folder);
        EXPECT_EQ(entry.bytes.value_or(0), peerAllocatedBytes(entry.trashPath));

        EXPECT_EQ(restoreFromTrash(entry.trashPath, item, std::nullopt), RestoreOutcome::restored);
        platform::forgetTrashed(entry.trashPath);
        EXPECT_EQ(digest(item), before);
        EXPECT_FALSE(exists(infoFileOf(entry.trashPath)));
        EXPECT_TRUE(entriesFrom(item).empty());
    }
}

TEST(TrashInterop, WhatTrashPutMovedReadsBack) {
    ASSERT_TRUE(haveTool("trash-put"));
    readsBackWhatToolMoved("trash-put");
}

TEST(TrashInterop, WhatGioTrashMovedReadsBack) {
    if (!haveTool("gio")) {
        GTEST_SKIP() << "gio is not installed.";
    }
    std::string probe = freshFolder("gio-probe") + "/probe";
    writeFile(probe, "probe");
    CommandResult tried = runShell(tool("gio trash " + shellQuote(probe) + " 2>&1"));
    if (tried.status != 0 || exists(probe)) {
        GTEST_SKIP() << "gio trash does not work here: " << tried.output;
    }
    readsBackWhatToolMoved("gio trash");

    // gio, unlike trash-put, takes a name that is not UTF-8. The Trash it lands in must still
    // show everything else.
    std::string latin1 = freshFolder("gio-latin1") + "/caf\xE9";
    std::string plain = freshFolder("gio-plain") + "/plain";
    writeFile(latin1, "latin-1 name");
    writeFile(plain, "plain name");
    CommandResult moved =
        runShell(tool("gio trash " + shellQuote(latin1) + " " + shellQuote(plain) + " 2>&1"));
    EXPECT_EQ(moved.status, 0) << moved.output;
    EXPECT_EQ(entriesFrom(plain).size(), 1U) << "one odd name hides nothing else";
    // Later tests list this Trash too.
    ::unlink((homeTrash() + "/files/caf\xE9").c_str());
    ::unlink((homeTrash() + "/info/caf\xE9.trashinfo").c_str());
}

TEST(TrashInterop, NameCollisionsGetNewNamesAndNeverOverwrite) {
    // A name no other test uses, so what sits in the Trash under it is known.
    std::string name =
        "collide-" + std::to_string(::getpid()) + "-" + std::to_string(std::time(nullptr));
    // A stray item with no record, as a tool that died half way leaves one.
    std::string stray = homeTrash() + "/files/" + name + "-stray";
    std::vector<std::string> items{freshFolder("collide") + "/" + name,
                                   freshFolder("collide") + "/" + name,
                                   freshFolder("collide") + "/" + name + "-stray"};
    for (const std::string& item : items) {
        writeFile(item, "content of " + item);
    }
    ASSERT_EQ(runShell(tool("trash-put " + shellQuote(items[0]))).status, 0);
    writeFile(stray, "stray");
    moveOurs(items[1]);
    moveOurs(items[2]);

    std::vector<std::string> trashPaths{stray};
    std::string listed = trashList();
    for (const std::string& item : items) {
        std::vector<platform::TrashedEntry> found = entriesFrom(item);
        ASSERT_EQ(found.size(), 1U) << item;
        EXPECT_EQ(readAll(found.front().trashPath), "content of " + item);
        EXPECT_NE(listed.find(listedLine(found.front().trashPath, item)), std::string::npos);
        trashPaths.push_back(found.front().trashPath);
    }
    EXPECT_EQ(readAll(stray), "stray");
    std::sort(trashPaths.begin(), trashPaths.end());
    EXPECT_EQ(std::unique(trashPaths.begin(), trashPaths.end()), trashPaths.end())
        << "every item has a Trash name of its own";
}

std::string directorySizes(const std::string& trashRoot) {
    return readAll(trashRoot + "/directorysizes");
}

std::string sizeLine(std::uint64_t bytes, const std::string& trashPath) {
    std::string name = trashPath.substr(trashPath.rfind('/') + 1);
    return std::to_string(bytes) + " " + std::to_string(lstatOf(infoFileOf(trashPath)).st_mtime) +
           " " + peerQuote(name) + "\n";
}

TEST(TrashInterop, FolderSizeLineIsWrittenAndDroppedOnForget) {
    std::string t = freshFolder("dirsizes");
    std::vector<std::string> folders{t + "/sized folder %1 \xC3\xA9", t + "/other sized"};
    std::vector<std::uint64_t> bytes;
    std::vector<std::string> trashPaths;
    for (size_t i = 0; i < folders.size(); ++i) {
        makeDirs(folders[i] + "/sub");
        writeFilledFile(folders[i] + "/sub/data", 9000 * (i + 1));
        bytes.push_back(peerAllocatedBytes(folders[i]));
        trashPaths.push_back(moveOurs(folders[i], bytes[i]));
        ASSERT_FALSE(trashPaths[i].empty());
    }
    std::string sizes = directorySizes(homeTrash());
    for (size_t i = 0; i < folders.size(); ++i) {
        EXPECT_NE(sizes.find(sizeLine(bytes[i], trashPaths[i])), std::string::npos) << sizes;
        std::vector<platform::TrashedEntry> found = entriesFrom(folders[i]);
        ASSERT_EQ(found.size(), 1U);
        EXPECT_EQ(found.front().bytes.value_or(0), bytes[i]);
    }

    std::string firstLine = sizeLine(bytes[0], trashPaths[0]);
    ASSERT_EQ(restoreFromTrash(trashPaths[0], folders[0], std::nullopt), RestoreOutcome::restored);
    platform::forgetTrashed(trashPaths[0]);
    sizes = directorySizes(homeTrash());
    EXPECT_EQ(sizes.find(firstLine), std::string::npos) << sizes;
    EXPECT_NE(sizes.find(sizeLine(bytes[1], trashPaths[1])), std::string::npos) << sizes;
    EXPECT_FALSE(exists(infoFileOf(trashPaths[0])));
}

TEST(TrashInterop, StaleFolderSizeLineIsNotBelieved) {
    // trash-restore does not touch directorysizes, so a line can outlive its folder; a later
    // folder of the same name must not inherit its size.
    std::string folder = freshFolder("stale") + "/reused name";
    makeDirs(folder);
    writeFilledFile(folder + "/small", 100);
    std::string trashPath = moveOurs(folder, peerAllocatedBytes(folder));
    ASSERT_FALSE(trashPath.empty());
    std::time_t recorded = lstatOf(infoFileOf(trashPath)).st_mtime;
    CommandResult restored = runShell("cd " + shellQuote(folder.substr(0, folder.rfind('/'))) +
                                      " && echo 0 | " + tool("trash-restore 2>&1"));
    ASSERT_TRUE(exists(folder + "/small")) << restored.output;

    writeFilledFile(folder + "/large", 300000);
    while (std::time(nullptr) <= recorded) {
        ::usleep(50'000); // a later record has a later time, as it would in real use
    }
    ASSERT_EQ(runShell(tool("trash-put " + shellQuote(folder))).status, 0);
    std::vector<platform::TrashedEntry> found = entriesFrom(folder);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found.front().bytes.value_or(0), peerAllocatedBytes(found.front().trashPath));
}

// A small ext4 volume in a sparse image, loop-mounted inside the fixture home for one test.
class LoopVolume {
public:
    static std::unique_ptr<LoopVolume> mount(std::string& whyNot) {
        if (::geteuid() != 0) {
            whyNot = "Mounting needs root, and this test runs as uid " +
                     std::to_string(::geteuid()) + ".";
            return nullptr;
        }
        if (!haveTool("mkfs.ext4")) {
            whyNot = "mkfs.ext4 is not installed, so no volume image can be made.";
            return nullptr;
        }
        std::string folder = freshFolder("volume-image");
        std::string image = folder + "/ext4.img";
        std::string point = freshFolder("volume");
        CommandResult made = runShell("truncate -s 16M " + shellQuote(image) +
                                      " && mkfs.ext4 -q -F " + shellQuote(image) + " 2>&1");
        if (made.status != 0) {
            whyNot = "mkfs.ext4 could not format an image: " + made.output;
            return nullptr;
        }
        CommandResult mounted =
            runShell("mount -o loop " + shellQuote(image) + " " + shellQuote(point) + " 2>&1");
        if (mounted.status != 0) {
            ::unlink(image.c_str());
            whyNot = "This machine does not permit loop-mounting an image (mount said: " +
                     mounted.output + ").";
            return nullptr;
        }
        return std::unique_ptr<LoopVolume>(new LoopVolume(image, point));
    }

    LoopVolume(const LoopVolume&) = delete;
    LoopVolume& operator=(const LoopVolume&) = delete;

    // A mount left behind would outlive the process and stop the fixture root's removal.
    ~LoopVolume() {
        for (int attempt = 0; attempt < 50 && ::umount2(point_.c_str(), 0) != 0 && errno == EBUSY;
             ++attempt) {
            ::usleep(100'000);
        }
        if (lstatOf(point_).st_dev != lstatOf(point_ + "/..").st_dev) {
            ::umount2(point_.c_str(), MNT_DETACH);
        }
        ::unlink(image_.c_str());
    }

    const std::string& path() const noexcept { return point_; }

    bool makeReadOnly() const {
        return runShell("mount -o remount,ro " + shellQuote(point_)).status == 0;
    }

private:
    LoopVolume(std::string image, std::string point)
        : image_(std::move(image)), point_(std::move(point)) {}
    std::string image_;
    std::string point_;
};

platform::TrashMoveResult moveDirect(const std::string& path) {
    std::optional<ParentHandle> parent = openParent(path);
    if (!parent) {
        ADD_FAILURE() << "no parent for " << path;
        return {};
    }
    return platform::moveToTrash(parent->fd.get(), parent->name, path, lstatOf(path), 0);
}

size_t homeTrashCount() {
    return static_cast<size_t>(
        std::stoul(runShell("find " + shellQuote(homeTrash()) + " | wc -l").output));
}

TEST(TrashInterop, AnotherVolumeUsesItsOwnTrashOrKeepsTheItem) {
    std::string whyNot;
    std::unique_ptr<LoopVolume> volume = LoopVolume::mount(whyNot);
    if (!volume) {
        GTEST_SKIP() << whyNot;
    }
    const std::string& top = volume->path();
    struct Case {
        const char* label;
        std::string setup;    // shell run in the volume's top folder first
        std::string trashDir; // where the item should go, relative to the top; empty: it stays
        bool readOnly = false;
    };
    std::string uid = std::to_string(::getuid());
    const std::vector<Case> cases{
        {"no Trash yet", "", ".Trash-" + uid},
        {"shared sticky .Trash", "mkdir -m 1777 .Trash", ".Trash/" + uid},
        {"shared .Trash without the sticky bit", "mkdir -m 0777 .Trash", ".Trash-" + uid},
        {"shared .Trash that is a link", "mkdir -m 1777 real && ln -s real .Trash",
         ".Trash-" + uid},
        {"own Trash owned by someone else", "mkdir .Trash-" + uid + " && chown 4321 .Trash-" + uid,
         ""},
        {"someone else's own Trash beside a sticky .Trash",
         "mkdir -m 1777 .Trash && mkdir .Trash-" + uid + " && chown 4321 .Trash-" + uid,
         ".Trash/" + uid},
        {"read-only volume", "", "", true},
    };
    int row = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        ASSERT_EQ(runShell("cd " + shellQuote(top) + " && rm -rf .Trash .Trash-" + uid +
                           " real && mkdir -p 'sub dir'" + (c.setup.empty() ? "" : " && ") +
                           c.setup)
                      .status,
                  0);
        std::string relative = "sub dir/it%em \xC3\xA9 " + std::to_string(++row);
        std::string item = top + "/" + relative;
        writeFile(item, "on another volume");
        if (c.readOnly) {
            ASSERT_TRUE(volume->makeReadOnly());
        }
        struct stat st = lstatOf(item);
        size_t homeBefore = homeTrashCount();

        EXPECT_EQ(platform::trashCanTake(item, st), !c.trashDir.empty());
        platform::TrashMoveResult moved = moveDirect(item);
        if (c.trashDir.empty()) {
            EXPECT_FALSE(moved.trashPath.has_value());
            EXPECT_TRUE(moved.nonTrashable);
            EXPECT_EQ(lstatOf(item).st_ino, st.st_ino) << "it stays where it was";
            EXPECT_EQ(homeTrashCount(), homeBefore) << "nothing was copied to the home Trash";
            EXPECT_FALSE(exists(top + "/.Trash-" + uid + "/files")) << "no Trash was made";
            continue;
        }
        ASSERT_TRUE(moved.trashPath.has_value()) << moved.error;
        const std::string& trashPath = *moved.trashPath;
        std::string trashRoot = top + "/" + c.trashDir;
        EXPECT_TRUE(trashPath.starts_with(trashRoot + "/files/")) << trashPath;
        EXPECT_EQ(lstatOf(trashRoot).st_mode & 07777, 0700U);
        EXPECT_EQ(readAll(trashPath), "on another volume");
        EXPECT_EQ(infoField(readAll(infoFileOf(trashPath)), "Path"), peerQuote(relative))
            << "the record is relative to the volume's top";

        std::vector<platform::TrashedEntry> found = entriesFrom(item);
        ASSERT_EQ(found.size(), 1U);
        EXPECT_EQ(found.front().trashPath, trashPath);
        EXPECT_NE(trashList().find(listedLine(trashPath, item)), std::string::npos);
    }
}

} // namespace
} // namespace sd::test
