#include "app/DuplicatesPage.h"

#include "app/Models.h"
#include "core/PathRules.h"
#include "platform/Words.h"

#include <QFileDialog>

namespace sd::app {

DuplicatesPage::DuplicatesPage(JournalStore& journal, QWidget* parent)
    : ReviewPage(QStringLiteral("Duplicates"), toQ(duplicateText::description),
                 toQ(platform::duplicatesScopeText()), {"Duplicate copies", "duplicates"}, journal,
                 parent),
      root_(homeDirectory()) {
    model_ = new DuplicatesModel(state_, sharedPolicy(), this);
    choose_ = new QPushButton(QStringLiteral("Choose Folder…"));
    topBar()->insertWidget(1, choose_, 0, Qt::AlignTop);
    attachModel(model_,
                {{240, 180, 110}, DuplicatesModel::noteColumn, DuplicatesModel::actionColumn});
    connect(model_, &DuplicatesModel::tickedChanged, this, &DuplicatesPage::updateControls);
    connect(&runner(), &ReviewRunner::duplicatesFound, this, &DuplicatesPage::onFound);
    connect(choose_, &QPushButton::clicked, this, [this] {
        QString folder = QFileDialog::getExistingDirectory(
            this, QStringLiteral("Look for duplicates in"), QString::fromStdString(root_));
        if (!folder.isEmpty()) {
            setRoot(folder.toStdString());
            search();
        }
    });
}

void DuplicatesPage::setRoot(std::string root) {
    root_ = std::move(root);
    scopeLabel()->setText(root_ == homeDirectory()
                              ? toQ(platform::duplicatesScopeText())
                              : QStringLiteral("Looked in %1.").arg(homeRelative(root_)));
}

void DuplicatesPage::startSearch() {
    runner().findDuplicates(root_);
}

void DuplicatesPage::setOwnControlsEnabled(bool enabled) {
    choose_->setEnabled(enabled);
}

void DuplicatesPage::onFound(const DuplicatesFound& found) {
    changeState([&] {
        state_ = {};
        state_.report = found.report;
        state_.denied = found.denied;
    });
    const DuplicateReport& report = *state_.report;
    std::uint64_t total = 0;
    for (const DuplicateGroup& group : report.groups) {
        total += model_->givesBack(group);
    }
    showFound(report.groups.empty()
                  ? QString()
                  : QStringLiteral("%1 %2 · %3 could be given back. Nothing is selected: the "
                                   "copy marked Keep (%4) always stays.")
                        .arg(report.groups.size())
                        .arg(report.groups.size() == 1 ? QStringLiteral("group")
                                                       : QStringLiteral("groups"))
                        .arg(bytesText(total), toQ(duplicateText::keepLabel)),
              duplicateReportNotes(report),
              toQ(duplicateText::noGroups) + "\n" + toQ(duplicateText::noGroupsDetail),
              !report.groups.empty());
}

std::vector<ReviewedItem> DuplicatesPage::tickedItems(std::vector<std::string>& refused) const {
    std::vector<ReviewedItem> items;
    for (const DuplicateGroup& group : state_.report->groups) {
        std::vector<std::string> ticked;
        for (const DuplicateFile& file : group.files) {
            if (state_.ticked.count(file.path) != 0) {
                ticked.push_back(file.path);
            }
        }
        std::vector<ReviewedItem> copies = duplicateCopiesToMove(group, ticked, refused);
        items.insert(items.end(), copies.begin(), copies.end());
    }
    return items;
}

void DuplicatesPage::resetModel(const std::function<void()>& change) {
    model_->beginChange();
    change();
    model_->endChange();
    tree()->expandAll();
}

void DuplicatesPage::markMoved(const std::vector<MovedItem>& moved) {
    for (const MovedItem& m : moved) {
        state_.moved.insert(m.originalPath);
    }
    state_.ticked.clear();
}

} // namespace sd::app
