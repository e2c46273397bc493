#include "app/ActivityPage.h"

#include "base/PathText.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QVBoxLayout>

namespace sd::app {

ActivityPage::ActivityPage(JournalStore& journal, const std::vector<Target>& catalog,
                           QWidget* parent)
    : QWidget(parent), journal_(journal) {
    model_ = new ActivityModel(journal_.journal(), catalog, this);
    runner_ = new PutBackRunner(this);
    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Activity"),
        QStringLiteral("Everything Sparrowdeck moved to the Trash, newest first. Each item can "
                       "go back exactly where it was until the Trash is emptied."));
    journalWarning_ = new Banner;
    layout->addWidget(journalWarning_);

    tree_ = new QTreeView;
    tree_->setModel(model_);
    tree_->setAlternatingRowColors(true);
    tree_->setUniformRowHeights(true);
    tree_->header()->setStretchLastSection(false);
    tree_->header()->setSectionResizeMode(ActivityModel::whatColumn, QHeaderView::Stretch);
    tree_->setColumnWidth(ActivityModel::groupColumn, 200);
    tree_->setColumnWidth(ActivityModel::whenColumn, 150);
    tree_->setColumnWidth(ActivityModel::sizeColumn, 90);
    tree_->setColumnWidth(ActivityModel::statusColumn, 190);
    tree_->setTextElideMode(Qt::ElideMiddle);
    tree_->setItemDelegate(new RoomyDelegate(28, tree_));
    layout->addWidget(tree_, 1);
    empty_ = paragraph(QStringLiteral("Nothing has been moved to the Trash yet. What a Sweep, a "
                                      "cleanup or a review moves will be listed here."),
                       "muted");
    layout->addWidget(empty_);

    progress_ = new ProgressStrip;
    layout->addWidget(progress_);
    banner_ = new Banner;
    layout->addWidget(banner_);

    auto* bar = new QHBoxLayout;
    auto* hint = paragraph(QString::fromStdString(std::string(putBackConfirmationText)), "muted");
    bar->addWidget(hint, 1);
    reveal_ = new QPushButton(revealText());
    putBackItem_ = new QPushButton(QStringLiteral("Put Back Item"));
    putBackGroup_ = new QPushButton(QStringLiteral("Put Back Group"));
    putBackEntry_ = new QPushButton(QStringLiteral("Put Back"));
    putBackEntry_->setProperty("primary", true);
    bar->addWidget(reveal_);
    bar->addWidget(putBackItem_);
    bar->addWidget(putBackGroup_);
    bar->addWidget(putBackEntry_);
    layout->addLayout(bar);

    auto reset = [this] {
        model_->endChange();
        bool any = model_->rowCount() > 0;
        tree_->setVisible(any);
        empty_->setVisible(!any);
        if (any) {
            // The newest entry is the one most often put back: it starts open and chosen.
            tree_->expand(model_->index(0, 0));
            tree_->setCurrentIndex(model_->index(0, 0));
        }
        QStringList lines;
        for (const std::string& w : journal_.warnings()) {
            lines << QString::fromStdString(w);
        }
        if (lines.isEmpty()) {
            journalWarning_->hide();
        } else {
            journalWarning_->show(QStringLiteral("The activity journal needed attention."),
                                  Banner::Tone::warning, lines.join('\n'));
        }
        onSelection();
    };
    pressOnReturn(this, [this] { return putBackEntry_; });
    connect(&journal_, &JournalStore::aboutToChange, this, [this] { model_->beginChange(); });
    connect(&journal_, &JournalStore::changed, this, reset);
    connect(tree_->selectionModel(), &QItemSelectionModel::currentChanged, this,
            &ActivityPage::onSelection);
    connect(putBackEntry_, &QPushButton::clicked, this, [this] { putBack(false); });
    connect(putBackGroup_, &QPushButton::clicked, this, [this] { putBack(true); });
    connect(putBackItem_, &QPushButton::clicked, this, &ActivityPage::putBackItem);
    connect(reveal_, &QPushButton::clicked, this, [this] {
        QString path = tree_->currentIndex().data(pathRole).toString();
        if (!path.isEmpty()) {
            showInFiles(path);
        }
    });
    connect(progress_, &ProgressStrip::stopRequested, runner_, &PutBackRunner::stop);
    connect(runner_, &PutBackRunner::finished, this, &ActivityPage::onPutBack);
    connect(runner_, &PutBackRunner::failed, this, [this](const QString& message, bool cancelled) {
        journal_.reload();
        banner_->show(cancelled ? QStringLiteral("Put Back was stopped.")
                                : QStringLiteral("Put Back did not finish: ") + message,
                      Banner::Tone::warning, QStringLiteral("Whatever went back is marked above."));
    });
    connect(runner_, &PutBackRunner::runningChanged, this, [this](bool running) {
        progress_->setRunning(running);
        onSelection();
    });
    reset();
}

void ActivityPage::onSelection() {
    QModelIndex current = tree_->currentIndex();
    const JournalEntry* entry = model_->entryAt(current);
    const TrashedItem* item = model_->itemAt(current);
    bool busy = runner_->isRunning();
    putBackEntry_->setEnabled(
        !busy && entry != nullptr &&
        model_->index(current.parent().isValid() ? current.parent().row() : current.row(), 0)
            .data(inTrashRole)
            .toBool());
    bool groupWaiting = false;
    if (entry != nullptr && item != nullptr) {
        for (const TrashedItem& i : entry->items) {
            groupWaiting = groupWaiting || (i.group == item->group && !i.restored);
        }
        putBackGroup_->setText(buttonText(
            QStringLiteral("Put Back “%1”").arg(model_->groupTitle(*entry, item->group))));
    }
    putBackItem_->setVisible(item != nullptr);
    putBackItem_->setEnabled(!busy && item != nullptr && !item->restored);
    putBackGroup_->setVisible(item != nullptr);
    putBackGroup_->setEnabled(!busy && groupWaiting);
    reveal_->setEnabled(item != nullptr);
}

void ActivityPage::putBackItem() {
    QModelIndex current = tree_->currentIndex();
    const JournalEntry* entry = model_->entryAt(current);
    const TrashedItem* item = model_->itemAt(current);
    if (entry == nullptr || item == nullptr || item->restored) {
        return;
    }
    if (!confirm(this, QStringLiteral("Put Back"),
                 QStringLiteral("Put back “%1”?")
                     .arg(QString::fromStdString(lastComponent(item->originalPath))),
                 QStringLiteral("Put Back"),
                 homeRelative(item->originalPath) + QStringLiteral("\n\n") +
                     QString::fromStdString(std::string(putBackConfirmationText)))) {
        return;
    }
    banner_->hide();
    runner_->putBack(entry->id, PutBackChoice{std::nullopt, item->id()});
    progress_->update(-1, QString::fromStdString(putBackProgressText(1)));
}

void ActivityPage::putBack(bool groupOnly) {
    QModelIndex current = tree_->currentIndex();
    const JournalEntry* entry = model_->entryAt(current);
    const TrashedItem* item = model_->itemAt(current);
    if (entry == nullptr || (groupOnly && item == nullptr)) {
        return;
    }
    std::optional<std::string> group;
    if (groupOnly) {
        group = item->group;
    }
    std::uint64_t waiting = 0;
    for (const TrashedItem& i : entry->items) {
        waiting += !i.restored && (!group || i.group == *group) ? 1 : 0;
    }
    if (waiting == 0) {
        return;
    }
    if (!confirm(this, QStringLiteral("Put Back"),
                 QStringLiteral("Put back %1 %2 from “%3”?")
                     .arg(waiting)
                     .arg(waiting == 1 ? QStringLiteral("item") : QStringLiteral("items"))
                     .arg(group ? model_->groupTitle(*entry, *group)
                                : QString::fromStdString(entry->title)),
                 QStringLiteral("Put Back"),
                 QString::fromStdString(std::string(putBackConfirmationText)))) {
        return;
    }
    banner_->hide();
    runner_->putBack(entry->id, group);
    progress_->update(-1, QString::fromStdString(putBackProgressText(waiting)));
}

void ActivityPage::onPutBack(const TrashRestoreResult& result) {
    journal_.reload();
    QString detail;
    if (!result.skipped.empty()) {
        QStringList lines{QString::fromStdString(putBackSkippedText(result.skipped.size()))};
        for (size_t i = 0; i < result.skipped.size() && i < 5; ++i) {
            lines << QString::fromStdString(result.skipped[i]);
        }
        detail = lines.join('\n');
    }
    banner_->show(QString::fromStdString(putBackResultText(result)),
                  result.restoredIDs.empty() || !result.skipped.empty() ? Banner::Tone::warning
                                                                        : Banner::Tone::success,
                  detail);
}

} // namespace sd::app
