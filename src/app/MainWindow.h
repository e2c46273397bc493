#pragma once

#include "app/CatalogState.h"
#include "app/Pages.h"
#include "app/SnapshotsPage.h"
#include "app/Workers.h"

#include <QListWidget>
#include <QMainWindow>
#include <QScrollArea>
#include <QStackedWidget>
#include <optional>
#include <vector>

namespace sd::app {

// Ctrl and a number open the places of the sidebar, counted in its order. The screens under one
// heading share the heading's number, and pressing it again moves on to the next of them.
namespace screenNumber {
inline constexpr int sweep = 1;
inline constexpr int cleanup = 2;
inline constexpr int spaceMap = 3;
inline constexpr int apps = 4;
inline constexpr int worthALook = 5;
inline constexpr int activity = 6;
inline constexpr int settings = 7;
} // namespace screenNumber

// The Sparrowdeck window: a sidebar of screens on the left, the chosen screen on the right, and
// on a first start the introduction in their place. Every screen scrolls when the window is
// smaller than it needs; Ctrl+R measures or searches the shown screen again.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    enum class Screen {
        sweep,
        cleanup,
        spaceMap,
        apps,
        largeOld,
        duplicates,
        snapshots,
        activity,
        settings
    };

    explicit MainWindow(QWidget* parent = nullptr);

    void showScreen(Screen screen);
    // The shown screen; none while the introduction is shown.
    std::optional<Screen> currentScreen() const;
    // What Ctrl+`number` does: the first screen with that number, or the next one under the same
    // heading when one of them is already shown.
    void showNumber(int number);
    // What Ctrl+R does: presses the shown screen's measure or search button when it can.
    void rescan();
    // Shows the introduction instead of the screens, as on a first start.
    void showIntroduction();
    bool introductionShown() const;

    SweepPage* sweepPage() const noexcept { return sweep_; }
    CleanupPage* cleanupPage() const noexcept { return cleanup_; }
    ActivityPage* activityPage() const noexcept { return activity_; }
    SettingsPage* settingsPage() const noexcept { return settings_; }
    SpaceMapPage* spaceMapPage() const noexcept { return spaceMap_; }
    AppsPage* appsPage() const noexcept { return apps_; }
    LargeOldPage* largeOldPage() const noexcept { return largeOld_; }
    DuplicatesPage* duplicatesPage() const noexcept { return duplicates_; }
    SnapshotsPage* snapshotsPage() const noexcept { return snapshots_; }
    OnboardingPage* onboardingPage() const noexcept { return onboarding_; }
    QListWidget* sidebar() const noexcept { return sidebar_; }
    // The scrolling frame a screen is shown in.
    QScrollArea* frameOf(Screen screen) const;
    // News for the whole window, such as a file manager that did not answer.
    const Banner* notice() const noexcept { return notice_; }
    JournalStore& journal() noexcept { return *journal_; }

private:
    struct Place {
        Screen screen;
        QWidget* page;
        QScrollArea* frame;
        int number;          // Ctrl+number, 0 for none
        QPushButton* rescan; // what Ctrl+R presses; none where nothing is measured
        int row;             // in the sidebar
    };

    void addScreen(Screen screen, const QString& title, QWidget* page, int number,
                   QPushButton* rescan, bool indented = false);
    void addHeading(const QString& title, int number);
    void addShortcuts();
    const Place* placeOf(Screen screen) const;
    void finishIntroduction();

    CatalogState catalog_;
    JournalStore* journal_;
    std::vector<Place> places_;
    QWidget* shell_;
    QStackedWidget* outer_;
    QScrollArea* onboardingFrame_;
    QListWidget* sidebar_;
    QStackedWidget* screens_;
    Banner* notice_;
    OnboardingPage* onboarding_;
    SweepPage* sweep_;
    CleanupPage* cleanup_;
    ActivityPage* activity_;
    SettingsPage* settings_;
    SpaceMapPage* spaceMap_;
    AppsPage* apps_;
    LargeOldPage* largeOld_;
    DuplicatesPage* duplicates_;
    SnapshotsPage* snapshots_;
};

// The settings key that records the introduction was seen.
inline constexpr std::string_view onboardedKey = "sd.app.onboardingDone";

} // namespace sd::app
