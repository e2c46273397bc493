#pragma once

#include "app/Widgets.h"
#include "app/Workers.h"
#include "assistant/AssistantRequests.h"
#include "assistant/ProviderProbe.h"
#include "platform/UserDefaults.h"

#include <QComboBox>
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTextBrowser>
#include <QWidget>
#include <functional>
#include <optional>

class QAbstractItemView;

namespace sd::app {

class SweepPage;
class SpaceMapPage;
class ReviewPage;

// The assistant's work on a worker thread: finding and probing the user's tool, the connection
// test and one question. Results come back on the interface thread; a Stop ends the tool's run
// the way its time limit would, and is no error.
class AssistantTasks : public QObject {
    Q_OBJECT

public:
    explicit AssistantTasks(QObject* parent = nullptr);

    void probe(IntelligenceProvider provider);
    void test(IntelligenceProvider provider);
    void ask(IntelligenceProvider provider, AssistantQuestion question);
    void stop() { runner_.stop(); }
    bool isRunning() const noexcept { return runner_.isRunning(); }

signals:
    void probed(const sd::IntelligenceProviderStatus& status);
    void tested(const sd::IntelligenceTestState& state);
    void answered(const sd::AssistantResult& result);
    void runningChanged(bool running);

private:
    TaskRunner runner_;
};

// Settings → Assistant: which tool (or none), whether it is installed and signed in, and a
// connection test that says how long the answer took.
class AssistantSettings : public QWidget {
    Q_OBJECT

public:
    explicit AssistantSettings(platform::UserDefaults store, QWidget* parent = nullptr);

    QComboBox* providerBox() const noexcept { return provider_; }
    QLabel* statusLabel() const noexcept { return status_; }
    QPushButton* testButton() const noexcept { return test_; }
    QLabel* testLabel() const noexcept { return testResult_; }
    AssistantTasks& tasks() noexcept { return *tasks_; }

    // Looks for the chosen tool again, as each time the screen opens.
    void refresh();

protected:
    void showEvent(QShowEvent* event) override;

private:
    void choose(int row);
    void startTest();

    platform::UserDefaults store_;
    AssistantTasks* tasks_;
    QComboBox* provider_;
    QLabel* status_;
    QPushButton* test_;
    QLabel* testResult_;
    IntelligenceProviderStatus known_;
};

// One question to the assistant: the exact facts that will be sent, shown before anything is
// sent; then the answer with the facts it used, or the sentence that says why there is none.
// Closing the dialog stops the tool.
class AskDialog : public QDialog {
    Q_OBJECT

public:
    AskDialog(AssistantQuestion question, const platform::UserDefaults& store,
              QWidget* parent = nullptr);

    QPlainTextEdit* factsView() const noexcept { return facts_; }
    QLineEdit* questionField() const noexcept { return questionField_; }
    QPushButton* sendButton() const noexcept { return send_; }
    QTextBrowser* answerView() const noexcept { return answer_; }
    const Banner* banner() const noexcept { return banner_; }
    AssistantTasks& tasks() noexcept { return *tasks_; }

    void send();

protected:
    void done(int result) override;

private:
    void onAnswered(const AssistantResult& result);

    AssistantQuestion question_;
    std::optional<IntelligenceProvider> provider_;
    AssistantTasks* tasks_;
    QPlainTextEdit* facts_;
    QLineEdit* questionField_ = nullptr;
    QPushButton* send_;
    ProgressStrip* progress_;
    QTextBrowser* answer_;
    Banner* banner_;
};

// Adds "Explain…" to the context menu of `view`'s rows: `factsFor` gives the question for a
// row, or nothing for rows that have none to explain.
void addExplainMenu(QAbstractItemView* view,
                    std::function<std::optional<AssistantQuestion>(const QModelIndex&)> factsFor);

// Opens the question dialog for `question`.
void openAskDialog(QWidget* parent, AssistantQuestion question);

// "Explain…" on Sweep tiles, Space Map wedges and the rows of Worth a look.
void addExplainEntryPoints(SweepPage& sweep, SpaceMapPage& spaceMap, ReviewPage& largeOld,
                           ReviewPage& duplicates);

// The Ask box: a question about the disk, answered from the Space Map's last scan and the last
// Sweep.
QWidget* makeAskBox(const SpaceMapPage& spaceMap);

} // namespace sd::app
