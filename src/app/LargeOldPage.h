#pragma once

#include "app/LargeOldModel.h"
#include "app/ReviewPage.h"

namespace sd::app {

// Large & old: files of a size worth a look that nobody opened for a long time, biggest first,
// with the evidence for each date.
class LargeOldPage : public ReviewPage {
    Q_OBJECT

public:
    explicit LargeOldPage(JournalStore& journal, QWidget* parent = nullptr);

    // Options the next search runs with; tests shorten them.
    void setOptions(LargeOldOptions options) { options_ = options; }

protected:
    void startSearch() override;
    bool hasReport() const override { return state_.report.has_value(); }
    QString summaryLine() const override;
    size_t tickedCount() const override { return state_.ticked.size(); }
    std::vector<ReviewedItem> tickedItems(std::vector<std::string>& refused) const override;
    void resetModel(const std::function<void()>& change) override;
    void markMoved(const std::vector<MovedItem>& moved) override;

private:
    void onFound(const LargeOldFound& found);

    ReviewState<LargeOldReport> state_;
    LargeOldOptions options_;
    LargeOldModel* model_;
};

} // namespace sd::app
