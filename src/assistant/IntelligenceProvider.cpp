#include "assistant/IntelligenceProvider.h"

#include "platform/AssistantTools.h"
#include "platform/UserDefaults.h"
#include "platform/Words.h"

#include <array>

namespace sd {
namespace {

constexpr std::array<std::string_view, 20> claudeNames{
    "ANTHROPIC_API_KEY",
    "ANTHROPIC_AUTH_TOKEN",
    "ANTHROPIC_BASE_URL",
    "ANTHROPIC_MODEL",
    "ANTHROPIC_SMALL_FAST_MODEL",
    "ANTHROPIC_VERTEX_PROJECT_ID",
    "CLAUDE_CONFIG_DIR",
    "CLAUDE_CODE_USE_BEDROCK",
    "CLAUDE_CODE_USE_VERTEX",
    "CLAUDE_CODE_USE_FOUNDRY",
    "AWS_PROFILE",
    "AWS_REGION",
    "AWS_DEFAULT_REGION",
    "AWS_ACCESS_KEY_ID",
    "AWS_SECRET_ACCESS_KEY",
    "AWS_SESSION_TOKEN",
    "AWS_BEARER_TOKEN_BEDROCK",
    "CLOUD_ML_REGION",
    "GOOGLE_APPLICATION_CREDENTIALS",
    "NODE_EXTRA_CA_CERTS",
};

constexpr std::array<std::string_view, 5> codexNames{
    "OPENAI_API_KEY", "OPENAI_BASE_URL", "OPENAI_ORG_ID", "CODEX_HOME", "SSL_CERT_FILE",
};

// A leading "~" stands for the home folder; the others are absolute already.
constexpr std::array<std::string_view, 8> claudeFolders{
    "~/.local/bin", "~/.claude/local",   "/opt/homebrew/bin", "/usr/local/bin",
    "~/.local/bin", "~/.npm-global/bin", "~/.bun/bin",        "~/.volta/bin",
};

constexpr std::array<std::string_view, 7> codexFolders{
    "/opt/homebrew/bin", "/usr/local/bin", "~/.local/bin", "~/.npm-global/bin",
    "~/.bun/bin",        "~/.volta/bin",   "~/.cargo/bin",
};

std::string expand(std::string_view folder, const std::string& home) {
    return folder.starts_with("~") ? home + std::string(folder.substr(1)) : std::string(folder);
}

} // namespace

std::string_view caseName(IntelligenceProvider provider) {
    return provider == IntelligenceProvider::claudeCode ? "claudeCode" : "codex";
}

std::string_view displayName(IntelligenceProvider provider) {
    return provider == IntelligenceProvider::claudeCode ? "Claude Code" : "Codex";
}

std::string_view executableName(IntelligenceProvider provider) {
    return provider == IntelligenceProvider::claudeCode ? "claude" : "codex";
}

std::optional<IntelligenceProvider> providerFromCaseName(std::string_view name) {
    for (IntelligenceProvider provider : allProviders) {
        if (caseName(provider) == name) {
            return provider;
        }
    }
    return std::nullopt;
}

std::optional<IntelligenceProvider> providerFromWord(std::string_view word) {
    for (IntelligenceProvider provider : allProviders) {
        if (executableName(provider) == word || caseName(provider) == word) {
            return provider;
        }
    }
    return std::nullopt;
}

std::optional<IntelligenceProvider> chosenProvider(const platform::UserDefaults& store) {
    std::optional<std::string> stored = store.string(providerKey);
    return stored ? providerFromCaseName(*stored) : std::nullopt;
}

void chooseProvider(platform::UserDefaults& store, std::optional<IntelligenceProvider> provider) {
    if (provider) {
        store.setString(providerKey, caseName(*provider));
    } else {
        store.remove(providerKey);
    }
    store.setString(onboardingAnsweredKey, "true");
}

bool onboardingAnswered(const platform::UserDefaults& store) {
    return store.string(onboardingAnsweredKey) == "true";
}

std::string loginText(const IntelligenceLogin& login) {
    if (const auto* in = std::get_if<SignedIn>(&login)) {
        return in->account ? "Signed in as " + *in->account : std::string("Signed in");
    }
    if (std::holds_alternative<SignedOut>(login)) {
        return "Not signed in";
    }
    return "Sign-in status unknown";
}

std::string statusText(const IntelligenceProviderStatus& status) {
    using Phase = IntelligenceProviderStatus::Phase;
    switch (status.phase) {
    case Phase::checking:
        return "Looking for it…";
    case Phase::notInstalled:
        return "Not found on " + std::string(platform::thisMachineText());
    case Phase::installed: {
        std::string text = status.version ? "Version " + *status.version : "Installed";
        return text + " · " + loginText(status.login);
    }
    case Phase::unknown:
        break;
    }
    return "";
}

std::vector<std::string> searchFolders(IntelligenceProvider provider, const std::string& home) {
    std::vector<std::string> folders;
    std::span<const std::string_view> usual = provider == IntelligenceProvider::claudeCode
                                                  ? std::span<const std::string_view>(claudeFolders)
                                                  : std::span<const std::string_view>(codexFolders);
    for (std::string_view folder : usual) {
        folders.push_back(expand(folder, home));
    }
    for (std::string_view folder : platform::extraToolFolders()) {
        folders.push_back(expand(folder, home));
    }
    return folders;
}

std::span<const std::string_view> providerEnvironmentNames(IntelligenceProvider provider) {
    if (provider == IntelligenceProvider::claudeCode) {
        return claudeNames;
    }
    return codexNames;
}

} // namespace sd
