#pragma once

#include <cstdint>
#include <memory>
#include <string>

// File systems mounted for the length of one test: a loop-mounted btrfs, where blocks can be
// shared between files, and a small tmpfs, where they never are. Both unmount in their
// destructors, after a failed assertion just the same.
namespace sd::test {

// True while something other than the parent's file system answers at `path`.
bool isMountPoint(const std::string& path);

// A btrfs file system in a sparse image. The image lives in a fresh folder of its own so that
// walking the tree around the mount point never meets it.
class LoopBtrfs {
public:
    // Empty, with a sentence in `whyNot`, when this machine will not let us mount one.
    static std::unique_ptr<LoopBtrfs> mount(const std::string& mountPoint, std::string& whyNot);

    LoopBtrfs(const LoopBtrfs&) = delete;
    LoopBtrfs& operator=(const LoopBtrfs&) = delete;
    ~LoopBtrfs();

    const std::string& path() const noexcept { return mountPoint_; }
    std::uint64_t device() const noexcept { return device_; }

    // Flushes delayed allocation so st_blocks and the extent map describe what is on disk.
    void sync() const;

private:
    LoopBtrfs(std::string folder, std::string image, std::string mountPoint)
        : imageFolder_(std::move(folder)), image_(std::move(image)),
          mountPoint_(std::move(mountPoint)) {}

    std::string imageFolder_;
    std::string image_;
    std::string mountPoint_;
    std::uint64_t device_ = 0;
};

class ScopedTmpfs {
public:
    // `options` go to mount -o ("size=4m,noatime").
    static std::unique_ptr<ScopedTmpfs> mount(const std::string& mountPoint, std::string& whyNot,
                                              const std::string& options = "size=4m");
    ScopedTmpfs(const ScopedTmpfs&) = delete;
    ScopedTmpfs& operator=(const ScopedTmpfs&) = delete;
    ~ScopedTmpfs();

    const std::string& path() const noexcept { return mountPoint_; }
    std::uint64_t device() const;

private:
    explicit ScopedTmpfs(std::string mountPoint) : mountPoint_(std::move(mountPoint)) {}
    std::string mountPoint_;
};

// A small file system in a sparse image, loop-mounted for the length of one test and unmounted
// by the destructor however the test ends. The image lives in a fresh folder of its own, so a
// walk of the tree around the mount point never meets it.
class LoopVolume {
public:
    // "btrfs" or "ext4", of `size` as truncate reads it ("160M"; btrfs needs about 110 MiB).
    // Empty, with a sentence in `whyNot`, when this machine will not let us make or mount one.
    static std::unique_ptr<LoopVolume> mount(const std::string& type, const std::string& mountPoint,
                                             std::string& whyNot, const std::string& size = "160M");

    LoopVolume(const LoopVolume&) = delete;
    LoopVolume& operator=(const LoopVolume&) = delete;
    ~LoopVolume();

    const std::string& path() const noexcept { return mountPoint_; }
    // Flushes delayed allocation so st_blocks and extent maps describe what is on disk.
    void sync() const;

private:
    LoopVolume(std::string folder, std::string image, std::string mountPoint)
        : imageFolder_(std::move(folder)), image_(std::move(image)),
          mountPoint_(std::move(mountPoint)) {}

    std::string imageFolder_;
    std::string image_;
    std::string mountPoint_;
};

// cp --reflink=always; throws when the file system cannot share the blocks.
void reflinkCopy(const std::string& from, const std::string& to);

} // namespace sd::test
