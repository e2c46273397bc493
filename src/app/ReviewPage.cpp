#include "app/ReviewPage.h"

#include "app/Models.h"
#include "base/Saturating.h"
#include "reclaim/PutBack.h"
#include "sweep/Sweep.h"

#include <QHeaderView>
#include <QVBoxLayout>

namespace sd::app {

ReviewPage::ReviewPage(const QString& title, const QString& explanation, const QString& scope,
                       JournalLabels labels, JournalStore& journal, QWidget* parent)
    : QWidget(parent), journal_(journal), labels_(std::move(labels)), policy_(homePolicy()) {
    runner_ = new ReviewRunner(this);
    putBackRunner_ = new PutBackRunner(this);

    QVBoxLayout* layout = pageLayout(this, title, explanation);
    topBar_ = new QHBoxLayout;
    auto* texts = new QVBoxLayout;
    texts->setSpacing(2);
    scope_ = new QLabel(scope);
    scope_->setObjectName(QStringLiteral("muted"));
    scope_->setWordWrap(true);
    summary_ = new QLabel;
    summary_->setWordWrap(true);
    summary_->setStyleSheet(QStringLiteral("font-weight: 600;"));
    texts->addWidget(scope_);
    texts->addWidget(summary_);
    topBar_->addLayout(texts, 1);
    search_ = new QPushButton(QStringLiteral("Search"));
    search_->setProperty("primary", true);
    search_->setMinimumWidth(110);
    topBar_->addWidget(search_, 0, Qt::AlignTop);
    layout->addLayout(topBar_);
    progress_ = new ProgressStrip;
    layout->addWidget(progress_);

    tree_ = new QTreeView;
    tree_->setAlternatingRowColors(true);
    // One line a row: a long note is cut short, its whole sentence in the row's tooltip, marked
    // by an icon.
    tree_->setUniformRowHeights(true);
    tree_->setItemDelegate(new RoomyDelegate(30, tree_));
    tree_->setTextElideMode(Qt::ElideRight);
    tree_->header()->setStretchLastSection(false);
    layout->addWidget(tree_, 1);
    empty_ = new QLabel;
    empty_->setWordWrap(true);
    empty_->setAlignment(Qt::AlignCenter);
    empty_->setObjectName(QStringLiteral("muted"));
    empty_->setMinimumHeight(160);
    layout->addWidget(empty_, 1);
    empty_->setText(QStringLiteral("Search to see what is here. Nothing is selected for you."));

    banner_ = new Banner;
    putBack_ = banner_->addAction(QStringLiteral("Put Back"));
    layout->addWidget(banner_);

    auto* bottom = new QHBoxLayout;
    QLabel* recheck = paragraph(toQ(sweepRecheckText), "muted");
    bottom->addWidget(recheck, 1);
    reveal_ = new QPushButton(revealText());
    move_ = new QPushButton(QStringLiteral("Move to the Trash"));
    move_->setProperty("primary", true);
    bottom->addWidget(reveal_);
    bottom->addWidget(move_);
    layout->addLayout(bottom);

    // Return takes the next step: move what is ticked, else search.
    pressOnReturn(this, [this] { return move_->isEnabled() ? move_ : search_; });
    connect(search_, &QPushButton::clicked, this, &ReviewPage::search);
    connect(move_, &QPushButton::clicked, this, &ReviewPage::moveTicked);
    connect(reveal_, &QPushButton::clicked, this, [this] {
        QString path = tree_->currentIndex().siblingAtColumn(0).data(pathRole).toString();
        if (!path.isEmpty()) {
            showInFiles(path);
        }
    });
    connect(tree_, &QTreeView::doubleClicked, this, [](const QModelIndex& index) {
        QString path = index.siblingAtColumn(0).data(pathRole).toString();
        if (!path.isEmpty()) {
            showInFiles(path);
        }
    });
    connect(progress_, &ProgressStrip::stopRequested, this, [this] {
        runner_->stop();
        putBackRunner_->stop();
    });
    connect(runner_, &ReviewRunner::progressChanged, this, [this] {
        ProgressReading r = runner_->progress();
        progress_->update(r.fraction, r.message);
    });
    connect(runner_, &ReviewRunner::moved, this, &ReviewPage::onMoved);
    connect(runner_, &ReviewRunner::failed, this, [this](const QString& message, bool cancelled) {
        journal_.reload();
        banner_->show(cancelled ? QStringLiteral("Stopped.")
                                : QStringLiteral("The search did not finish."),
                      cancelled ? Banner::Tone::info : Banner::Tone::warning,
                      (cancelled ? QString() : message + QStringLiteral(" ")) +
                          QStringLiteral("Nothing on your disk was changed."));
    });
    connect(runner_, &ReviewRunner::runningChanged, this, &ReviewPage::updateControls);
    connect(putBack_, &QPushButton::clicked, this, [this] {
        if (!lastEntryID_ || !confirm(this, QStringLiteral("Put Back"),
                                      QStringLiteral("Put back what was just moved?"),
                                      QStringLiteral("Put Back"), toQ(putBackConfirmationText))) {
            return;
        }
        banner_->hide();
        putBackRunner_->putBack(*lastEntryID_, std::nullopt);
        progress_->update(-1, QStringLiteral("Putting back"));
    });
    connect(
        putBackRunner_, &PutBackRunner::finished, this, [this](const TrashRestoreResult& result) {
            journal_.reload();
            banner_->show(QString::fromStdString(putBackResultText(result)),
                          result.skipped.empty() && !result.restoredIDs.empty()
                              ? Banner::Tone::success
                              : Banner::Tone::warning,
                          result.skipped.empty()
                              ? QString()
                              : QString::fromStdString(putBackSkippedText(result.skipped.size())));
            if (result.skipped.empty()) {
                lastEntryID_.reset();
            }
            updateControls();
        });
    connect(putBackRunner_, &PutBackRunner::runningChanged, this, &ReviewPage::updateControls);
    tree_->hide();
}

void ReviewPage::attachModel(QAbstractItemModel* model, const Columns& columns) {
    model_ = model;
    columns_ = columns;
    tree_->setModel(model_);
    tree_->header()->setSectionResizeMode(columns_.note, QHeaderView::Stretch);
    for (size_t c = 0; c < columns_.widths.size(); ++c) {
        tree_->setColumnWidth(static_cast<int>(c), columns_.widths[c]);
    }
    tree_->setColumnWidth(columns_.action, 110);
    connect(tree_->selectionModel(), &QItemSelectionModel::currentChanged, this,
            &ReviewPage::updateControls);
    updateControls();
}

void ReviewPage::search() {
    banner_->hide();
    startSearch();
    progress_->update(0, QStringLiteral("Reading your folders"));
}

void ReviewPage::showFound(const std::vector<std::string>& notes, const QString& emptyText,
                           bool anything) {
    summary_->setText(summaryLine());
    QStringList lines;
    for (const std::string& n : notes) {
        lines << QString::fromStdString(n);
    }
    if (!lines.isEmpty()) {
        banner_->show(lines.size() == 1 ? lines.front() : QStringLiteral("About these results"),
                      Banner::Tone::info, lines.size() == 1 ? QString() : lines.join('\n'));
    }
    empty_->setText(emptyText);
    tree_->setVisible(anything);
    empty_->setVisible(!anything);
    updateControls();
}

void ReviewPage::changeState(const std::function<void()>& change) {
    resetModel(change);
    tree_->doItemsLayout();
    addRevealButtons();
}

void ReviewPage::addRevealButtons() {
    // A row that stays where it is offers the one way past it: look, and decide by hand. A group
    // whose every copy stays has one button for all of them.
    std::vector<QModelIndex> rows;
    for (int r = 0; r < model_->rowCount(); ++r) {
        QModelIndex top = model_->index(r, 0);
        rows.push_back(top);
        for (int c = 0; c < model_->rowCount(top); ++c) {
            rows.push_back(model_->index(c, 0, top));
        }
    }
    for (const QModelIndex& row : rows) {
        QStringList paths = row.data(revealRole).toStringList();
        if (paths.isEmpty()) {
            continue;
        }
        auto* button = new QPushButton(revealText());
        button->setProperty("link", true);
        button->setToolTip(row.data(noteRole).toString());
        connect(button, &QPushButton::clicked, button, [paths] { showInFiles(paths); });
        tree_->setIndexWidget(row.siblingAtColumn(columns_.action), button);
    }
}

void ReviewPage::moveTicked() {
    std::vector<std::string> refused;
    std::vector<ReviewedItem> items = tickedItems(refused);
    if (items.empty()) {
        return;
    }
    const std::uint64_t bytes = tickedBytes();
    if (!confirm(this, QStringLiteral("Move to the Trash"),
                 QStringLiteral("Move %1 %2 (%3) to the Trash?")
                     .arg(items.size())
                     .arg(items.size() == 1 ? QStringLiteral("item") : QStringLiteral("items"))
                     .arg(bytesText(bytes)),
                 QStringLiteral("Move to the Trash"),
                 toQ(sweepRecheckText) +
                     QStringLiteral(" You can put them back from here or from Activity."))) {
        return;
    }
    banner_->hide();
    runner_->move(std::move(items), labels_.title, labels_.group);
    progress_->update(0, QStringLiteral("Checking each item before it moves"));
}

std::uint64_t ReviewPage::tickedBytes() const {
    if (model_ == nullptr) {
        return 0;
    }
    std::uint64_t bytes = 0;
    auto add = [&](const QModelIndex& row) {
        if (row.data(Qt::CheckStateRole).value<Qt::CheckState>() == Qt::Checked) {
            bytes = saturatingAdd(bytes,
                                  static_cast<std::uint64_t>(row.data(bytesRole).value<quint64>()));
        }
    };
    for (int r = 0; r < model_->rowCount(); ++r) {
        QModelIndex top = model_->index(r, 0);
        add(top);
        for (int c = 0; c < model_->rowCount(top); ++c) {
            add(model_->index(c, 0, top));
        }
    }
    return bytes;
}

void ReviewPage::onMoved(const ReviewMoveResult& result) {
    journal_.reload();
    lastEntryID_ = result.entryID.empty() ? std::nullopt : std::optional(result.entryID);
    std::uint64_t bytes = 0;
    for (const MovedItem& m : result.outcome.moved) {
        bytes += m.bytes;
    }
    changeState([&] { markMoved(result.outcome.moved); });
    summary_->setText(summaryLine());
    QStringList notes;
    for (const std::string& n : result.outcome.notes) {
        notes << QString::fromStdString(n);
    }
    if (result.outcome.moved.empty()) {
        banner_->show(QStringLiteral("Nothing was moved."), Banner::Tone::warning,
                      notes.join('\n'));
    } else {
        banner_->show(QStringLiteral("Moved %1 %2 (%3) to the Trash.")
                          .arg(result.outcome.moved.size())
                          .arg(result.outcome.moved.size() == 1 ? QStringLiteral("item")
                                                                : QStringLiteral("items"))
                          .arg(bytesText(bytes)),
                      notes.isEmpty() ? Banner::Tone::success : Banner::Tone::warning,
                      notes.join('\n'));
        emit movedToTrash(result.outcome.moved);
    }
    updateControls();
}

void ReviewPage::updateControls() {
    bool busy = runner_->isRunning() || putBackRunner_->isRunning();
    progress_->setRunning(busy);
    search_->setEnabled(!busy);
    search_->setText(hasReport() ? QStringLiteral("Search Again") : QStringLiteral("Search"));
    setOwnControlsEnabled(!busy);
    size_t ticked = tickedCount();
    move_->setEnabled(!busy && ticked > 0);
    // The button names what it moves, as the Sweep's does: the bytes, not a count of rows.
    move_->setText(ticked == 0
                       ? QStringLiteral("Move to the Trash")
                       : QStringLiteral("Move %1 to the Trash").arg(bytesText(tickedBytes())));
    reveal_->setEnabled(!tree_->currentIndex().siblingAtColumn(0).data(pathRole).isNull());
    putBack_->setVisible(lastEntryID_.has_value());
    putBack_->setEnabled(!busy);
}

} // namespace sd::app
