#pragma once

#include "app/Workers.h"
#include "reclaim/VaultTypes.h"
#include "review/DuplicateComparer.h"
#include "review/LargeOldFinder.h"
#include "review/ReviewReclaim.h"

#include <QObject>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sd::app {

// A search's report with the vault's verdict on every path in it, so a row the vault would keep
// in place shows why before anyone ticks it.
template <typename Report> struct Reviewed {
    Report report;
    std::map<std::string, VaultDenyReason> denied;
};
using LargeOldFound = Reviewed<LargeOldReport>;
using DuplicatesFound = Reviewed<DuplicateReport>;

// The review searches and their moves on a worker thread.
class ReviewRunner : public QObject {
    Q_OBJECT

public:
    explicit ReviewRunner(QObject* parent = nullptr);

    void findLargeOld(LargeOldOptions options = {});
    void findDuplicates(std::string root, DuplicateOptions options = {});
    // Moves the ticked items through the vault and records them in Activity.
    void move(std::vector<ReviewedItem> items, std::string title, std::string group);
    void stop() { runner_.stop(); }
    bool isRunning() const noexcept { return runner_.isRunning(); }
    LiveProgress::Reading progress() const { return progress_->read(); }

signals:
    void progressChanged();
    void largeOldFound(const sd::app::LargeOldFound& found);
    void duplicatesFound(const sd::app::DuplicatesFound& found);
    void moved(const sd::ReviewMoveResult& result);
    void failed(const QString& message, bool cancelled);
    void runningChanged(bool running);

private:
    std::shared_ptr<LiveProgress> freshProgress();

    TaskRunner runner_;
    std::shared_ptr<LiveProgress> progress_ = std::make_shared<LiveProgress>();
};

} // namespace sd::app
