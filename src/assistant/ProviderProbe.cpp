#include "assistant/ProviderProbe.h"

#include "assistant/RequestBuilder.h"
#include "base/ChildProcess.h"
#include "base/CleanerError.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
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

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isAlnum(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// The first address of the form name@domain.tld in a text.
std::optional<std::string> firstEmail(std::string_view text) {
    auto local = [](char c) {
        return isAlnum(c) || std::string_view("._%+-").find(c) != std::string_view::npos;
    };
    auto domain = [](char c) {
        return isAlnum(c) || c == '.' || c == '-';
    };
    for (size_t at = text.find('@'); at != std::string_view::npos; at = text.find('@', at + 1)) {
        size_t begin = at;
        while (begin > 0 && local(text[begin - 1])) {
            --begin;
        }
        size_t end = at + 1;
        while (end < text.size() && domain(text[end])) {
            ++end;
        }
        std::string_view host = text.substr(at + 1, end - at - 1);
        while (!host.empty() && (host.back() == '.' || host.back() == '-')) {
            host.remove_suffix(1);
        }
        size_t dot = host.rfind('.');
        const bool tld = dot != std::string_view::npos && host.size() - dot > 2 &&
                         std::all_of(host.begin() + static_cast<std::ptrdiff_t>(dot) + 1,
                                     host.end(), [](char c) { return isAlnum(c) && !isDigit(c); });
        if (begin < at && dot > 0 && tld) {
            return std::string(text.substr(begin, at + 1 + host.size() - begin));
        }
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
    // The first "digits.digits", with one more ".digits" when there is one.
    auto digitsFrom = [&](size_t at) {
        size_t end = at;
        while (end < text.size() && isDigit(text[end])) {
            ++end;
        }
        return end;
    };
    for (size_t at = 0; at < text.size(); ++at) {
        if (!isDigit(text[at])) {
            continue;
        }
        size_t end = digitsFrom(at);
        if (end + 1 >= text.size() || text[end] != '.' || !isDigit(text[end + 1])) {
            continue;
        }
        end = digitsFrom(end + 1);
        if (end + 1 < text.size() && text[end] == '.' && isDigit(text[end + 1])) {
            end = digitsFrom(end + 1);
        }
        return std::string(text.substr(at, end - at));
    }
    return std::nullopt;
}

std::set<std::string> parseHelpFlags(std::string_view help) {
    std::set<std::string> flags;
    for (size_t at = help.find("--"); at != std::string_view::npos; at = help.find("--", at + 1)) {
        const bool starts = at == 0 || !(isAlnum(help[at - 1]) || help[at - 1] == '-');
        if (!starts || at + 2 >= help.size() || !isAlnum(help[at + 2])) {
            continue;
        }
        size_t end = at + 2;
        while (end < help.size() && (isAlnum(help[end]) || help[end] == '-')) {
            ++end;
        }
        flags.emplace(help.substr(at, end - at));
        at = end - 1;
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
    // A shell that could not be asked leaves no environment; the tool still needs to know whose
    // home its settings and sign-in live in.
    if (!setup.home.empty()) {
        login.environment.try_emplace("HOME", setup.home);
    }
    if (!setup.capture.user.empty()) {
        login.environment.try_emplace("USER", setup.capture.user);
        login.environment.try_emplace("LOGNAME", setup.capture.user);
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
