// The assistant's own requests: the facts sent (names, sizes, counts and dates, never contents),
// the answer's shape, and the check that an answer quotes only sizes Sparrowdeck measured.
#include "assistant/AssistantRequests.h"

#include "FakeAssistantTool.h"
#include "Fixture.h"
#include "assistant/AssistantRunner.h"
#include "assistant/AssistantSubjects.h"
#include "base/CleanerError.h"
#include "space/SpaceTree.h"
#include "sweep/Sweep.h"

#include <ctime>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace sd {
namespace {

AssistantFacts sampleFacts() {
    AssistantFacts facts;
    facts.subject = "The folder ~/Projects";
    facts.about = Fact{"~/Projects", "folder", 1'234'567'890, 3'402, 12, std::nullopt, {}};
    facts.contents = {
        Fact{"node_modules", "folder", 987'654'321, 3'000, 10, std::nullopt, {}},
        Fact{"video.mov", "file", 52'428'800, std::nullopt, std::nullopt, std::nullopt, {}}};
    return facts;
}

TEST(AnswerNumbers, OnlySizesThatWereSentPassOnceRoundedAsWritten) {
    const std::vector<std::uint64_t> sent = sampleFacts().byteFigures();
    ASSERT_EQ(sent, (std::vector<std::uint64_t>{1'234'567'890, 987'654'321, 52'428'800}));
    struct Case {
        const char* text;
        bool measured;
    };
    const std::vector<Case> cases{
        {"1.23 GB", true},
        {"1.2 GB", true},
        {"1 GB", true},
        {"1.3 GB", false},
        {"1,234,567,890 bytes", true},
        {"1234567890 bytes", true},
        {"1,234,567,891 bytes", false},
        {"987.7 MB", true},
        {"988 MB", true},
        {"941.9 MB", true}, // binary MB
        {"941.9 MiB", true},
        {"987.7 MiB", false},
        {"52.4 MB", true},
        {"50 MiB", true},
        {"50MB", true},
        {"52.43 megabytes", true},
        {"2 GB", false},
        {"0.5 TB", false},
        {"12 KB", false},
        {"3.4 gb", false},
    };
    for (const Case& c : cases) {
        std::vector<QuotedFigure> figures = quotedByteFigures(c.text);
        ASSERT_EQ(figures.size(), 1U) << c.text;
        EXPECT_EQ(matchesMeasured(figures.front(), sent), c.measured) << c.text;
    }
    // Counts, dates and versions are not byte figures.
    EXPECT_TRUE(quotedByteFigures("3,402 files in 12 folders, changed 2024-05-01, v2.1").empty());
    EXPECT_EQ(quotedByteFigures("It holds 1.2 GB, of which node_modules is 988 MB.").size(), 2U);
    // What is read as a figure, and its exact text.
    for (auto [text, figure] :
         std::vector<std::pair<const char*, const char*>>{{"about 1.2GB.", "1.2GB"},
                                                          {"12,345,67 GB", "67 GB"},
                                                          {"1234,567 MB", "567 MB"},
                                                          {"x2 TiB!", "2 TiB"},
                                                          {"3 GBP", nullptr},
                                                          {"4 gigs", nullptr},
                                                          {"5  MB", nullptr}}) {
        std::vector<QuotedFigure> found = quotedByteFigures(text);
        if (figure == nullptr) {
            EXPECT_TRUE(found.empty()) << text;
        } else {
            ASSERT_EQ(found.size(), 1U) << text;
            EXPECT_EQ(found[0].text, figure);
        }
    }
}

TEST(AnswerNumbers, AnAnswerQuotingAnUnmeasuredSizeIsNotShown) {
    const AssistantFacts facts = sampleFacts();
    struct Case {
        std::string answer;
        AssistantResult::Outcome outcome;
    };
    const std::vector<Case> cases{
        {R"({"summary":"Your projects take 1.2 GB.","whatItIs":"Code; node_modules alone is 988 MB.","ifItGoes":"You lose your work.","verdict":"keep"})",
         AssistantResult::Outcome::answered},
        {R"({"summary":"Your projects take 1.2 GB.","whatItIs":"About 400 MB of it is build output.","ifItGoes":"x","verdict":"keep"})",
         AssistantResult::Outcome::refused},
        {R"({"summary":"Together they make 1.04 GB.","whatItIs":"x","ifItGoes":"x","verdict":"keep"})",
         AssistantResult::Outcome::refused},
        {R"({"whatItIs":"no summary"})", AssistantResult::Outcome::failed},
        {"I think it is fine.", AssistantResult::Outcome::failed},
    };
    for (const Case& c : cases) {
        AssistantResult result = judgeAnswer(AssistantTask::explainFolder, facts, c.answer);
        EXPECT_EQ(result.outcome, c.outcome) << c.answer;
        if (c.outcome == AssistantResult::Outcome::refused) {
            EXPECT_EQ(result.message, "The answer quoted a number Sparrowdeck did not measure, "
                                      "so it is not shown.");
            EXPECT_EQ(result.answer.summary, "") << "nothing of a refused answer is kept";
        }
    }
}

TEST(AssistantFacts, SendNamesSizesCountsAndDatesButNeverContents) {
    const std::string home = test::fixtureHome();
    const std::string folder = test::freshFolder("facts");
    test::makeDirs(folder + "/build/cache");
    test::writeFilledFile(folder + "/build/cache/blob.bin", 300'000);
    test::writeFile(folder + "/build/notes.txt", "the password is hunter2");
    test::writeFilledFile(folder + "/movie.mkv", 1'000'000);
    for (int i = 0; i < 5; ++i) {
        test::writeFile(folder + "/small-" + std::to_string(i), "x");
    }

    AssistantFacts facts = measureFacts(folder, home, {}, 3);
    const std::string name = "~/" + folder.substr(home.size() + 1);
    EXPECT_EQ(facts.subject, "The folder " + name);
    ASSERT_TRUE(facts.about && facts.about->bytes);
    EXPECT_EQ(*facts.about->bytes, test::peerAllocatedBytes(folder));
    EXPECT_EQ(facts.about->files, 8U);
    ASSERT_EQ(facts.contents.size(), 4U) << "three biggest, then the rest in one line";
    EXPECT_EQ(facts.contents[0].name, "movie.mkv");
    EXPECT_EQ(facts.contents[0].bytes, test::peerAllocatedBytes(folder + "/movie.mkv"));
    EXPECT_EQ(facts.contents[1].name, "build");
    EXPECT_EQ(facts.contents[1].files, 2U);
    EXPECT_EQ(facts.contents[1].folders, 1U);
    EXPECT_EQ(facts.contents[3].name, "4 smaller items");

    const std::string text = facts.text();
    EXPECT_NE(text.find("movie.mkv (file): "), std::string::npos) << text;
    EXPECT_EQ(text.find("hunter2"), std::string::npos) << "contents never leave";
    EXPECT_EQ(text.find(home), std::string::npos) << "the home is written ~, never by name";
    EXPECT_THROW(measureFacts("/etc", home), CleanerError);
    EXPECT_THROW(measureFacts(folder + "/gone", home), CleanerError);
}

TEST(AssistantFacts, WhatTheScreensAlreadyMeasuredIsSentAsItStands) {
    const std::string home = "/home/ann";
    auto node = [](std::string name, std::string path, SpaceNode::Kind kind, std::uint64_t bytes,
                   std::uint64_t files, std::int64_t changed) {
        SpaceNode n;
        n.name = std::move(name);
        n.path = std::move(path);
        n.kind = kind;
        n.bytes = bytes;
        n.fileCount = files;
        n.latestChange = changed;
        return n;
    };
    const auto folderKind = SpaceNode::Kind::directory;
    SpaceNode folder =
        node("Projects", home + "/Projects", folderKind, 9'000'000, 120, 1'700'000'000);
    folder.children.push_back(node("app", home + "/Projects/app", folderKind, 7'000'000, 100, 0));
    folder.children.push_back(
        node("notes.txt", home + "/Projects/notes.txt", SpaceNode::Kind::file, 4'096, 1, 0));
    folder.otherBytes = 1'995'904;
    folder.otherCount = 19;
    folder.isComplete = false;
    AssistantFacts facts = factsForSpaceNode(folder, home);
    EXPECT_EQ(
        facts.text(), "The folder ~/Projects\n"
                      "- ~/Projects (folder): 9.0 MB (9,000,000 bytes); 120 files; last changed " +
                          [] {
                              std::time_t when = 1'700'000'000;
                              std::tm local{};
                              ::localtime_r(&when, &local);
                              char text[16];
                              std::strftime(text, sizeof text, "%Y-%m-%d", &local);
                              return std::string(text);
                          }() +
                          "\nInside it, biggest first:\n"
                          "- app (folder): 7.0 MB (7,000,000 bytes); 100 files\n"
                          "- notes.txt (file): 4.1 KB (4,096 bytes)\n"
                          "- 19 smaller items (together): 2.0 MB (1,995,904 bytes)\n"
                          "The scan stopped before it measured all of it.\n");
    EXPECT_EQ(facts.byteFigures(),
              (std::vector<std::uint64_t>{9'000'000, 7'000'000, 4'096, 1'995'904}));

    SweepRecord record;
    record.tiles = {{"developer", "Developer files", 5'000'000'000, true},
                    {"installers", "Installers", 800'000'000, false}};
    std::vector<Fact> tiles = sweepFacts(record);
    ASSERT_EQ(tiles.size(), 2U);
    EXPECT_EQ(tiles[0].kind, "Sweep tile, comes back by itself");
    EXPECT_EQ(tiles[1].bytes, 800'000'000U);
}

TEST(AssistantQuestions, EachTaskHasASchemaAndTheToolSeesExactlyTheFactsShown) {
    for (AssistantTask task : {AssistantTask::explainItem, AssistantTask::explainFolder,
                               AssistantTask::reviewFolder, AssistantTask::answerQuestion}) {
        nlohmann::json schema = nlohmann::json::parse(answerSchema(task));
        EXPECT_EQ(schema.at("type"), "object");
        EXPECT_EQ(schema.at("additionalProperties"), false);
        EXPECT_EQ(schema.at("required").size(), schema.at("properties").size())
            << "every property required, as strict structured output needs";
    }

    test::FakeAssistantTool tool(IntelligenceProvider::claudeCode, test::freshFolder("ask"));
    IntelligenceProbe probe;
    probe.executable = tool.executable();
    probe.flags = {"--tools", "--output-format", "--json-schema", "--system-prompt"};
    AssistantQuestion question{AssistantTask::answerQuestion, sampleFacts(),
                               "Why is my disk full?"};
    auto answerWith = [&](const std::string& answer) {
        tool.respond(nlohmann::json{{"type", "result"},
                                    {"is_error", false},
                                    {"result", ""},
                                    {"structured_output", {{"answer", answer}}}}
                         .dump(),
                     "", 0);
        return askAssistant(IntelligenceProvider::claudeCode, probe, question);
    };

    AssistantResult shown = answerWith("node_modules holds 988 MB of the 1.23 GB.");
    EXPECT_EQ(shown.outcome, AssistantResult::Outcome::answered) << shown.message;
    EXPECT_EQ(shown.answer.summary, "node_modules holds 988 MB of the 1.23 GB.");
    EXPECT_EQ(tool.input(), promptFor(question));
    EXPECT_NE(tool.input().find(shown.factsSent), std::string::npos)
        << "the facts the user saw are the facts sent";
    EXPECT_NE(tool.input().find("The question: Why is my disk full?"), std::string::npos);

    AssistantResult refused = answerWith("Your photos take 45 GB.");
    EXPECT_EQ(refused.outcome, AssistantResult::Outcome::refused);
    EXPECT_EQ(refused.message, unmeasuredNumberText);
}

} // namespace
} // namespace sd
