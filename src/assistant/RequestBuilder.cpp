#include "assistant/RequestBuilder.h"

#include <set>

namespace sd {
namespace {

constexpr std::array<std::string_view, 14> sharedNames{
    "HOME",     "USER",        "LOGNAME",    "SHELL",    "TMPDIR",      "LANG",       "LC_ALL",
    "LC_CTYPE", "HTTPS_PROXY", "HTTP_PROXY", "NO_PROXY", "https_proxy", "http_proxy", "no_proxy",
};

constexpr std::array<std::string_view, 6> systemFolders{
    "/opt/homebrew/bin", "/usr/local/bin", "/usr/bin", "/bin", "/usr/sbin", "/sbin",
};

std::string inputWith(std::string_view systemPrompt, std::string_view schema,
                      std::string_view prompt, bool systemPromptTaken, bool schemaTaken) {
    std::string input;
    if (!systemPromptTaken && !systemPrompt.empty()) {
        input.append(systemPrompt).append("\n\n");
    }
    if (!schemaTaken && !schema.empty()) {
        input
            .append("Reply with one JSON object that matches this JSON schema, and nothing "
                    "else:\n")
            .append(schema)
            .append("\n\n");
    }
    input.append(prompt);
    return input;
}

} // namespace

std::vector<std::string> childEnvironment(IntelligenceProvider provider,
                                          const std::map<std::string, std::string>& captured,
                                          const std::string& executable) {
    std::map<std::string, std::string> chosen;
    auto copy = [&](std::string_view name) {
        auto found = captured.find(std::string(name));
        if (found != captured.end()) {
            chosen[found->first] = found->second;
        }
    };
    for (std::string_view name : sharedNames) {
        copy(name);
    }
    for (std::string_view name : providerEnvironmentNames(provider)) {
        copy(name);
    }

    std::vector<std::string> folders;
    std::set<std::string> seen;
    auto addFolder = [&](std::string_view folder) {
        if (!folder.empty() && seen.emplace(folder).second) {
            folders.emplace_back(folder);
        }
    };
    if (auto path = captured.find("PATH"); path != captured.end()) {
        std::string_view rest = path->second;
        while (true) {
            size_t colon = rest.find(':');
            addFolder(rest.substr(0, colon));
            if (colon == std::string_view::npos) {
                break;
            }
            rest.remove_prefix(colon + 1);
        }
    }
    for (std::string_view folder : systemFolders) {
        addFolder(folder);
    }
    if (size_t slash = executable.rfind('/'); slash != std::string::npos && slash > 0) {
        addFolder(std::string_view(executable).substr(0, slash));
    }
    std::string path;
    for (const std::string& folder : folders) {
        path += (path.empty() ? "" : ":") + folder;
    }
    chosen["PATH"] = path;

    if (!chosen.contains("LANG")) {
        chosen["LANG"] = "en_US.UTF-8";
    }
    chosen["NO_COLOR"] = "1";
    chosen["TERM"] = "dumb";
    if (provider == IntelligenceProvider::claudeCode) {
        chosen["CLAUDE_CODE_DISABLE_NONESSENTIAL_TRAFFIC"] = "1";
        chosen["DISABLE_AUTOUPDATER"] = "1";
    }
    std::vector<std::string> environment;
    for (const auto& [name, value] : chosen) {
        environment.push_back(name + "=" + value);
    }
    return environment;
}

ToolInvocation claudeInvocation(const IntelligenceProbe& probe, std::string_view systemPrompt,
                                std::string_view schema, std::string_view prompt) {
    ToolInvocation run;
    const auto listed = [&](std::string_view flag) {
        return probe.flags.contains(std::string(flag));
    };
    if (!listed("--tools") || !listed("--output-format")) {
        run.refusal = "This version of Claude Code can't run with its tools switched off. Update "
                      "it (claude update), then test again.";
        return run;
    }
    std::vector<std::string>& a = run.arguments;
    a = {"-p", "--output-format", "json", "--tools", ""};
    const std::vector<std::vector<std::string>> hardening{
        {"--permission-mode", "dontAsk"},
        {"--permission-prompts", "none"},
        {"--safe-mode"},
        {"--strict-mcp-config"},
        {"--no-session-persistence"},
        {"--disable-slash-commands"},
        {"--effort", "low"},
        {"--max-budget-usd", "1"},
    };
    for (const std::vector<std::string>& row : hardening) {
        if (listed(row.front())) {
            a.insert(a.end(), row.begin(), row.end());
        }
    }
    const bool takesSystemPrompt = listed("--system-prompt");
    if (takesSystemPrompt) {
        a.insert(a.end(), {"--system-prompt", std::string(systemPrompt)});
    }
    const bool takesSchema = listed("--json-schema");
    if (takesSchema) {
        a.insert(a.end(), {"--json-schema", std::string(schema)});
    }
    run.input = inputWith(systemPrompt, schema, prompt, takesSystemPrompt, takesSchema);
    return run;
}

ToolInvocation codexInvocation(const IntelligenceProbe& probe, const RequestFiles& files,
                               std::string_view systemPrompt, std::string_view schema,
                               std::string_view prompt) {
    ToolInvocation run;
    const auto listed = [&](std::string_view flag) {
        return probe.flags.contains(std::string(flag));
    };
    if (!listed("--sandbox")) {
        run.refusal = "This version of Codex has no read-only sandbox. Update it, then test again.";
        return run;
    }
    std::vector<std::string>& a = run.arguments;
    a = {"exec", "--sandbox", "read-only"};
    for (std::string_view flag :
         {"--skip-git-repo-check", "--ephemeral", "--ignore-user-config", "--ignore-rules"}) {
        if (listed(flag)) {
            a.emplace_back(flag);
        }
    }
    if (listed("--color")) {
        a.insert(a.end(), {"--color", "never"});
    }
    if (listed("--cd")) {
        a.insert(a.end(), {"--cd", files.workingFolder});
    }
    const bool takesSchema = listed("--output-schema") && !schema.empty();
    if (takesSchema) {
        a.insert(a.end(), {"--output-schema", files.schemaFile});
    }
    if (listed("--output-last-message")) {
        a.insert(a.end(), {"--output-last-message", files.answerFile});
    }
    if (listed("--disable")) {
        for (std::string_view feature : codexDisabledFeatures) {
            if (probe.codexFeatures.contains(std::string(feature))) {
                a.insert(a.end(), {"--disable", std::string(feature)});
            }
        }
    }
    if (listed("--config")) {
        a.insert(a.end(),
                 {"--config", R"(approval_policy="never")", "--config", R"(web_search="disabled")",
                  "--config", R"(model_reasoning_effort="low")"});
    }
    a.emplace_back("-");
    run.input = inputWith(systemPrompt, schema, prompt, false, takesSchema);
    return run;
}

ToolInvocation invocationFor(IntelligenceProvider provider, const IntelligenceProbe& probe,
                             const RequestFiles& files, std::string_view systemPrompt,
                             std::string_view schema, std::string_view prompt) {
    return provider == IntelligenceProvider::claudeCode
               ? claudeInvocation(probe, systemPrompt, schema, prompt)
               : codexInvocation(probe, files, systemPrompt, schema, prompt);
}

} // namespace sd
