#pragma once

#include "app/Widgets.h"
#include "app/Workers.h"
#include "apps/AppListing.h"
#include "apps/Uninstall.h"

#include <QAbstractTableModel>
#include <QComboBox>
#include <QDialog>
#include <QLineEdit>
#include <QTreeView>
#include <QTreeWidget>
#include <memory>
#include <optional>

namespace sd::app {

// What an uninstall from the window did, and to which app.
struct UninstallDone {
    std::string appName;
    UninstallOutcome outcome;
};

// Listing the installed apps and uninstalling one, on a worker thread.
class AppsRunner : public QObject {
    Q_OBJECT

public:
    // `roots` are this system's own unless a test points them at a fixture.
    explicit AppsRunner(std::optional<platform::AppSearchRoots> roots = std::nullopt,
                        QObject* parent = nullptr);

    void list();
    // Moves the app (where Sparrowdeck may) and the chosen data through the vault, journaled.
    void uninstall(platform::InstalledApp app, std::vector<Leftover> data);
    void stop() { runner_.stop(); }
    bool isRunning() const noexcept { return runner_.isRunning(); }
    ProgressReading progress() const { return readProgress(*progress_); }

signals:
    void progressChanged();
    void listed(const sd::AppListing& listing);
    void uninstalled(const sd::app::UninstallDone& done);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    std::optional<platform::AppSearchRoots> roots_;
    std::shared_ptr<OperationProgress> progress_ = std::make_shared<OperationProgress>();
    TaskRunner runner_;
};

// One row per installed app: what it is, what it takes, and when it was last used.
class AppsModel : public QAbstractTableModel {
    Q_OBJECT

public:
    enum Column {
        nameColumn,
        sourceColumn,
        versionColumn,
        appColumn,
        dataColumn,
        usedColumn,
        columnTotal
    };

    explicit AppsModel(QObject* parent = nullptr);

    void setListing(AppListing listing);
    void setOrder(AppOrder order);
    AppOrder order() const noexcept { return order_; }
    const AppListEntry* entryAt(int row) const;
    int rowOf(const std::string& id) const;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    AppListing listing_;
    std::vector<const AppListEntry*> rows_;
    AppOrder order_ = AppOrder::size;
};

// Asks before an uninstall: what goes to the Trash, and for an app a package manager owns, the
// command that removes it, with a button that copies it.
class UninstallSheet : public QDialog {
    Q_OBJECT

public:
    UninstallSheet(const UninstallPreview& preview, const QString& appName,
                   QWidget* parent = nullptr);

    QPushButton* moveButton() const noexcept { return move_; }
    QPushButton* copyButton() const noexcept { return copy_; }
    QLineEdit* commandField() const noexcept { return command_; }
    QString text() const;

private:
    QLabel* question_;
    QLabel* appNote_;
    QLabel* listing_;
    QLineEdit* command_ = nullptr;
    QPushButton* copy_ = nullptr;
    QPushButton* move_;
};

// Apps: every installed app with its own size and the data it keeps in the home, the places of
// the chosen one, and uninstalling it — the app to the Trash where Sparrowdeck may move it, the
// ticked data with it, everything journaled for Put Back.
class AppsPage : public QWidget {
    Q_OBJECT

public:
    explicit AppsPage(JournalStore& journal,
                      std::optional<platform::AppSearchRoots> roots = std::nullopt,
                      QWidget* parent = nullptr);

    QPushButton* listButton() const noexcept { return list_; }
    QPushButton* uninstallButton() const noexcept { return uninstall_; }
    QPushButton* revealButton() const noexcept { return reveal_; }
    QComboBox* orderBox() const noexcept { return order_; }
    QTreeView* appsView() const noexcept { return apps_; }
    QTreeWidget* placesView() const noexcept { return places_; }
    QLabel* detailTitle() const noexcept { return detailTitle_; }
    QLabel* detailFacts() const noexcept { return detailFacts_; }
    const Banner* banner() const noexcept { return banner_; }
    QPushButton* putBackButton() const noexcept { return putBack_; }
    ProgressStrip* progressStrip() const noexcept { return progress_; }
    AppsModel& model() noexcept { return *model_; }
    AppsRunner& runner() noexcept { return *runner_; }

    void refresh();
    // Shows the app with this id in the detail pane; false when it is not listed.
    bool selectApp(const std::string& id);
    // The data places ticked in the detail pane.
    std::vector<Leftover> tickedPlaces() const;

signals:
    void movedToTrash(const std::vector<sd::MovedItem>& moved);

protected:
    // The apps are read the first time the screen opens, not when the window starts.
    void showEvent(QShowEvent* event) override;

private:
    const AppListEntry* chosenApp() const;
    void showDetail();
    void askToUninstall();
    void onListed(const AppListing& listing);
    void onUninstalled(const UninstallDone& done);
    void updateControls();

    JournalStore& journal_;
    AppsRunner* runner_;
    PutBackRunner* putBackRunner_;
    AppsModel* model_;
    QComboBox* order_;
    QPushButton* list_;
    QTreeView* apps_;
    QLabel* summary_;
    QLabel* detailTitle_;
    QLabel* detailFacts_;
    QTreeWidget* places_;
    QPushButton* reveal_;
    QPushButton* uninstall_;
    ProgressStrip* progress_;
    Banner* banner_;
    QPushButton* putBack_;
    std::optional<std::string> lastEntryID_;
    bool listedOnce_ = false;
    bool uninstalling_ = false;
};

} // namespace sd::app
