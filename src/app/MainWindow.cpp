#include "app/MainWindow.h"

#include "app/AssistantViews.h"
#include "app/KnownCaches.h"
#include "app/Models.h"

#include <QHBoxLayout>
#include <QKeySequence>
#include <QShortcut>
#include <QVBoxLayout>
#include <set>

namespace sd::app {

namespace {

// A screen in a frame that scrolls when the window is smaller than the screen needs, so nothing
// is ever drawn over anything else.
QScrollArea* scrollingFrame(QWidget* page) {
    auto* frame = new QScrollArea;
    frame->setWidget(page);
    frame->setWidgetResizable(true);
    frame->setFrameShape(QFrame::NoFrame);
    frame->setFocusPolicy(Qt::NoFocus);
    return frame;
}

} // namespace

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent), catalog_(platform::UserDefaults::standard()) {
    setWindowTitle(QStringLiteral("Sparrowdeck"));
    resize(1180, 780);
    setMinimumSize(900, 600);
    journal_ = new JournalStore(this);

    outer_ = new QStackedWidget;
    setCentralWidget(outer_);
    onboarding_ = new OnboardingPage;
    onboardingFrame_ = scrollingFrame(onboarding_);
    outer_->addWidget(onboardingFrame_);

    shell_ = new QWidget;
    auto* shellLayout = new QHBoxLayout(shell_);
    shellLayout->setContentsMargins(0, 0, 0, 0);
    shellLayout->setSpacing(0);
    auto* side = new QWidget;
    side->setObjectName(QStringLiteral("sidebar"));
    side->setFixedWidth(210);
    auto* sideLayout = new QVBoxLayout(side);
    sideLayout->setContentsMargins(0, 0, 0, 12);
    auto* brand = new QLabel(QStringLiteral("Sparrowdeck"));
    brand->setObjectName(QStringLiteral("brand"));
    auto* brandNote = new QLabel(QStringLiteral("Moves to the Trash, never deletes"));
    brandNote->setObjectName(QStringLiteral("brandNote"));
    brandNote->setWordWrap(true);
    sidebar_ = new QListWidget;
    sidebar_->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    sideLayout->addWidget(brand);
    sideLayout->addWidget(brandNote);
    sideLayout->addWidget(sidebar_, 1);
    auto* right = new QWidget;
    auto* rightLayout = new QVBoxLayout(right);
    rightLayout->setContentsMargins(0, 0, 0, 0);
    rightLayout->setSpacing(0);
    auto* noticeRow = new QWidget;
    auto* noticeLayout = new QVBoxLayout(noticeRow);
    noticeLayout->setContentsMargins(32, 12, 32, 0);
    notice_ = new Banner;
    noticeLayout->addWidget(notice_);
    rightLayout->addWidget(noticeRow);
    screens_ = new QStackedWidget;
    rightLayout->addWidget(screens_, 1);
    shellLayout->addWidget(side);
    shellLayout->addWidget(right, 1);
    outer_->addWidget(shell_);
    returnPressesFocusedButtons(outer_);
    // The row shows only while it has news.
    noticeRow->setVisible(false);
    connect(&FileManagerNotices::instance(), &FileManagerNotices::unanswered, this,
            [this, noticeRow](const QString& path) {
                notice_->show(
                    QStringLiteral("No file manager answered “%1”, so nothing opened.")
                        .arg(revealText()),
                    Banner::Tone::warning,
                    QStringLiteral("It is at %1. Open that folder in your file manager to see it.")
                        .arg(homeRelative(path.toStdString())));
                noticeRow->setVisible(true);
            });

    sweep_ = new SweepPage(*journal_);
    cleanup_ = new CleanupPage(catalog_, *journal_);
    activity_ = new ActivityPage(*journal_, catalog_.catalog);
    settings_ = new SettingsPage(catalog_);
    spaceMap_ = new SpaceMapPage;
    spaceMap_->setKnownCaches(KnownCaches(catalog_.catalog));
    apps_ = new AppsPage(*journal_);
    largeOld_ = new LargeOldPage(*journal_);
    duplicates_ = new DuplicatesPage(*journal_);
    snapshots_ = new SnapshotsPage;
    addScreen(Screen::sweep, QStringLiteral("Sweep"), sweep_, screenNumber::sweep,
              sweep_->sweepButton());
    addScreen(Screen::cleanup, QStringLiteral("Cleanup"), cleanup_, screenNumber::cleanup,
              cleanup_->measureButton());
    addScreen(Screen::spaceMap, QStringLiteral("Space Map"), spaceMap_, screenNumber::spaceMap,
              spaceMap_->scanButton());
    addScreen(Screen::apps, QStringLiteral("Apps"), apps_, screenNumber::apps, apps_->listButton());
    addHeading(QStringLiteral("Worth a look"), screenNumber::worthALook);
    addScreen(Screen::largeOld, QStringLiteral("Large & old"), largeOld_, screenNumber::worthALook,
              largeOld_->searchButton(), true);
    addScreen(Screen::duplicates, QStringLiteral("Duplicates"), duplicates_,
              screenNumber::worthALook, duplicates_->searchButton(), true);
    addScreen(Screen::snapshots, QStringLiteral("Snapshots"), snapshots_, screenNumber::worthALook,
              snapshots_->refreshButton(), true);
    addScreen(Screen::activity, QStringLiteral("Activity"), activity_, screenNumber::activity,
              nullptr);
    addScreen(Screen::settings, QStringLiteral("Settings"), settings_, screenNumber::settings,
              nullptr);
    addShortcuts();

    connect(sidebar_, &QListWidget::currentRowChanged, this, [this, noticeRow](int row) {
        for (const Place& place : places_) {
            if (place.row == row) {
                screens_->setCurrentWidget(place.frame);
                noticeRow->setVisible(false);
            }
        }
    });
    // Return on the sidebar goes into the chosen screen.
    connect(sidebar_, &QListWidget::activated, this, [this] {
        for (const Place& place : places_) {
            if (place.frame == screens_->currentWidget()) {
                place.page->setFocus();
            }
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
    connect(apps_, &AppsPage::movedToTrash, this, patchMap);
    connect(largeOld_, &ReviewPage::movedToTrash, this, patchMap);
    connect(duplicates_, &ReviewPage::movedToTrash, this, patchMap);
    connect(settings_, &SettingsPage::showIntroduction, this, &MainWindow::showIntroduction);
    connect(onboarding_, &OnboardingPage::finished, this, &MainWindow::finishIntroduction);

    sidebar_->setCurrentRow(places_.front().row);
    bool onboarded = catalog_.store.string(onboardedKey).value_or("") == "true";
    if (onboarded) {
        outer_->setCurrentWidget(shell_);
    } else {
        showIntroduction();
    }
}

void MainWindow::addScreen(Screen screen, const QString& title, QWidget* page, int number,
                           QPushButton* rescan, bool indented) {
    QScrollArea* frame = scrollingFrame(page);
    screens_->addWidget(frame);
    auto* item = new QListWidgetItem((indented ? QStringLiteral("    ") : QString()) + title);
    if (number > 0) {
        item->setToolTip(QKeySequence(Qt::CTRL | static_cast<Qt::Key>(Qt::Key_0 + number))
                             .toString(QKeySequence::NativeText));
    }
    sidebar_->addItem(item);
    places_.push_back({screen, page, frame, number, rescan, sidebar_->row(item)});
}

void MainWindow::addHeading(const QString& title, int number) {
    auto* item = new QListWidgetItem(title);
    item->setFlags(Qt::NoItemFlags);
    QFont font = item->font();
    font.setWeight(QFont::DemiBold);
    item->setFont(font);
    if (number > 0) {
        item->setToolTip(QKeySequence(Qt::CTRL | static_cast<Qt::Key>(Qt::Key_0 + number))
                             .toString(QKeySequence::NativeText));
    }
    sidebar_->addItem(item);
}

void MainWindow::addShortcuts() {
    std::set<int> numbers;
    for (const Place& place : places_) {
        if (place.number > 0) {
            numbers.insert(place.number);
        }
    }
    for (int number : numbers) {
        auto* shortcut =
            new QShortcut(QKeySequence(Qt::CTRL | static_cast<Qt::Key>(Qt::Key_0 + number)), this);
        connect(shortcut, &QShortcut::activated, this, [this, number] { showNumber(number); });
    }
    auto* again = new QShortcut(QKeySequence(Qt::CTRL | Qt::Key_R), this);
    connect(again, &QShortcut::activated, this, &MainWindow::rescan);
}

const MainWindow::Place* MainWindow::placeOf(Screen screen) const {
    for (const Place& place : places_) {
        if (place.screen == screen) {
            return &place;
        }
    }
    return nullptr;
}

void MainWindow::showScreen(Screen screen) {
    if (const Place* place = placeOf(screen)) {
        sidebar_->setCurrentRow(place->row);
    }
    outer_->setCurrentWidget(shell_);
}

std::optional<MainWindow::Screen> MainWindow::currentScreen() const {
    if (introductionShown()) {
        return std::nullopt;
    }
    for (const Place& place : places_) {
        if (place.frame == screens_->currentWidget()) {
            return place.screen;
        }
    }
    return std::nullopt;
}

void MainWindow::showNumber(int number) {
    if (introductionShown()) {
        return;
    }
    std::vector<const Place*> matching;
    for (const Place& place : places_) {
        if (place.number == number) {
            matching.push_back(&place);
        }
    }
    if (matching.empty()) {
        return;
    }
    const Place* next = matching.front();
    std::optional<Screen> shown = currentScreen();
    for (size_t i = 0; i < matching.size(); ++i) {
        if (shown && matching[i]->screen == *shown) {
            next = matching[(i + 1) % matching.size()];
        }
    }
    showScreen(next->screen);
    // The keyboard follows: Return now reaches the screen, Tab its first control.
    next->page->setFocus();
}

QScrollArea* MainWindow::frameOf(Screen screen) const {
    const Place* place = placeOf(screen);
    return place != nullptr ? place->frame : nullptr;
}

void MainWindow::rescan() {
    std::optional<Screen> shown = currentScreen();
    const Place* place = shown ? placeOf(*shown) : nullptr;
    if (place != nullptr && place->rescan != nullptr && place->rescan->isEnabled()) {
        place->rescan->click();
    }
}

void MainWindow::showIntroduction() {
    outer_->setCurrentWidget(onboardingFrame_);
    onboarding_->setFocus();
}

bool MainWindow::introductionShown() const {
    return outer_->currentWidget() == onboardingFrame_;
}

void MainWindow::finishIntroduction() {
    catalog_.store.setString(onboardedKey, "true");
    outer_->setCurrentWidget(shell_);
    sidebar_->setFocus();
}

} // namespace sd::app
