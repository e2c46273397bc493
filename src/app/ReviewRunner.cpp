#include "app/ReviewRunner.h"

#include "core/PathRules.h"
#include "reclaim/VaultService.h"

namespace sd::app {

namespace {

// The vault's verdict on each path, without moving anything.
std::map<std::string, VaultDenyReason> verdicts(const std::vector<std::string>& paths,
                                                const Cancellation& cancel) {
    std::map<std::string, VaultDenyReason> denied;
    if (paths.empty()) {
        return denied;
    }
    cancel.check();
    VaultService vault = VaultService::standard(homePolicy());
    VaultPlan plan = vault.planner(paths, {}, nullptr);
    for (size_t i = 0; i < plan.items.size() && i < paths.size(); ++i) {
        if (plan.items[i].denied) {
            denied[paths[i]] = *plan.items[i].denied;
        }
    }
    return denied;
}

} // namespace

ReviewRunner::ReviewRunner(QObject* parent) : QObject(parent) {
    connect(&runner_, &TaskRunner::tick, this, &ReviewRunner::progressChanged);
    connect(&runner_, &TaskRunner::failed, this, &ReviewRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &ReviewRunner::runningChanged);
}

std::shared_ptr<LiveProgress> ReviewRunner::freshProgress() {
    progress_ = std::make_shared<LiveProgress>();
    return progress_;
}

void ReviewRunner::findLargeOld(LargeOldOptions options) {
    auto live = freshProgress();
    live->setMessage("Reading your folders");
    runner_.start<LargeOldFound>(
        [live, options](const Cancellation& cancel) {
            LargeOldFinder finder = LargeOldFinder::standard(homeDirectory());
            finder.options = options;
            finder.cancel = cancel;
            finder.progress = [live](const ReviewProgress& p) {
                live->set(p.budgetFraction, 0, p.itemsSeen, reviewProgressText(p));
            };
            LargeOldFound found;
            found.report = finder.find();
            live->set(1, 0, 0, "Checking what could move");
            std::vector<std::string> paths;
            for (const LargeOldItem& item : found.report.items) {
                paths.push_back(item.path);
            }
            found.denied = verdicts(paths, cancel);
            return found;
        },
        [this](LargeOldFound& found) { emit largeOldFound(found); });
}

void ReviewRunner::findDuplicates(std::string root, DuplicateOptions options) {
    auto live = freshProgress();
    live->setMessage("Reading your folders");
    runner_.start<DuplicatesFound>(
        [live, root = std::move(root), options](const Cancellation& cancel) {
            auto report = [live](const ReviewProgress& p) {
                live->set(p.budgetFraction, 0, p.itemsSeen, reviewProgressText(p));
            };
            DuplicateComparer comparer;
            comparer.options = options;
            comparer.candidates = collectDuplicateCandidates(DuplicateScope{root, homeDirectory()},
                                                             options, cancel, report);
            comparer.cancel = cancel;
            comparer.progress = report;
            DuplicatesFound found;
            found.report = comparer.compare();
            live->set(1, 0, 0, "Checking what could move");
            std::vector<std::string> paths;
            for (const DuplicateGroup& group : found.report.groups) {
                for (const DuplicateFile& file : group.files) {
                    paths.push_back(file.path);
                }
            }
            found.denied = verdicts(paths, cancel);
            return found;
        },
        [this](DuplicatesFound& found) { emit duplicatesFound(found); });
}

void ReviewRunner::move(std::vector<ReviewedItem> items, std::string title, std::string group) {
    auto live = freshProgress();
    live->setMessage("Checking each item before it moves");
    runner_.start<ReviewMoveResult>(
        [items = std::move(items), title = std::move(title),
         group = std::move(group)](const Cancellation& cancel) {
            ReclaimJournal journal = ReclaimJournal::standard();
            journal.load();
            VaultService vault = VaultService::standard(homePolicy());
            return moveReviewedItems(vault, journal, items, title, group, cancel);
        },
        [this](ReviewMoveResult& result) { emit moved(result); });
}

} // namespace sd::app
