#include "app/AssistantViews.h"

#include "app/Pages.h"
#include "app/ReviewPage.h"
#include "app/SpaceMapPage.h"
#include "assistant/AssistantRunner.h"
#include "assistant/AssistantSubjects.h"
#include "core/PathRules.h"
#include "platform/Words.h"

#include <QAbstractItemView>
#include <QHBoxLayout>
#include <QMenu>
#include <QVBoxLayout>

namespace sd::app {
namespace {

QString q(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QLabel* wrapped(const QString& text, const char* objectName = nullptr) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    if (objectName != nullptr) {
        label->setObjectName(QString::fromLatin1(objectName));
    }
    return label;
}

QString offText() {
    return QStringLiteral("The assistant is off: nothing is ever sent. Choose Claude Code or Codex "
                          "in Settings → Assistant to ask it about your disk.");
}

// The answer as the dialog shows it, escaped: the tool's words are text, never markup.
QString answerHtml(const AssistantAnswer& answer) {
    QString html = QStringLiteral("<p><b>%1</b></p>").arg(q(answer.summary).toHtmlEscaped());
    for (const auto& [heading, text] : answer.sections) {
        if (!text.empty()) {
            html += QStringLiteral("<p><b>%1:</b> %2</p>")
                        .arg(q(heading).toHtmlEscaped(), q(text).toHtmlEscaped());
        }
    }
    if (!answer.items.empty()) {
        html += QStringLiteral("<ul>");
        for (const AnswerItem& item : answer.items) {
            html += QStringLiteral("<li><b>%1</b> — %2 <i>(%3)</i></li>")
                        .arg(q(item.name).toHtmlEscaped(), q(item.note).toHtmlEscaped(),
                             q(item.verdict).toHtmlEscaped());
        }
        html += QStringLiteral("</ul>");
    }
    return html;
}

} // namespace

AssistantTasks::AssistantTasks(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::runningChanged, this, &AssistantTasks::runningChanged);
}

void AssistantTasks::probe(IntelligenceProvider provider) {
    runner_.start<IntelligenceProviderStatus>(
        [provider](const std::stop_token& stop) {
            return statusOf(probeProvider(provider, {}, stop));
        },
        [this](IntelligenceProviderStatus& status) { emit probed(status); });
}

void AssistantTasks::test(IntelligenceProvider provider) {
    runner_.start<IntelligenceTestState>(
        [provider](const std::stop_token& stop) -> IntelligenceTestState {
            std::optional<IntelligenceProbe> probe = probeProvider(provider, {}, stop);
            if (!probe) {
                return TestFailed{std::string(displayName(provider)) + ": " +
                                  statusText(statusOf(std::nullopt)) + "."};
            }
            return runConnectionTest(provider, *probe, stop);
        },
        [this](IntelligenceTestState& state) { emit tested(state); });
}

void AssistantTasks::ask(IntelligenceProvider provider, AssistantQuestion question) {
    runner_.start<AssistantResult>(
        [provider, question = std::move(question)](const std::stop_token& stop) {
            std::optional<IntelligenceProbe> probe = probeProvider(provider, {}, stop);
            if (!probe) {
                AssistantResult missing;
                missing.message = std::string(displayName(provider)) + ": " +
                                  statusText(statusOf(std::nullopt)) + ". Nothing was sent.";
                missing.factsSent = question.facts.text();
                return missing;
            }
            return askAssistant(provider, *probe, question, stop);
        },
        [this](AssistantResult& result) { emit answered(result); });
}

AssistantSettings::AssistantSettings(platform::UserDefaults store, QWidget* parent)
    : QWidget(parent), store_(std::move(store)) {
    tasks_ = new AssistantTasks(this);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(wrapped(
        QStringLiteral("Explanations come from your own Claude Code or Codex, run on this "
                       "computer with its tools switched off. Only names, sizes, counts and dates "
                       "are sent — never what a file contains — and you see them before they go."),
        "muted"));
    auto* row = new QHBoxLayout;
    row->addWidget(new QLabel(QStringLiteral("Use:")));
    provider_ = new QComboBox;
    provider_->addItem(QStringLiteral("Off"));
    for (IntelligenceProvider provider : allProviders) {
        provider_->addItem(q(displayName(provider)), q(caseName(provider)));
    }
    row->addWidget(provider_);
    status_ = new QLabel;
    status_->setWordWrap(true);
    row->addWidget(status_, 1);
    test_ = new QPushButton(QStringLiteral("Test"));
    row->addWidget(test_);
    layout->addLayout(row);
    testResult_ = wrapped(QString(), "muted");
    layout->addWidget(testResult_);

    std::optional<IntelligenceProvider> chosen = chosenProvider(store_);
    provider_->setCurrentIndex(chosen ? provider_->findData(q(caseName(*chosen))) : 0);
    connect(provider_, &QComboBox::activated, this, &AssistantSettings::choose);
    connect(test_, &QPushButton::clicked, this, &AssistantSettings::startTest);
    connect(tasks_, &AssistantTasks::probed, this, [this](const IntelligenceProviderStatus& s) {
        known_ = s;
        status_->setText(q(statusText(s)));
        test_->setEnabled(s.phase == IntelligenceProviderStatus::Phase::installed);
    });
    connect(tasks_, &AssistantTasks::tested, this, [this](const IntelligenceTestState& state) {
        test_->setEnabled(true);
        if (const auto* passed = std::get_if<TestPassed>(&state)) {
            testResult_->setText(QStringLiteral("It answered in %1 s.")
                                     .arg(QString::number(passed->seconds, 'f', 1)));
        } else if (const auto* failed = std::get_if<TestFailed>(&state)) {
            testResult_->setText(q(failed->message));
        } else {
            testResult_->clear();
        }
    });
}

void AssistantSettings::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    refresh();
}

void AssistantSettings::refresh() {
    std::optional<IntelligenceProvider> chosen = chosenProvider(store_);
    testResult_->clear();
    if (!chosen) {
        tasks_->stop();
        status_->setText(QStringLiteral("Off: nothing is ever sent."));
        test_->setEnabled(false);
        return;
    }
    IntelligenceProviderStatus checking;
    checking.phase = IntelligenceProviderStatus::Phase::checking;
    status_->setText(q(statusText(checking)));
    test_->setEnabled(false);
    tasks_->probe(*chosen);
}

void AssistantSettings::choose(int row) {
    std::optional<IntelligenceProvider> provider =
        row <= 0 ? std::nullopt
                 : providerFromCaseName(provider_->itemData(row).toString().toStdString());
    chooseProvider(store_, provider);
    refresh();
}

void AssistantSettings::startTest() {
    std::optional<IntelligenceProvider> chosen = chosenProvider(store_);
    if (!chosen) {
        return;
    }
    test_->setEnabled(false);
    testResult_->setText(QStringLiteral("Testing…"));
    tasks_->test(*chosen);
}

AskDialog::AskDialog(AssistantQuestion question, const platform::UserDefaults& store,
                     QWidget* parent)
    : QDialog(parent), question_(std::move(question)), provider_(chosenProvider(store)) {
    setWindowTitle(QStringLiteral("Ask the Assistant"));
    resize(640, 560);
    tasks_ = new AssistantTasks(this);
    auto* layout = new QVBoxLayout(this);
    auto* subject = new QLabel(q(question_.facts.subject));
    QFont bold = subject->font();
    bold.setWeight(QFont::DemiBold);
    subject->setFont(bold);
    subject->setWordWrap(true);
    layout->addWidget(subject);
    layout->addWidget(wrapped(
        provider_ ? QStringLiteral("These facts go to %1, and nothing else — never what a file "
                                   "contains:")
                        .arg(q(displayName(*provider_)))
                  : offText(),
        "muted"));
    facts_ = new QPlainTextEdit(q(question_.facts.text()));
    facts_->setReadOnly(true);
    facts_->setMaximumHeight(170);
    layout->addWidget(facts_);
    if (question_.task == AssistantTask::answerQuestion) {
        questionField_ = new QLineEdit(q(question_.question));
        questionField_->setPlaceholderText(QStringLiteral("Ask about what fills your disk"));
        layout->addWidget(questionField_);
        connect(questionField_, &QLineEdit::returnPressed, this, &AskDialog::send);
    }
    answer_ = new QTextBrowser;
    answer_->setOpenLinks(false);
    answer_->hide();
    layout->addWidget(answer_, 1);
    banner_ = new Banner;
    layout->addWidget(banner_);
    progress_ = new ProgressStrip;
    layout->addWidget(progress_);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    auto* close = new QPushButton(QStringLiteral("Close"));
    send_ = new QPushButton(provider_ ? QStringLiteral("Send to %1").arg(q(displayName(*provider_)))
                                      : QStringLiteral("Send"));
    send_->setDefault(true);
    send_->setEnabled(provider_.has_value());
    buttons->addWidget(close);
    buttons->addWidget(send_);
    layout->addLayout(buttons);
    if (!provider_) {
        layout->addStretch(1);
    }

    connect(close, &QPushButton::clicked, this, &QDialog::reject);
    connect(send_, &QPushButton::clicked, this, &AskDialog::send);
    connect(progress_, &ProgressStrip::stopRequested, tasks_, &AssistantTasks::stop);
    connect(tasks_, &AssistantTasks::answered, this, &AskDialog::onAnswered);
    connect(tasks_, &AssistantTasks::runningChanged, this, [this](bool running) {
        progress_->setRunning(running);
        send_->setEnabled(!running && provider_.has_value());
        if (!running) {
            progress_->update(0, QString());
        }
    });
}

void AskDialog::send() {
    if (!provider_ || tasks_->isRunning()) {
        return;
    }
    if (questionField_ != nullptr) {
        question_.question = questionField_->text().trimmed().toStdString();
        if (question_.question.empty()) {
            banner_->show(QStringLiteral("Type a question first."), Banner::Tone::info);
            return;
        }
    }
    answer_->hide();
    banner_->hide();
    progress_->update(-1, QStringLiteral("Waiting for %1…").arg(q(displayName(*provider_))));
    tasks_->ask(*provider_, question_);
}

void AskDialog::onAnswered(const AssistantResult& result) {
    switch (result.outcome) {
    case AssistantResult::Outcome::answered:
        answer_->setHtml(answerHtml(result.answer) +
                         QStringLiteral("<p style='color:#666'>It answered in %1 s from the facts "
                                        "above.</p>")
                             .arg(QString::number(result.seconds, 'f', 1)));
        answer_->show();
        return;
    case AssistantResult::Outcome::cancelled:
        return; // the person stopped it: nothing to report
    case AssistantResult::Outcome::refused:
    case AssistantResult::Outcome::failed:
        break;
    }
    banner_->show(q(result.message), Banner::Tone::warning);
}

void AskDialog::done(int result) {
    // Closing the question stops the tool; it is not reported as an error.
    tasks_->stop();
    QDialog::done(result);
}

void addExplainMenu(QAbstractItemView* view,
                    std::function<std::optional<AssistantQuestion>(const QModelIndex&)> factsFor) {
    view->setContextMenuPolicy(Qt::CustomContextMenu);
    QObject::connect(view, &QWidget::customContextMenuRequested, view,
                     [view, factsFor = std::move(factsFor)](const QPoint& point) {
                         QModelIndex index = view->indexAt(point);
                         std::optional<AssistantQuestion> question =
                             index.isValid() ? factsFor(index) : std::nullopt;
                         if (!question) {
                             return;
                         }
                         QMenu menu(view);
                         QAction* explain = menu.addAction(QStringLiteral("Explain…"));
                         if (menu.exec(view->viewport()->mapToGlobal(point)) == explain) {
                             openAskDialog(view->window(), *question);
                         }
                     });
}

void openAskDialog(QWidget* parent, AssistantQuestion question) {
    auto* dialog = new AskDialog(std::move(question), platform::UserDefaults::standard(), parent);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->open();
}

namespace {

// The node of the tree at `path`, walking down from the root by whole components.
const SpaceNode* findNode(const SpaceNode& root, const std::string& path) {
    const SpaceNode* node = &root;
    while (node->path != path) {
        const SpaceNode* next = nullptr;
        for (const SpaceNode& child : node->children) {
            if (isInside(path, child.path)) {
                next = &child;
                break;
            }
        }
        if (next == nullptr) {
            return nullptr;
        }
        node = next;
    }
    return node;
}

AssistantQuestion explainWith(AssistantFacts facts, AssistantTask task) {
    AssistantQuestion question;
    question.task = task;
    question.facts = std::move(facts);
    return question;
}

} // namespace

void addExplainEntryPoints(SweepPage& sweep, SpaceMapPage& spaceMap, ReviewPage& largeOld,
                           ReviewPage& duplicates) {
    SweepPage* page = &sweep;
    addExplainMenu(sweep.tileView(),
                   [page](const QModelIndex& index) -> std::optional<AssistantQuestion> {
                       const SweepTileKind kind = page->tiles().kindAt(index.row());
                       const SweepState& state = page->state();
                       if (state.sweep != nullptr) {
                           if (const SweepTile* tile = state.sweep->tile(kind)) {
                               return explainWith(factsForTile(*tile), AssistantTask::explainItem);
                           }
                       }
                       if (state.lastRecord) {
                           for (const SweepRecord::Tile& recorded : state.lastRecord->tiles) {
                               if (recorded.kind == tileKindName(kind)) {
                                   SweepRecord record;
                                   record.tiles = {recorded};
                                   AssistantFacts facts;
                                   facts.subject = "The Sweep tile “" + recorded.title + "”";
                                   facts.about = sweepFacts(record).front();
                                   return explainWith(std::move(facts), AssistantTask::explainItem);
                               }
                           }
                       }
                       return std::nullopt;
                   });

    SunburstView* sunburst = spaceMap.sunburst();
    const SpaceMapPage* map = &spaceMap;
    sunburst->setContextMenuPolicy(Qt::CustomContextMenu);
    QObject::connect(sunburst, &QWidget::customContextMenuRequested, sunburst,
                     [sunburst, map](const QPoint& point) {
                         QModelIndex index = sunburst->indexAt(point);
                         const auto& tree = map->state().tree();
                         if (!index.isValid() || !tree || index.data(isOtherRole).toBool()) {
                             return;
                         }
                         const SpaceNode* node =
                             findNode(tree->root, index.data(pathRole).toString().toStdString());
                         if (node == nullptr) {
                             return;
                         }
                         AssistantQuestion question =
                             explainWith(factsForSpaceNode(*node, homeDirectory()),
                                         node->children.size() > 3 ? AssistantTask::reviewFolder
                                                                   : AssistantTask::explainFolder);
                         QMenu menu(sunburst);
                         QAction* explain = menu.addAction(QStringLiteral("Explain…"));
                         if (menu.exec(sunburst->mapToGlobal(point)) == explain) {
                             openAskDialog(sunburst->window(), std::move(question));
                         }
                     });

    auto* large = dynamic_cast<LargeOldModel*>(&largeOld.model());
    if (large != nullptr) {
        addExplainMenu(largeOld.tree(),
                       [large](const QModelIndex& index) -> std::optional<AssistantQuestion> {
                           const LargeOldItem* item = large->itemAt(index.row());
                           if (item == nullptr) {
                               return std::nullopt;
                           }
                           return explainWith(factsForLargeOldItem(*item, homeDirectory()),
                                              AssistantTask::explainFolder);
                       });
    }
    auto* copies = dynamic_cast<DuplicatesModel*>(&duplicates.model());
    if (copies != nullptr) {
        addExplainMenu(duplicates.tree(),
                       [copies](const QModelIndex& index) -> std::optional<AssistantQuestion> {
                           const DuplicateGroup* group = copies->groupAt(index);
                           if (group == nullptr) {
                               return std::nullopt;
                           }
                           return explainWith(factsForDuplicateGroup(*group, homeDirectory()),
                                              AssistantTask::explainItem);
                       });
    }
}

QWidget* makeAskBox(const SpaceMapPage& spaceMap) {
    auto* field = new QLineEdit;
    field->setObjectName(QStringLiteral("askBox"));
    field->setPlaceholderText(QStringLiteral("Ask about your disk…"));
    field->setClearButtonEnabled(true);
    const SpaceMapPage* map = &spaceMap;
    QObject::connect(field, &QLineEdit::returnPressed, field, [field, map] {
        AssistantQuestion question;
        question.task = AssistantTask::answerQuestion;
        question.question = field->text().trimmed().toStdString();
        const std::string& home = homeDirectory();
        if (const auto& tree = map->state().tree()) {
            question.facts = factsForSpaceNode(tree->root, home);
            question.facts.subject = "Your home folder, as the Space Map last measured it";
        } else {
            question.facts.subject = "Your disk";
            question.facts.notes.emplace_back(
                "The Space Map has not measured the home folder yet.");
        }
        platform::UserDefaults store = platform::UserDefaults::standard();
        if (std::optional<SweepRecord> last = Sweep::lastRecord(store)) {
            question.facts.alsoMeasured = sweepFacts(*last);
        }
        openAskDialog(field->window(), std::move(question));
    });
    auto* box = new QWidget;
    auto* layout = new QHBoxLayout(box);
    layout->setContentsMargins(12, 6, 12, 0);
    layout->addWidget(field);
    return box;
}

} // namespace sd::app
