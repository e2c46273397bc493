#include "app/SnapshotsPage.h"

#include "core/ByteFormat.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QVBoxLayout>

namespace sd::app {
namespace {

QString q(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QLabel* wrapped(const QString& text, const char* objectName = nullptr) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    if (objectName != nullptr) {
        label->setObjectName(QString::fromLatin1(objectName));
    }
    return label;
}

QString plural(std::size_t count, const char* one, const char* many) {
    return QString::number(count) + QLatin1Char(' ') + QLatin1String(count == 1 ? one : many);
}

} // namespace

SnapshotsRunner::SnapshotsRunner(std::shared_ptr<const platform::LocalSnapshotTool> tool,
                                 QObject* parent)
    : QObject(parent), tool_(tool ? std::move(tool) : platform::systemSnapshotTool()) {
    connect(&runner_, &TaskRunner::tick, this, &SnapshotsRunner::progressChanged);
    connect(&runner_, &TaskRunner::failed, this, &SnapshotsRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &SnapshotsRunner::runningChanged);
}

void SnapshotsRunner::list() {
    runner_.start<LocalSnapshotListing>(
        [tool = tool_](const std::stop_token& stop) { return tool->list(stop); },
        [this](LocalSnapshotListing& listing) { emit listed(listing); });
}

void SnapshotsRunner::remove(std::vector<LocalSnapshot> listing, SnapshotDeletionConsent consent) {
    progress_ = std::make_shared<OperationProgress>();
    runner_.start<SnapshotDeletionOutcome>(
        [tool = tool_, progress = progress_, listing = std::move(listing),
         consent = std::move(consent)](const std::stop_token& stop) {
            // Stop is read between snapshots: the one being deleted always finishes.
            return deleteSnapshots(*tool, listing, consent, *progress, stop);
        },
        [this](SnapshotDeletionOutcome& outcome) { emit deleted(outcome); });
}

SnapshotsModel::SnapshotsModel(SnapshotReviewSession& session, QObject* parent)
    : QAbstractTableModel(parent), session_(session) {}

int SnapshotsModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(session_.snapshots().size());
}

int SnapshotsModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : columnTotal;
}

QVariant SnapshotsModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount()) {
        return {};
    }
    const LocalSnapshot& snapshot = session_.snapshots()[static_cast<size_t>(index.row())];
    if (role == Qt::CheckStateRole && index.column() == stampColumn &&
        session_.stage() == SnapshotReviewSession::Stage::browsing) {
        return session_.selection().contains(snapshot.stamp) ? Qt::Checked : Qt::Unchecked;
    }
    if (role != Qt::DisplayRole) {
        return {};
    }
    switch (index.column()) {
    case stampColumn:
        return q(snapshot.stamp);
    case dateColumn:
        return snapshot.date ? QDateTime::fromSecsSinceEpoch(static_cast<qint64>(*snapshot.date))
                                   .toString(QStringLiteral("yyyy-MM-dd hh:mm"))
                             : QStringLiteral("—");
    case sizeColumn:
        return snapshot.bytes ? q(formatBytes(*snapshot.bytes)) : QStringLiteral("—");
    case nameColumn:
        return q(snapshot.name);
    default:
        return {};
    }
}

bool SnapshotsModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    if (role != Qt::CheckStateRole || index.column() != stampColumn || index.row() >= rowCount()) {
        return false;
    }
    const std::string& stamp = session_.snapshots()[static_cast<size_t>(index.row())].stamp;
    session_.setSelected(stamp, value.toInt() == Qt::Checked);
    emit dataChanged(index, index, {Qt::CheckStateRole});
    emit selectionChanged();
    return true;
}

Qt::ItemFlags SnapshotsModel::flags(const QModelIndex& index) const {
    Qt::ItemFlags flags = QAbstractTableModel::flags(index);
    if (index.column() == stampColumn &&
        session_.stage() == SnapshotReviewSession::Stage::browsing) {
        flags |= Qt::ItemIsUserCheckable;
    }
    return flags;
}

QVariant SnapshotsModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    switch (section) {
    case stampColumn:
        return QStringLiteral("Snapshot");
    case dateColumn:
        return QStringLiteral("Taken");
    case sizeColumn:
        return QStringLiteral("Size");
    case nameColumn:
        return QStringLiteral("Name");
    default:
        return {};
    }
}

void SnapshotsModel::reset(const std::function<void()>& change) {
    beginResetModel();
    change();
    endResetModel();
}

SnapshotsPage::SnapshotsPage(std::shared_ptr<const platform::LocalSnapshotTool> tool,
                             QWidget* parent)
    : QWidget(parent) {
    runner_ = new SnapshotsRunner(std::move(tool), this);
    session_ = std::make_unique<SnapshotReviewSession>(std::vector<LocalSnapshot>{});
    model_ = new SnapshotsModel(*session_, this);
    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Snapshots"),
        QStringLiteral("Local snapshots of your disk, kept by %1. They can hold a lot of space. "
                       "Snapshots can't go to the Trash: deleting one can't be undone.")
            .arg(q(runner_->tool().toolName())));

    tree_ = new QTreeView;
    tree_->setModel(model_);
    tree_->setRootIsDecorated(false);
    tree_->setAlternatingRowColors(true);
    tree_->setItemDelegate(new RoomyDelegate(30, tree_));
    tree_->header()->setStretchLastSection(true);
    tree_->header()->setSectionResizeMode(SnapshotsModel::stampColumn,
                                          QHeaderView::ResizeToContents);
    layout->addWidget(tree_, 1);
    empty_ = wrapped(QString(), "muted");
    empty_->hide();
    layout->addWidget(empty_);
    summary_ = wrapped(QString(), "muted");
    layout->addWidget(summary_);

    confirmPanel_ = new QWidget;
    auto* confirm = new QVBoxLayout(confirmPanel_);
    confirm->setContentsMargins(0, 0, 0, 0);
    confirmText_ = wrapped(QString());
    confirm->addWidget(confirmText_);
    acknowledge_ =
        new QCheckBox(QStringLiteral("I understand that deleted snapshots can't be brought back"));
    confirm->addWidget(acknowledge_);
    layout->addWidget(confirmPanel_);

    progress_ = new ProgressStrip;
    progress_->stopButton()->setText(QStringLiteral("Stop After This One"));
    layout->addWidget(progress_);
    banner_ = new Banner;
    layout->addWidget(banner_);

    auto* buttons = new QHBoxLayout;
    refresh_ = new QPushButton(QStringLiteral("Look Again"));
    back_ = new QPushButton(QStringLiteral("Back"));
    review_ = new QPushButton(QStringLiteral("Delete Chosen…"));
    delete_ = new QPushButton;
    done_ = new QPushButton(QStringLiteral("Done"));
    buttons->addWidget(refresh_);
    buttons->addStretch(1);
    for (QPushButton* button : {back_, review_, delete_, done_}) {
        buttons->addWidget(button);
    }
    layout->addLayout(buttons);

    connect(refresh_, &QPushButton::clicked, this, &SnapshotsPage::refresh);
    connect(review_, &QPushButton::clicked, this, [this] {
        model_->reset([this] { session_->review(); });
        acknowledge_->setChecked(false);
        updateControls();
    });
    connect(back_, &QPushButton::clicked, this, [this] {
        model_->reset([this] { session_->back(); });
        updateControls();
    });
    connect(acknowledge_, &QCheckBox::toggled, this, [this](bool on) {
        session_->acknowledge(on);
        updateControls();
    });
    connect(delete_, &QPushButton::clicked, this, &SnapshotsPage::startDeleting);
    connect(done_, &QPushButton::clicked, this, [this] {
        model_->reset([this] { session_->dismiss(); });
        banner_->hide();
        updateControls();
    });
    connect(model_, &SnapshotsModel::selectionChanged, this, &SnapshotsPage::updateControls);
    connect(progress_, &ProgressStrip::stopRequested, this, [this] {
        session_->stop();
        runner_->stop();
        updateControls();
    });
    connect(runner_, &SnapshotsRunner::listed, this, &SnapshotsPage::onListed);
    connect(runner_, &SnapshotsRunner::progressChanged, this, &SnapshotsPage::onProgress);
    connect(runner_, &SnapshotsRunner::deleted, this, &SnapshotsPage::onDeleted);
    connect(runner_, &SnapshotsRunner::failed, this, [this](const QString& message, bool) {
        banner_->show(message, Banner::Tone::warning);
        updateControls();
    });
    connect(runner_, &SnapshotsRunner::runningChanged, this, [this] { updateControls(); });
    updateControls();
}

SnapshotsPage::~SnapshotsPage() {
    // The view may still ask the model for rows while the widgets go; the session goes first.
    tree_->setModel(nullptr);
}

void SnapshotsPage::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (!listedOnce_) {
        listedOnce_ = true;
        refresh();
    }
}

void SnapshotsPage::refresh() {
    if (session_->stage() == SnapshotReviewSession::Stage::deleting) {
        return;
    }
    banner_->hide();
    progress_->update(-1, QStringLiteral("Asking %1…").arg(q(runner_->tool().toolName())));
    runner_->list();
    updateControls();
}

void SnapshotsPage::onListed(const LocalSnapshotListing& listing) {
    // A new list starts a new session in the same place, which the model keeps pointing at.
    model_->reset([&] { *session_ = SnapshotReviewSession(listing.snapshots); });
    if (listing.failure) {
        empty_->setText(q(*listing.failure) + QStringLiteral(". Nothing can be chosen."));
    } else if (listing.note) {
        empty_->setText(q(*listing.note));
    } else if (listing.snapshots.empty()) {
        empty_->setText(QStringLiteral("There are no local snapshots."));
    } else {
        empty_->clear();
    }
    updateControls();
}

void SnapshotsPage::startDeleting() {
    std::optional<SnapshotDeletionConsent> consent;
    model_->reset([&] { consent = session_->start(); });
    if (!consent) {
        return;
    }
    banner_->hide();
    progress_->update(0, QStringLiteral("Deleting…"));
    runner_->remove(session_->snapshots(), *consent);
    updateControls();
}

void SnapshotsPage::onProgress() {
    OperationProgress::Reading now = runner_->progress().read();
    for (const OperationProgress::Notice& finished : runner_->progress().takeNotices()) {
        session_->observe(now.currentPath, finished.path, finished.bytes == 1);
    }
    if (session_->stage() != SnapshotReviewSession::Stage::deleting) {
        return;
    }
    session_->observe(now.currentPath, {}, false);
    const double fraction =
        now.total == 0 ? -1 : static_cast<double>(now.done) / static_cast<double>(now.total);
    QString message = now.currentPath ? QStringLiteral("Deleting %1 (%2 of %3)…")
                                            .arg(q(*now.currentPath))
                                            .arg(std::min(now.done + 1, now.total))
                                            .arg(now.total)
                                      : q(now.phase) + QStringLiteral("…");
    if (session_->stopping()) {
        message += QStringLiteral(" Stopping after this one.");
    }
    progress_->update(fraction, message);
}

void SnapshotsPage::onDeleted(const SnapshotDeletionOutcome& outcome) {
    model_->reset([&] { session_->finish(outcome); });
    const bool anyProblem = !outcome.failed.empty() || !outcome.refused.empty();
    QStringList details;
    for (const auto& [stamp, message] : outcome.failed) {
        details << q(stamp) + QStringLiteral(": ") + q(message);
    }
    for (const std::string& stamp : outcome.refused) {
        details << q(stamp) +
                       QStringLiteral(": no longer a current snapshot, so it was not touched");
    }
    banner_->show(q(deletionSummary(outcome, runner_->tool())),
                  outcome.deleted.empty() || anyProblem ? Banner::Tone::warning
                                                        : Banner::Tone::success,
                  details.join(QLatin1Char('\n')));
    updateControls();
}

void SnapshotsPage::updateControls() {
    using Stage = SnapshotReviewSession::Stage;
    const Stage stage = session_->stage();
    const bool busy = runner_->isRunning();
    const size_t chosen = session_->selection().size();
    tree_->setEnabled(stage == Stage::browsing && !busy);
    tree_->setVisible(!session_->snapshots().empty());
    empty_->setVisible(session_->snapshots().empty() && !empty_->text().isEmpty());
    refresh_->setVisible(stage == Stage::browsing);
    refresh_->setEnabled(!busy);
    review_->setVisible(stage == Stage::browsing);
    review_->setEnabled(chosen > 0 && !busy);
    confirmPanel_->setVisible(stage == Stage::confirming);
    back_->setVisible(stage == Stage::confirming);
    delete_->setVisible(stage == Stage::confirming);
    delete_->setEnabled(session_->acknowledged());
    delete_->setText(QStringLiteral("Delete ") + plural(chosen, "Snapshot", "Snapshots"));
    done_->setVisible(stage == Stage::done);
    progress_->setRunning(busy);
    progress_->stopButton()->setVisible(stage == Stage::deleting);
    progress_->stopButton()->setEnabled(!session_->stopping());
    if (stage == Stage::confirming) {
        confirmText_->setText(
            QStringLiteral("Delete %1? Snapshots can't go to the Trash: once deleted, they are "
                           "gone for good. They are deleted one at a time, and the list is read "
                           "again to confirm each is gone.")
                .arg(plural(chosen, "snapshot", "snapshots")));
    }
    if (stage == Stage::browsing) {
        summary_->setText(session_->snapshots().empty()
                              ? QString()
                              : plural(session_->snapshots().size(), "snapshot", "snapshots") +
                                    QStringLiteral(" · %1 chosen").arg(chosen));
    } else if (stage != Stage::deleting) {
        summary_->clear();
    }
}

} // namespace sd::app
