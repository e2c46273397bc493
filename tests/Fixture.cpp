#include "Fixture.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sd::test {
namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

} // namespace

std::string freshFolder(std::string_view label) {
    static std::atomic<int> counter{0};
    std::string path = fixtureHome() + "/" + std::string(label) + "-" + std::to_string(++counter);
    makeDirs(path);
    return path;
}

void makeDirs(const std::string& path) {
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at == path.size() || path[at] == '/') {
            std::string prefix = path.substr(0, at);
            if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
                fail("mkdir " + prefix);
            }
        }
    }
}

void writeFile(const std::string& path, std::string_view contents) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        fail("create " + path);
    }
    size_t done = 0;
    while (done < contents.size()) {
        ssize_t n = ::write(fd, contents.data() + done, contents.size() - done);
        if (n <= 0) {
            ::close(fd);
            fail("write " + path);
        }
        done += static_cast<size_t>(n);
    }
    ::fsync(fd);
    ::close(fd);
}

void writeFilledFile(const std::string& path, std::uint64_t bytes, char fill) {
    writeFile(path, std::string(bytes, fill));
}

void writeSparseFile(const std::string& path, std::uint64_t size, std::uint64_t written) {
    writeFile(path, std::string(written, 's'));
    if (::truncate(path.c_str(), static_cast<off_t>(size)) != 0) {
        fail("truncate " + path);
    }
}

void makeSymlink(const std::string& target, const std::string& link) {
    if (::symlink(target.c_str(), link.c_str()) != 0) {
        fail("symlink " + link);
    }
}

void makeHardlink(const std::string& existing, const std::string& link) {
    if (::link(existing.c_str(), link.c_str()) != 0) {
        fail("link " + link);
    }
}

CommandResult runShell(const std::string& command) {
    CommandResult result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        fail("popen");
    }
    std::array<char, 4096> buffer{};
    size_t n = 0;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        result.output.append(buffer.data(), n);
    }
    int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string shellQuote(std::string_view text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out.push_back(c);
        }
    }
    out.push_back('\'');
    return out;
}

bool haveTool(const std::string& name) {
    return runShell("command -v " + shellQuote(name) + " >/dev/null 2>&1").status == 0;
}

std::uint64_t peerAllocatedBytes(const std::string& path, int maxDepth) {
    std::string depth = maxDepth >= 0 ? " -maxdepth " + std::to_string(maxDepth) : "";
    CommandResult r = runShell("find " + shellQuote(path) + depth +
                               " -type f -printf '%D:%i %b\\n' | sort -u | "
                               "awk '{s += $2} END {printf \"%.0f\", s * 512}'");
    if (r.status != 0) {
        throw std::runtime_error("find failed for " + path);
    }
    return std::stoull(r.output.empty() ? "0" : r.output);
}

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

} // namespace sd::test
