#pragma once

#include "assistant/IntelligenceProvider.h"

#include <array>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sd {

// The environment of every run of the tool, built fresh from the captured login environment:
// only the allow-listed names, a PATH of the captured folders then the system's own (each folder
// once, the tool's own folder last so a script tool finds its interpreter beside it), English,
// no colour, a dumb terminal, and for Claude Code no updater and no traffic beyond the answer.
std::vector<std::string> childEnvironment(IntelligenceProvider provider,
                                          const std::map<std::string, std::string>& captured,
                                          const std::string& executable);

// The Codex features switched off for a request, in this order, where the build knows them.
inline constexpr std::array<std::string_view, 19> codexDisabledFeatures{
    "shell_tool",
    "unified_exec",
    "apps",
    "plugins",
    "remote_plugin",
    "hooks",
    "browser_use",
    "browser_use_external",
    "computer_use",
    "multi_agent",
    "image_generation",
    "view_image",
    "in_app_browser",
    "memories",
    "tool_suggest",
    "skill_search",
    "code_mode_host",
    "workspace_dependencies",
    "skill_mcp_dependency_install",
};

// Where one request's files live: an empty working folder for the agent, and beside it (never in
// it) the schema file and the file Codex writes its last message to.
struct RequestFiles {
    std::string workingFolder{};
    std::string schemaFile{};
    std::string answerFile{};
};

// One run of the tool: its arguments and the bytes for its standard input, or the sentence that
// says why no request may be made with this build.
struct ToolInvocation {
    std::vector<std::string> arguments{};
    std::string input{};
    std::optional<std::string> refusal{};
};

// Claude Code: print mode with JSON output and an empty tool list, then each hardening option
// the build's help lists. What the build cannot take as an option (the system prompt, the
// schema) goes before the prompt on standard input instead.
ToolInvocation claudeInvocation(const IntelligenceProbe& probe, std::string_view systemPrompt,
                                std::string_view schema, std::string_view prompt);

// Codex: exec in a read-only sandbox, then each option the build's help lists, the features it
// knows switched off, and "-" so the prompt is read from standard input. Codex has no system
// prompt option, so the system prompt leads the input.
ToolInvocation codexInvocation(const IntelligenceProbe& probe, const RequestFiles& files,
                               std::string_view systemPrompt, std::string_view schema,
                               std::string_view prompt);

ToolInvocation invocationFor(IntelligenceProvider provider, const IntelligenceProbe& probe,
                             const RequestFiles& files, std::string_view systemPrompt,
                             std::string_view schema, std::string_view prompt);

} // namespace sd
