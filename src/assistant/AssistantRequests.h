#pragma once

#include "assistant/AssistantFacts.h"
#include "assistant/IntelligenceProvider.h"

#include <chrono>
#include <cstdint>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace sd {

// What the assistant is asked to do with the facts it is given.
enum class AssistantTask {
    explainItem,    // a Sweep tile or catalog target: what it is, what happens if it goes
    explainFolder,  // a folder or file of the Space Map or Worth a look
    reviewFolder,   // a big folder's contents, item by item
    answerQuestion, // the user's own question about the disk
};

struct AssistantQuestion {
    AssistantTask task = AssistantTask::explainFolder;
    AssistantFacts facts{};
    std::string question{}; // the user's words, for answerQuestion
};

// The JSON schema of each task's answer.
std::string_view answerSchema(AssistantTask task);
std::string systemPromptFor(AssistantTask task);
// The prompt sent on standard input: the facts, then the question.
std::string promptFor(const AssistantQuestion& question);

// One reviewed item of a folder review.
struct AnswerItem {
    std::string name{};
    std::string note{};
    std::string verdict{};
};

// An answer as the screens show it.
struct AssistantAnswer {
    std::string summary{}; // the headline sentence, or the whole answer
    std::vector<std::pair<std::string, std::string>> sections{}; // heading → text
    std::vector<AnswerItem> items{};                             // for a folder review
};

// Reads the tool's JSON answer for `task`. Empty when it does not have the schema's shape.
std::optional<AssistantAnswer> parseAnswer(AssistantTask task, std::string_view json);

// A byte figure quoted in an answer: "1.2 GB" is 1.2 with one decimal in GB.
struct QuotedFigure {
    std::string text{};
    double value = 0;
    int decimals = 0;
    std::string unit{};
};
std::vector<QuotedFigure> quotedByteFigures(std::string_view text);
// True when the figure is one of `measured` once rounded as it was written (decimal or binary
// units both count, since people and tools use both).
bool matchesMeasured(const QuotedFigure& figure, const std::vector<std::uint64_t>& measured);

inline constexpr std::string_view unmeasuredNumberText =
    "The answer quoted a number Sparrowdeck did not measure, so it is not shown.";

struct AssistantResult {
    enum class Outcome { answered, refused, failed, cancelled };
    Outcome outcome = Outcome::failed;
    AssistantAnswer answer{};
    std::string message{}; // the sentence for refused and failed
    std::string factsSent{};
    double seconds = 0;
};

// Checks an answer's text against the facts that were sent: answered, or refused with
// unmeasuredNumberText when it quotes a byte figure that is not among them.
AssistantResult judgeAnswer(AssistantTask task, const AssistantFacts& facts,
                            std::string_view answerJson);

struct IntelligenceProbe;

// Sends one question to the provider's tool and judges the answer.
AssistantResult askAssistant(IntelligenceProvider provider, const IntelligenceProbe& probe,
                             const AssistantQuestion& question, const std::stop_token& stop = {},
                             std::chrono::milliseconds timeout = std::chrono::seconds(180));

} // namespace sd
