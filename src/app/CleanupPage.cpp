#include "app/CleanupPage.h"

#include "core/ByteFormat.h"
#include "core/MoveListing.h"

#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QVBoxLayout>

namespace sd::app {

namespace {

QString countText(std::uint64_t n, const char* one, const char* many) {
    return QStringLiteral("%1 %2").arg(QString::fromStdString(formatCount(n)),
                                       QString::fromLatin1(n == 1 ? one : many));
}

QString errorLines(const std::vector<CleanError>& errors, size_t shown) {
    QStringList lines;
    for (size_t i = 0; i < errors.size() && i < shown; ++i) {
        const CleanError& e = errors[i];
        lines << (e.path.empty() || e.message.starts_with(e.path)
                      ? QString::fromStdString(e.message)
                      : QString::fromStdString(e.path + ": " + e.message));
    }
    if (errors.size() > shown) {
        lines << QStringLiteral("…and %1 more.").arg(errors.size() - shown);
    }
    return lines.join('\n');
}

// The result of a Put Back started from a finished cleanup, after the counts.
const char* const returnedText = "returned to their original locations.";
const char* const notReturnedText =
    "couldn't be restored. Their original locations may be occupied, or the files in Trash may "
    "have changed. Resolve the conflict and try again, or review them in Activity.";

} // namespace

CleanupPage::CleanupPage(CatalogState& catalog, JournalStore& journal, QWidget* parent)
    : QWidget(parent), catalog_(catalog), journal_(journal) {
    runner_ = new CleanupRunner(this);
    putBackRunner_ = new PutBackRunner(this);
    model_ = new CatalogModel(catalog_, this);
    filter_ = new CatalogFilter(this);
    filter_->setSourceModel(model_);

    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Cleanup"),
        QStringLiteral("Every cache Sparrowdeck knows, by app and by folder. Switch off what "
                       "you want to keep, measure, then move the rest to the Trash."));

    auto* bar = new QHBoxLayout;
    bar->setSpacing(10);
    risk_ = new QComboBox;
    risk_->addItem(QStringLiteral("All caches"));
    risk_->addItem(QStringLiteral("Only those that disturb nothing"));
    hideEmpty_ = new QCheckBox(QStringLiteral("Hide empty ones"));
    hideEmpty_->setChecked(true);
    bar->addWidget(risk_);
    bar->addWidget(hideEmpty_);
    bar->addStretch(1);
    measure_ = new QPushButton(QStringLiteral("Measure"));
    measure_->setProperty("primary", true);
    measure_->setMinimumWidth(110);
    bar->addWidget(measure_);
    layout->addLayout(bar);

    progress_ = new ProgressStrip;
    layout->addWidget(progress_);

    tree_ = new QTreeView;
    tree_->setModel(filter_);
    tree_->setAlternatingRowColors(true);
    tree_->setUniformRowHeights(true);
    tree_->setItemDelegate(new RoomyDelegate(28, tree_));
    tree_->header()->setStretchLastSection(true);
    tree_->header()->setSectionResizeMode(CatalogModel::nameColumn, QHeaderView::Interactive);
    tree_->setColumnWidth(CatalogModel::nameColumn, 330);
    tree_->setColumnWidth(CatalogModel::sizeColumn, 110);
    layout->addWidget(tree_, 1);
    nothingLeft_ = new QLabel(QStringLiteral("Every cache that is switched on is empty. Nothing "
                                             "here takes space right now."));
    nothingLeft_->setObjectName(QStringLiteral("muted"));
    nothingLeft_->setAlignment(Qt::AlignCenter);
    nothingLeft_->setMinimumHeight(160);
    nothingLeft_->hide();
    layout->addWidget(nothingLeft_, 1);

    banner_ = new Banner;
    putBack_ = banner_->addAction(QStringLiteral("Put Back"));
    layout->addWidget(banner_);

    auto* bottom = new QHBoxLayout;
    summary_ = new QLabel(QStringLiteral("Not measured yet."));
    summary_->setObjectName(QStringLiteral("muted"));
    summary_->setWordWrap(true);
    bottom->addWidget(summary_, 1);
    clean_ = new QPushButton(QStringLiteral("Move to the Trash…"));
    clean_->setProperty("primary", true);
    bottom->addWidget(clean_, 0, Qt::AlignVCenter);
    layout->addLayout(bottom);

    // Return takes the next step: move what was measured, else measure.
    pressOnReturn(this, [this] { return clean_->isEnabled() ? clean_ : measure_; });
    connect(measure_, &QPushButton::clicked, this, &CleanupPage::measure);
    connect(clean_, &QPushButton::clicked, this, &CleanupPage::startClean);
    connect(risk_, &QComboBox::currentIndexChanged, this, [this](int i) {
        filter_->setSafeOnly(i == 1);
        updateControls();
    });
    connect(hideEmpty_, &QCheckBox::toggled, this, [this](bool on) {
        filter_->setHideEmpty(on && catalog_.scan.has_value());
        tree_->expandToDepth(0);
        showTreeOrNothingLeft();
    });
    connect(progress_, &ProgressStrip::stopRequested, this, [this] {
        runner_->stop();
        putBackRunner_->stop();
    });
    connect(putBack_, &QPushButton::clicked, this, [this] {
        if (!lastEntryID_) {
            return;
        }
        if (!confirm(this, QStringLiteral("Put Back"),
                     QStringLiteral("Put back what this cleanup moved?"),
                     QStringLiteral("Put Back"),
                     QString::fromStdString(std::string(putBackConfirmationText)))) {
            return;
        }
        banner_->hide();
        putBackRunner_->putBack(*lastEntryID_, std::nullopt);
        progress_->update(-1, QStringLiteral("Putting back"));
    });
    connect(model_, &CatalogModel::switchesChanged, this, &CleanupPage::updateControls);
    connect(runner_, &CleanupRunner::progressChanged, this, [this] {
        ProgressReading r = runner_->progress();
        progress_->update(r.fraction, r.message);
    });
    connect(runner_, &CleanupRunner::measured, this, &CleanupPage::onMeasured);
    connect(runner_, &CleanupRunner::prepared, this, &CleanupPage::onPrepared);
    connect(runner_, &CleanupRunner::cleaned, this, &CleanupPage::onCleaned);
    connect(runner_, &CleanupRunner::failed, this, &CleanupPage::onFailed);
    connect(runner_, &CleanupRunner::runningChanged, this, &CleanupPage::updateControls);
    connect(putBackRunner_, &PutBackRunner::finished, this, &CleanupPage::onPutBack);
    connect(putBackRunner_, &PutBackRunner::failed, this, &CleanupPage::onFailed);
    connect(putBackRunner_, &PutBackRunner::runningChanged, this, &CleanupPage::updateControls);
    updateControls();
}

std::vector<Target> CleanupPage::selectedTargets() const {
    std::vector<Target> out;
    for (const Target& t : catalog_.catalog) {
        if (catalog_.isIncluded(t.id) &&
            (risk_->currentIndex() == 0 || t.risk == RiskLevel::safe)) {
            out.push_back(t);
        }
    }
    return out;
}

void CleanupPage::measure() {
    step_ = Step::scanning;
    banner_->hide();
    runner_->measure(selectedTargets(), catalog_.prefs.scan);
    progress_->update(0, QStringLiteral("Starting scan..."));
}

void CleanupPage::onMeasured(const ScanResult& result) {
    step_ = Step::scanned;
    nothingLeft_->setText(QStringLiteral("Every cache that is switched on is empty. Nothing "
                                         "here takes space right now."));
    catalog_.setScan(result);
    model_->refresh();
    filter_->setHideEmpty(hideEmpty_->isChecked());
    tree_->expandToDepth(0);
    showTreeOrNothingLeft();
    QString text = QStringLiteral("Measured %1 at %2.")
                       .arg(bytesText(result.totalBytes),
                            QLocale().toString(QTime::currentTime(), QStringLiteral("HH:mm")));
    if (!result.warnings.empty()) {
        text += QStringLiteral(" %1 could not be read fully.")
                    .arg(countText(result.warnings.size(), "place", "places"));
        QStringList lines;
        for (const std::string& w : result.warnings) {
            lines << QString::fromStdString(w);
        }
        summary_->setToolTip(lines.join('\n'));
    }
    summary_->setText(text);
    updateControls();
}

void CleanupPage::startClean() {
    banner_->hide();
    runner_->prepare(selectedTargets(), catalog_.prefs.clean);
    progress_->update(0, QStringLiteral("Working out exactly what would move"));
}

void CleanupPage::onPrepared(const CleanPlan& plan) {
    if (plan.paths.empty()) {
        banner_->show(QStringLiteral("Nothing to move."), Banner::Tone::info,
                      plan.errors.empty() ? QStringLiteral("The switched-on caches are empty.")
                                          : errorLines(plan.errors, 4));
        return;
    }
    std::uint64_t bytes = 0;
    std::set<std::string> disruptive;
    for (const CleanPath& p : plan.paths) {
        bytes += p.physicalBytes;
        if (p.targetID) {
            const Target* t = findTarget(catalog_.catalog, *p.targetID);
            if (t != nullptr && t->risk == RiskLevel::disruptive) {
                disruptive.insert(t->title);
            }
        }
    }
    std::vector<ListedMove> items;
    for (const CleanPath& p : plan.paths) {
        items.push_back({p.url, p.physicalBytes});
    }
    QStringList lines;
    for (const std::string& line : moveListingLines(items)) {
        lines << QString::fromStdString(line);
    }
    QString detail = lines.join(QStringLiteral("\n")) + QStringLiteral("\n\n") +
                     QString::fromStdString(std::string(sweepRecheckText));
    if (!plan.errors.empty()) {
        detail += QStringLiteral("\n\n%1 where it is:\n")
                      .arg(plan.errors.size() == 1
                               ? QStringLiteral("One place stays")
                               : QStringLiteral("%1 places stay").arg(plan.errors.size())) +
                  errorLines(plan.errors, 3);
    }
    if (!confirm(this, QStringLiteral("Move to the Trash"),
                 QString::fromStdString(moveQuestion(bytes)), QStringLiteral("Move to the Trash"),
                 detail)) {
        return;
    }
    if (!disruptive.empty()) {
        step_ = Step::confirmDeep;
        QStringList names;
        for (const std::string& n : disruptive) {
            names << QString::fromStdString(n);
        }
        bool again = confirm(
            this, QStringLiteral("These may disturb open apps"),
            QStringLiteral("Also move caches that apps are using right now?"),
            QStringLiteral("Move Them Too"),
            names.join(QStringLiteral(", ")) +
                QStringLiteral(": apps that are open may lose their place, sign you out or need "
                               "a restart until these rebuild. Close them first if you can."));
        if (!again) {
            step_ = Step::scanned;
            banner_->show(QStringLiteral("Nothing was moved."), Banner::Tone::info,
                          QStringLiteral("Switch off the caches that disturb apps, or choose "
                                         "“Only those that disturb nothing”, then try again."));
            return;
        }
    }
    step_ = Step::cleaning;
    runner_->clean(plan, selectedTargets(), catalog_.prefs.scan);
    progress_->update(0, QStringLiteral("Starting clean..."));
}

void CleanupPage::onCleaned(const CleanOutcome& outcome) {
    step_ = Step::done;
    journal_.reload();
    const CleanResult& r = outcome.result;
    lastEntryID_ = r.journalEntryID;
    if (!r.moved.empty()) {
        emit movedToTrash(r.moved);
    }
    if (outcome.verification) {
        catalog_.setScan(*outcome.verification);
        model_->refresh();
        filter_->invalidate();
        showTreeOrNothingLeft();
    }
    QString detail = errorLines(r.errors, 4);
    if (outcome.verification) {
        detail += (detail.isEmpty() ? "" : "\n") +
                  QStringLiteral("Checked again: %1 still in these caches.")
                      .arg(bytesText(outcome.verification->totalBytes));
    } else if (!outcome.verificationError.isEmpty()) {
        detail += (detail.isEmpty() ? "" : "\n") + outcome.verificationError;
    }
    if (r.filesRemoved == 0) {
        banner_->show(QStringLiteral("Nothing was moved."), Banner::Tone::warning, detail);
    } else {
        banner_->show(
            QStringLiteral("Moved %1 (%2) to the Trash.")
                .arg(countText(r.filesRemoved, "item", "items"), bytesText(r.bytesRemoved)),
            Banner::Tone::success, detail);
    }
    if (outcome.verification) {
        summary_->setText(QStringLiteral("Measured again after the cleanup: %1.")
                              .arg(bytesText(outcome.verification->totalBytes)));
    }
    updateControls();
}

void CleanupPage::onPutBack(const TrashRestoreResult& result) {
    journal_.reload();
    if (!result.restoredIDs.empty()) {
        // The last measurement predates what came back; say so rather than show stale sizes.
        summary_->setText(QStringLiteral("Measured before Put Back."));
        nothingLeft_->setText(QStringLiteral("What went back is not measured yet. Measure again "
                                             "to see the caches as they are now."));
    }
    std::uint64_t back = result.restoredIDs.size();
    QString text = back == 0
                       ? QString::fromStdString(putBackResultText(result))
                       : QStringLiteral("%1 %2").arg(back).arg(QString::fromLatin1(returnedText));
    if (result.skipped.empty()) {
        lastEntryID_.reset();
        banner_->show(text, back == 0 ? Banner::Tone::warning : Banner::Tone::success);
    } else {
        banner_->show(text, Banner::Tone::warning,
                      QStringLiteral("%1 %2")
                          .arg(result.skipped.size())
                          .arg(QString::fromLatin1(notReturnedText)));
    }
    updateControls();
}

void CleanupPage::onFailed(const QString& message, bool cancelled) {
    Step was = step_;
    if (was == Step::scanning) {
        step_ = catalog_.scan ? Step::scanned : Step::idle;
        banner_->show(cancelled ? QStringLiteral("Measuring was stopped.")
                                : QStringLiteral("Scan did not complete: ") + message,
                      cancelled ? Banner::Tone::info : Banner::Tone::warning,
                      QStringLiteral("Nothing on your disk was changed."));
    } else if (was == Step::cleaning) {
        step_ = Step::done;
        journal_.reload();
        banner_->show(cancelled ? QStringLiteral("Stopped; the rest wasn't moved.")
                                : QStringLiteral("The cleanup did not finish: ") + message,
                      Banner::Tone::warning,
                      QStringLiteral("Whatever did move is listed in Activity."));
    } else {
        journal_.reload();
        banner_->show(cancelled ? QStringLiteral("Stopped before anything moved.") : message,
                      cancelled ? Banner::Tone::info : Banner::Tone::warning,
                      QStringLiteral("Nothing was moved."));
    }
    updateControls();
}

void CleanupPage::showTreeOrNothingLeft() {
    bool nothing = filter_->rowCount() == 0;
    tree_->setVisible(!nothing);
    nothingLeft_->setVisible(nothing);
}

void CleanupPage::refreshLeftOut() {
    model_->refresh();
}

void CleanupPage::updateControls() {
    bool busy = runner_->isRunning() || putBackRunner_->isRunning();
    progress_->setRunning(busy);
    measure_->setEnabled(!busy);
    measure_->setText(catalog_.scan ? QStringLiteral("Measure Again") : QStringLiteral("Measure"));
    risk_->setEnabled(!busy);
    tree_->setEnabled(!busy);
    clean_->setEnabled(!busy && catalog_.scan && catalog_.scan->totalBytes > 0);
    putBack_->setVisible(lastEntryID_.has_value());
    putBack_->setEnabled(!busy);
}

} // namespace sd::app
