#pragma once

#include "assistant/IntelligenceProvider.h"

#include <optional>
#include <string>

namespace sd {

struct ChildResult;

// What one finished run of the tool gave: the answer text, or one sentence for the user.
struct ToolAnswer {
    std::optional<std::string> text{};
    std::string error{};
};

// Reads a finished run. Claude Code prints one JSON object whose "structured_output" (else
// "result") is the answer; Codex's answer is its last-message file (`lastMessage`), or standard
// output when the option was not given. A run that failed or gave nothing usable becomes the
// tool's own words, or the sign-in sentence when they speak of logging in.
ToolAnswer readAnswer(IntelligenceProvider provider, const ChildResult& run,
                      const std::optional<std::string>& lastMessage);

// The sentence for a run that failed with `errorText` as the tool's own words.
std::string failureSentence(IntelligenceProvider provider, const std::string& errorText,
                            int exitStatus);

} // namespace sd
