#include "cli/AssistantCommand.h"

#include "assistant/AssistantRequests.h"
#include "assistant/AssistantRunner.h"
#include "assistant/AssistantSubjects.h"
#include "assistant/ProviderProbe.h"
#include "base/CleanerError.h"
#include "cli/Terminal.h"
#include "core/PathRules.h"
#include "platform/UserDefaults.h"
#include "sweep/Sweep.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

namespace sd::cli {
namespace {

using nlohmann::json;

struct Options {
    std::string provider;
    std::string path;
    std::string question;
    bool showFacts = false;
    bool json = false;
};

void print(const json& value) {
    std::cout << value.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
}

// A status line that the worker updates and the terminal redraws.
class StatusLine {
public:
    void set(std::string text) {
        std::lock_guard guard(lock_);
        text_ = std::move(text);
    }
    std::string get() {
        std::lock_guard guard(lock_);
        return text_;
    }

private:
    std::mutex lock_;
    std::string text_;
};

json loginJson(const IntelligenceLogin& login) {
    if (const auto* in = std::get_if<SignedIn>(&login)) {
        return {{"state", "signedIn"}, {"account", in->account ? json(*in->account) : json()}};
    }
    return {{"state", std::holds_alternative<SignedOut>(login) ? "signedOut" : "unknown"},
            {"account", nullptr}};
}

const char* phaseName(IntelligenceProviderStatus::Phase phase) {
    switch (phase) {
    case IntelligenceProviderStatus::Phase::checking:
        return "checking";
    case IntelligenceProviderStatus::Phase::notInstalled:
        return "notInstalled";
    case IntelligenceProviderStatus::Phase::installed:
        return "installed";
    case IntelligenceProviderStatus::Phase::unknown:
        break;
    }
    return "unknown";
}

// The provider named on the command line, else the one chosen in settings. A sentence on
// standard error and status 1 when there is none.
std::optional<IntelligenceProvider> providerFor(const Options& options, int& exitStatus) {
    if (!options.provider.empty()) {
        return providerFromWord(options.provider);
    }
    std::optional<IntelligenceProvider> chosen = chosenProvider(platform::UserDefaults::standard());
    if (!chosen) {
        std::fprintf(stderr, "The assistant is off. Choose Claude Code or Codex in the app's "
                             "Settings, or name one with --provider claude|codex. Nothing was "
                             "sent.\n");
        exitStatus = 1;
    }
    return chosen;
}

// Finds and probes the tool, with progress; a sentence and status 1 when it is not there.
std::optional<IntelligenceProbe> probeFor(IntelligenceProvider provider, int& exitStatus) {
    std::optional<IntelligenceProbe> probe;
    runWithProgress([&](std::stop_token stop) { probe = probeProvider(provider, {}, stop); },
                    [&] { return "Looking for " + std::string(displayName(provider)) + "…"; });
    if (!probe) {
        std::fprintf(stderr, "%s: %s. Nothing was sent.\n",
                     std::string(displayName(provider)).c_str(),
                     statusText(statusOf(std::nullopt)).c_str());
        exitStatus = 1;
    }
    return probe;
}

json answerJson(const AssistantAnswer& answer) {
    json sections = json::object();
    for (const auto& [heading, text] : answer.sections) {
        sections[heading] = text;
    }
    json items = json::array();
    for (const AnswerItem& item : answer.items) {
        items.push_back({{"name", item.name}, {"note", item.note}, {"verdict", item.verdict}});
    }
    return {{"summary", answer.summary}, {"sections", sections}, {"items", items}};
}

const char* outcomeName(AssistantResult::Outcome outcome) {
    switch (outcome) {
    case AssistantResult::Outcome::answered:
        return "answered";
    case AssistantResult::Outcome::refused:
        return "refused";
    case AssistantResult::Outcome::cancelled:
        return "cancelled";
    case AssistantResult::Outcome::failed:
        break;
    }
    return "failed";
}

// Measures the facts, shows them or sends them, and prints the answer with the facts it used.
void explainOrAsk(const Options& options, AssistantQuestion question,
                  const std::function<AssistantFacts(std::stop_token)>& measure, int& exitStatus) {
    StatusLine status;
    try {
        status.set("Measuring…");
        runWithProgress([&](std::stop_token stop) { question.facts = measure(stop); },
                        [&] { return status.get(); });
    } catch (const CleanerError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        exitStatus = 1;
        return;
    }
    if (options.showFacts) {
        // Shown, not sent: the user reads exactly what a request would carry.
        if (options.json) {
            print({{"facts", question.facts.text()}, {"sent", false}});
        } else {
            std::printf("These facts would be sent, and nothing else (no file's contents):\n\n%s",
                        question.facts.text().c_str());
        }
        return;
    }
    std::optional<IntelligenceProvider> provider = providerFor(options, exitStatus);
    if (!provider) {
        return;
    }
    std::optional<IntelligenceProbe> probe = probeFor(*provider, exitStatus);
    if (!probe) {
        return;
    }
    AssistantResult result;
    runWithProgress(
        [&](std::stop_token stop) { result = askAssistant(*provider, *probe, question, stop); },
        [&] { return "Waiting for " + std::string(displayName(*provider)) + "…"; });
    if (result.outcome != AssistantResult::Outcome::answered) {
        exitStatus = 1;
    }
    if (options.json) {
        print({{"provider", caseName(*provider)},
               {"outcome", outcomeName(result.outcome)},
               {"message", result.message},
               {"answer", result.outcome == AssistantResult::Outcome::answered
                              ? answerJson(result.answer)
                              : json()},
               {"facts", result.factsSent},
               {"seconds", result.seconds}});
        return;
    }
    switch (result.outcome) {
    case AssistantResult::Outcome::answered:
        std::printf("%s\n", result.answer.summary.c_str());
        for (const auto& [heading, text] : result.answer.sections) {
            std::printf("\n%s: %s\n", heading.c_str(), text.c_str());
        }
        for (const AnswerItem& item : result.answer.items) {
            std::printf("\n  %s — %s (%s)\n", item.name.c_str(), item.note.c_str(),
                        item.verdict.c_str());
        }
        std::printf("\nFacts %s was given:\n%s", std::string(displayName(*provider)).c_str(),
                    result.factsSent.c_str());
        return;
    case AssistantResult::Outcome::cancelled:
        std::fprintf(stderr, "Stopped. No answer was kept.\n");
        return;
    case AssistantResult::Outcome::refused:
    case AssistantResult::Outcome::failed:
        break;
    }
    std::fprintf(stderr, "%s\n", result.message.c_str());
}

void status(const Options& options) {
    std::vector<IntelligenceProvider> providers(std::begin(allProviders), std::end(allProviders));
    if (!options.provider.empty()) {
        providers = {*providerFromWord(options.provider)};
    }
    std::optional<IntelligenceProvider> chosen = chosenProvider(platform::UserDefaults::standard());
    std::vector<std::pair<IntelligenceProvider, IntelligenceProviderStatus>> found;
    runWithProgress(
        [&](std::stop_token stop) {
            for (IntelligenceProvider provider : providers) {
                found.emplace_back(provider, statusOf(probeProvider(provider, {}, stop)));
            }
        },
        [] { return std::string("Looking for your AI tools…"); });
    if (options.json) {
        json list = json::array();
        for (const auto& [provider, s] : found) {
            list.push_back({{"provider", caseName(provider)},
                            {"displayName", displayName(provider)},
                            {"phase", phaseName(s.phase)},
                            {"executable", s.executable ? json(*s.executable) : json()},
                            {"version", s.version ? json(*s.version) : json()},
                            {"login", loginJson(s.login)}});
        }
        print({{"chosen", chosen ? json(caseName(*chosen)) : json()}, {"providers", list}});
        return;
    }
    std::printf("The assistant is %s.\n",
                chosen ? ("on, with " + std::string(displayName(*chosen))).c_str() : "off");
    for (const auto& [provider, s] : found) {
        std::printf("%s: %s%s\n", std::string(displayName(provider)).c_str(), statusText(s).c_str(),
                    s.executable ? (" — " + *s.executable).c_str() : "");
    }
}

void test(const Options& options, int& exitStatus) {
    std::optional<IntelligenceProvider> provider = providerFor(options, exitStatus);
    if (!provider) {
        return;
    }
    std::optional<IntelligenceProbe> probe = probeFor(*provider, exitStatus);
    if (!probe) {
        return;
    }
    IntelligenceTestState state;
    runWithProgress(
        [&](std::stop_token stop) { state = runConnectionTest(*provider, *probe, stop); },
        [&] { return "Testing " + std::string(displayName(*provider)) + "…"; });
    const std::string name(displayName(*provider));
    if (const auto* passed = std::get_if<TestPassed>(&state)) {
        if (options.json) {
            print({{"provider", caseName(*provider)},
                   {"state", "passed"},
                   {"seconds", passed->seconds}});
        } else {
            std::printf("%s answered in %.1f s.\n", name.c_str(), passed->seconds);
        }
        return;
    }
    exitStatus = 1;
    std::string message = std::holds_alternative<TestFailed>(state)
                              ? std::get<TestFailed>(state).message
                              : std::string("Stopped. Nothing else was sent.");
    if (options.json) {
        print({{"provider", caseName(*provider)}, {"state", "failed"}, {"message", message}});
    } else {
        std::fprintf(stderr, "%s\n", message.c_str());
    }
}

const CLI::Validator providerWord(
    [](std::string& text) {
        return providerFromWord(text) ? std::string() : "“" + text + "” is not claude or codex";
    },
    "claude|codex");

} // namespace

void addAssistantCommand(CLI::App& app, int& exitStatus) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "assistant", "Explain what fills your disk with your own Claude Code or Codex; only "
                     "names, sizes, counts and dates are sent");
    command->require_subcommand(1);
    auto common = [&](CLI::App* sub) {
        sub->add_option("--provider", options->provider, "Use this tool for this run")
            ->check(providerWord);
        sub->add_flag("--json", options->json, "Write the result as JSON");
    };

    CLI::App* statusCommand =
        command->add_subcommand("status", "Whether your AI tools are installed and signed in");
    common(statusCommand);
    statusCommand->callback([options] { status(*options); });

    CLI::App* testCommand =
        command->add_subcommand("test", "Send the connection test and time the answer");
    common(testCommand);
    testCommand->callback([options, &exitStatus] { test(*options, exitStatus); });

    CLI::App* explain =
        command->add_subcommand("explain", "What a folder or file is, and what happens if it goes");
    explain->add_option("path", options->path, "An absolute path inside your home folder")
        ->required();
    explain->add_flag("--show-facts", options->showFacts,
                      "Show exactly what would be sent, and send nothing");
    common(explain);
    explain->callback([options, &exitStatus] {
        AssistantQuestion question;
        question.task = AssistantTask::explainFolder;
        explainOrAsk(
            *options, question,
            [&](std::stop_token stop) {
                return measureFacts(options->path, homeDirectory(), stop);
            },
            exitStatus);
    });

    CLI::App* ask = command->add_subcommand("ask", "Ask a question about what fills your disk");
    ask->add_option("question", options->question, "Your question, in your own words")->required();
    ask->add_flag("--show-facts", options->showFacts,
                  "Show exactly what would be sent, and send nothing");
    common(ask);
    ask->callback([options, &exitStatus] {
        AssistantQuestion question;
        question.task = AssistantTask::answerQuestion;
        question.question = options->question;
        explainOrAsk(
            *options, question,
            [](std::stop_token stop) {
                const std::string& home = homeDirectory();
                AssistantFacts facts = measureFacts(home, home, stop, 25);
                facts.subject = "Your home folder";
                platform::UserDefaults store = platform::UserDefaults::standard();
                if (std::optional<SweepRecord> last = Sweep::lastRecord(store)) {
                    facts.alsoMeasured = sweepFacts(*last);
                }
                return facts;
            },
            exitStatus);
    });
}

} // namespace sd::cli
