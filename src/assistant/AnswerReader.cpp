#include "assistant/AnswerReader.h"

#include "base/ChildProcess.h"
#include "platform/AssistantTools.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

namespace sd {
namespace {

std::string trimmed(std::string_view text) {
    const char* space = " \t\r\n";
    size_t first = text.find_first_not_of(space);
    if (first == std::string_view::npos) {
        return "";
    }
    size_t last = text.find_last_not_of(space);
    return std::string(text.substr(first, last - first + 1));
}

bool mentionsSignIn(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (std::string_view word : {"login", "logged in", "auth"}) {
        if (text.find(word) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// A long log ends in the line that says what finally went wrong; that one is shown.
std::string lastLine(const std::string& text) {
    std::string_view rest = text;
    while (!rest.empty()) {
        size_t start = rest.rfind('\n');
        std::string line = trimmed(start == std::string_view::npos ? rest : rest.substr(start + 1));
        if (!line.empty()) {
            return line.size() > 400 ? line.substr(0, 400) + "…" : line;
        }
        rest = start == std::string_view::npos ? std::string_view() : rest.substr(0, start);
    }
    return "";
}

// Claude Code's one JSON object, when standard output holds one.
nlohmann::json claudeReport(const ChildResult& run) {
    nlohmann::json report = nlohmann::json::parse(run.output, nullptr, false);
    return report.is_object() ? report : nlohmann::json();
}

// What the tool said about its failure: standard error, else what it printed as its result.
std::string errorText(IntelligenceProvider provider, const ChildResult& run) {
    std::string text = trimmed(run.errors);
    if (!text.empty()) {
        return text;
    }
    if (provider == IntelligenceProvider::claudeCode) {
        nlohmann::json report = claudeReport(run);
        if (report.is_object() && report.value("result", nlohmann::json()).is_string()) {
            return trimmed(report["result"].get<std::string>());
        }
    }
    return trimmed(run.output);
}

} // namespace

std::string failureSentence(IntelligenceProvider provider, const std::string& text,
                            int exitStatus) {
    const std::string name(displayName(provider));
    if (mentionsSignIn(text)) {
        return name + " isn't signed in. Run `" + std::string(executableName(provider)) +
               " login` in " + std::string(platform::terminalName()) + ", then test again.";
    }
    if (text.empty()) {
        return name + " stopped without an answer (exit " + std::to_string(exitStatus) + ").";
    }
    return name + ": " + lastLine(text);
}

ToolAnswer readAnswer(IntelligenceProvider provider, const ChildResult& run,
                      const std::optional<std::string>& lastMessage) {
    ToolAnswer answer;
    if (run.status == 0 && run.signal == 0) {
        if (provider == IntelligenceProvider::claudeCode) {
            nlohmann::json report = claudeReport(run);
            if (report.is_object()) {
                if (report.value("is_error", false)) {
                    answer.error = std::string(displayName(provider)) + " reported an error.";
                    return answer;
                }
                const nlohmann::json structured =
                    report.value("structured_output", nlohmann::json());
                const nlohmann::json result = report.value("result", nlohmann::json());
                if (!structured.is_null()) {
                    answer.text =
                        structured.is_string() ? structured.get<std::string>() : structured.dump();
                } else if (result.is_string() && !trimmed(result.get<std::string>()).empty()) {
                    answer.text = result.get<std::string>();
                }
            }
        } else {
            std::string text = trimmed(lastMessage ? *lastMessage : run.output);
            if (!text.empty()) {
                answer.text = text;
            }
        }
        if (answer.text) {
            return answer;
        }
    }
    answer.error = failureSentence(provider, errorText(provider, run), run.status);
    return answer;
}

} // namespace sd
