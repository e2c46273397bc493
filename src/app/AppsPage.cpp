#include "app/AppsPage.h"

#include "app/Models.h"
#include "platform/Words.h"
#include "reclaim/ReclaimJournal.h"
#include "reclaim/VaultService.h"

#include <QClipboard>
#include <QDateTime>
#include <QDialogButtonBox>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QIcon>
#include <QVBoxLayout>
#include <ctime>

namespace sd::app {
namespace {

QIcon appIcon(const std::string& icon) {
    QIcon fallback = QIcon::fromTheme(QStringLiteral("application-x-executable"));
    if (icon.empty()) {
        return fallback;
    }
    if (icon.front() == '/') {
        QIcon file(toQ(icon));
        return file.isNull() ? fallback : file;
    }
    return QIcon::fromTheme(toQ(icon), fallback);
}

// How the source reads in a list, in the words people know these by.
QString sourceText(platform::AppSource source) {
    switch (source) {
    case platform::AppSource::deb:
        return QStringLiteral("Debian package");
    case platform::AppSource::flatpak:
        return QStringLiteral("Flatpak");
    case platform::AppSource::snap:
        return QStringLiteral("Snap");
    case platform::AppSource::appImage:
        return QStringLiteral("AppImage");
    case platform::AppSource::local:
        return QStringLiteral("Installed by you");
    case platform::AppSource::bundle:
        return QStringLiteral("App");
    }
    return {};
}

QString phaseText(const QString& phase) {
    if (phase == QLatin1String("readingApps")) {
        return QStringLiteral("Reading your apps…");
    }
    if (phase == QLatin1String("measuringApps")) {
        return QStringLiteral("Measuring each app and the data it keeps…");
    }
    return phase.isEmpty() ? QStringLiteral("Working…") : phase + QStringLiteral("…");
}

QString countText(size_t count, const char* one, const char* many) {
    return QString::number(count) + QLatin1Char(' ') + QLatin1String(count == 1 ? one : many);
}

} // namespace

AppsRunner::AppsRunner(std::optional<platform::AppSearchRoots> roots, QObject* parent)
    : QObject(parent), roots_(std::move(roots)) {
    connect(&runner_, &TaskRunner::tick, this, &AppsRunner::progressChanged);
    connect(&runner_, &TaskRunner::failed, this, &AppsRunner::failed);
    connect(&runner_, &TaskRunner::runningChanged, this, &AppsRunner::runningChanged);
}

void AppsRunner::list() {
    progress_ = std::make_shared<OperationProgress>();
    runner_.start<AppListing>(
        [roots = roots_, progress = progress_](const std::stop_token& stop) {
            return listApps(roots ? *roots : platform::standardAppRoots(), DataLookup::measure,
                            stop, progress.get());
        },
        [this](AppListing& listing) { emit listed(listing); });
}

void AppsRunner::uninstall(platform::InstalledApp app, std::vector<Leftover> data) {
    progress_ = std::make_shared<OperationProgress>();
    progress_->setPhase("Checking each item before it moves");
    runner_.start<UninstallDone>(
        [app = std::move(app), data = std::move(data)](const std::stop_token& stop) {
            VaultService vault = VaultService::standard(homePolicy());
            ReclaimJournal journal = ReclaimJournal::standard();
            journal.load();
            return UninstallDone{app.name, uninstallApp(app, data, vault, journal, {}, stop)};
        },
        [this](UninstallDone& done) { emit uninstalled(done); });
}

AppsModel::AppsModel(QObject* parent) : QAbstractTableModel(parent) {}

void AppsModel::setListing(AppListing listing) {
    beginResetModel();
    listing_ = std::move(listing);
    rows_ = orderedApps(listing_, order_);
    endResetModel();
}

void AppsModel::setOrder(AppOrder order) {
    beginResetModel();
    order_ = order;
    rows_ = orderedApps(listing_, order_);
    endResetModel();
}

const AppListEntry* AppsModel::entryAt(int row) const {
    return row >= 0 && row < rowCount() ? rows_[static_cast<size_t>(row)] : nullptr;
}

int AppsModel::rowOf(const std::string& id) const {
    for (size_t row = 0; row < rows_.size(); ++row) {
        if (rows_[row]->app.id == id) {
            return static_cast<int>(row);
        }
    }
    return -1;
}

int AppsModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

int AppsModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : columnTotal;
}

QVariant AppsModel::data(const QModelIndex& index, int role) const {
    const AppListEntry* entry = index.isValid() ? entryAt(index.row()) : nullptr;
    if (entry == nullptr) {
        return {};
    }
    const platform::InstalledApp& app = entry->app;
    const int column = index.column();
    if (role == Qt::TextAlignmentRole) {
        return columnAlignment(column == appColumn || column == dataColumn || column == usedColumn);
    }
    if (role == Qt::DecorationRole && column == nameColumn) {
        return appIcon(app.icon);
    }
    if (role == Qt::ToolTipRole) {
        switch (column) {
        case nameColumn:
            return toQ(std::string(platform::appIdName()) + ": " + app.id);
        case appColumn:
            return toQ(appSizeNote(*entry));
        case usedColumn:
            return toQ(lastUsedText(app, static_cast<double>(std::time(nullptr))));
        default:
            return {};
        }
    }
    if (role != Qt::DisplayRole) {
        return {};
    }
    switch (column) {
    case nameColumn:
        return toQ(app.name);
    case sourceColumn:
        return sourceText(app.source);
    case versionColumn:
        return app.version.empty() ? QStringLiteral("—") : toQ(app.version);
    case appColumn:
        return bytesText(entry->appBytes);
    case dataColumn:
        return entry->data.empty() ? QStringLiteral("—") : bytesText(entry->dataBytes);
    case usedColumn:
        return app.lastUsed ? QDateTime::fromSecsSinceEpoch(static_cast<qint64>(*app.lastUsed))
                                  .toString(QStringLiteral("yyyy-MM-dd"))
                            : QStringLiteral("—");
    default:
        return {};
    }
}

QVariant AppsModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal) {
        return {};
    }
    if (role == Qt::TextAlignmentRole) {
        return columnAlignment(section == appColumn || section == dataColumn ||
                               section == usedColumn);
    }
    if (role != Qt::DisplayRole) {
        return {};
    }
    switch (section) {
    case nameColumn:
        return QStringLiteral("App");
    case sourceColumn:
        return QStringLiteral("Source");
    case versionColumn:
        return QStringLiteral("Version");
    case appColumn:
        return QStringLiteral("App size");
    case dataColumn:
        return QStringLiteral("Data");
    case usedColumn:
        return QStringLiteral("Last used");
    default:
        return {};
    }
}

UninstallSheet::UninstallSheet(const UninstallPreview& preview, const QString& appName,
                               QWidget* parent)
    : QDialog(parent) {
    setWindowTitle(QStringLiteral("Uninstall %1").arg(appName));
    setModal(true);
    setMinimumWidth(460);
    auto* layout = new QVBoxLayout(this);
    question_ = paragraph(preview.question.empty() ? QStringLiteral("Nothing would move.")
                                                   : toQ(preview.question));
    QFont font = question_->font();
    font.setWeight(QFont::DemiBold);
    question_->setFont(font);
    layout->addWidget(question_);
    appNote_ = paragraph(toQ(preview.appNote));
    layout->addWidget(appNote_);
    if (!preview.removalCommand.empty()) {
        auto* row = new QHBoxLayout;
        command_ = new QLineEdit(toQ(preview.removalCommand));
        command_->setReadOnly(true);
        command_->setMinimumWidth(320);
        copy_ = new QPushButton(QStringLiteral("Copy"));
        row->addWidget(command_, 1);
        row->addWidget(copy_);
        layout->addLayout(row);
        connect(copy_, &QPushButton::clicked, this, [this] {
            QGuiApplication::clipboard()->setText(command_->text());
            copy_->setText(QStringLiteral("Copied"));
        });
    }
    QStringList lines;
    for (const std::string& line : moveListingLines(preview.moves)) {
        lines << toQ(line);
    }
    listing_ = paragraph(lines.join(QLatin1Char('\n')), "muted");
    listing_->setVisible(!lines.isEmpty());
    layout->addWidget(listing_);
    layout->addWidget(paragraph(QStringLiteral("Each item is checked again right before it moves, "
                                               "and everything can be put back from Activity."),
                                "muted"));
    auto* buttons = new QDialogButtonBox;
    move_ = buttons->addButton(QStringLiteral("Move to the Trash"), QDialogButtonBox::AcceptRole);
    move_->setProperty("primary", true);
    move_->setEnabled(!preview.moves.empty());
    QPushButton* cancel = buttons->addButton(QDialogButtonBox::Cancel);
    if (preview.moves.empty()) {
        cancel->setText(QStringLiteral("Close"));
        cancel->setDefault(true);
    } else {
        move_->setDefault(true);
    }
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
}

QString UninstallSheet::text() const {
    QStringList parts{question_->text(), appNote_->text()};
    if (command_ != nullptr) {
        parts << command_->text();
    }
    parts << listing_->text();
    return parts.join(QLatin1Char('\n'));
}

AppsPage::AppsPage(JournalStore& journal, std::optional<platform::AppSearchRoots> roots,
                   QWidget* parent)
    : QWidget(parent), journal_(journal) {
    runner_ = new AppsRunner(std::move(roots), this);
    putBackRunner_ = new PutBackRunner(this);
    model_ = new AppsModel(this);
    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Apps"),
        QStringLiteral("The apps installed for you, each with its own size and the data it keeps "
                       "in your home. Apps you installed yourself can go to the Trash with their "
                       "data; a package manager's apps are removed with its own command."));

    auto* top = new QHBoxLayout;
    top->addWidget(new QLabel(QStringLiteral("Sort by")));
    order_ = new QComboBox;
    order_->addItem(QStringLiteral("Size"), static_cast<int>(AppOrder::size));
    order_->addItem(QStringLiteral("Last used"), static_cast<int>(AppOrder::used));
    order_->addItem(QStringLiteral("Name"), static_cast<int>(AppOrder::name));
    top->addWidget(order_);
    top->addStretch(1);
    list_ = new QPushButton(QStringLiteral("Look Again"));
    top->addWidget(list_);
    layout->addLayout(top);

    apps_ = new QTreeView;
    apps_->setModel(model_);
    apps_->setRootIsDecorated(false);
    apps_->setAlternatingRowColors(true);
    apps_->setUniformRowHeights(true);
    apps_->setItemDelegate(new RoomyDelegate(30, apps_));
    apps_->setTextElideMode(Qt::ElideRight);
    apps_->setMinimumHeight(200);
    apps_->header()->setStretchLastSection(false);
    apps_->header()->setSectionResizeMode(AppsModel::nameColumn, QHeaderView::Stretch);
    for (auto [column, width] : {std::pair{AppsModel::sourceColumn, 120},
                                 {AppsModel::versionColumn, 100},
                                 {AppsModel::appColumn, 90},
                                 {AppsModel::dataColumn, 90},
                                 {AppsModel::usedColumn, 100}}) {
        apps_->setColumnWidth(column, width);
    }
    layout->addWidget(apps_, 2);
    summary_ = paragraph(QString(), "muted");
    layout->addWidget(summary_);

    layout->addWidget(sectionLabel(QStringLiteral("Where it keeps data")));
    detailTitle_ = new QLabel;
    QFont titleFont = detailTitle_->font();
    titleFont.setWeight(QFont::DemiBold);
    detailTitle_->setFont(titleFont);
    layout->addWidget(detailTitle_);
    detailFacts_ = paragraph(QString(), "muted");
    layout->addWidget(detailFacts_);
    places_ = new QTreeWidget;
    places_->setColumnCount(3);
    places_->setHeaderLabels(
        {QStringLiteral("Place"), QStringLiteral("Size"), QStringLiteral("What it is")});
    places_->headerItem()->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
    places_->setRootIsDecorated(false);
    places_->setUniformRowHeights(true);
    places_->setItemDelegate(new RoomyDelegate(28, places_));
    places_->setTextElideMode(Qt::ElideMiddle);
    places_->setMinimumHeight(120);
    places_->setColumnWidth(0, 300);
    places_->setColumnWidth(1, 90);
    layout->addWidget(places_, 1);

    progress_ = new ProgressStrip;
    layout->addWidget(progress_);
    banner_ = new Banner;
    putBack_ = banner_->addAction(QStringLiteral("Put Back"));
    layout->addWidget(banner_);

    auto* bottom = new QHBoxLayout;
    reveal_ = new QPushButton(revealText());
    uninstall_ = new QPushButton(QStringLiteral("Uninstall…"));
    uninstall_->setProperty("primary", true);
    bottom->addWidget(reveal_);
    bottom->addStretch(1);
    bottom->addWidget(uninstall_);
    layout->addLayout(bottom);

    pressOnReturn(this, [this] { return uninstall_->isEnabled() ? uninstall_ : list_; });
    connect(list_, &QPushButton::clicked, this, &AppsPage::refresh);
    connect(order_, &QComboBox::currentIndexChanged, this, [this] {
        const AppListEntry* chosen = chosenApp();
        std::string id = chosen != nullptr ? chosen->app.id : std::string();
        model_->setOrder(static_cast<AppOrder>(order_->currentData().toInt()));
        selectApp(id);
    });
    connect(apps_->selectionModel(), &QItemSelectionModel::currentRowChanged, this,
            &AppsPage::showDetail);
    connect(places_, &QTreeWidget::itemChanged, this, &AppsPage::updateControls);
    connect(places_, &QTreeWidget::currentItemChanged, this, &AppsPage::updateControls);
    connect(places_, &QTreeWidget::itemDoubleClicked, this, [](QTreeWidgetItem* item) {
        if (QString path = item->data(0, pathRole).toString(); !path.isEmpty()) {
            showInFiles(path);
        }
    });
    connect(reveal_, &QPushButton::clicked, this, [this] {
        QTreeWidgetItem* item = places_->currentItem();
        QString path = item != nullptr ? item->data(0, pathRole).toString() : QString();
        if (path.isEmpty()) {
            if (const AppListEntry* chosen = chosenApp(); chosen != nullptr) {
                path = toQ(chosen->app.location.empty() ? chosen->app.entry : chosen->app.location);
            }
        }
        if (!path.isEmpty()) {
            showInFiles(path);
        }
    });
    connect(uninstall_, &QPushButton::clicked, this, &AppsPage::askToUninstall);
    connect(progress_, &ProgressStrip::stopRequested, this, [this] {
        runner_->stop();
        putBackRunner_->stop();
    });
    connect(runner_, &AppsRunner::progressChanged, this, [this] {
        ProgressReading r = runner_->progress();
        progress_->update(r.fraction > 0 ? r.fraction : -1, phaseText(r.message));
    });
    connect(runner_, &AppsRunner::listed, this, &AppsPage::onListed);
    connect(runner_, &AppsRunner::uninstalled, this, &AppsPage::onUninstalled);
    connect(runner_, &AppsRunner::failed, this, [this](const QString& message, bool cancelled) {
        journal_.reload();
        QString detail = uninstalling_
                             ? QStringLiteral("What had moved already can go back from Activity.")
                             : QStringLiteral("Nothing on your disk was changed.");
        uninstalling_ = false;
        banner_->show(cancelled ? QStringLiteral("Stopped.") : message, Banner::Tone::warning,
                      detail);
        updateControls();
    });
    connect(runner_, &AppsRunner::runningChanged, this, &AppsPage::updateControls);
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
            banner_->show(toQ(putBackResultText(result)),
                          result.skipped.empty() ? Banner::Tone::success : Banner::Tone::warning,
                          result.skipped.empty() ? QString()
                                                 : toQ(putBackSkippedText(result.skipped.size())));
            if (result.skipped.empty()) {
                lastEntryID_.reset();
            }
            refresh();
        });
    connect(putBackRunner_, &PutBackRunner::failed, this, [this](const QString& message, bool) {
        banner_->show(message, Banner::Tone::warning);
        updateControls();
    });
    connect(putBackRunner_, &PutBackRunner::runningChanged, this, &AppsPage::updateControls);
    showDetail();
    updateControls();
}

void AppsPage::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (!listedOnce_) {
        listedOnce_ = true;
        refresh();
    }
}

void AppsPage::refresh() {
    if (runner_->isRunning() || putBackRunner_->isRunning()) {
        return;
    }
    listedOnce_ = true;
    progress_->update(-1, phaseText(QStringLiteral("readingApps")));
    runner_->list();
    updateControls();
}

const AppListEntry* AppsPage::chosenApp() const {
    QModelIndex current = apps_->currentIndex();
    return current.isValid() ? model_->entryAt(current.row()) : nullptr;
}

bool AppsPage::selectApp(const std::string& id) {
    int row = id.empty() ? -1 : model_->rowOf(id);
    if (row < 0) {
        showDetail();
        return false;
    }
    apps_->setCurrentIndex(model_->index(row, 0));
    apps_->scrollTo(model_->index(row, 0));
    showDetail();
    return true;
}

std::vector<Leftover> AppsPage::tickedPlaces() const {
    std::vector<Leftover> ticked;
    const AppListEntry* entry = chosenApp();
    if (entry == nullptr) {
        return ticked;
    }
    for (int i = 0; i < places_->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = places_->topLevelItem(i);
        bool ok = false;
        size_t index = item->data(1, pathRole).toULongLong(&ok);
        if (ok && index < entry->data.size() && item->checkState(0) == Qt::Checked) {
            ticked.push_back(entry->data[index]);
        }
    }
    return ticked;
}

void AppsPage::showDetail() {
    const QSignalBlocker quiet(places_);
    places_->clear();
    const AppListEntry* entry = chosenApp();
    if (entry == nullptr) {
        detailTitle_->setText(QStringLiteral("Choose an app to see where it keeps data."));
        detailFacts_->clear();
        detailFacts_->hide();
        updateControls();
        return;
    }
    const platform::InstalledApp& app = entry->app;
    detailTitle_->setText(toQ(app.name));
    QStringList facts;
    QString source = sourceText(app.source);
    if (app.package) {
        source += QStringLiteral(" %1").arg(toQ(*app.package));
    }
    facts << source +
                 (app.version.empty() ? QString()
                                      : QStringLiteral(" · version ") + toQ(app.version)) +
                 QStringLiteral(" · %1 %2").arg(toQ(platform::appIdName()), toQ(app.id));
    facts << QStringLiteral("The app: %1 · its data: %2")
                 .arg(toQ(appSizeNote(*entry)), bytesText(entry->dataBytes));
    facts << toQ(lastUsedText(app, static_cast<double>(std::time(nullptr))));
    detailFacts_->setText(facts.join(QLatin1Char('\n')));
    detailFacts_->show();
    for (size_t i = 0; i < entry->data.size(); ++i) {
        const Leftover& place = entry->data[i];
        auto* item = new QTreeWidgetItem(places_);
        item->setText(0, homeRelative(place.path));
        item->setText(1, bytesText(place.bytes));
        item->setTextAlignment(1, Qt::AlignRight | Qt::AlignVCenter);
        QString what = toQ(place.label);
        if (!place.description.empty()) {
            what += QStringLiteral(": ") + toQ(place.description);
        }
        item->setText(2, what);
        item->setToolTip(0, toQ(place.path));
        item->setToolTip(2, what);
        item->setData(0, pathRole, toQ(place.path));
        item->setData(1, pathRole, QVariant::fromValue<qulonglong>(i));
        item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
        item->setCheckState(0, place.selected ? Qt::Checked : Qt::Unchecked);
    }
    if (entry->data.empty()) {
        auto* item = new QTreeWidgetItem(places_);
        item->setText(0, QStringLiteral("No data of this app was found in your home."));
        item->setFlags(Qt::NoItemFlags);
    }
    updateControls();
}

void AppsPage::askToUninstall() {
    const AppListEntry* entry = chosenApp();
    if (entry == nullptr || runner_->isRunning()) {
        return;
    }
    std::vector<Leftover> chosen = tickedPlaces();
    UninstallPreview preview = previewUninstall(entry->app, entry->appBytes, chosen);
    UninstallSheet sheet(preview, toQ(entry->app.name), this);
    if (sheet.exec() != QDialog::Accepted || preview.moves.empty()) {
        return;
    }
    banner_->hide();
    progress_->update(-1, QStringLiteral("Checking each item before it moves…"));
    uninstalling_ = true;
    runner_->uninstall(entry->app, std::move(chosen));
    updateControls();
}

void AppsPage::onListed(const AppListing& listing) {
    const AppListEntry* chosen = chosenApp();
    std::string id = chosen != nullptr ? chosen->app.id : std::string();
    model_->setListing(listing);
    std::uint64_t appBytes = 0;
    std::uint64_t dataBytes = 0;
    for (const AppListEntry& entry : listing.apps) {
        appBytes += entry.appBytes;
        dataBytes += entry.dataBytes;
    }
    QString summary = listing.apps.empty()
                          ? QStringLiteral("No installed apps were found.")
                          : QStringLiteral("%1 · %2 in the apps · %3 of data in your home")
                                .arg(countText(listing.apps.size(), "app", "apps"),
                                     bytesText(appBytes), bytesText(dataBytes));
    if (!listing.complete) {
        summary += QStringLiteral(" · some places could not be read");
    }
    summary_->setText(summary);
    QStringList warnings;
    for (const std::string& warning : listing.warnings) {
        warnings << toQ(warning);
    }
    summary_->setToolTip(warnings.join(QLatin1Char('\n')));
    if (!selectApp(id) && model_->rowCount() > 0) {
        apps_->setCurrentIndex(model_->index(0, 0));
    }
    updateControls();
}

void AppsPage::onUninstalled(const UninstallDone& done) {
    uninstalling_ = false;
    journal_.reload();
    const UninstallOutcome& outcome = done.outcome;
    lastEntryID_ = outcome.entryID.empty() ? std::nullopt : std::optional(outcome.entryID);
    std::uint64_t bytes = 0;
    for (const MovedItem& m : outcome.moved) {
        bytes += m.bytes;
    }
    QStringList notes;
    for (const std::string& note : outcome.notes) {
        notes << toQ(note);
    }
    if (outcome.moved.empty()) {
        banner_->show(QStringLiteral("Nothing of %1 was moved.").arg(toQ(done.appName)),
                      Banner::Tone::warning, notes.join(QLatin1Char('\n')));
    } else {
        banner_->show(QStringLiteral("Moved %1 (%2) to the Trash.")
                          .arg(countText(outcome.moved.size(), "item", "items"), bytesText(bytes)),
                      Banner::Tone::success, notes.join(QLatin1Char('\n')));
        emit movedToTrash(outcome.moved);
    }
    // What moved is gone from the list and from the app's places: read them again.
    refresh();
}

void AppsPage::updateControls() {
    const bool busy = runner_->isRunning() || putBackRunner_->isRunning();
    progress_->setRunning(busy);
    list_->setEnabled(!busy);
    order_->setEnabled(!busy);
    const AppListEntry* entry = chosenApp();
    uninstall_->setEnabled(!busy && entry != nullptr);
    QTreeWidgetItem* place = places_->currentItem();
    reveal_->setEnabled(entry != nullptr &&
                        ((place != nullptr && !place->data(0, pathRole).isNull()) ||
                         !entry->app.location.empty() || !entry->app.entry.empty()));
    putBack_->setVisible(lastEntryID_.has_value());
    putBack_->setEnabled(!busy);
}

} // namespace sd::app
