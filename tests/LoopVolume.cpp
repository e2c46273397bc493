#include "LoopVolume.h"

#include "Fixture.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/magic.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace sd::test {
namespace {

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.pop_back();
    }
    size_t start = text.find_first_not_of(' ');
    return start == std::string::npos ? std::string() : text.substr(start);
}

std::string parentOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

struct stat lstatOrThrow(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        throw std::runtime_error("lstat " + path + " failed");
    }
    return st;
}

// A mount left behind would make the fixture root's teardown refuse to cross it and would
// outlive the process, so this tries hard, and lazily as a last resort.
void unmountHard(const std::string& mountPoint) {
    for (int attempt = 0; attempt < 50 && isMountPoint(mountPoint); ++attempt) {
        if (::umount2(mountPoint.c_str(), 0) == 0 || errno != EBUSY) {
            break;
        }
        ::usleep(100'000);
    }
    if (isMountPoint(mountPoint)) {
        ::umount2(mountPoint.c_str(), MNT_DETACH);
    }
}

// Unmounts, detaches whatever loop device still holds the image, and removes the image and its
// folder. Runs in destructors, so it never throws.
void releaseImage(const std::string& mountPoint, const std::string& image,
                  const std::string& imageFolder) {
    unmountHard(mountPoint);
    try {
        // mount -o loop sets autoclear, but a lazily detached mount can keep the device.
        runShell("losetup -n -O NAME -j " + shellQuote(image) +
                 " 2>/dev/null | xargs -r -n1 losetup -d 2>/dev/null");
    } catch (const std::exception&) {
        // Nothing more can be done from a destructor.
    }
    ::unlink(image.c_str());
    ::rmdir(imageFolder.c_str());
}

// Flushes delayed allocation so st_blocks and extent maps describe what is on disk.
void syncVolume(const std::string& mountPoint) {
    int fd = ::open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || ::syncfs(fd) != 0) {
        if (fd >= 0) {
            ::close(fd);
        }
        throw std::runtime_error("syncfs " + mountPoint + " failed");
    }
    ::close(fd);
}

std::string whyNoMounts() {
    if (::geteuid() != 0) {
        return "Mounting a file system needs root, and this test runs as uid " +
               std::to_string(::geteuid()) + ".";
    }
    return {};
}

} // namespace

bool isMountPoint(const std::string& path) {
    struct stat here {};
    struct stat above {};
    return ::lstat(path.c_str(), &here) == 0 && ::lstat(parentOf(path).c_str(), &above) == 0 &&
           here.st_dev != above.st_dev;
}

std::unique_ptr<LoopBtrfs> LoopBtrfs::mount(const std::string& mountPoint, std::string& whyNot) {
    whyNot = whyNoMounts();
    if (!whyNot.empty()) {
        return nullptr;
    }
    if (!haveTool("mkfs.btrfs")) {
        whyNot = "mkfs.btrfs (btrfs-progs) is not installed, so no btrfs image can be made.";
        return nullptr;
    }
    if (::access("/dev/loop-control", F_OK) != 0 && ::access("/dev/loop0", F_OK) != 0) {
        whyNot = "No loop device is available: neither /dev/loop-control nor /dev/loop0 exists.";
        return nullptr;
    }
    std::string folder = freshFolder("ReflinkImage");
    std::string image = folder + "/btrfs.img";
    // mkfs.btrfs wants at least about 110 MiB; the image is sparse, so this costs little.
    CommandResult made = runShell("truncate -s 160M " + shellQuote(image) + " && mkfs.btrfs -q " +
                                  shellQuote(image) + " 2>&1");
    if (made.status != 0) {
        whyNot = "mkfs.btrfs could not format a loop image: " + trimmed(made.output);
        return nullptr;
    }
    makeDirs(mountPoint);
    CommandResult mounted =
        runShell("mount -o loop " + shellQuote(image) + " " + shellQuote(mountPoint) + " 2>&1");
    if (mounted.status != 0) {
        ::unlink(image.c_str());
        whyNot = "This machine does not permit loop-mounting a btrfs image (mount said: " +
                 trimmed(mounted.output) + ").";
        return nullptr;
    }
    // From here the destructor owns the unmount, whatever goes wrong next.
    std::unique_ptr<LoopBtrfs> volume(new LoopBtrfs(folder, image, mountPoint));
    struct statfs fs {};
    if (!isMountPoint(mountPoint) || ::statfs(mountPoint.c_str(), &fs) != 0 ||
        static_cast<long>(fs.f_type) != static_cast<long>(BTRFS_SUPER_MAGIC)) {
        whyNot = "mount reported success but no btrfs answers at " + mountPoint + ".";
        return nullptr;
    }
    volume->device_ = static_cast<std::uint64_t>(lstatOrThrow(mountPoint).st_dev);
    return volume;
}

LoopBtrfs::~LoopBtrfs() {
    releaseImage(mountPoint_, image_, imageFolder_);
}

void LoopBtrfs::sync() const {
    syncVolume(mountPoint_);
}

std::unique_ptr<ScopedTmpfs> ScopedTmpfs::mount(const std::string& mountPoint, std::string& whyNot,
                                                const std::string& options) {
    whyNot = whyNoMounts();
    if (!whyNot.empty()) {
        return nullptr;
    }
    makeDirs(mountPoint);
    CommandResult r = runShell("mount -t tmpfs -o " + shellQuote(options) + " tmpfs " +
                               shellQuote(mountPoint) + " 2>&1");
    if (r.status != 0 || !isMountPoint(mountPoint)) {
        whyNot = "This machine does not permit mounting a tmpfs (mount said: " + trimmed(r.output) +
                 ").";
        return nullptr;
    }
    return std::unique_ptr<ScopedTmpfs>(new ScopedTmpfs(mountPoint));
}

ScopedTmpfs::~ScopedTmpfs() {
    unmountHard(mountPoint_);
}

std::uint64_t ScopedTmpfs::device() const {
    return lstatOrThrow(mountPoint_).st_dev;
}

void reflinkCopy(const std::string& from, const std::string& to) {
    CommandResult r =
        runShell("cp --reflink=always " + shellQuote(from) + " " + shellQuote(to) + " 2>&1");
    if (r.status != 0) {
        throw std::runtime_error("cp --reflink=always " + from + " failed: " + r.output);
    }
}

std::unique_ptr<LoopVolume> LoopVolume::mount(const std::string& type,
                                              const std::string& mountPoint, std::string& whyNot,
                                              const std::string& size) {
    if (::geteuid() != 0) {
        whyNot = "Mounting a loop " + type + " image needs root, and this test runs as uid " +
                 std::to_string(::geteuid()) + ".";
        return nullptr;
    }
    const std::string mkfs = "mkfs." + type;
    if (!haveTool(mkfs)) {
        whyNot = mkfs + " is not installed, so no " + type + " image can be made.";
        return nullptr;
    }
    if (::access("/dev/loop-control", F_OK) != 0 && ::access("/dev/loop0", F_OK) != 0) {
        whyNot = "No loop device is available: neither /dev/loop-control nor /dev/loop0 exists.";
        return nullptr;
    }
    std::string folder = freshFolder("LoopImage");
    std::string image = folder + "/" + type + ".img";
    // mkfs.btrfs wants at least about 110 MiB; the image is sparse, so this costs little.
    CommandResult made =
        runShell("truncate -s " + size + " " + shellQuote(image) + " && " + mkfs + " -q " +
                 (type == "ext4" ? "-F " : "") + shellQuote(image) + " 2>&1");
    if (made.status != 0) {
        whyNot = mkfs + " could not format a loop image: " + trimmed(made.output);
        return nullptr;
    }
    makeDirs(mountPoint);
    CommandResult mounted =
        runShell("mount -o loop " + shellQuote(image) + " " + shellQuote(mountPoint) + " 2>&1");
    if (mounted.status != 0) {
        ::unlink(image.c_str());
        whyNot = "This machine does not permit loop-mounting a " + type +
                 " image (mount said: " + trimmed(mounted.output) + ").";
        return nullptr;
    }
    // From here the destructor owns the unmount, whatever goes wrong next.
    std::unique_ptr<LoopVolume> volume(new LoopVolume(folder, image, mountPoint));
    if (!isMountPoint(mountPoint)) {
        whyNot = "mount reported success but nothing new answers at " + mountPoint + ".";
        return nullptr;
    }
    return volume;
}

LoopVolume::~LoopVolume() {
    releaseImage(mountPoint_, image_, imageFolder_);
}

void LoopVolume::sync() const {
    syncVolume(mountPoint_);
}

} // namespace sd::test
