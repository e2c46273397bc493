#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace sd::test {

// A small file system in a sparse image, loop-mounted for the length of one test and unmounted
// by the destructor however the test ends. The image lives in a fresh folder of its own, so a
// walk of the tree around the mount point never meets it.
class LoopVolume {
public:
    // "btrfs" or "ext4". Empty, with a sentence in `whyNot`, when this machine will not let us
    // make or mount one.
    static std::unique_ptr<LoopVolume> mount(const std::string& type, const std::string& mountPoint,
                                             std::string& whyNot);

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

// True while another file system than the parent's answers at `path`.
bool isMountPoint(const std::string& path);

} // namespace sd::test
