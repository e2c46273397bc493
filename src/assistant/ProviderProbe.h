#pragma once

#include "assistant/EnvironmentCapture.h"
#include "assistant/IntelligenceProvider.h"

#include <chrono>
#include <optional>
#include <set>
#include <stop_token>
#include <string>
#include <string_view>

namespace sd {

struct ChildResult;

// How a probe looks for and questions a tool.
struct ProbeSetup {
    CaptureSetup capture = CaptureSetup::standard();
    std::string home = capture.home;
    std::chrono::milliseconds subProbeTimeout{20'000};
};

// The tool's executable: the path the login shell resolved, when it is an executable file;
// otherwise the first search folder that holds an executable file of the tool's name.
std::optional<std::string> findExecutable(IntelligenceProvider provider,
                                          const LoginEnvironment& login, const std::string& home);

// The first "\d+\.\d+(\.\d+)?" in a version text.
std::optional<std::string> parseVersion(std::string_view text);
// Every "--option" a help text names.
std::set<std::string> parseHelpFlags(std::string_view help);
// The feature names of `codex features list`: the first word of each line that is one.
std::set<std::string> parseCodexFeatures(std::string_view listing);
// The sign-in state from the tool's own status command: `claude auth status` (JSON, or text
// from older builds) or `codex login status`.
IntelligenceLogin parseLogin(IntelligenceProvider provider, const ChildResult& status);

// Captures the login environment, finds the tool and runs its sub-probes at once (version,
// help, sign-in status and, for Codex, its feature names). Empty when it is not installed.
std::optional<IntelligenceProbe> probeProvider(IntelligenceProvider provider,
                                               const ProbeSetup& setup = {},
                                               const std::stop_token& stop = {});

// The status the settings screen shows for a probe's result.
IntelligenceProviderStatus statusOf(const std::optional<IntelligenceProbe>& probe);

} // namespace sd
