#include "app/MainWindow.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

namespace sd::app {

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
    largeOld_ = new LargeOldPage(*journal_);
    duplicates_ = new DuplicatesPage(*journal_);
    addScreen(QStringLiteral("Sweep"), sweep_);
    addScreen(QStringLiteral("Cleanup"), cleanup_);
    addScreen(QStringLiteral("Space Map"), spaceMap_);
    addHeading(QStringLiteral("Worth a look"));
    addScreen(QStringLiteral("Large & old"), largeOld_, true);
    addScreen(QStringLiteral("Duplicates"), duplicates_, true);
    addScreen(QStringLiteral("Activity"), activity_);
    addScreen(QStringLiteral("Settings"), settings_);

    connect(sidebar_, &QListWidget::currentRowChanged, this, [this](int row) {
        QListWidgetItem* item = sidebar_->item(row);
        if (item != nullptr && item->data(Qt::UserRole).toInt() >= 0) {
            screens_->setCurrentIndex(item->data(Qt::UserRole).toInt());
        }
    });
    connect(settings_, &SettingsPage::leftOutChanged, cleanup_, &CleanupPage::refreshLeftOut);
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
