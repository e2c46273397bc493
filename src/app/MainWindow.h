#pragma once

#include "app/AppState.h"
#include "app/Pages.h"
#include "app/ReviewPages.h"
#include "app/SnapshotsPage.h"
#include "app/SpaceMapPage.h"
#include "app/Workers.h"

#include <QListWidget>
#include <QMainWindow>
#include <QStackedWidget>

namespace sd::app {

// The Sparrowdeck window: a sidebar of screens on the left, the chosen screen on the right, and
// on a first start the introduction in their place.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    enum class Screen {
        sweep,
        cleanup,
        spaceMap,
        largeOld,
        duplicates,
        snapshots,
        activity,
        settings
    };

    explicit MainWindow(QWidget* parent = nullptr);

    void showScreen(Screen screen);
    // Shows the introduction instead of the screens, as on a first start.
    void showIntroduction();
    bool introductionShown() const;

    SweepPage* sweepPage() const noexcept { return sweep_; }
    CleanupPage* cleanupPage() const noexcept { return cleanup_; }
    ActivityPage* activityPage() const noexcept { return activity_; }
    SettingsPage* settingsPage() const noexcept { return settings_; }
    SpaceMapPage* spaceMapPage() const noexcept { return spaceMap_; }
    ReviewPage* largeOldPage() const noexcept { return largeOld_; }
    ReviewPage* duplicatesPage() const noexcept { return duplicates_; }
    SnapshotsPage* snapshotsPage() const noexcept { return snapshots_; }
    OnboardingPage* onboardingPage() const noexcept { return onboarding_; }
    JournalStore& journal() noexcept { return *journal_; }

private:
    void addScreen(const QString& title, QWidget* page, bool indented = false);
    void addHeading(const QString& title);
    void finishIntroduction();

    CatalogState catalog_;
    JournalStore* journal_;
    QWidget* shell_;
    QStackedWidget* outer_;
    QListWidget* sidebar_;
    QStackedWidget* screens_;
    OnboardingPage* onboarding_;
    SweepPage* sweep_;
    CleanupPage* cleanup_;
    ActivityPage* activity_;
    SettingsPage* settings_;
    SpaceMapPage* spaceMap_;
    ReviewPage* largeOld_;
    ReviewPage* duplicates_;
    SnapshotsPage* snapshots_;
};

// The settings key that records the introduction was seen.
inline constexpr std::string_view onboardedKey = "sd.app.onboardingDone";

} // namespace sd::app
