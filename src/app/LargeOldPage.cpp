#include "app/LargeOldPage.h"

#include "app/Models.h"
#include "platform/Words.h"

namespace sd::app {

LargeOldPage::LargeOldPage(JournalStore& journal, QWidget* parent)
    : ReviewPage(QStringLiteral("Large & old files"), QString::fromStdString(largeOldDescription()),
                 toQ(platform::largeOldScopeText()), {"Large & old files", "largeOld"}, journal,
                 parent) {
    model_ = new LargeOldModel(state_, this);
    tree()->setRootIsDecorated(false);
    attachModel(model_,
                {{190, 130, 80, 335}, LargeOldModel::noteColumn, LargeOldModel::actionColumn});
    connect(model_, &LargeOldModel::tickedChanged, this, &LargeOldPage::updateControls);
    connect(&runner(), &ReviewRunner::largeOldFound, this, &LargeOldPage::onFound);
}

void LargeOldPage::startSearch() {
    runner().findLargeOld(options_);
}

void LargeOldPage::onFound(const LargeOldFound& found) {
    changeState([&] {
        state_ = {};
        state_.report = found.report;
        state_.denied = found.denied;
    });
    const LargeOldReport& report = *state_.report;
    showFound(largeOldReportNotes(report, policy()),
              QString::fromStdString(largeOldNothingFound(options_)) + "\n" +
                  QString::fromStdString(largeOldNothingFoundDetail(options_)),
              !report.items.empty());
}

QString LargeOldPage::summaryLine() const {
    if (!state_.report || state_.report->items.empty()) {
        return {};
    }
    // What is still here: items already in the Trash no longer count.
    std::uint64_t count = 0;
    std::uint64_t total = 0;
    for (const LargeOldItem& item : state_.report->items) {
        if (state_.moved.count(item.path) == 0) {
            ++count;
            total += item.physicalBytes;
        }
    }
    return QStringLiteral("%1 %2 · %3. Nothing is selected.")
        .arg(count)
        .arg(count == 1 ? QStringLiteral("item") : QStringLiteral("items"))
        .arg(bytesText(total));
}

std::vector<ReviewedItem> LargeOldPage::tickedItems(std::vector<std::string>&) const {
    std::vector<ReviewedItem> items;
    for (const LargeOldItem& item : state_.report->items) {
        if (state_.ticked.count(item.path) != 0) {
            items.push_back(reviewedItemOf(item));
        }
    }
    return items;
}

void LargeOldPage::resetModel(const std::function<void()>& change) {
    model_->beginChange();
    change();
    model_->endChange();
}

void LargeOldPage::markMoved(const std::vector<MovedItem>& moved) {
    for (const MovedItem& m : moved) {
        state_.moved.insert(m.originalPath);
    }
    state_.ticked.clear();
}

} // namespace sd::app
