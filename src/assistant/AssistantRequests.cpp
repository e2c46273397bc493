#include "assistant/AssistantRequests.h"

#include "assistant/AssistantRunner.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace sd {
namespace {

using nlohmann::json;

constexpr std::string_view explainSchema =
    R"({"type":"object","properties":{"summary":{"type":"string"},"whatItIs":{"type":"string"},"ifItGoes":{"type":"string"},"verdict":{"type":"string","enum":["comes back by itself","safe to move to the Trash","look first","keep"]}},"required":["summary","whatItIs","ifItGoes","verdict"],"additionalProperties":false})";

constexpr std::string_view reviewSchema =
    R"({"type":"object","properties":{"summary":{"type":"string"},"items":{"type":"array","items":{"type":"object","properties":{"name":{"type":"string"},"note":{"type":"string"},"verdict":{"type":"string","enum":["comes back by itself","safe to move to the Trash","look first","keep"]}},"required":["name","note","verdict"],"additionalProperties":false}}},"required":["summary","items"],"additionalProperties":false})";

constexpr std::string_view questionSchema =
    R"({"type":"object","properties":{"answer":{"type":"string"}},"required":["answer"],"additionalProperties":false})";

constexpr std::string_view groundRules =
    "You help a person understand what fills their disk, in plain language, for Sparrowdeck, a "
    "desktop app that gives space back safely: it moves things to the Trash, never deletes, and "
    "can put everything back. You are given only names, sizes, counts and dates that Sparrowdeck "
    "measured; you cannot see what files contain, so never guess at it. When you mention a size, "
    "copy it exactly as it is written in the facts; never add sizes up, estimate or convert "
    "them. Say so plainly when you are not sure what something is. Keep each sentence short. "
    "Answer with JSON only, matching the schema.";

std::string stringField(const json& object, const char* key) {
    auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

void collectStrings(const json& value, std::string& into) {
    if (value.is_string()) {
        into += value.get<std::string>();
        into += '\n';
    } else if (value.is_structured()) {
        for (const json& item : value) {
            collectStrings(item, into);
        }
    }
}

int unitPower(std::string unit) {
    for (char& c : unit) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (unit.starts_with("byte") || unit == "b") {
        return 0;
    }
    switch (unit.front()) {
    case 'k':
        return 1;
    case 'm':
        return 2;
    case 'g':
        return 3;
    case 't':
        return 4;
    default:
        return 5;
    }
}

} // namespace

std::string_view answerSchema(AssistantTask task) {
    switch (task) {
    case AssistantTask::explainItem:
    case AssistantTask::explainFolder:
        return explainSchema;
    case AssistantTask::reviewFolder:
        return reviewSchema;
    case AssistantTask::answerQuestion:
        break;
    }
    return questionSchema;
}

std::string systemPromptFor(AssistantTask task) {
    std::string prompt(groundRules);
    switch (task) {
    case AssistantTask::explainItem:
        prompt += " Explain what this item of Sparrowdeck's cleanup list is, which app or tool "
                  "makes it, and what happens if it goes to the Trash.";
        break;
    case AssistantTask::explainFolder:
        prompt += " Explain what this folder or file probably is, judging by its name and what "
                  "is in it, and what happens if it goes to the Trash.";
        break;
    case AssistantTask::reviewFolder:
        prompt += " Review the items in this big folder one by one, biggest first, with one "
                  "short note each; leave out items you know nothing useful about.";
        break;
    case AssistantTask::answerQuestion:
        prompt += " Answer the person's question about their disk from these facts only; if "
                  "the facts do not say, tell them which screen of Sparrowdeck would.";
        break;
    }
    return prompt;
}

std::string promptFor(const AssistantQuestion& question) {
    std::string prompt = "Facts Sparrowdeck measured:\n" + question.facts.text();
    switch (question.task) {
    case AssistantTask::explainItem:
    case AssistantTask::explainFolder:
        prompt += "\nWhat is this, and what happens if it goes?";
        break;
    case AssistantTask::reviewFolder:
        prompt += "\nWhat is in this folder, and what of it could go?";
        break;
    case AssistantTask::answerQuestion:
        prompt += "\nThe question: " + question.question;
        break;
    }
    return prompt;
}

std::optional<AssistantAnswer> parseAnswer(AssistantTask task, std::string_view text) {
    json value = json::parse(text, nullptr, false);
    if (!value.is_object()) {
        return std::nullopt;
    }
    AssistantAnswer answer;
    switch (task) {
    case AssistantTask::explainItem:
    case AssistantTask::explainFolder:
        answer.summary = stringField(value, "summary");
        answer.sections = {{"What it is", stringField(value, "whatItIs")},
                           {"If it goes", stringField(value, "ifItGoes")},
                           {"In short", stringField(value, "verdict")}};
        break;
    case AssistantTask::reviewFolder:
        answer.summary = stringField(value, "summary");
        if (auto items = value.find("items"); items != value.end() && items->is_array()) {
            for (const json& item : *items) {
                if (item.is_object()) {
                    answer.items.push_back({stringField(item, "name"), stringField(item, "note"),
                                            stringField(item, "verdict")});
                }
            }
        }
        break;
    case AssistantTask::answerQuestion:
        answer.summary = stringField(value, "answer");
        break;
    }
    if (answer.summary.empty()) {
        return std::nullopt;
    }
    return answer;
}

std::vector<QuotedFigure> quotedByteFigures(std::string_view text) {
    // A number ("1.2", "988", "1,234,567"), at most one space, then a byte unit that no letter
    // follows: "1.2 GB", "50MiB", "1,234,567 bytes". Units are read in any case.
    static constexpr std::string_view units[] = {
        "kilobytes", "megabytes", "gigabytes", "terabytes", "petabytes", "kilobyte",
        "megabyte",  "gigabyte",  "terabyte",  "petabyte",  "bytes",     "byte",
        "kib",       "mib",       "gib",       "tib",       "pib",       "kb",
        "mb",        "gb",        "tb",        "pb",
    };
    auto digit = [](char c) {
        return c >= '0' && c <= '9';
    };
    auto letter = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    };
    auto lower = [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    };
    std::vector<QuotedFigure> found;
    size_t at = 0;
    while (at < text.size()) {
        if (!digit(text[at]) || (at > 0 && digit(text[at - 1]))) {
            ++at;
            continue;
        }
        size_t end = at;
        while (end < text.size() && digit(text[end])) {
            ++end;
        }
        std::string whole(text.substr(at, end - at));
        // Thousands grouped by commas, after a first group of one to three digits.
        if (whole.size() <= 3) {
            while (end + 3 < text.size() && text[end] == ',' && digit(text[end + 1]) &&
                   digit(text[end + 2]) && digit(text[end + 3]) &&
                   (end + 4 >= text.size() || !digit(text[end + 4]))) {
                whole.append(text.substr(end + 1, 3));
                end += 4;
            }
        }
        std::string decimals;
        if (end + 1 < text.size() && text[end] == '.' && digit(text[end + 1])) {
            size_t from = end + 1;
            end = from;
            while (end < text.size() && digit(text[end])) {
                ++end;
            }
            decimals = std::string(text.substr(from, end - from));
        }
        size_t unitAt =
            end < text.size() && (text[end] == ' ' || text[end] == '\t') ? end + 1 : end;
        std::string_view unit;
        for (std::string_view candidate : units) {
            if (unitAt + candidate.size() > text.size()) {
                continue;
            }
            bool same = true;
            for (size_t k = 0; k < candidate.size() && same; ++k) {
                same = lower(text[unitAt + k]) == candidate[k];
            }
            size_t after = unitAt + candidate.size();
            if (same && (after >= text.size() || !letter(text[after]))) {
                unit = text.substr(unitAt, candidate.size());
                break;
            }
        }
        if (unit.empty()) {
            at = end > at ? end : at + 1;
            continue;
        }
        QuotedFigure quoted;
        quoted.text = std::string(text.substr(at, unitAt + unit.size() - at));
        quoted.decimals = static_cast<int>(decimals.size());
        quoted.value = std::stod(decimals.empty() ? whole : whole + "." + decimals);
        quoted.unit = std::string(unit);
        found.push_back(std::move(quoted));
        at = unitAt + unit.size();
    }
    return found;
}

bool matchesMeasured(const QuotedFigure& figure, const std::vector<std::uint64_t>& measured) {
    const int power = unitPower(figure.unit);
    const bool binaryOnly =
        figure.unit.size() == 3 && (figure.unit[1] == 'i' || figure.unit[1] == 'I');
    const double tolerance = 0.5 * std::pow(10.0, -figure.decimals) + 1e-9;
    for (std::uint64_t bytes : measured) {
        for (double base : {1000.0, 1024.0}) {
            if (binaryOnly && base == 1000.0) {
                continue;
            }
            double inUnit = static_cast<double>(bytes) / std::pow(base, power);
            if (std::fabs(inUnit - figure.value) <= tolerance) {
                return true;
            }
        }
    }
    return false;
}

AssistantResult judgeAnswer(AssistantTask task, const AssistantFacts& facts,
                            std::string_view answerJson) {
    AssistantResult result;
    result.factsSent = facts.text();
    std::optional<AssistantAnswer> answer = parseAnswer(task, answerJson);
    if (!answer) {
        result.message = "The answer did not come in the form asked for, so it is not shown.";
        return result;
    }
    std::string shown;
    collectStrings(json::parse(answerJson, nullptr, false), shown);
    const std::vector<std::uint64_t> measured = facts.byteFigures();
    for (const QuotedFigure& figure : quotedByteFigures(shown)) {
        if (!matchesMeasured(figure, measured)) {
            result.outcome = AssistantResult::Outcome::refused;
            result.message = std::string(unmeasuredNumberText);
            return result;
        }
    }
    result.outcome = AssistantResult::Outcome::answered;
    result.answer = std::move(*answer);
    return result;
}

AssistantResult askAssistant(IntelligenceProvider provider, const IntelligenceProbe& probe,
                             const AssistantQuestion& question, const std::stop_token& stop,
                             std::chrono::milliseconds timeout) {
    AssistantRequest request{.systemPrompt = systemPromptFor(question.task),
                             .schema = std::string(answerSchema(question.task)),
                             .prompt = promptFor(question),
                             .timeout = timeout};
    AssistantReply reply = runAssistantRequest(provider, probe, request, stop);
    AssistantResult result;
    switch (reply.outcome) {
    case AssistantReply::Outcome::answered:
        result = judgeAnswer(question.task, question.facts, reply.answer);
        break;
    case AssistantReply::Outcome::cancelled:
        result.outcome = AssistantResult::Outcome::cancelled;
        break;
    case AssistantReply::Outcome::failed:
        result.message = reply.error;
        break;
    }
    result.factsSent = question.facts.text();
    result.seconds = reply.seconds;
    return result;
}

} // namespace sd
