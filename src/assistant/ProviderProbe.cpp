#include "assistant/ProviderProbe.h"

#include "assistant/RequestBuilder.h"
#include "base/ChildProcess.h"
#include "base/CleanerError.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <regex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace sd {
namespace {

bool isExecutableFile(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::optional<std::string> firstEmail(std::string_view text) {
    static const std::regex email(R"([A-Za-z0-9._%+-]+@[A-Za-z0-9.-]+\.[A-Za-z]{2,})");
    std::match_results<std::string_view::const_iterator> match;
    if (std::regex_search(text.begin(), text.end(), match, email)) {
        return match.str();
    }
    return std::nullopt;
}

// Runs one sub-probe; a tool that cannot start or answer in time gives an empty result.
ChildResult ask(const std::string& executable, std::vector<std::string> arguments,
                const std::vector<std::string>& environment, const std::string& home,
                std::chrono::milliseconds timeout, const std::stop_token& stop) {
    ChildCommand command{.executable = executable,
                         .arguments = std::move(arguments),
                         .environment = environment,
                         .directory = home.empty() ? "/" : home,
                         .timeout = timeout};
    try {
        return runChild(command, stop);
    } catch (const CleanerError&) {
        return {};
    }
}

} // namespace

std::optional<std::string> findExecutable(IntelligenceProvider provider,
                                          const LoginEnvironment& login, const std::string& home) {
    if (login.toolPath && isExecutableFile(*login.toolPath)) {
        return login.toolPath;
    }
    for (const std::string& folder : searchFolders(provider, home)) {
        std::string candidate = folder + "/" + std::string(executableName(provider));
        if (isExecutableFile(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

std::optional<std::string> parseVersion(std::string_view text) {
    static const std::regex version(R"(\d+\.\d+(\.\d+)?)");
    std::match_results<std::string_view::const_iterator> match;
    if (std::regex_search(text.begin(), text.end(), match, version)) {
        return match.str();
    }
    return std::nullopt;
}

std::set<std::string> parseHelpFlags(std::string_view help) {
    static const std::regex option(R"((^|[^A-Za-z0-9-])(--[A-Za-z0-9][A-Za-z0-9-]*))");
    std::set<std::string> flags;
    using Iterator = std::regex_iterator<std::string_view::const_iterator>;
    for (Iterator it(help.begin(), help.end(), option), end; it != end; ++it) {
        flags.insert((*it)[2].str());
    }
    return flags;
}

std::set<std::string> parseCodexFeatures(std::string_view listing) {
    std::set<std::string> features;
    while (!listing.empty()) {
        size_t end = listing.find('\n');
        std::string_view line = listing.substr(0, end);
        size_t wordEnd = line.find_first_of(" \t");
        std::string_view word = line.substr(0, wordEnd);
        bool isName = !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
        });
        if (isName) {
            features.emplace(word);
        }
        if (end == std::string_view::npos) {
            break;
        }
        listing.remove_prefix(end + 1);
    }
    return features;
}

IntelligenceLogin parseLogin(IntelligenceProvider provider, const ChildResult& status) {
    if (status.timedOut || status.cancelled || status.status < 0) {
        return LoginUnknown{};
    }
    if (provider == IntelligenceProvider::claudeCode) {
        nlohmann::json report = nlohmann::json::parse(status.output, nullptr, false);
        if (report.is_object() && report.contains("loggedIn") && report["loggedIn"].is_boolean()) {
            if (!report["loggedIn"].get<bool>()) {
                return SignedOut{};
            }
            SignedIn in;
            for (const char* key : {"email", "account", "accountEmail", "orgName"}) {
                if (report.contains(key) && report[key].is_string() &&
                    !report[key].get<std::string>().empty()) {
                    in.account = report[key].get<std::string>();
                    break;
                }
            }
            return in;
        }
    }
    // Text answers, from Codex and from older Claude Code builds.
    const std::string text = status.output + "\n" + status.errors;
    const std::string lower = lowered(text);
    if (lower.find("not logged in") != std::string::npos ||
        lower.find("not signed in") != std::string::npos ||
        lower.find("logged out") != std::string::npos) {
        return SignedOut{};
    }
    if (status.status == 0 && (lower.find("logged in") != std::string::npos ||
                               lower.find("signed in") != std::string::npos)) {
        return SignedIn{firstEmail(text)};
    }
    return LoginUnknown{};
}

std::optional<IntelligenceProbe>
probeProvider(IntelligenceProvider provider, const ProbeSetup& setup, const std::stop_token& stop) {
    LoginEnvironment login = captureLoginEnvironment(setup.capture, executableName(provider), stop);
    std::optional<std::string> executable = findExecutable(provider, login, setup.home);
    if (!executable) {
        return std::nullopt;
    }
    const bool codex = provider == IntelligenceProvider::codex;
    const std::vector<std::string> environment =
        childEnvironment(provider, login.environment, *executable);
    const std::vector<std::vector<std::string>> questions{
        {"--version"},
        codex ? std::vector<std::string>{"exec", "--help"} : std::vector<std::string>{"--help"},
        codex ? std::vector<std::string>{"login", "status"}
              : std::vector<std::string>{"auth", "status"},
        {"features", "list"},
    };
    std::vector<ChildResult> answers(codex ? 4 : 3);
    {
        // The sub-probes each wait on a slow tool start-up, so they run side by side.
        std::vector<std::jthread> running;
        for (size_t i = 0; i < answers.size(); ++i) {
            running.emplace_back([&, i] {
                answers[i] = ask(*executable, questions[i], environment, setup.home,
                                 setup.subProbeTimeout, stop);
            });
        }
    }
    IntelligenceProbe probe;
    probe.executable = *executable;
    probe.environment = std::move(login.environment);
    const ChildResult& version = answers[0];
    probe.version = parseVersion(version.output.empty() ? version.errors : version.output);
    probe.flags = parseHelpFlags(answers[1].output + "\n" + answers[1].errors);
    probe.login = parseLogin(provider, answers[2]);
    if (codex) {
        probe.codexFeatures = parseCodexFeatures(answers[3].output);
    }
    return probe;
}

IntelligenceProviderStatus statusOf(const std::optional<IntelligenceProbe>& probe) {
    IntelligenceProviderStatus status;
    if (!probe) {
        status.phase = IntelligenceProviderStatus::Phase::notInstalled;
        return status;
    }
    status.phase = IntelligenceProviderStatus::Phase::installed;
    status.executable = probe->executable;
    status.version = probe->version;
    status.login = probe->login;
    return status;
}

} // namespace sd
