#pragma once

#include "assistant/IntelligenceProvider.h"

#include <string>
#include <vector>

// A stand-in for the user's `claude` or `codex`: a shell script that answers the probe's
// questions from files beside it and records each request (its arguments, standard input,
// working folder and environment) for the test to read back. A request child gets only an
// allow-listed environment, so everything the fake needs lives in its own folder.
namespace sd::test {

class FakeAssistantTool {
public:
    // Writes the fake into `folder` under the provider's executable name.
    FakeAssistantTool(IntelligenceProvider provider, const std::string& folder);
    FakeAssistantTool(FakeAssistantTool&& other) noexcept;
    FakeAssistantTool& operator=(FakeAssistantTool&&) = delete;
    // Removes the named pipe, which the fixture teardown would not.
    ~FakeAssistantTool();

    const std::string& executable() const noexcept { return executable_; }
    const std::string& folder() const noexcept { return folder_; }

    // What the probe's sub-commands print.
    void setVersionText(const std::string& text);
    void setHelpFlags(const std::vector<std::string>& flags);
    void setLoginStatus(const std::string& text, int exitStatus);
    void setFeatures(const std::vector<std::string>& names);

    // What a request prints and how it exits; for Codex `lastMessage` goes to the file named
    // after --output-last-message.
    void respond(const std::string& output, const std::string& errors, int exitStatus,
                 const std::string& lastMessage = "");
    // A request that never ends by itself.
    void hang();
    // Blocks until a request has its whole prompt, then lets it go on.
    void awaitRequest() const;

    bool requested() const;
    std::vector<std::string> arguments() const;   // of the last request
    std::string input() const;                    // its standard input
    std::string workingFolder() const;            // its working folder
    std::string workingFolderContents() const;    // what was in it when it started
    std::vector<std::string> environment() const; // exactly, in the order the child had it

private:
    void put(const std::string& name, const std::string& text) const;

    std::string folder_;
    std::string executable_;
};

} // namespace sd::test
