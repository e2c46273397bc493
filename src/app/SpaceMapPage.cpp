#include "app/SpaceMapPage.h"

#include "app/Models.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "platform/Dirs.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QVBoxLayout>

namespace sd::app {

SpaceMapPage::SpaceMapPage(QWidget* parent) : QWidget(parent), root_(homeDirectory()) {
    runner_ = new SpaceRunner(this);
    model_ = new SpaceTreeModel(state_, this);
    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Space Map"),
        QStringLiteral("Your home folder, or any folder in it, as rings: each ring is one level "
                       "deeper, each wedge as wide as the space it takes. Click a folder or press "
                       "Enter to look inside; click the middle or press Backspace to go back. "
                       "Nothing moves from here."));

    storage_ = new StorageBar;
    layout->addWidget(storage_);

    auto* top = new QHBoxLayout;
    auto* texts = new QVBoxLayout;
    texts->setSpacing(2);
    status_ = new QLabel(QStringLiteral("Not scanned yet."));
    status_->setStyleSheet(QStringLiteral("font-weight: 600; font-size: 14px;"));
    status_->setWordWrap(true);
    statusDetail_ = new QLabel;
    statusDetail_->setObjectName(QStringLiteral("muted"));
    statusDetail_->setWordWrap(true);
    texts->addWidget(status_);
    texts->addWidget(statusDetail_);
    top->addLayout(texts, 1);
    mapHome_ = new QPushButton(QStringLiteral("Map Home"));
    mapHome_->hide();
    choose_ = new QPushButton(QStringLiteral("Map a Folder…"));
    scan_ = new QPushButton(QStringLiteral("Scan"));
    scan_->setProperty("primary", true);
    scan_->setMinimumWidth(110);
    showChanges_ = new QPushButton(QStringLiteral("What Changed"));
    showChanges_->setCheckable(true);
    top->addWidget(showChanges_, 0, Qt::AlignTop);
    top->addWidget(mapHome_, 0, Qt::AlignTop);
    top->addWidget(choose_, 0, Qt::AlignTop);
    top->addWidget(scan_, 0, Qt::AlignTop);
    layout->addLayout(top);
    progress_ = new ProgressStrip;
    layout->addWidget(progress_);
    banner_ = new Banner;
    layout->addWidget(banner_);

    auto* body = new QHBoxLayout;
    body->setSpacing(18);
    auto* mapColumn = new QVBoxLayout;
    mapColumn->setSpacing(4);
    sunburst_ = new SunburstView;
    sunburst_->setModel(model_);
    mapColumn->addWidget(sunburst_, 1);
    auto* legend = paragraph(QStringLiteral("Dashed outline: a cache the Sweep measures, which "
                                            "comes back by itself. Pale, shorter wedges are "
                                            "files; grey ones gather many small items."),
                             "muted");
    legend->setStyleSheet(QStringLiteral("font-size: 11px;"));
    mapColumn->addWidget(legend);
    body->addLayout(mapColumn, 3);

    auto* side = new QVBoxLayout;
    side->setSpacing(8);
    auto* crumbsRow = new QHBoxLayout;
    crumbs_ = new QLabel;
    crumbs_->setStyleSheet(QStringLiteral("font-weight: 600;"));
    crumbs_->setWordWrap(true);
    up_ = new QPushButton(QStringLiteral("Back Out"));
    crumbsRow->addWidget(crumbs_, 1);
    crumbsRow->addWidget(up_, 0, Qt::AlignTop);
    side->addLayout(crumbsRow);
    pointer_ = new QLabel(QStringLiteral("Point at a wedge to see what it is."));
    pointer_->setObjectName(QStringLiteral("muted"));
    pointer_->setWordWrap(true);
    pointer_->setMinimumHeight(36);
    pointer_->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    side->addWidget(pointer_);
    list_ = new QTreeView;
    list_->setModel(model_);
    list_->setRootIsDecorated(false);
    list_->setItemsExpandable(false);
    list_->setUniformRowHeights(true);
    list_->setAllColumnsShowFocus(true);
    list_->setItemDelegate(new RoomyDelegate(28, list_));
    list_->header()->setSectionResizeMode(SpaceTreeModel::nameColumn, QHeaderView::Stretch);
    list_->header()->setSectionResizeMode(SpaceTreeModel::sizeColumn,
                                          QHeaderView::ResizeToContents);
    list_->header()->setSectionResizeMode(SpaceTreeModel::shareColumn,
                                          QHeaderView::ResizeToContents);
    list_->header()->setStretchLastSection(false);
    list_->setTextElideMode(Qt::ElideMiddle);
    list_->installEventFilter(this);
    list_->viewport()->installEventFilter(this);
    side->addWidget(list_, 1);
    changes_ = new ChangesPanel;
    changes_->hide();
    side->addWidget(changes_, 1);
    // While the changes are shown, the map is coloured by them too.
    auto colourByGrowth = [this] {
        model_->setGrowth(showChanges_->isChecked() ? changes_->changes() : std::nullopt);
        list_->viewport()->update();
    };
    connect(showChanges_, &QPushButton::toggled, this, [this, colourByGrowth](bool on) {
        changes_->setVisible(on);
        list_->setVisible(!on);
        colourByGrowth();
    });
    connect(changes_, &ChangesPanel::changesShown, this, colourByGrowth);
    reveal_ = new QPushButton(revealText());
    side->addWidget(reveal_);
    bigTitle_ = sectionLabel(QStringLiteral("Big items found while scanning"));
    bigItems_ = new QListWidget;
    bigItems_->setMaximumHeight(120);
    bigItems_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    bigItems_->setTextElideMode(Qt::ElideMiddle);
    side->addWidget(bigTitle_);
    side->addWidget(bigItems_);
    bigTitle_->hide();
    bigItems_->hide();
    auto* sideBox = new QWidget;
    sideBox->setLayout(side);
    sideBox->setMinimumWidth(280);
    sideBox->setMaximumWidth(380);
    body->addWidget(sideBox, 2);
    layout->addLayout(body, 1);

    folderDialog_ = new QFileDialog(this, QStringLiteral("Map a Folder"));
    folderDialog_->setFileMode(QFileDialog::Directory);
    folderDialog_->setOption(QFileDialog::ShowDirsOnly);
    folderDialog_->setAcceptMode(QFileDialog::AcceptOpen);
    folderDialog_->setLabelText(QFileDialog::Accept, QStringLiteral("Map"));

    pressOnReturn(this, [this] { return scan_; });
    connect(scan_, &QPushButton::clicked, this, [this] { startScan(budget_); });
    connect(choose_, &QPushButton::clicked, this, &SpaceMapPage::chooseFolder);
    connect(mapHome_, &QPushButton::clicked, this, [this] { mapFolder(homeDirectory()); });
    connect(folderDialog_, &QFileDialog::fileSelected, this,
            [this](const QString& folder) { mapFolder(folder.toStdString()); });
    connect(progress_, &ProgressStrip::stopRequested, runner_, &SpaceRunner::stop);
    connect(up_, &QPushButton::clicked, this, [this] { sunburst_->zoomOut(); });
    connect(reveal_, &QPushButton::clicked, this, [this] {
        QModelIndex at = sunburst_->selectedIndex();
        if (at.isValid()) {
            showInFiles(at.data(pathRole).toString());
        }
    });
    connect(sunburst_, &SunburstView::hovered, this, &SpaceMapPage::onHovered);
    connect(sunburst_, &SunburstView::selected, this, &SpaceMapPage::onSelected);
    connect(sunburst_, &SunburstView::zoomed, this, &SpaceMapPage::showRoot);
    connect(list_, &QTreeView::clicked, this, &SpaceMapPage::openRow);
    connect(runner_, &SpaceRunner::progressChanged, this, [this] {
        ProgressReading r = runner_->progress();
        progress_->update(r.fraction, r.message);
        for (const BigItem& item : runner_->takeBigItems()) {
            bigItems_->addItem(
                QStringLiteral("%1   %2").arg(bytesText(item.bytes), homeRelative(item.path)));
            bigTitle_->show();
            bigItems_->show();
        }
    });
    connect(runner_, &SpaceRunner::scanned, this, &SpaceMapPage::onScanned);
    connect(runner_, &SpaceRunner::failed, this, [this](const QString& message, bool cancelled) {
        banner_->show(cancelled ? QStringLiteral("The scan was stopped.")
                                : QStringLiteral("The scan did not finish: ") + message,
                      cancelled ? Banner::Tone::info : Banner::Tone::warning,
                      state_.tree() ? QStringLiteral("The map still shows the last scan.")
                                    : QString());
        updateStatus();
    });
    connect(runner_, &SpaceRunner::runningChanged, this, [this](bool running) {
        progress_->setRunning(running);
        scan_->setEnabled(!running);
        scan_->setText(state_.tree() ? QStringLiteral("Scan Again") : QStringLiteral("Scan"));
    });
    showRoot(QModelIndex());
}

void SpaceMapPage::startScan(std::optional<double> budget) {
    budget_ = budget;
    banner_->hide();
    bigItems_->clear();
    bigTitle_->hide();
    bigItems_->hide();
    runner_->scan(root_, budget, streamMinimumBytes_);
    progress_->update(0, QStringLiteral("Starting the scan"));
    if (!state_.tree() || state_.tree()->root.path != root_) {
        status_->setText(root_ == homeDirectory()
                             ? QStringLiteral("Scanning your home folder…")
                             : QStringLiteral("Scanning %1…").arg(homeRelative(root_)));
        statusDetail_->setText(QStringLiteral("Reading sizes only; nothing moves. Big items are "
                                              "listed as soon as they are found."));
    }
}

void SpaceMapPage::chooseFolder() {
    folderDialog_->setDirectory(QString::fromStdString(root_));
    folderDialog_->open();
}

void SpaceMapPage::mapFolder(const std::string& folder) {
    std::string chosen = normalizePath(folder);
    const std::string& home = homeDirectory();
    if (chosen != home && !isInside(chosen, home)) {
        banner_->show(QStringLiteral("%1 is outside your home folder, so it was not mapped.")
                          .arg(QString::fromStdString(chosen)),
                      Banner::Tone::warning,
                      QStringLiteral("The Space Map reads folders inside your home folder, where "
                                     "your own files are. Nothing was read."));
        return;
    }
    root_ = chosen;
    mapHome_->setVisible(root_ != home);
    startScan(budget_);
}

void SpaceMapPage::setKnownCaches(KnownCaches caches) {
    model_->setKnownCaches(std::move(caches));
}

void SpaceMapPage::openRow(const QModelIndex& index) {
    QModelIndex at = index.siblingAtColumn(0);
    if (!at.isValid()) {
        return;
    }
    if (at.data(hasChildrenRole).toBool()) {
        sunburst_->setRootIndex(at);
        showRoot(at);
    } else {
        sunburst_->select(at);
    }
}

bool SpaceMapPage::eventFilter(QObject* watched, QEvent* event) {
    // The list answers the same keys as the map, and the mouse's back button goes back out
    // wherever it is pressed.
    if (event->type() == QEvent::MouseButtonPress &&
        static_cast<QMouseEvent*>(event)->button() == Qt::BackButton) {
        sunburst_->zoomOut();
        return true;
    }
    if (watched == list_ && event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter) {
            openRow(list_->currentIndex());
            return true;
        }
        if (key->key() == Qt::Key_Backspace) {
            sunburst_->zoomOut();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void SpaceMapPage::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::BackButton) {
        sunburst_->zoomOut();
        event->accept();
        return;
    }
    QWidget::mousePressEvent(event);
}

void SpaceMapPage::onScanned(const SpaceScanResult& result) {
    model_->beginChange();
    state_.replace(result.tree);
    model_->endChange();
    if (result.rootError) {
        banner_->show(QStringLiteral("Your home folder could not be read."), Banner::Tone::warning,
                      QString::fromStdString(result.rootError->what()) +
                          QStringLiteral(". Nothing was measured."));
    } else if (!result.tree.warnings.empty()) {
        QStringList lines;
        for (const std::string& w : result.tree.warnings) {
            lines << QString::fromStdString(w);
        }
        banner_->show(result.tree.warnings.size() == 1
                          ? QStringLiteral("One thing to know about this map.")
                          : QStringLiteral("%1 things to know about this map.")
                                .arg(result.tree.warnings.size()),
                      Banner::Tone::info, lines.join('\n'));
    }
    if (!result.rootError) {
        changes_->recordScan(result.tree);
        storage_->refresh(root_ == homeDirectory() ? std::optional(result.tree.root.bytes)
                                                   : std::nullopt);
    }
    // What streamed in while scanning is in the map now.
    bigTitle_->setVisible(bigItems_->count() > 0);
    bigItems_->setVisible(bigItems_->count() > 0);
    showRoot(model_->index(0, 0));
}

void SpaceMapPage::applyMoves(const std::vector<MovedItem>& moved) {
    if (!state_.tree() || moved.empty()) {
        return;
    }
    std::string trash = platform::dataHome() + "/Trash";
    const SpaceTree& tree = *state_.tree();
    bool credited = trash.starts_with(tree.root.path + "/");
    std::vector<SpaceTreeMove> moves;
    for (const MovedItem& item : moved) {
        const SpaceNode* node = findDeepestNode(tree.root, item.originalPath);
        std::uint64_t files =
            node != nullptr && node->path == item.originalPath ? node->fileCount : 0;
        if (auto move = describeMove(tree, item.originalPath, item.bytes, files, credited)) {
            moves.push_back(std::move(*move));
        }
    }
    if (moves.empty()) {
        return;
    }
    std::string shown = sunburst_->rootIndex().data(pathRole).toString().toStdString();
    model_->beginChange();
    state_.applyMoves(std::move(moves), trash);
    model_->endChange();
    QModelIndex again = model_->indexOfPath(shown);
    sunburst_->setRootIndex(again.isValid() ? again : model_->index(0, 0));
    showRoot(sunburst_->rootIndex());
}

void SpaceMapPage::onHovered(const QModelIndex& index) {
    if (!index.isValid()) {
        pointer_->setText(QStringLiteral("Point at a wedge to see what it is."));
        return;
    }
    QString size = index.siblingAtColumn(SpaceTreeModel::sizeColumn).data().toString();
    if (index.data(isOtherRole).toBool()) {
        pointer_->setText(index.data(noteRole).toString());
        return;
    }
    QString text =
        homeRelative(index.data(pathRole).toString().toStdString()) + QStringLiteral(" — ") + size;
    if (QString cache = index.data(knownCacheRole).toString(); !cache.isEmpty()) {
        text += QStringLiteral(". %1: a cache the Sweep measures.").arg(cache);
    }
    pointer_->setText(text);
}

void SpaceMapPage::onSelected(const QModelIndex& index) {
    reveal_->setEnabled(index.isValid());
    onHovered(index);
    if (index.isValid() && index.parent() == list_->rootIndex()) {
        list_->setCurrentIndex(index);
    }
}

void SpaceMapPage::showRoot(const QModelIndex& root) {
    list_->setRootIndex(root);
    if (QModelIndex first = model_->index(0, 0, root); first.isValid()) {
        list_->setCurrentIndex(first);
    }
    QStringList names;
    for (QModelIndex at = root; at.isValid(); at = at.parent()) {
        if (at.parent().isValid()) {
            names.prepend(at.data().toString());
        } else {
            std::string top = at.data(pathRole).toString().toStdString();
            names.prepend(top == homeDirectory() ? QStringLiteral("Home") : homeRelative(top));
        }
    }
    crumbs_->setText(names.join(QStringLiteral(" › ")));
    up_->setEnabled(root.isValid() && root.parent().isValid());
    reveal_->setEnabled(root.isValid());
    updateStatus();
}

QString SpaceMapPage::statusText() const {
    return status_->text() + "\n" + statusDetail_->text();
}

void SpaceMapPage::updateStatus() {
    if (!state_.tree()) {
        status_->setText(QStringLiteral("Not scanned yet."));
        statusDetail_->setText(QStringLiteral("A scan reads sizes only and takes at most 30 "
                                              "seconds; the map shows what it measured."));
        return;
    }
    const SpaceTree& tree = *state_.tree();
    std::string line = spaceStatusLine(tree, SpaceTreeScanner{}.effectiveBudget(),
                                       defaultSpaceScanOptions.maxDepth);
    if (budget_) {
        line = spaceStatusLine(tree, *budget_, defaultSpaceScanOptions.maxDepth);
    }
    status_->setText(QStringLiteral("%1 — %2 in %3 files.%4%5")
                         .arg(tree.root.path == homeDirectory() ? QStringLiteral("Your home folder")
                                                                : homeRelative(tree.root.path),
                              bytesText(tree.root.bytes),
                              QString::fromStdString(formatCount(tree.root.fileCount)),
                              tree.isTruncated ? QStringLiteral(" ") : QString(),
                              QString::fromStdString(line)));
    QString detail = QStringLiteral("%1 items scanned in %2.")
                         .arg(QString::fromStdString(formatCount(tree.scannedNodeCount)),
                              durationText(static_cast<double>(tree.durationMs) / 1000.0));
    if (state_.isStale()) {
        detail += QStringLiteral(" Updated for what moved to the Trash since; scan again for a "
                                 "fresh map.");
    }
    statusDetail_->setText(detail);
}

} // namespace sd::app
