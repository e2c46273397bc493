#include "app/MainWindow.h"

#include "app/AssistantViews.h"
#include "platform/Dirs.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QScrollArea>
#include <QVBoxLayout>

namespace sd::app {

namespace {

QLabel* paragraph(const QString& text, const char* objectName = nullptr) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    if (objectName != nullptr) {
        label->setObjectName(QString::fromLatin1(objectName));
    }
    return label;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// OnboardingPage

OnboardingPage::OnboardingPage(QWidget* parent) : QWidget(parent) {
    setObjectName(QStringLiteral("page"));
    auto* outer = new QVBoxLayout(this);
    outer->addStretch(1);
    auto* row = new QHBoxLayout;
    row->addStretch(1);
    auto* card = new QFrame;
    card->setObjectName(QStringLiteral("card"));
    card->setMaximumWidth(620);
    auto* layout = new QVBoxLayout(card);
    layout->setContentsMargins(40, 34, 40, 30);
    layout->setSpacing(14);
    auto* title = new QLabel(QStringLiteral("Welcome to Sparrowdeck"));
    title->setObjectName(QStringLiteral("pageTitle"));
    layout->addWidget(title);
    layout->addWidget(paragraph(
        QStringLiteral("Sparrowdeck shows what fills your disk, explains it in plain words, and "
                       "gives space back safely."),
        "pageExplanation"));
    layout->addSpacing(6);

    const char* const promises[][2] = {
        {"It never deletes anything.",
         "What you reclaim is moved to the Trash. Every move is written down in Activity, and "
         "each item can be put back exactly where it was until you empty the Trash yourself."},
        {"Nothing moves until you choose.",
         "Sweeps and measurements only read sizes. Each item is checked again right before it "
         "moves; anything that changed since it was measured stays where it is."},
        {"Your own files are never offered for removal.",
         "Documents, photos, mail, keys, cloud folders and work tracked by Git are shown, never "
         "ticked for you. Show them in Files and decide by hand."},
        {"Nothing leaves this computer.",
         "Sparrowdeck has no network code. Every number it shows is measured on your disk."},
    };
    for (const auto& promise : promises) {
        auto* head = new QLabel(QString::fromUtf8(promise[0]));
        head->setStyleSheet(QStringLiteral("font-weight: 600; font-size: 14px;"));
        layout->addWidget(head);
        layout->addWidget(paragraph(QString::fromUtf8(promise[1]), "muted"));
    }
    layout->addSpacing(8);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    start_ = new QPushButton(QStringLiteral("Get Started"));
    start_->setProperty("primary", true);
    start_->setMinimumWidth(140);
    buttons->addWidget(start_);
    layout->addLayout(buttons);
    row->addWidget(card, 3);
    row->addStretch(1);
    outer->addLayout(row);
    outer->addStretch(1);
    connect(start_, &QPushButton::clicked, this, &OnboardingPage::finished);
}

// ---------------------------------------------------------------------------------------------
// ActivityPage

ActivityPage::ActivityPage(JournalStore& journal, const std::vector<Target>& catalog,
                           QWidget* parent)
    : QWidget(parent), journal_(journal) {
    model_ = new ActivityModel(journal_.journal(), catalog, this);
    runner_ = new PutBackRunner(this);
    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Activity"),
        QStringLiteral("Everything Sparrowdeck moved to the Trash, newest first. Each item can "
                       "go back exactly where it was until the Trash is emptied."));
    journalWarning_ = new Banner;
    layout->addWidget(journalWarning_);

    tree_ = new QTreeView;
    tree_->setModel(model_);
    tree_->setAlternatingRowColors(true);
    tree_->setUniformRowHeights(true);
    tree_->header()->setStretchLastSection(false);
    tree_->header()->setSectionResizeMode(ActivityModel::whatColumn, QHeaderView::Stretch);
    tree_->setColumnWidth(ActivityModel::groupColumn, 200);
    tree_->setColumnWidth(ActivityModel::whenColumn, 150);
    tree_->setColumnWidth(ActivityModel::sizeColumn, 90);
    tree_->setColumnWidth(ActivityModel::statusColumn, 190);
    tree_->setTextElideMode(Qt::ElideMiddle);
    tree_->setItemDelegate(new RoomyDelegate(28, tree_));
    layout->addWidget(tree_, 1);
    empty_ = paragraph(QStringLiteral("Nothing has been moved to the Trash yet. What a Sweep, a "
                                      "cleanup or a review moves will be listed here."),
                       "muted");
    layout->addWidget(empty_);

    progress_ = new ProgressStrip;
    layout->addWidget(progress_);
    banner_ = new Banner;
    layout->addWidget(banner_);

    auto* bar = new QHBoxLayout;
    auto* hint = paragraph(QString::fromStdString(std::string(putBackConfirmationText)), "muted");
    bar->addWidget(hint, 1);
    reveal_ = new QPushButton(revealText());
    putBackGroup_ = new QPushButton(QStringLiteral("Put Back Group"));
    putBackEntry_ = new QPushButton(QStringLiteral("Put Back"));
    putBackEntry_->setProperty("primary", true);
    bar->addWidget(reveal_);
    bar->addWidget(putBackGroup_);
    bar->addWidget(putBackEntry_);
    layout->addLayout(bar);

    auto reset = [this] {
        model_->endChange();
        bool any = model_->rowCount() > 0;
        tree_->setVisible(any);
        empty_->setVisible(!any);
        if (any) {
            // The newest entry is the one most often put back: it starts open and chosen.
            tree_->expand(model_->index(0, 0));
            tree_->setCurrentIndex(model_->index(0, 0));
        }
        QStringList lines;
        for (const std::string& w : journal_.warnings()) {
            lines << QString::fromStdString(w);
        }
        if (lines.isEmpty()) {
            journalWarning_->hide();
        } else {
            journalWarning_->show(QStringLiteral("The activity journal needed attention."),
                                  Banner::Tone::warning, lines.join('\n'));
        }
        onSelection();
    };
    connect(&journal_, &JournalStore::aboutToChange, this, [this] { model_->beginChange(); });
    connect(&journal_, &JournalStore::changed, this, reset);
    connect(tree_->selectionModel(), &QItemSelectionModel::currentChanged, this,
            &ActivityPage::onSelection);
    connect(putBackEntry_, &QPushButton::clicked, this, [this] { putBack(false); });
    connect(putBackGroup_, &QPushButton::clicked, this, [this] { putBack(true); });
    connect(reveal_, &QPushButton::clicked, this, [this] {
        QString path = tree_->currentIndex().data(pathRole).toString();
        if (!path.isEmpty()) {
            showInFiles(path);
        }
    });
    connect(progress_, &ProgressStrip::stopRequested, runner_, &PutBackRunner::stop);
    connect(runner_, &PutBackRunner::finished, this, &ActivityPage::onPutBack);
    connect(runner_, &PutBackRunner::failed, this, [this](const QString& message, bool cancelled) {
        journal_.reload();
        banner_->show(cancelled ? QStringLiteral("Put Back was stopped.")
                                : QStringLiteral("Put Back did not finish: ") + message,
                      Banner::Tone::warning, QStringLiteral("Whatever went back is marked above."));
    });
    connect(runner_, &PutBackRunner::runningChanged, this, [this](bool running) {
        progress_->setRunning(running);
        onSelection();
    });
    reset();
}

void ActivityPage::onSelection() {
    QModelIndex current = tree_->currentIndex();
    const JournalEntry* entry = model_->entryAt(current);
    const TrashedItem* item = model_->itemAt(current);
    bool busy = runner_->isRunning();
    putBackEntry_->setEnabled(
        !busy && entry != nullptr &&
        model_->index(current.parent().isValid() ? current.parent().row() : current.row(), 0)
            .data(inTrashRole)
            .toBool());
    bool groupWaiting = false;
    if (entry != nullptr && item != nullptr) {
        for (const TrashedItem& i : entry->items) {
            groupWaiting = groupWaiting || (i.group == item->group && !i.restored);
        }
        putBackGroup_->setText(buttonText(
            QStringLiteral("Put Back “%1”").arg(model_->groupTitle(*entry, item->group))));
    }
    putBackGroup_->setVisible(item != nullptr);
    putBackGroup_->setEnabled(!busy && groupWaiting);
    reveal_->setEnabled(item != nullptr);
}

void ActivityPage::putBack(bool groupOnly) {
    QModelIndex current = tree_->currentIndex();
    const JournalEntry* entry = model_->entryAt(current);
    const TrashedItem* item = model_->itemAt(current);
    if (entry == nullptr || (groupOnly && item == nullptr)) {
        return;
    }
    std::optional<std::string> group;
    if (groupOnly) {
        group = item->group;
    }
    std::uint64_t waiting = 0;
    for (const TrashedItem& i : entry->items) {
        waiting += !i.restored && (!group || i.group == *group) ? 1 : 0;
    }
    if (waiting == 0) {
        return;
    }
    if (!confirm(this, QStringLiteral("Put Back"),
                 QStringLiteral("Put back %1 %2 from “%3”?")
                     .arg(waiting)
                     .arg(waiting == 1 ? QStringLiteral("item") : QStringLiteral("items"))
                     .arg(group ? model_->groupTitle(*entry, *group)
                                : QString::fromStdString(entry->title)),
                 QStringLiteral("Put Back"),
                 QString::fromStdString(std::string(putBackConfirmationText)))) {
        return;
    }
    banner_->hide();
    runner_->putBack(entry->id, group);
    progress_->update(-1, QString::fromStdString(putBackProgressText(waiting)));
}

void ActivityPage::onPutBack(const TrashRestoreResult& result) {
    journal_.reload();
    QString detail;
    if (!result.skipped.empty()) {
        QStringList lines{QString::fromStdString(putBackSkippedText(result.skipped.size()))};
        for (size_t i = 0; i < result.skipped.size() && i < 5; ++i) {
            lines << QString::fromStdString(result.skipped[i]);
        }
        detail = lines.join('\n');
    }
    banner_->show(QString::fromStdString(putBackResultText(result)),
                  result.restoredIDs.empty() || !result.skipped.empty() ? Banner::Tone::warning
                                                                        : Banner::Tone::success,
                  detail);
}

// ---------------------------------------------------------------------------------------------
// SettingsPage

SettingsPage::SettingsPage(CatalogState& catalog, QWidget* parent) : QWidget(parent) {
    model_ = new SweepTargetsModel(catalog, this);
    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Settings"),
        QStringLiteral("What every Sweep includes, and what this copy of Sparrowdeck is."));

    layout->addWidget(sectionLabel(QStringLiteral("Every Sweep")));
    layout->addWidget(paragraph(QStringLiteral("Switch a cache off to leave it out of every "
                                               "Sweep. You can still clean it from Cleanup."),
                                "muted"));
    auto* list = new QListView;
    list->setModel(model_);
    list->setAlternatingRowColors(true);
    list->setItemDelegate(new RoomyDelegate(30, list));
    layout->addWidget(list, 1);
    auto* note = paragraph(QString(), "muted");
    layout->addWidget(note);
    auto showNote = [note](const QModelIndex& index) {
        note->setText(index.isValid() ? index.data().toString() + QStringLiteral(": ") +
                                            index.data(noteRole).toString()
                                      : QString());
    };
    connect(list->selectionModel(), &QItemSelectionModel::currentChanged, this, showNote);
    connect(model_, &SweepTargetsModel::dataChanged, this,
            [list, showNote] { showNote(list->currentIndex()); });
    connect(model_, &SweepTargetsModel::leftOutChanged, this, &SettingsPage::leftOutChanged);

    layout->addSpacing(6);
    layout->addWidget(sectionLabel(QStringLiteral("Assistant")));
    layout->addWidget(new AssistantSettings(platform::UserDefaults::standard()));

    layout->addSpacing(6);
    layout->addWidget(sectionLabel(QStringLiteral("This copy")));
    layout->addWidget(paragraph(
        QStringLiteral("Distribution: direct. It measures the caches of your whole account, "
                       "system caches included; the store variant stays inside your home folder "
                       "and leaves those out."),
        nullptr));
    layout->addWidget(paragraph(
        QStringLiteral("Activity is kept in %1/journal.json; settings in %2/sparrowdeck.")
            .arg(homeRelative(platform::supportDirectory()), homeRelative(platform::configHome())),
        "muted"));
    auto* again = new QPushButton(QStringLiteral("Show the Introduction Again"));
    auto* row = new QHBoxLayout;
    row->addWidget(again);
    row->addStretch(1);
    layout->addLayout(row);
    connect(again, &QPushButton::clicked, this, &SettingsPage::showIntroduction);
}

// ---------------------------------------------------------------------------------------------
// MainWindow

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent), catalog_(platform::UserDefaults::standard()) {
    setWindowTitle(QStringLiteral("Sparrowdeck"));
    resize(1180, 780);
    setMinimumSize(900, 620);
    journal_ = new JournalStore(this);

    outer_ = new QStackedWidget;
    setCentralWidget(outer_);
    onboarding_ = new OnboardingPage;
    outer_->addWidget(onboarding_);

    shell_ = new QWidget;
    auto* shellLayout = new QHBoxLayout(shell_);
    shellLayout->setContentsMargins(0, 0, 0, 0);
    shellLayout->setSpacing(0);
    auto* side = new QWidget;
    side->setObjectName(QStringLiteral("sidebar"));
    side->setFixedWidth(220);
    auto* sideLayout = new QVBoxLayout(side);
    sideLayout->setContentsMargins(0, 0, 0, 12);
    auto* brand = new QLabel(QStringLiteral("Sparrowdeck"));
    brand->setObjectName(QStringLiteral("brand"));
    auto* brandNote = new QLabel(QStringLiteral("Moves to the Trash, never deletes"));
    brandNote->setObjectName(QStringLiteral("brandNote"));
    brandNote->setWordWrap(true);
    sidebar_ = new QListWidget;
    sidebar_->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    sideLayout->addWidget(brand);
    sideLayout->addWidget(brandNote);
    sideLayout->addWidget(sidebar_, 1);
    screens_ = new QStackedWidget;
    shellLayout->addWidget(side);
    shellLayout->addWidget(screens_, 1);
    outer_->addWidget(shell_);

    sweep_ = new SweepPage(*journal_);
    cleanup_ = new CleanupPage(catalog_, *journal_);
    activity_ = new ActivityPage(*journal_, catalog_.catalog);
    settings_ = new SettingsPage(catalog_);
    spaceMap_ = new SpaceMapPage;
    largeOld_ = new ReviewPage(ReviewPage::Kind::largeOld, *journal_);
    duplicates_ = new ReviewPage(ReviewPage::Kind::duplicates, *journal_);
    snapshots_ = new SnapshotsPage;
    addScreen(QStringLiteral("Sweep"), sweep_);
    addScreen(QStringLiteral("Cleanup"), cleanup_);
    addScreen(QStringLiteral("Space Map"), spaceMap_);
    addHeading(QStringLiteral("Worth a look"));
    addScreen(QStringLiteral("Large & old"), largeOld_, true);
    addScreen(QStringLiteral("Duplicates"), duplicates_, true);
    addScreen(QStringLiteral("Snapshots"), snapshots_, true);
    addScreen(QStringLiteral("Activity"), activity_);
    addScreen(QStringLiteral("Settings"), settings_);

    connect(sidebar_, &QListWidget::currentRowChanged, this, [this](int row) {
        QListWidgetItem* item = sidebar_->item(row);
        if (item != nullptr && item->data(Qt::UserRole).toInt() >= 0) {
            screens_->setCurrentIndex(item->data(Qt::UserRole).toInt());
        }
    });
    connect(settings_, &SettingsPage::leftOutChanged, cleanup_, &CleanupPage::refreshLeftOut);
    addExplainEntryPoints(*sweep_, *spaceMap_, *largeOld_, *duplicates_);
    sideLayout->addWidget(makeAskBox(*spaceMap_));
    // Whatever reaches the Trash from any screen patches the Space Map's tree in place.
    auto patchMap = [this](const std::vector<MovedItem>& moved) {
        spaceMap_->applyMoves(moved);
    };
    connect(sweep_, &SweepPage::movedToTrash, this, patchMap);
    connect(cleanup_, &CleanupPage::movedToTrash, this, patchMap);
    connect(largeOld_, &ReviewPage::movedToTrash, this, patchMap);
    connect(duplicates_, &ReviewPage::movedToTrash, this, patchMap);
    connect(settings_, &SettingsPage::showIntroduction, this, &MainWindow::showIntroduction);
    connect(onboarding_, &OnboardingPage::finished, this, &MainWindow::finishIntroduction);

    sidebar_->setCurrentRow(0);
    bool onboarded = catalog_.store.string(onboardedKey).value_or("") == "true";
    outer_->setCurrentWidget(onboarded ? shell_ : static_cast<QWidget*>(onboarding_));
}

void MainWindow::addScreen(const QString& title, QWidget* page, bool indented) {
    int index = screens_->addWidget(page);
    auto* item = new QListWidgetItem((indented ? QStringLiteral("    ") : QString()) + title);
    item->setData(Qt::UserRole, index);
    sidebar_->addItem(item);
}

void MainWindow::addHeading(const QString& title) {
    auto* item = new QListWidgetItem(title);
    item->setData(Qt::UserRole, -1);
    item->setFlags(Qt::NoItemFlags);
    QFont font = item->font();
    font.setWeight(QFont::DemiBold);
    item->setFont(font);
    sidebar_->addItem(item);
}

void MainWindow::showScreen(Screen screen) {
    QWidget* page = nullptr;
    switch (screen) {
    case Screen::sweep:
        page = sweep_;
        break;
    case Screen::cleanup:
        page = cleanup_;
        break;
    case Screen::spaceMap:
        page = spaceMap_;
        break;
    case Screen::largeOld:
        page = largeOld_;
        break;
    case Screen::duplicates:
        page = duplicates_;
        break;
    case Screen::snapshots:
        page = snapshots_;
        break;
    case Screen::activity:
        page = activity_;
        break;
    case Screen::settings:
        page = settings_;
        break;
    }
    int index = screens_->indexOf(page);
    for (int row = 0; row < sidebar_->count(); ++row) {
        if (sidebar_->item(row)->data(Qt::UserRole).toInt() == index) {
            sidebar_->setCurrentRow(row);
        }
    }
    outer_->setCurrentWidget(shell_);
}

void MainWindow::showIntroduction() {
    outer_->setCurrentWidget(onboarding_);
}

bool MainWindow::introductionShown() const {
    return outer_->currentWidget() == onboarding_;
}

void MainWindow::finishIntroduction() {
    catalog_.store.setString(onboardedKey, "true");
    outer_->setCurrentWidget(shell_);
}

} // namespace sd::app
