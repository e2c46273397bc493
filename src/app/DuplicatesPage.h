#pragma once

#include "app/DuplicatesModel.h"
#include "app/ReviewPage.h"

namespace sd::app {

// Duplicates: groups of files with the same contents, the copy to keep marked in each; any
// folder can be searched, the home folder unless one is chosen.
class DuplicatesPage : public ReviewPage {
    Q_OBJECT

public:
    explicit DuplicatesPage(JournalStore& journal, QWidget* parent = nullptr);

    // The folder the next search looks in.
    void setRoot(std::string root);
    QPushButton* chooseButton() const noexcept { return choose_; }

protected:
    void startSearch() override;
    bool hasReport() const override { return state_.report.has_value(); }
    QString summaryLine() const override;
    size_t tickedCount() const override { return state_.ticked.size(); }
    std::vector<ReviewedItem> tickedItems(std::vector<std::string>& refused) const override;
    void resetModel(const std::function<void()>& change) override;
    void markMoved(const std::vector<MovedItem>& moved) override;
    void setOwnControlsEnabled(bool enabled) override;

private:
    void onFound(const DuplicatesFound& found);

    ReviewState<DuplicateReport> state_;
    std::string root_;
    DuplicatesModel* model_;
    QPushButton* choose_;
};

} // namespace sd::app
