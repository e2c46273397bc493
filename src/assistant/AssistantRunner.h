#pragma once

#include "assistant/IntelligenceProvider.h"
#include "assistant/RequestBuilder.h"

#include <chrono>
#include <stop_token>
#include <string>
#include <string_view>

namespace sd {

// A new, empty temporary folder for one request, with the agent's working folder inside it and
// the request's own files beside that. Everything in it is removed when the object goes, however
// the request ended.
class RequestFolder {
public:
    // Throws CleanerError when the system's temporary folder cannot take one.
    RequestFolder();
    RequestFolder(const RequestFolder&) = delete;
    RequestFolder& operator=(const RequestFolder&) = delete;
    ~RequestFolder();

    const std::string& path() const noexcept { return path_; }
    const RequestFiles& files() const noexcept { return files_; }

private:
    std::string path_{};
    RequestFiles files_{};
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
};

struct AssistantRequest {
    std::string systemPrompt{};
    std::string schema{}; // the JSON schema of the answer
    std::string prompt{};
    std::chrono::milliseconds timeout{120'000};
};

struct AssistantReply {
    enum class Outcome { answered, failed, cancelled };
    Outcome outcome = Outcome::failed;
    std::string answer{}; // the answer's text (JSON for a request with a schema)
    std::string error{};  // one sentence, for `failed`
    double seconds = 0;   // how long the tool took
};

// Runs one request with the provider's tool: a fresh environment and working folder, the
// arguments its build allows, the prompt on standard input, a time limit. A stop ends the tool
// the same way as the limit and is `cancelled`, not an error.
AssistantReply runAssistantRequest(IntelligenceProvider provider, const IntelligenceProbe& probe,
                                   const AssistantRequest& request,
                                   const std::stop_token& stop = {});

inline constexpr std::string_view connectionTestPrompt =
    R"(This is a connection test from a Mac app. Reply as {"sentence": "Ready."})";
inline constexpr std::string_view connectionTestSchema =
    R"({"type":"object","properties":{"sentence":{"type":"string"}},"required":["sentence"],"additionalProperties":false})";

inline constexpr std::string_view connectionTestSystemPrompt =
    "You check that a desktop app can reach you. Answer only with the JSON asked for.";

// Sends the connection test and says whether an answer came back, and how fast.
IntelligenceTestState
runConnectionTest(IntelligenceProvider provider, const IntelligenceProbe& probe,
                  const std::stop_token& stop = {},
                  std::chrono::milliseconds timeout = std::chrono::seconds(90));

} // namespace sd
