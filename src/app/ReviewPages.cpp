#include "app/ReviewPages.h"

#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "platform/Words.h"

#include <QFileDialog>
#include <QFont>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QVBoxLayout>

namespace sd::app {

namespace {

QString q(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QString fileName(const std::string& path) {
    return QString::fromStdString(path.substr(path.rfind('/') + 1));
}

QString folderOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return homeRelative(slash == 0 ? std::string("/") : path.substr(0, slash));
}

QString kindText(LargeOldKind kind) {
    switch (kind) {
    case LargeOldKind::video:
        return QStringLiteral("Video");
    case LargeOldKind::diskImage:
        return QStringLiteral("Disk image");
    case LargeOldKind::archive:
        return QStringLiteral("Archive");
    case LargeOldKind::other:
        break;
    }
    return {};
}

const QColor deniedInk(0x8a, 0x5a, 0x00);
const QColor keepInk(0x1f, 0x7a, 0x3d);

} // namespace

// ---------------------------------------------------------------------------------------------
// LargeOldModel

LargeOldModel::LargeOldModel(ReviewState<LargeOldReport>& state, QObject* parent)
    : QAbstractTableModel(parent), state_(state) {}

const LargeOldItem* LargeOldModel::itemAt(int row) const {
    if (!state_.report || row < 0 || static_cast<size_t>(row) >= state_.report->items.size()) {
        return nullptr;
    }
    return &state_.report->items[static_cast<size_t>(row)];
}

int LargeOldModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() || !state_.report ? 0 : static_cast<int>(state_.report->items.size());
}

int LargeOldModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : columnCount_;
}

bool LargeOldModel::tickable(const LargeOldItem& item) const {
    return state_.denied.count(item.path) == 0 && state_.moved.count(item.path) == 0;
}

QVariant LargeOldModel::data(const QModelIndex& index, int role) const {
    const LargeOldItem* item = itemAt(index.row());
    if (item == nullptr) {
        return {};
    }
    auto denied = state_.denied.find(item->path);
    bool isDenied = denied != state_.denied.end();
    bool moved = state_.moved.count(item->path) != 0;
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case nameColumn:
            return fileName(item->path);
        case folderColumn:
            return folderOf(item->path);
        case sizeColumn:
            return bytesText(item->physicalBytes);
        case openedColumn:
            return QString::fromStdString(evidenceText(item->evidence));
        case noteColumn:
            if (moved) {
                return QStringLiteral("In the Trash");
            }
            return isDenied ? q(denyText(denied->second, DenyTextForm::compact))
                            : kindText(item->kind);
        default:
            return {};
        }
    case Qt::CheckStateRole:
        if (index.column() != nameColumn || !tickable(*item)) {
            return {};
        }
        return state_.ticked.count(item->path) != 0 ? Qt::Checked : Qt::Unchecked;
    case Qt::ForegroundRole:
        return index.column() == noteColumn && isDenied ? QVariant(deniedInk) : QVariant();
    case Qt::ToolTipRole:
        if (index.column() == noteColumn && isDenied) {
            return q(denyText(denied->second));
        }
        if (index.column() == openedColumn && item->evidence.kind == EvidenceKind::fileTimesOnly) {
            return QStringLiteral("From the file's own dates: nothing recorded when it was "
                                  "opened, so treat this date as approximate.");
        }
        return QString::fromStdString(item->path);
    case Qt::TextAlignmentRole:
        return index.column() == sizeColumn ? QVariant(Qt::AlignRight | Qt::AlignVCenter)
                                            : QVariant();
    case pathRole:
        return QString::fromStdString(item->path);
    case bytesRole:
        return QVariant::fromValue<quint64>(item->physicalBytes);
    case deniedRole:
        return isDenied;
    case noteRole:
        return isDenied ? q(denyText(denied->second)) : QVariant();
    default:
        return {};
    }
}

bool LargeOldModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    const LargeOldItem* item = itemAt(index.row());
    if (item == nullptr || role != Qt::CheckStateRole || !tickable(*item)) {
        return false;
    }
    if (value.value<Qt::CheckState>() == Qt::Checked) {
        state_.ticked.insert(item->path);
    } else {
        state_.ticked.erase(item->path);
    }
    emit dataChanged(index, index, {Qt::CheckStateRole});
    emit tickedChanged();
    return true;
}

Qt::ItemFlags LargeOldModel::flags(const QModelIndex& index) const {
    const LargeOldItem* item = itemAt(index.row());
    if (item == nullptr) {
        return Qt::NoItemFlags;
    }
    Qt::ItemFlags f = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    if (index.column() == nameColumn && tickable(*item)) {
        f |= Qt::ItemIsUserCheckable;
    }
    return f;
}

QVariant LargeOldModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    static const char* const titles[] = {"Name", "Folder", "Size", "Last opened", "Notes", ""};
    return section >= 0 && section < columnCount_ ? QString::fromLatin1(titles[section])
                                                  : QVariant();
}

// ---------------------------------------------------------------------------------------------
// DuplicatesModel

DuplicatesModel::DuplicatesModel(ReviewState<DuplicateReport>& state,
                                 std::shared_ptr<const VaultPolicy> policy, QObject* parent)
    : QAbstractItemModel(parent), state_(state), policy_(std::move(policy)) {}

const DuplicateGroup* DuplicatesModel::groupAt(const QModelIndex& index) const {
    if (!index.isValid() || !state_.report) {
        return nullptr;
    }
    size_t row = index.internalId() == 0 ? static_cast<size_t>(index.row())
                                         : static_cast<size_t>(index.internalId() - 1);
    return row < state_.report->groups.size() ? &state_.report->groups[row] : nullptr;
}

const DuplicateFile* DuplicatesModel::fileAt(const QModelIndex& index) const {
    const DuplicateGroup* group = groupAt(index);
    if (group == nullptr || index.internalId() == 0 ||
        static_cast<size_t>(index.row()) >= group->files.size()) {
        return nullptr;
    }
    return &group->files[static_cast<size_t>(index.row())];
}

QModelIndex DuplicatesModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnCount_ || row >= rowCount(parent)) {
        return {};
    }
    // Groups carry 0; a copy carries its group's row plus one.
    return createIndex(row, column, parent.isValid() ? static_cast<quintptr>(parent.row()) + 1 : 0);
}

QModelIndex DuplicatesModel::parent(const QModelIndex& child) const {
    if (!child.isValid() || child.internalId() == 0) {
        return {};
    }
    return createIndex(static_cast<int>(child.internalId() - 1), 0, quintptr{0});
}

int DuplicatesModel::rowCount(const QModelIndex& parent) const {
    if (!state_.report) {
        return 0;
    }
    if (!parent.isValid()) {
        return static_cast<int>(state_.report->groups.size());
    }
    if (parent.internalId() != 0 || parent.column() != 0) {
        return 0;
    }
    const DuplicateGroup* group = groupAt(parent);
    return group == nullptr ? 0 : static_cast<int>(group->files.size());
}

int DuplicatesModel::columnCount(const QModelIndex&) const {
    return columnCount_;
}

bool DuplicatesModel::tickable(const DuplicateGroup& group, const DuplicateFile& file) const {
    return !isKeep(group, file) && file.sharedWith.empty() && state_.denied.count(file.path) == 0 &&
           state_.moved.count(file.path) == 0;
}

std::uint64_t DuplicatesModel::givesBack(const DuplicateGroup& group) const {
    std::uint64_t bytes = 0;
    for (const DuplicateFile& file : group.files) {
        bytes += tickable(group, file) ? file.physicalBytes : 0;
    }
    return bytes;
}

QVariant DuplicatesModel::data(const QModelIndex& index, int role) const {
    const DuplicateGroup* group = groupAt(index);
    if (group == nullptr) {
        return {};
    }
    const DuplicateFile* file = fileAt(index);
    if (file == nullptr) {
        std::uint64_t reclaimable = givesBack(*group);
        switch (role) {
        case Qt::DisplayRole:
            switch (index.column()) {
            case nameColumn:
                return QStringLiteral("%1 — %2 copies")
                    .arg(fileName(group->suggestedKeep))
                    .arg(group->files.size());
            case sizeColumn:
                return bytesText(group->size) + QStringLiteral(" each");
            case noteColumn:
                return reclaimable == 0
                           ? QStringLiteral("Nothing to give back")
                           : QStringLiteral("%1 to give back").arg(bytesText(reclaimable));
            default:
                return {};
            }
        case Qt::FontRole: {
            QFont bold;
            bold.setWeight(QFont::DemiBold);
            return bold;
        }
        case bytesRole:
            return QVariant::fromValue<quint64>(reclaimable);
        default:
            return {};
        }
    }
    bool keep = isKeep(*group, *file);
    auto denied = state_.denied.find(file->path);
    bool isDenied = denied != state_.denied.end() && !keep;
    bool moved = state_.moved.count(file->path) != 0;
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case nameColumn:
            return (keep ? QStringLiteral("Keep · ") : QString()) + fileName(file->path);
        case folderColumn:
            return folderOf(file->path);
        case sizeColumn:
            return bytesText(file->physicalBytes);
        case noteColumn: {
            if (moved) {
                return QStringLiteral("In the Trash");
            }
            if (isDenied) {
                return q(denyText(denied->second, DenyTextForm::compact));
            }
            return QString::fromStdString(duplicateFileNote(*group, *file, *policy_));
        }
        default:
            return {};
        }
    case Qt::CheckStateRole:
        if (index.column() != nameColumn || !tickable(*group, *file)) {
            return {};
        }
        return state_.ticked.count(file->path) != 0 ? Qt::Checked : Qt::Unchecked;
    case Qt::ForegroundRole:
        if (keep) {
            return keepInk;
        }
        return index.column() == noteColumn && isDenied ? QVariant(deniedInk) : QVariant();
    case Qt::FontRole:
        if (keep && index.column() == nameColumn) {
            QFont bold;
            bold.setWeight(QFont::DemiBold);
            return bold;
        }
        return {};
    case Qt::ToolTipRole:
        if (keep) {
            return q(duplicateText::keepLabel);
        }
        if (isDenied) {
            return q(denyText(denied->second));
        }
        return QString::fromStdString(file->path);
    case Qt::TextAlignmentRole:
        return index.column() == sizeColumn ? QVariant(Qt::AlignRight | Qt::AlignVCenter)
                                            : QVariant();
    case pathRole:
        return QString::fromStdString(file->path);
    case bytesRole:
        return QVariant::fromValue<quint64>(file->physicalBytes);
    case deniedRole:
        return isDenied;
    case noteRole:
        return isDenied ? q(denyText(denied->second)) : QVariant();
    default:
        return {};
    }
}

bool DuplicatesModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    const DuplicateGroup* group = groupAt(index);
    const DuplicateFile* file = fileAt(index);
    if (file == nullptr || role != Qt::CheckStateRole || !tickable(*group, *file)) {
        return false;
    }
    if (value.value<Qt::CheckState>() == Qt::Checked) {
        state_.ticked.insert(file->path);
    } else {
        state_.ticked.erase(file->path);
    }
    emit dataChanged(index, index, {Qt::CheckStateRole});
    emit tickedChanged();
    return true;
}

Qt::ItemFlags DuplicatesModel::flags(const QModelIndex& index) const {
    const DuplicateGroup* group = groupAt(index);
    if (group == nullptr) {
        return Qt::NoItemFlags;
    }
    Qt::ItemFlags f = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    const DuplicateFile* file = fileAt(index);
    if (file != nullptr && index.column() == nameColumn && tickable(*group, *file)) {
        f |= Qt::ItemIsUserCheckable;
    }
    return f;
}

QVariant DuplicatesModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    static const char* const titles[] = {"Name", "Folder", "Size", "Notes", ""};
    return section >= 0 && section < columnCount_ ? QString::fromLatin1(titles[section])
                                                  : QVariant();
}

// ---------------------------------------------------------------------------------------------
// ReviewPage

ReviewPage::ReviewPage(Kind kind, JournalStore& journal, QWidget* parent)
    : QWidget(parent), kind_(kind), journal_(journal), policy_(homePolicy()),
      duplicateRoot_(homeDirectory()) {
    runner_ = new ReviewRunner(this);
    putBackRunner_ = new PutBackRunner(this);
    bool large = kind_ == Kind::largeOld;
    if (large) {
        auto* model = new LargeOldModel(largeOld_, this);
        connect(model, &LargeOldModel::tickedChanged, this, &ReviewPage::updateControls);
        model_ = model;
    } else {
        auto* model = new DuplicatesModel(duplicates_, policy_, this);
        connect(model, &DuplicatesModel::tickedChanged, this, &ReviewPage::updateControls);
        model_ = model;
    }

    QVBoxLayout* layout = pageLayout(
        this, large ? QStringLiteral("Large & old files") : QStringLiteral("Duplicates"),
        large ? QString::fromStdString(largeOldDescription()) : q(duplicateText::description));
    auto* top = new QHBoxLayout;
    auto* texts = new QVBoxLayout;
    texts->setSpacing(2);
    scope_ = new QLabel(large ? q(platform::largeOldScopeText()) : q(duplicateText::scope));
    scope_->setObjectName(QStringLiteral("muted"));
    scope_->setWordWrap(true);
    summary_ = new QLabel;
    summary_->setWordWrap(true);
    summary_->setStyleSheet(QStringLiteral("font-weight: 600;"));
    texts->addWidget(scope_);
    texts->addWidget(summary_);
    top->addLayout(texts, 1);
    if (!large) {
        choose_ = new QPushButton(QStringLiteral("Choose Folder…"));
        top->addWidget(choose_, 0, Qt::AlignTop);
        connect(choose_, &QPushButton::clicked, this, [this] {
            QString folder =
                QFileDialog::getExistingDirectory(this, QStringLiteral("Look for duplicates in"),
                                                  QString::fromStdString(duplicateRoot_));
            if (!folder.isEmpty()) {
                setDuplicateRoot(folder.toStdString());
                search();
            }
        });
    }
    search_ = new QPushButton(QStringLiteral("Search"));
    search_->setProperty("primary", true);
    search_->setMinimumWidth(110);
    top->addWidget(search_, 0, Qt::AlignTop);
    layout->addLayout(top);
    progress_ = new ProgressStrip;
    layout->addWidget(progress_);

    tree_ = new QTreeView;
    tree_->setModel(model_);
    tree_->setAlternatingRowColors(true);
    // Rows grow to show a whole deny sentence rather than cutting it.
    tree_->setUniformRowHeights(false);
    tree_->setRootIsDecorated(!large);
    tree_->setItemDelegate(new RoomyDelegate(30, tree_));
    tree_->setTextElideMode(Qt::ElideRight);
    tree_->header()->setStretchLastSection(false);
    int note = large ? int{LargeOldModel::noteColumn} : int{DuplicatesModel::noteColumn};
    tree_->header()->setSectionResizeMode(note, QHeaderView::Stretch);
    tree_->setItemDelegateForColumn(note, new WrappingDelegate(tree_, 30));
    tree_->setColumnWidth(0, large ? 210 : 240);
    tree_->setColumnWidth(1, large ? 140 : 180);
    tree_->setColumnWidth(2, large ? 90 : 110);
    // Row heights depend on the note column's width, which the window decides.
    connect(tree_->header(), &QHeaderView::sectionResized, tree_, [this] {
        QMetaObject::invokeMethod(tree_, &QTreeView::doItemsLayout, Qt::QueuedConnection);
    });
    if (large) {
        tree_->setColumnWidth(LargeOldModel::openedColumn, 215);
    }
    tree_->setColumnWidth(
        large ? int{LargeOldModel::actionColumn} : int{DuplicatesModel::actionColumn}, 110);
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
    auto* recheck = new QLabel(q(sweepRecheckText));
    recheck->setObjectName(QStringLiteral("muted"));
    bottom->addWidget(recheck, 1);
    reveal_ = new QPushButton(revealText());
    move_ = new QPushButton(QStringLiteral("Move to the Trash"));
    move_->setProperty("primary", true);
    bottom->addWidget(reveal_);
    bottom->addWidget(move_);
    layout->addLayout(bottom);

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
    connect(tree_->selectionModel(), &QItemSelectionModel::currentChanged, this,
            &ReviewPage::updateControls);
    connect(progress_, &ProgressStrip::stopRequested, this, [this] {
        runner_->stop();
        putBackRunner_->stop();
    });
    connect(runner_, &ReviewRunner::progressChanged, this, [this] {
        ProgressReading r = runner_->progress();
        progress_->update(r.fraction, r.message);
    });
    connect(runner_, &ReviewRunner::largeOldFound, this, &ReviewPage::onLargeOld);
    connect(runner_, &ReviewRunner::duplicatesFound, this, &ReviewPage::onDuplicates);
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
                                      QStringLiteral("Put Back"), q(putBackConfirmationText))) {
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
    updateControls();
}

void ReviewPage::setDuplicateRoot(std::string root) {
    duplicateRoot_ = std::move(root);
    scope_->setText(duplicateRoot_ == homeDirectory()
                        ? q(duplicateText::scope)
                        : QStringLiteral("Looked in %1.").arg(homeRelative(duplicateRoot_)));
}

void ReviewPage::search() {
    banner_->hide();
    if (kind_ == Kind::largeOld) {
        runner_->findLargeOld(largeOldOptions_);
    } else {
        runner_->findDuplicates(duplicateRoot_);
    }
    progress_->update(0, QStringLiteral("Reading your folders"));
}

void ReviewPage::onLargeOld(const LargeOldFound& found) {
    changeState([&] {
        largeOld_ = {};
        largeOld_.report = found.report;
        largeOld_.denied = found.denied;
    });
    const LargeOldReport& report = *largeOld_.report;
    std::uint64_t total = 0;
    for (const LargeOldItem& item : report.items) {
        total += item.physicalBytes;
    }
    QStringList lines;
    if (!report.items.empty()) {
        lines << QStringLiteral("%1 %2 · %3. Nothing is selected.")
                     .arg(report.items.size())
                     .arg(report.items.size() == 1 ? QStringLiteral("item")
                                                   : QStringLiteral("items"))
                     .arg(bytesText(total));
    }
    summary_->setText(lines.join('\n'));
    QStringList notes;
    for (const std::string& n : largeOldReportNotes(report, *policy_)) {
        notes << QString::fromStdString(n);
    }
    if (!notes.isEmpty()) {
        banner_->show(notes.size() == 1 ? notes.front() : QStringLiteral("About these results"),
                      Banner::Tone::info, notes.size() == 1 ? QString() : notes.join('\n'));
    }
    empty_->setText(QString::fromStdString(largeOldNothingFound(largeOldOptions_)) + "\n" +
                    QString::fromStdString(largeOldNothingFoundDetail(largeOldOptions_)));
    tree_->setVisible(!report.items.empty());
    empty_->setVisible(report.items.empty());
    updateControls();
}

void ReviewPage::onDuplicates(const DuplicatesFound& found) {
    changeState([&] {
        duplicates_ = {};
        duplicates_.report = found.report;
        duplicates_.denied = found.denied;
    });
    const DuplicateReport& report = *duplicates_.report;
    std::uint64_t total = 0;
    for (const DuplicateGroup& group : report.groups) {
        total += static_cast<DuplicatesModel*>(model_)->givesBack(group);
    }
    summary_->setText(report.groups.empty()
                          ? QString()
                          : QStringLiteral("%1 %2 · %3 could be given back. Nothing is selected: "
                                           "the copy marked Keep (%4) always stays.")
                                .arg(report.groups.size())
                                .arg(report.groups.size() == 1 ? QStringLiteral("group")
                                                               : QStringLiteral("groups"))
                                .arg(bytesText(total), q(duplicateText::keepLabel)));
    QStringList notes;
    for (const std::string& n : duplicateReportNotes(report)) {
        notes << QString::fromStdString(n);
    }
    if (!notes.isEmpty()) {
        banner_->show(notes.size() == 1 ? notes.front() : QStringLiteral("About these results"),
                      Banner::Tone::info, notes.size() == 1 ? QString() : notes.join('\n'));
    }
    empty_->setText(q(duplicateText::noGroups) + "\n" + q(duplicateText::noGroupsDetail));
    tree_->setVisible(!report.groups.empty());
    empty_->setVisible(report.groups.empty());
    updateControls();
}

void ReviewPage::changeState(const std::function<void()>& change) {
    if (kind_ == Kind::largeOld) {
        auto* model = static_cast<LargeOldModel*>(model_);
        model->beginChange();
        change();
        model->endChange();
    } else {
        auto* model = static_cast<DuplicatesModel*>(model_);
        model->beginChange();
        change();
        model->endChange();
        tree_->expandAll();
    }
    tree_->doItemsLayout();
    addRevealButtons();
}

void ReviewPage::addRevealButtons() {
    // A row the vault keeps in place offers the one way past it: look, and decide by hand.
    int action = kind_ == Kind::largeOld ? int{LargeOldModel::actionColumn}
                                         : int{DuplicatesModel::actionColumn};
    std::vector<QModelIndex> rows;
    for (int r = 0; r < model_->rowCount(); ++r) {
        QModelIndex top = model_->index(r, 0);
        rows.push_back(top);
        for (int c = 0; c < model_->rowCount(top); ++c) {
            rows.push_back(model_->index(c, 0, top));
        }
    }
    for (const QModelIndex& row : rows) {
        if (!row.data(deniedRole).toBool()) {
            continue;
        }
        auto* button = new QPushButton(revealText());
        button->setProperty("link", true);
        button->setToolTip(row.data(noteRole).toString());
        QString path = row.data(pathRole).toString();
        connect(button, &QPushButton::clicked, button, [path] { showInFiles(path); });
        tree_->setIndexWidget(row.siblingAtColumn(action), button);
    }
}

std::vector<ReviewedItem> ReviewPage::tickedItems(std::vector<std::string>& refused) const {
    std::vector<ReviewedItem> items;
    if (kind_ == Kind::largeOld) {
        for (const LargeOldItem& item : largeOld_.report->items) {
            if (largeOld_.ticked.count(item.path) != 0) {
                items.push_back(reviewedItemOf(item));
            }
        }
        return items;
    }
    for (const DuplicateGroup& group : duplicates_.report->groups) {
        std::vector<std::string> ticked;
        for (const DuplicateFile& file : group.files) {
            if (duplicates_.ticked.count(file.path) != 0) {
                ticked.push_back(file.path);
            }
        }
        std::vector<ReviewedItem> copies = duplicateCopiesToMove(group, ticked, refused);
        items.insert(items.end(), copies.begin(), copies.end());
    }
    return items;
}

void ReviewPage::moveTicked() {
    std::vector<std::string> refused;
    std::vector<ReviewedItem> items = tickedItems(refused);
    if (items.empty()) {
        return;
    }
    std::uint64_t bytes = 0;
    for (int r = 0; r < model_->rowCount(); ++r) {
        QModelIndex top = model_->index(r, 0);
        auto add = [&](const QModelIndex& row) {
            if (row.data(Qt::CheckStateRole).value<Qt::CheckState>() == Qt::Checked) {
                bytes += row.data(bytesRole).value<quint64>();
            }
        };
        add(top);
        for (int c = 0; c < model_->rowCount(top); ++c) {
            add(model_->index(c, 0, top));
        }
    }
    if (!confirm(this, QStringLiteral("Move to the Trash"),
                 QStringLiteral("Move %1 %2 (%3) to the Trash?")
                     .arg(items.size())
                     .arg(items.size() == 1 ? QStringLiteral("item") : QStringLiteral("items"))
                     .arg(bytesText(bytes)),
                 QStringLiteral("Move to the Trash"),
                 q(sweepRecheckText) +
                     QStringLiteral(" You can put them back from here or from Activity."))) {
        return;
    }
    banner_->hide();
    runner_->move(std::move(items),
                  kind_ == Kind::largeOld ? "Large & old files" : "Duplicate copies",
                  kind_ == Kind::largeOld ? "largeOld" : "duplicates");
    progress_->update(0, QStringLiteral("Checking each item before it moves"));
}

void ReviewPage::onMoved(const ReviewMoveResult& result) {
    journal_.reload();
    lastEntryID_ = result.entryID.empty() ? std::nullopt : std::optional(result.entryID);
    std::uint64_t bytes = 0;
    changeState([&] {
        auto& moved = kind_ == Kind::largeOld ? largeOld_.moved : duplicates_.moved;
        auto& ticked = kind_ == Kind::largeOld ? largeOld_.ticked : duplicates_.ticked;
        for (const MovedItem& m : result.outcome.moved) {
            moved.insert(m.originalPath);
            bytes += m.bytes;
        }
        ticked.clear();
    });
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
    bool searched =
        kind_ == Kind::largeOld ? largeOld_.report.has_value() : duplicates_.report.has_value();
    search_->setText(searched ? QStringLiteral("Search Again") : QStringLiteral("Search"));
    if (choose_ != nullptr) {
        choose_->setEnabled(!busy);
    }
    size_t ticked = kind_ == Kind::largeOld ? largeOld_.ticked.size() : duplicates_.ticked.size();
    move_->setEnabled(!busy && ticked > 0);
    move_->setText(ticked == 0 ? QStringLiteral("Move to the Trash")
                               : QStringLiteral("Move %1 to the Trash").arg(ticked));
    reveal_->setEnabled(!tree_->currentIndex().siblingAtColumn(0).data(pathRole).isNull());
    putBack_->setVisible(lastEntryID_.has_value());
    putBack_->setEnabled(!busy);
}

} // namespace sd::app
