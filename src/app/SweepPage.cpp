#include "app/SweepPage.h"

#include "base/CleanerError.h"
#include "core/ByteFormat.h"
#include "core/MoveListing.h"
#include "platform/EmptyTrash.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QVBoxLayout>
#include <cmath>

namespace sd::app {

namespace {

const QColor accent(0x25, 0x63, 0xeb);
const QColor ink(0x1f, 0x23, 0x28);
const QColor mutedInk(0x5b, 0x64, 0x70);
const QColor line(0xe0, 0xe4, 0xea);
const QColor success(0x1f, 0x7a, 0x3d);
constexpr int tileHeight = 124;
constexpr int twoColumnsFrom = 560; // pixels of width; narrower views stack the tiles

} // namespace

// ---------------------------------------------------------------------------------------------
// TileDelegate and TileView

void TileDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                         const QModelIndex& index) const {
    painter->save();
    painter->setRenderHint(QPainter::Antialiasing);
    QRectF card = QRectF(option.rect).adjusted(6, 6, -6, -6);
    QVariant check = index.data(Qt::CheckStateRole);
    bool tickable = index.flags().testFlag(Qt::ItemIsUserCheckable);
    bool ticked = check.isValid() && check.value<Qt::CheckState>() == Qt::Checked;
    auto state = static_cast<TileState>(index.data(tileStateRole).toInt());

    QPainterPath shape;
    shape.addRoundedRect(card, 12, 12);
    painter->fillPath(shape, ticked ? QColor(0xf3, 0xf7, 0xff) : QColor(Qt::white));
    painter->setPen(QPen(ticked ? accent : line, ticked ? 2 : 1));
    painter->drawPath(shape);
    if (option.state.testFlag(QStyle::State_HasFocus)) {
        // The keyboard's place among the tiles: a ring just outside the card.
        QPainterPath ring;
        ring.addRoundedRect(card.adjusted(-3, -3, 3, 3), 14, 14);
        painter->setPen(QPen(accent, 2, Qt::DashLine));
        painter->drawPath(ring);
    }

    QRectF inner = card.adjusted(16, 14, -16, -12);
    qreal left = inner.left();
    if (check.isValid()) {
        QRectF box(inner.left(), inner.top() + 1, 20, 20);
        QPainterPath boxPath;
        boxPath.addRoundedRect(box, 5, 5);
        if (ticked) {
            painter->fillPath(boxPath, accent);
            painter->setPen(QPen(Qt::white, 2.2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
            painter->drawPolyline(QPolygonF{{box.left() + 5, box.center().y()},
                                            {box.left() + 8.5, box.bottom() - 5.5},
                                            {box.right() - 4.5, box.top() + 5.5}});
        } else {
            painter->setPen(QPen(tickable ? QColor(0x9a, 0xa3, 0xaf) : line, 1.5));
            painter->drawPath(boxPath);
        }
        left = box.right() + 12;
    }

    QFont base = option.font;
    QFont titleFont = base;
    titleFont.setPixelSize(14);
    titleFont.setWeight(QFont::DemiBold);
    QFont sizeFont = base;
    sizeFont.setPixelSize(19);
    sizeFont.setWeight(QFont::DemiBold);
    QFont small = base;
    small.setPixelSize(12);

    auto bytes = index.data(bytesRole).value<quint64>();
    QString size = state == TileState::waiting ? QStringLiteral("—") : bytesText(bytes);
    QFontMetrics sizeMetrics(sizeFont);
    qreal sizeWidth = sizeMetrics.horizontalAdvance(size);
    painter->setFont(sizeFont);
    painter->setPen(state == TileState::recorded ? mutedInk : ink);
    painter->drawText(QRectF(inner.right() - sizeWidth, inner.top() - 2, sizeWidth, 28),
                      Qt::AlignRight | Qt::AlignTop, size);

    QRectF titleRect(left, inner.top(), inner.right() - sizeWidth - 12 - left, 22);
    painter->setFont(titleFont);
    painter->setPen(ink);
    painter->drawText(titleRect, Qt::AlignLeft | Qt::AlignVCenter,
                      QFontMetrics(titleFont).elidedText(index.data().toString(), Qt::ElideRight,
                                                         static_cast<int>(titleRect.width())));

    QRectF subtitleRect(left, titleRect.bottom() + 6, inner.right() - left, 34);
    painter->setFont(small);
    painter->setPen(mutedInk);
    painter->drawText(subtitleRect, Qt::AlignLeft | Qt::AlignTop | Qt::TextWordWrap,
                      index.data(subtitleRole).toString());

    QRectF bottom(left, inner.bottom() - 16, inner.right() - left, 16);
    if (state == TileState::measuring) {
        double fraction = std::clamp(index.data(fractionRole).toDouble(), 0.0, 1.0);
        QRectF track(bottom.left(), bottom.center().y() - 3, bottom.width(), 6);
        QPainterPath trackPath;
        trackPath.addRoundedRect(track, 3, 3);
        painter->fillPath(trackPath, QColor(0xe4, 0xe8, 0xee));
        QRectF done = track;
        done.setWidth(std::max(6.0, track.width() * fraction));
        QPainterPath donePath;
        donePath.addRoundedRect(done, 3, 3);
        painter->fillPath(donePath, accent);
    } else {
        QString note = index.data(noteRole).toString();
        if (state == TileState::recorded) {
            note = QStringLiteral("From the last Sweep");
        }
        painter->setFont(small);
        painter->setPen(state == TileState::moved ? success : mutedInk);
        painter->drawText(
            bottom, Qt::AlignLeft | Qt::AlignVCenter,
            QFontMetrics(small).elidedText(note, Qt::ElideRight, static_cast<int>(bottom.width())));
    }
    painter->restore();
}

QSize TileDelegate::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
    return {std::max(option.rect.width(), 300), tileHeight};
}

bool TileDelegate::editorEvent(QEvent* event, QAbstractItemModel* model,
                               const QStyleOptionViewItem& option, const QModelIndex& index) {
    bool toggle = false;
    if (event->type() == QEvent::MouseButtonRelease) {
        auto* mouse = static_cast<QMouseEvent*>(event);
        toggle =
            mouse->button() == Qt::LeftButton && option.rect.contains(mouse->position().toPoint());
    } else if (event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        toggle = key->key() == Qt::Key_Space || key->key() == Qt::Key_Select;
    }
    if (!toggle || !index.flags().testFlag(Qt::ItemIsUserCheckable)) {
        return false;
    }
    bool ticked = index.data(Qt::CheckStateRole).value<Qt::CheckState>() == Qt::Checked;
    return model->setData(index, ticked ? Qt::Unchecked : Qt::Checked, Qt::CheckStateRole);
}

TileView::TileView(QWidget* parent) : QListView(parent) {
    setViewMode(QListView::IconMode);
    setFlow(QListView::LeftToRight);
    setWrapping(true);
    setResizeMode(QListView::Adjust);
    setMovement(QListView::Static);
    setUniformItemSizes(true);
    setSelectionMode(QAbstractItemView::NoSelection);
    setFrameShape(QFrame::NoFrame);
    setStyleSheet(QStringLiteral("QListView { background: transparent; border: none; }"));
    // The view is always as tall as its tiles, so a scroll bar never comes and goes to reflow
    // the columns; the screen scrolls instead.
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setMouseTracking(true);
    setFixedHeight(3 * tileHeight + 4);
}

void TileView::resizeEvent(QResizeEvent* event) {
    int width = viewport()->width();
    int columns = width >= twoColumnsFrom ? 2 : 1;
    int rows = (static_cast<int>(allTileKinds.size()) + columns - 1) / columns;
    setGridSize(QSize((width - 1) / columns, tileHeight));
    setFixedHeight(rows * tileHeight + 4);
    QListView::resizeEvent(event);
}

// ---------------------------------------------------------------------------------------------
// SweepPage

SweepPage::SweepPage(JournalStore& journal, QWidget* parent) : QWidget(parent), journal_(journal) {
    platform::UserDefaults store = platform::UserDefaults::standard();
    state_.lastRecord = Sweep::lastRecord(store);
    std::string chosen = store.string(chosenTilesKey).value_or("");
    for (std::string_view rest = chosen; !rest.empty();) {
        size_t comma = rest.find(',');
        if (std::optional<SweepTileKind> kind = tileKindFromName(rest.substr(0, comma))) {
            state_.chosen.insert(*kind);
        }
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    }

    runner_ = new SweepRunner(this);
    putBackRunner_ = new PutBackRunner(this);
    emptyRunner_ = new TaskRunner(this);
    tiles_ = new SweepTileModel(state_, this);

    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Sweep"),
        QStringLiteral("Measures the caches, build products and downloads that come back by "
                       "themselves, and what already sits in your Trash. Nothing moves until "
                       "you choose."));

    auto* top = new QHBoxLayout;
    auto* summary = new QVBoxLayout;
    summary->setSpacing(0);
    total_ = new QLabel(QStringLiteral("—"));
    total_->setObjectName(QStringLiteral("bigNumber"));
    totalNote_ = new QLabel(QStringLiteral("Sweep to see what comes back by itself."));
    totalNote_->setObjectName(QStringLiteral("muted"));
    summary->addWidget(total_);
    summary->addWidget(totalNote_);
    top->addLayout(summary, 1);
    sweep_ = new QPushButton(QStringLiteral("Sweep"));
    sweep_->setProperty("primary", true);
    sweep_->setMinimumWidth(120);
    top->addWidget(sweep_, 0, Qt::AlignVCenter);
    layout->addLayout(top);

    progress_ = new ProgressStrip;
    layout->addWidget(progress_);
    record_ = new QLabel;
    record_->setObjectName(QStringLiteral("muted"));
    record_->setWordWrap(true);
    layout->addWidget(record_);

    view_ = new TileView;
    view_->setModel(tiles_);
    view_->setItemDelegate(new TileDelegate(view_));
    layout->addWidget(view_);

    highlights_ = new QLabel;
    highlights_->setObjectName(QStringLiteral("muted"));
    highlights_->setWordWrap(true);
    layout->addWidget(highlights_);
    layout->addStretch(1);

    banner_ = new Banner;
    putBack_ = banner_->addAction(QStringLiteral("Put Back"));
    layout->addWidget(banner_);

    auto* bottom = new QHBoxLayout;
    QLabel* recheck = paragraph(toQ(sweepRecheckText), "muted");
    finished_ = new QLabel;
    finished_->setObjectName(QStringLiteral("muted"));
    finished_->setWordWrap(true);
    auto* notes = new QVBoxLayout;
    notes->setSpacing(2);
    notes->addWidget(recheck);
    notes->addWidget(finished_);
    bottom->addLayout(notes, 1);
    // Emptying is the one step that cannot be undone, so it is its own button, never a tick.
    emptyTrash_ = new QPushButton(QStringLiteral("Empty Trash…"));
    bottom->addWidget(emptyTrash_, 0, Qt::AlignVCenter);
    reclaim_ = new QPushButton(QStringLiteral("Move to the Trash"));
    reclaim_->setProperty("primary", true);
    bottom->addWidget(reclaim_, 0, Qt::AlignVCenter);
    layout->addLayout(bottom);

    // Return takes the next step: move what is ticked once a Sweep found it, else sweep.
    pressOnReturn(this, [this] { return reclaim_->isEnabled() ? reclaim_ : sweep_; });
    connect(sweep_, &QPushButton::clicked, this, &SweepPage::startSweep);
    connect(reclaim_, &QPushButton::clicked, this, &SweepPage::reclaimSelected);
    connect(putBack_, &QPushButton::clicked, this, &SweepPage::putBackLast);
    connect(emptyTrash_, &QPushButton::clicked, this, &SweepPage::emptyTrash);
    // A double click opens a tile: every place it would move, with what each holds.
    connect(view_, &QAbstractItemView::doubleClicked, this,
            [this](const QModelIndex& index) { showTileItems(tiles_->kindAt(index.row())); });
    connect(emptyRunner_, &TaskRunner::runningChanged, this, [this](bool running) {
        progress_->setRunning(running);
        updateControls();
    });
    connect(emptyRunner_, &TaskRunner::failed, this, [this](const QString& message, bool) {
        banner_->show(QStringLiteral("The Trash was not emptied."), Banner::Tone::warning, message);
        remeasure();
    });
    connect(progress_, &ProgressStrip::stopRequested, this, [this] {
        runner_->stop();
        putBackRunner_->stop();
        emptyRunner_->stop();
    });
    connect(runner_, &SweepRunner::progressChanged, this, &SweepPage::onProgress);
    connect(runner_, &SweepRunner::swept, this, &SweepPage::onSwept);
    connect(runner_, &SweepRunner::reclaimed, this, &SweepPage::onReclaimed);
    connect(runner_, &SweepRunner::failed, this, &SweepPage::onFailed);
    connect(runner_, &SweepRunner::runningChanged, this, &SweepPage::updateControls);
    connect(putBackRunner_, &PutBackRunner::finished, this, &SweepPage::onPutBack);
    connect(putBackRunner_, &PutBackRunner::failed, this, &SweepPage::onFailed);
    connect(putBackRunner_, &PutBackRunner::runningChanged, this, &SweepPage::updateControls);
    connect(tiles_, &SweepTileModel::selectionChanged, this, &SweepPage::updateControls);
    connect(tiles_, &SweepTileModel::chosenChanged, this, &SweepPage::rememberChosen);

    updateSummary();
    updateControls();
}

void SweepPage::startSweep() {
    job_ = Job::sweeping;
    state_.sweeping = true;
    state_.progress = SweepReading{};
    state_.movedByTile.clear();
    state_.selection.clear();
    if (!quietSweep_) {
        lastEntryID_.reset();
        banner_->hide();
    }
    tiles_->refresh();
    runner_->start();
    progress_->update(0, QStringLiteral("Starting the Sweep"));
    updateSummary();
}

void SweepPage::showTileItems(SweepTileKind kind) {
    const SweepTile* tile = state_.sweep ? state_.sweep->tile(kind) : nullptr;
    if (tile == nullptr) {
        return;
    }
    std::vector<ListedMove> places = tileLocations(*tile);
    QStringList lines;
    for (const std::string& line : moveListingLines(places, places.size())) {
        lines << QString::fromStdString(line);
    }
    QMessageBox box(this);
    box.setWindowTitle(QString::fromStdString(tileTitle(*tile)));
    box.setText(
        QStringLiteral("%1 in %2").arg(bytesText(tile->bytes), QString::number(places.size())) +
        (places.size() == 1 ? QStringLiteral(" place") : QStringLiteral(" places")));
    box.setInformativeText(!lines.isEmpty()   ? lines.join(QStringLiteral("\n"))
                           : tile->scanResult ? QStringLiteral("Nothing here right now.")
                                              : QString::fromStdString(tileSubtitle(*tile)));
    box.setStandardButtons(QMessageBox::Close);
    box.exec();
}

void SweepPage::remeasure() {
    if (runner_->isRunning()) {
        return;
    }
    quietSweep_ = true;
    startSweep();
    quietSweep_ = false;
}

void SweepPage::emptyTrash() {
    std::uint64_t inTrash = 0;
    if (state_.sweep) {
        if (const SweepTile* tile = state_.sweep->tile(SweepTileKind::trash)) {
            inTrash = tile->bytes;
        }
    }
    QString size = inTrash > 0 ? QStringLiteral(" (%1)").arg(bytesText(inTrash)) : QString();
    if (!confirm(this, QStringLiteral("Empty Trash"),
                 QStringLiteral("Empty the Trash? This can't be undone."),
                 QStringLiteral("Empty Trash"),
                 QStringLiteral("Everything in the Trash%1 is deleted for good, what Sparrowdeck "
                                "moved there included, and nothing in it can be put back "
                                "afterwards. Your desktop's own tool does the emptying.")
                     .arg(size))) {
        return;
    }
    banner_->hide();
    progress_->update(-1, QStringLiteral("Emptying the Trash"));
    emptyRunner_->start<platform::EmptyTrashOutcome>(
        [](const std::stop_token& stop) { return platform::emptyTrashWithDesktopTool(stop); },
        [this](platform::EmptyTrashOutcome& outcome) {
            journal_.reload();
            lastEntryID_.reset();
            banner_->show(QString::fromStdString(outcome.sentence),
                          outcome.emptied ? Banner::Tone::success : Banner::Tone::warning);
            remeasure();
        });
}

void SweepPage::onProgress() {
    if (job_ == Job::sweeping) {
        state_.progress = runner_->sweepProgress();
        QString message = QStringLiteral("Measuring… %1 so far").arg(bytesText([&] {
            std::uint64_t sum = 0;
            for (const SweepReading::Tile& tile : state_.progress.tiles) {
                sum += tile.bytes;
            }
            return sum;
        }()));
        if (state_.progress.currentPath) {
            message += QStringLiteral(" · ") + QString::fromStdString(*state_.progress.currentPath);
        }
        progress_->update(state_.progress.fraction, message);
        tiles_->refresh();
    } else if (job_ == Job::reclaiming) {
        ProgressReading r = runner_->reclaimProgress();
        QString message = r.message;
        if (r.items > 0) {
            message += QStringLiteral(" · %1 moved").arg(bytesText(r.bytes));
        }
        progress_->update(r.fraction, message);
    }
}

void SweepPage::onSwept(const std::shared_ptr<Sweep>& sweep) {
    job_ = Job::none;
    state_.sweep = sweep;
    state_.sweeping = false;
    state_.lastRecord = sweep->record();
    // Only what the person ticked before is ticked again; a Sweep never chooses for them.
    state_.selection.clear();
    for (const SweepTile& tile : sweep->tiles()) {
        if (state_.chosen.count(tile.kind) != 0 && tileComesBack(tile.kind) && tile.bytes > 0) {
            state_.selection.insert(tile.kind);
        }
    }
    tiles_->refresh();
    updateSummary();
}

void SweepPage::rememberChosen() {
    std::string names;
    for (SweepTileKind kind : state_.chosen) {
        names += (names.empty() ? "" : ",") + std::string(tileKindName(kind));
    }
    try {
        platform::UserDefaults::standard().setString(chosenTilesKey, names);
    } catch (const CleanerError& e) {
        // The ticks still hold for this session; only remembering them failed.
        banner_->show(QStringLiteral("Your ticks could not be remembered for next time."),
                      Banner::Tone::warning, QString::fromStdString(e.what()));
    }
}

void SweepPage::reclaimSelected() {
    if (!state_.sweep || state_.selection.empty()) {
        return;
    }
    std::uint64_t bytes = 0;
    QStringList titles;
    std::vector<ListedMove> places;
    for (SweepTileKind kind : state_.selection) {
        if (const SweepTile* tile = state_.sweep->tile(kind)) {
            bytes += tile->bytes;
            titles << QString::fromStdString(tileTitle(*tile));
            std::vector<ListedMove> more = tileLocations(*tile);
            places.insert(places.end(), more.begin(), more.end());
        }
    }
    QStringList lines;
    for (const std::string& line : moveListingLines(places)) {
        lines << QString::fromStdString(line);
    }
    if (!confirm(this, QStringLiteral("Move to the Trash"),
                 QString::fromStdString(moveQuestion(bytes)), QStringLiteral("Move to the Trash"),
                 titles.join(QStringLiteral(", ")) + QStringLiteral(":\n") +
                     lines.join(QStringLiteral("\n")) + QStringLiteral("\n\n") +
                     toQ(sweepRecheckText) +
                     QStringLiteral(" You can put everything back from here or from Activity."))) {
        return;
    }
    job_ = Job::reclaiming;
    state_.reclaiming = state_.selection;
    banner_->hide();
    tiles_->refresh();
    runner_->reclaim(state_.sweep, state_.selection);
    progress_->update(0, QStringLiteral("Checking each item before it moves"));
}

void SweepPage::onReclaimed(const SweepReclaimResult& result) {
    job_ = Job::none;
    state_.reclaiming.clear();
    state_.movedByTile = result.movedByTile;
    state_.selection.clear();
    lastEntryID_ = result.journalEntryID;
    journal_.reload();
    if (result.journalEntryID) {
        if (const JournalEntry* entry = journal_.journal().find(*result.journalEntryID)) {
            std::vector<MovedItem> moved;
            for (const TrashedItem& item : entry->items) {
                moved.push_back(
                    {item.originalPath, item.trashPath, item.bytes, item.identityToken});
            }
            emit movedToTrash(moved);
        }
    }
    QString detail;
    for (size_t i = 0; i < result.reclaimErrors.size() && i < 4; ++i) {
        detail += (i == 0 ? "" : "\n") + QString::fromStdString(result.reclaimErrors[i]);
    }
    if (result.reclaimErrors.size() > 4) {
        detail += QStringLiteral("\n…and %1 more, listed in Activity.")
                      .arg(result.reclaimErrors.size() - 4);
    }
    if (result.refused) {
        banner_->show(toQ(sweepExclusionsChangedText), Banner::Tone::warning);
    } else if (result.movedCount == 0) {
        banner_->show(QStringLiteral("Nothing was moved."), Banner::Tone::warning, detail);
    } else {
        banner_->show(
            QStringLiteral("Moved %1 in %2 %3 to the Trash.")
                .arg(bytesText(result.movedBytes),
                     QString::fromStdString(formatCount(result.movedCount)),
                     result.movedCount == 1 ? QStringLiteral("item") : QStringLiteral("items")),
            Banner::Tone::success, detail);
    }
    tiles_->refresh();
    updateSummary();
    // The Trash tile and the headline are measured again, never estimated.
    remeasure();
}

void SweepPage::putBackLast() {
    if (!lastEntryID_) {
        return;
    }
    const JournalEntry* entry = journal_.journal().find(*lastEntryID_);
    std::uint64_t waiting = 0;
    if (entry != nullptr) {
        for (const TrashedItem& item : entry->items) {
            waiting += item.restored ? 0 : 1;
        }
    }
    if (!confirm(this, QStringLiteral("Put Back"),
                 QStringLiteral("Put back %1 %2?")
                     .arg(waiting)
                     .arg(waiting == 1 ? QStringLiteral("item") : QStringLiteral("items")),
                 QStringLiteral("Put Back"), toQ(putBackConfirmationText))) {
        return;
    }
    banner_->hide();
    putBackRunner_->putBack(*lastEntryID_, std::nullopt);
    progress_->update(-1, QString::fromStdString(putBackProgressText(waiting)));
}

void SweepPage::onPutBack(const TrashRestoreResult& result) {
    journal_.reload();
    QString text = QString::fromStdString(putBackResultText(result));
    if (result.skipped.empty()) {
        state_.movedByTile.clear();
        lastEntryID_.reset();
        banner_->show(text,
                      result.restoredIDs.empty() ? Banner::Tone::warning : Banner::Tone::success);
    } else {
        banner_->show(text, Banner::Tone::warning,
                      QString::fromStdString(putBackSkippedText(result.skipped.size())));
    }
    tiles_->refresh();
    updateSummary();
    remeasure();
}

void SweepPage::onFailed(const QString& message, bool cancelled) {
    Job was = job_;
    job_ = Job::none;
    state_.sweeping = false;
    state_.reclaiming.clear();
    if (was == Job::sweeping) {
        state_.sweep.reset();
        banner_->show(cancelled ? QStringLiteral("The Sweep was stopped.")
                                : QStringLiteral("The Sweep did not finish."),
                      cancelled ? Banner::Tone::info : Banner::Tone::warning,
                      (cancelled ? QString() : message + QStringLiteral(". ")) +
                          QStringLiteral("Nothing on your disk was changed."));
    } else if (was == Job::reclaiming) {
        journal_.reload();
        banner_->show(cancelled ? QStringLiteral("Stopped before anything moved.")
                                : QStringLiteral("Nothing was moved."),
                      cancelled ? Banner::Tone::info : Banner::Tone::warning,
                      cancelled ? QStringLiteral("Nothing was moved.") : message);
    } else {
        journal_.reload();
        banner_->show(QStringLiteral("Put Back did not finish."), Banner::Tone::warning, message);
    }
    tiles_->refresh();
    updateSummary();
}

void SweepPage::updateSummary() {
    std::uint64_t comesBack = 0;
    if (state_.sweep && !state_.sweeping) {
        for (const SweepTile& tile : state_.sweep->tiles()) {
            comesBack += tileComesBack(tile.kind) ? tile.bytes : 0;
        }
        total_->setText(bytesText(comesBack));
        totalNote_->setText(QStringLiteral("comes back by itself if you reclaim it"));
    } else if (state_.sweeping) {
        total_->setText(QStringLiteral("Sweeping…"));
        totalNote_->setText(QStringLiteral("Reading sizes only; nothing moves."));
    } else if (state_.lastRecord) {
        for (const SweepRecord::Tile& tile : state_.lastRecord->tiles) {
            comesBack += tile.comesBack ? tile.bytes : 0;
        }
        total_->setText(bytesText(comesBack));
        totalNote_->setText(QStringLiteral("came back by itself at the last Sweep"));
    } else {
        total_->setText(QStringLiteral("Ready"));
        totalNote_->setText(QStringLiteral("Sweep to see what comes back by itself."));
    }

    if (!state_.sweep && state_.lastRecord && !state_.sweeping) {
        record_->setText(QStringLiteral("Last Sweep: %1. Sweep again to reclaim it.")
                             .arg(dateText(state_.lastRecord->date)));
        record_->show();
    } else {
        record_->hide();
    }

    QString top;
    if (state_.sweep && !state_.sweeping) {
        const auto& list = state_.sweep->highlights();
        for (size_t i = 0; i < list.size(); ++i) {
            top += (i == 0 ? QStringLiteral("Biggest: ") : QStringLiteral(" · ")) +
                   QString::fromStdString(list[i].title) + " " + bytesText(list[i].bytes);
        }
        finished_->setText(
            QStringLiteral("Sweep finished in %1 · %2 items seen.")
                .arg(durationText(state_.sweep->durationSeconds()),
                     QString::fromStdString(formatCount(state_.sweep->itemsSeen()))) +
            (state_.sweep->warnings().empty()
                 ? QString()
                 : QStringLiteral(" %1 could not be read fully.")
                       .arg(state_.sweep->warnings().size() == 1
                                ? QStringLiteral("One place")
                                : QStringLiteral("%1 places")
                                      .arg(state_.sweep->warnings().size()))));
        if (!state_.sweep->warnings().empty()) {
            QStringList lines;
            for (const std::string& w : state_.sweep->warnings()) {
                lines << QString::fromStdString(w);
            }
            finished_->setToolTip(lines.join('\n'));
        }
    } else {
        finished_->clear();
    }
    highlights_->setText(top);
    highlights_->setVisible(!top.isEmpty());
}

void SweepPage::updateControls() {
    bool busy = runner_->isRunning() || putBackRunner_->isRunning() || emptyRunner_->isRunning();
    progress_->setRunning(busy);
    sweep_->setEnabled(!busy);
    sweep_->setText(state_.sweep || state_.lastRecord ? QStringLiteral("Sweep Again")
                                                      : QStringLiteral("Sweep"));
    std::uint64_t bytes = 0;
    if (state_.sweep) {
        for (SweepTileKind kind : state_.selection) {
            if (const SweepTile* tile = state_.sweep->tile(kind)) {
                bytes += tile->bytes;
            }
        }
    }
    reclaim_->setEnabled(!busy && !state_.selection.empty());
    reclaim_->setText(state_.selection.empty()
                          ? QStringLiteral("Move to the Trash")
                          : QStringLiteral("Move %1 to the Trash").arg(bytesText(bytes)));
    putBack_->setVisible(lastEntryID_.has_value());
    putBack_->setEnabled(!busy);
    const SweepTile* trash = state_.sweep ? state_.sweep->tile(SweepTileKind::trash) : nullptr;
    emptyTrash_->setEnabled(!busy && trash != nullptr && trash->bytes > 0);
}

} // namespace sd::app
