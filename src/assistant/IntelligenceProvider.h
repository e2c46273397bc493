#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sd {
namespace platform {
class UserDefaults;
}

// The user's own AI command-line tool, which the assistant runs; it is persisted by its case name.
enum class IntelligenceProvider { claudeCode, codex };

inline constexpr IntelligenceProvider allProviders[] = {IntelligenceProvider::claudeCode,
                                                        IntelligenceProvider::codex};

std::string_view caseName(IntelligenceProvider provider);       // "claudeCode", "codex"
std::string_view displayName(IntelligenceProvider provider);    // "Claude Code", "Codex"
std::string_view executableName(IntelligenceProvider provider); // "claude", "codex"
std::optional<IntelligenceProvider> providerFromCaseName(std::string_view name);
// The executable name or the case name, as a person types it on the command line.
std::optional<IntelligenceProvider> providerFromWord(std::string_view word);

// The chosen provider; absent means the assistant is off.
inline constexpr std::string_view providerKey = "sd.intelligence.provider";
// Set once the user answered the first-run question, whatever they chose.
inline constexpr std::string_view onboardingAnsweredKey = "sd.intelligence.onboardingAnswered";

std::optional<IntelligenceProvider> chosenProvider(const platform::UserDefaults& store);
// Chooses a provider, or with none switches the assistant off; either way the first-run question
// counts as answered.
void chooseProvider(platform::UserDefaults& store, std::optional<IntelligenceProvider> provider);
bool onboardingAnswered(const platform::UserDefaults& store);

// Whether the tool says it is signed in.
struct SignedIn {
    std::optional<std::string> account{};
    friend bool operator==(const SignedIn&, const SignedIn&) = default;
};
struct SignedOut {
    friend bool operator==(const SignedOut&, const SignedOut&) = default;
};
struct LoginUnknown {
    friend bool operator==(const LoginUnknown&, const LoginUnknown&) = default;
};
using IntelligenceLogin = std::variant<LoginUnknown, SignedIn, SignedOut>;

// A sentence for the settings screen: "Signed in as a@b.c", "Signed in", "Not signed in",
// "Sign-in status unknown".
std::string loginText(const IntelligenceLogin& login);

// What was learned about the installed tool.
struct IntelligenceProbe {
    std::string executable{};
    std::optional<std::string> version{};
    IntelligenceLogin login{};
    std::set<std::string> flags{};                    // the "--" options its help lists
    std::set<std::string> codexFeatures{};            // the feature names a Codex build knows
    std::map<std::string, std::string> environment{}; // the captured login environment
};

struct IntelligenceProviderStatus {
    enum class Phase { unknown, checking, notInstalled, installed };
    Phase phase = Phase::unknown;
    std::optional<std::string> executable{};
    std::optional<std::string> version{};
    IntelligenceLogin login{};
};

// "Looking for it…" while checking, "Not found on this computer" when not installed.
std::string statusText(const IntelligenceProviderStatus& status);

// The connection test shown in settings.
struct TestIdle {};
struct TestRunning {};
struct TestPassed {
    double seconds = 0; // how long the answer took
};
struct TestFailed {
    std::string message{};
};
using IntelligenceTestState = std::variant<TestIdle, TestRunning, TestPassed, TestFailed>;

// The folders searched, in order, when the login shell does not know the tool; `home` is the
// account's home folder.
std::vector<std::string> searchFolders(IntelligenceProvider provider, const std::string& home);

// The provider's own environment variables that a request may pass on.
std::span<const std::string_view> providerEnvironmentNames(IntelligenceProvider provider);

} // namespace sd
