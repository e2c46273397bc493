#include "assistant/AssistantRunner.h"

#include "assistant/AnswerReader.h"
#include "base/ChildProcess.h"
#include "base/CleanerError.h"
#include "base/FileIo.h"
#include "base/UniqueFd.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace sd {
namespace {

using Clock = std::chrono::steady_clock;

std::string temporaryParent() {
    const char* tmp = std::getenv("TMPDIR");
    std::string parent = tmp != nullptr && tmp[0] == '/' ? tmp : "/tmp";
    while (parent.size() > 1 && parent.back() == '/') {
        parent.pop_back();
    }
    return parent;
}

// Empties the folder open as `fd`, staying on `device`; the request's folder holds only what
// this process or the tool it ran made in it.
void emptyFolder(int fd, std::uint64_t device, int depth) {
    UniqueFd listing(::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!listing || depth > 32) {
        return;
    }
    DIR* dir = ::fdopendir(listing.get());
    if (dir == nullptr) {
        return;
    }
    listing.release();
    std::vector<std::string> names;
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(std::move(name));
        }
    }
    ::closedir(dir);
    for (const std::string& name : names) {
        struct stat st {};
        if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISDIR(st.st_mode) && static_cast<std::uint64_t>(st.st_dev) == device) {
            UniqueFd child(
                ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (child) {
                emptyFolder(child.get(), device, depth + 1);
            }
            ::unlinkat(fd, name.c_str(), AT_REMOVEDIR);
        } else if (!S_ISDIR(st.st_mode)) {
            ::unlinkat(fd, name.c_str(), 0);
        }
    }
}

std::optional<std::string> readFile(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
        return std::nullopt;
    }
    return readAll(fd.get(), std::size_t(16) << 20);
}

} // namespace

RequestFolder::RequestFolder() {
    std::string pattern = temporaryParent() + "/sparrowdeck-request-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw makeCoreError("Creating a temporary folder in", temporaryParent(), errno);
    }
    path_ = pattern;
    struct stat st {};
    if (::lstat(path_.c_str(), &st) == 0) {
        device_ = static_cast<std::uint64_t>(st.st_dev);
        inode_ = static_cast<std::uint64_t>(st.st_ino);
    }
    files_.workingFolder = path_ + "/work";
    files_.schemaFile = path_ + "/answer-schema.json";
    files_.answerFile = path_ + "/answer.txt";
    if (::mkdir(files_.workingFolder.c_str(), 0700) != 0) {
        throw makeCoreError("Creating a temporary folder in", path_, errno);
    }
}

RequestFolder::~RequestFolder() {
    UniqueFd fd(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st {};
    // Only the folder that was made is emptied, never whatever took its name since.
    if (!fd || ::fstat(fd.get(), &st) != 0 || static_cast<std::uint64_t>(st.st_dev) != device_ ||
        static_cast<std::uint64_t>(st.st_ino) != inode_) {
        return;
    }
    emptyFolder(fd.get(), device_, 0);
    ::rmdir(path_.c_str());
}

AssistantReply runAssistantRequest(IntelligenceProvider provider, const IntelligenceProbe& probe,
                                   const AssistantRequest& request, const std::stop_token& stop) {
    AssistantReply reply;
    try {
        RequestFolder folder;
        ToolInvocation run = invocationFor(provider, probe, folder.files(), request.systemPrompt,
                                           request.schema, request.prompt);
        if (run.refusal) {
            reply.error = *run.refusal;
            return reply;
        }
        if (!request.schema.empty()) {
            replaceFileAtomically(folder.files().schemaFile, request.schema);
        }
        const bool readsLastMessage = provider == IntelligenceProvider::codex &&
                                      probe.flags.contains("--output-last-message");
        ChildCommand command{.executable = probe.executable,
                             .arguments = std::move(run.arguments),
                             .environment =
                                 childEnvironment(provider, probe.environment, probe.executable),
                             .directory = folder.files().workingFolder,
                             .input = std::move(run.input),
                             .timeout = request.timeout};
        const auto started = Clock::now();
        ChildResult result = runChild(command, stop);
        reply.seconds = std::chrono::duration<double>(Clock::now() - started).count();
        if (result.cancelled) {
            reply.outcome = AssistantReply::Outcome::cancelled;
            return reply;
        }
        if (result.timedOut) {
            const auto seconds = (request.timeout.count() + 999) / 1000;
            reply.error = std::string(displayName(provider)) + " did not answer within " +
                          std::to_string(seconds) + (seconds == 1 ? " second" : " seconds") +
                          ", so it was stopped.";
            return reply;
        }
        std::optional<std::string> lastMessage;
        if (readsLastMessage) {
            lastMessage = readFile(folder.files().answerFile);
        }
        ToolAnswer answer = readAnswer(provider, result, lastMessage);
        if (!answer.text) {
            reply.error = answer.error;
            return reply;
        }
        reply.outcome = AssistantReply::Outcome::answered;
        reply.answer = std::move(*answer.text);
    } catch (const CleanerError& error) {
        reply.error = error.message();
    }
    return reply;
}

IntelligenceTestState runConnectionTest(IntelligenceProvider provider,
                                        const IntelligenceProbe& probe, const std::stop_token& stop,
                                        std::chrono::milliseconds timeout) {
    AssistantRequest request{.systemPrompt = std::string(connectionTestSystemPrompt),
                             .schema = std::string(connectionTestSchema),
                             .prompt = std::string(connectionTestPrompt),
                             .timeout = timeout};
    AssistantReply reply = runAssistantRequest(provider, probe, request, stop);
    switch (reply.outcome) {
    case AssistantReply::Outcome::answered: {
        nlohmann::json answer = nlohmann::json::parse(reply.answer, nullptr, false);
        if (answer.is_object() && answer.value("sentence", nlohmann::json()).is_string()) {
            return TestPassed{reply.seconds};
        }
        return TestFailed{std::string(displayName(provider)) +
                          " answered, but not in the form asked for. Update it, then test "
                          "again."};
    }
    case AssistantReply::Outcome::cancelled:
        return TestIdle{};
    case AssistantReply::Outcome::failed:
        break;
    }
    return TestFailed{reply.error};
}

} // namespace sd
