#include "app/SpaceMapPage.h"

#include "app/Pages.h"
#include "core/ByteFormat.h"
#include "core/PathRules.h"
#include "platform/Dirs.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QToolTip>
#include <QVBoxLayout>
#include <cmath>
#include <numbers>

namespace sd::app {

namespace {

// An "other" row points at its node with the lowest bit set; nodes are aligned, so the bit is
// free.
constexpr quintptr otherTag = 1;

// Hues for the top-level wedges, chosen to sit apart and stay calm.
const std::array<QColor, 8> wedgePalette{QColor(0x4f, 0x7c, 0xe8), QColor(0x2f, 0xa8, 0x8f),
                                         QColor(0xe0, 0x8a, 0x3c), QColor(0x9b, 0x6b, 0xd6),
                                         QColor(0xd9, 0x5f, 0x7a), QColor(0x5a, 0xb0, 0xd8),
                                         QColor(0xc4, 0xa8, 0x35), QColor(0x6d, 0x8a, 0x5a)};
const QColor otherColour(0xc9, 0xce, 0xd6);
constexpr int ringsShown = 4;
constexpr double thinnestDegrees = 0.35; // narrower wedges are not drawn apart

} // namespace

// ---------------------------------------------------------------------------------------------
// SpaceTreeModel

SpaceTreeModel::SpaceTreeModel(const SpaceMapState& state, QObject* parent)
    : QAbstractItemModel(parent), state_(state) {
    rebuildParents();
}

void SpaceTreeModel::beginChange() {
    beginResetModel();
}

void SpaceTreeModel::endChange() {
    rebuildParents();
    endResetModel();
}

void SpaceTreeModel::rebuildParents() {
    // Nodes know their children only; the way up is kept here, pointing into the state's tree.
    parents_.clear();
    if (!state_.tree()) {
        return;
    }
    std::vector<const SpaceNode*> pending{&state_.tree()->root};
    parents_[pending.back()] = nullptr;
    while (!pending.empty()) {
        const SpaceNode* node = pending.back();
        pending.pop_back();
        for (const SpaceNode& child : node->children) {
            parents_[&child] = node;
            pending.push_back(&child);
        }
    }
}

bool SpaceTreeModel::isOther(const QModelIndex& index) const {
    return index.isValid() && (index.internalId() & otherTag) != 0;
}

const SpaceNode* SpaceTreeModel::nodeOf(const QModelIndex& index) const {
    if (!index.isValid()) {
        return nullptr;
    }
    return reinterpret_cast<const SpaceNode*>(index.internalId() & ~otherTag);
}

int SpaceTreeModel::rowsOf(const SpaceNode& node) const {
    return static_cast<int>(node.children.size()) + (node.otherBytes > 0 ? 1 : 0);
}

QModelIndex SpaceTreeModel::indexOfNode(const SpaceNode* node, int column) const {
    auto up = parents_.find(node);
    if (node == nullptr || up == parents_.end()) {
        return {};
    }
    int row = up->second == nullptr ? 0 : static_cast<int>(node - up->second->children.data());
    return createIndex(row, column, reinterpret_cast<quintptr>(node));
}

QModelIndex SpaceTreeModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnCount_ || !state_.tree()) {
        return {};
    }
    if (!parent.isValid()) {
        return row == 0 ? indexOfNode(&state_.tree()->root, column) : QModelIndex();
    }
    const SpaceNode* node = nodeOf(parent);
    if (isOther(parent) || row >= rowsOf(*node)) {
        return {};
    }
    if (static_cast<size_t>(row) < node->children.size()) {
        return createIndex(row, column,
                           reinterpret_cast<quintptr>(&node->children[static_cast<size_t>(row)]));
    }
    return createIndex(row, column, reinterpret_cast<quintptr>(node) | otherTag);
}

QModelIndex SpaceTreeModel::parent(const QModelIndex& child) const {
    if (!child.isValid()) {
        return {};
    }
    const SpaceNode* node = nodeOf(child);
    if (isOther(child)) {
        return indexOfNode(node);
    }
    auto up = parents_.find(node);
    return up == parents_.end() ? QModelIndex() : indexOfNode(up->second);
}

int SpaceTreeModel::rowCount(const QModelIndex& parent) const {
    if (!state_.tree()) {
        return 0;
    }
    if (!parent.isValid()) {
        return 1;
    }
    if (parent.column() != 0 || isOther(parent)) {
        return 0;
    }
    return rowsOf(*nodeOf(parent));
}

int SpaceTreeModel::columnCount(const QModelIndex&) const {
    return columnCount_;
}

QVariant SpaceTreeModel::data(const QModelIndex& index, int role) const {
    const SpaceNode* node = nodeOf(index);
    if (node == nullptr) {
        return {};
    }
    bool other = isOther(index);
    std::uint64_t bytes = other ? node->otherBytes : node->bytes;
    switch (role) {
    case Qt::DisplayRole:
        if (index.column() == sizeColumn) {
            return bytesText(bytes);
        }
        if (other) {
            return QStringLiteral("%1 smaller %2")
                .arg(QString::fromStdString(formatCount(node->otherCount)),
                     node->otherCount == 1 ? QStringLiteral("item") : QStringLiteral("items"));
        }
        if (node == &state_.tree()->root && node->path == homeDirectory()) {
            return QStringLiteral("Home");
        }
        return QString::fromStdString(node->name);
    case Qt::ToolTipRole:
    case noteRole:
        if (other) {
            return QString::fromStdString(otherShareNote(*node));
        }
        if (!node->isComplete) {
            return QStringLiteral("Not measured whole: the time limit or an unreadable folder "
                                  "cut it short.");
        }
        return role == noteRole ? QVariant() : QVariant(homeRelative(node->path));
    case Qt::TextAlignmentRole:
        return index.column() == sizeColumn ? QVariant(Qt::AlignRight | Qt::AlignVCenter)
                                            : QVariant();
    case bytesRole:
        return QVariant::fromValue<quint64>(bytes);
    case pathRole:
        return QString::fromStdString(node->path);
    case isOtherRole:
        return other;
    case isDirectoryRole:
        return !other && node->kind == SpaceNode::Kind::directory;
    case hasChildrenRole:
        return !other && !node->children.empty();
    case fileCountRole:
        return QVariant::fromValue<quint64>(other ? node->otherCount : node->fileCount);
    default:
        return {};
    }
}

QVariant SpaceTreeModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) {
        return {};
    }
    return section == nameColumn ? QStringLiteral("Name") : QStringLiteral("Size on disk");
}

QModelIndex SpaceTreeModel::indexOfPath(const std::string& path) const {
    if (!state_.tree()) {
        return {};
    }
    return indexOfNode(findDeepestNode(state_.tree()->root, path));
}

// ---------------------------------------------------------------------------------------------
// SunburstView

SunburstView::SunburstView(QWidget* parent) : QWidget(parent) {
    setMouseTracking(true);
    setMinimumSize(360, 360);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void SunburstView::setModel(SpaceTreeModel* model) {
    model_ = model;
    connect(model_, &QAbstractItemModel::modelReset, this,
            [this] { setRootIndex(model_->index(0, 0)); });
    setRootIndex(model_->index(0, 0));
}

void SunburstView::setRootIndex(const QModelIndex& index) {
    root_ = index;
    hovered_ = QModelIndex();
    selected_ = index;
    layoutWedges();
    update();
}

QPointF SunburstView::centre() const {
    return QRectF(rect()).center();
}

void SunburstView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    layoutWedges();
}

void SunburstView::layoutWedges() {
    wedges_.clear();
    double radius = std::min(width(), height()) / 2.0 - 8;
    hole_ = radius * 0.26;
    ring_ = (radius - hole_) / ringsShown;
    if (model_ == nullptr || !root_.isValid()) {
        return;
    }
    addRing(root_, 1, 0, 360, 0);
}

void SunburstView::addRing(const QModelIndex& parent, int depth, double start, double span,
                           double hue) {
    auto total = parent.data(bytesRole).value<quint64>();
    if (total == 0) {
        return;
    }
    double at = start;
    for (int row = 0; row < model_->rowCount(parent); ++row) {
        QModelIndex child = model_->index(row, 0, parent);
        double share = span * static_cast<double>(child.data(bytesRole).value<quint64>()) /
                       static_cast<double>(total);
        // Each top-level wedge has a hue of its own; below it, siblings turn the hue a little
        // apart and every ring is lighter, so neighbours stay tellable without a rainbow.
        double childHue =
            depth == 1
                ? wedgePalette[static_cast<size_t>(row) % wedgePalette.size()].hsvHueF() * 360
                : hue + (row % 2 == 0 ? 1 : -1) * 9.0 * ((row + 1) / 2);
        if (share >= thinnestDegrees) {
            QColor colour = otherColour;
            if (!child.data(isOtherRole).toBool()) {
                QColor base =
                    wedgePalette[static_cast<size_t>(depth == 1 ? row : 0) % wedgePalette.size()];
                double h = std::fmod(childHue + 360.0, 360.0) / 360.0;
                colour =
                    QColor::fromHsvF(static_cast<float>(h), base.hsvSaturationF(), base.valueF())
                        .lighter(100 + (depth - 1) * 12);
            }
            double inner = hole_ + (depth - 1) * ring_;
            wedges_.push_back({child, inner, inner + ring_, at, share, colour});
            if (depth < ringsShown && child.data(hasChildrenRole).toBool()) {
                addRing(child, depth + 1, at, share, childHue);
            }
        }
        at += share;
    }
}

void SunburstView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPointF c = centre();
    if (!root_.isValid()) {
        painter.setPen(QColor(0x6b, 0x72, 0x80));
        painter.drawText(rect(), Qt::AlignCenter | Qt::TextWordWrap,
                         QStringLiteral("Scan your home folder to draw its map."));
        return;
    }
    for (const Wedge& w : wedges_) {
        QRectF outer(c.x() - w.outer, c.y() - w.outer, 2 * w.outer, 2 * w.outer);
        QRectF inner(c.x() - w.inner, c.y() - w.inner, 2 * w.inner, 2 * w.inner);
        // Angles run clockwise from twelve o'clock; Qt's run counter-clockwise from three.
        double from = 90 - w.start;
        QPainterPath path;
        path.arcMoveTo(outer, from);
        path.arcTo(outer, from, -w.span);
        path.arcTo(inner, from - w.span, w.span);
        path.closeSubpath();
        QColor fill = w.colour;
        if (w.index == hovered_) {
            fill = fill.darker(115);
        }
        painter.fillPath(path, fill);
        if (w.index.data(isOtherRole).toBool()) {
            painter.fillPath(path, QBrush(QColor(0xa7, 0xae, 0xb8), Qt::BDiagPattern));
        }
        painter.setPen(QPen(QColor(0xf6, 0xf7, 0xf9), 1.2));
        painter.drawPath(path);
        if (w.index == selected_) {
            painter.setPen(QPen(QColor(0x1f, 0x23, 0x28), 2));
            painter.drawPath(path);
        }
    }
    // The middle names what is shown and, below a folder, offers the way back out.
    painter.setPen(Qt::NoPen);
    painter.setBrush(root_ == hovered_ ? QColor(0xee, 0xf1, 0xf6) : QColor(Qt::white));
    painter.drawEllipse(c, hole_ - 2, hole_ - 2);
    QRectF text(c.x() - hole_ * 0.8, c.y() - hole_ * 0.55, hole_ * 1.6, hole_ * 1.1);
    QFont name = font();
    name.setPixelSize(14);
    name.setWeight(QFont::DemiBold);
    QFont size = font();
    size.setPixelSize(18);
    size.setWeight(QFont::DemiBold);
    QFont hint = font();
    hint.setPixelSize(11);
    painter.setPen(QColor(0x1f, 0x23, 0x28));
    painter.setFont(name);
    painter.drawText(text.adjusted(0, 0, 0, -text.height() * 0.62), Qt::AlignCenter,
                     QFontMetrics(name).elidedText(root_.data().toString(), Qt::ElideMiddle,
                                                   static_cast<int>(text.width())));
    painter.setFont(size);
    painter.drawText(
        text.adjusted(0, text.height() * 0.3, 0, -text.height() * 0.3), Qt::AlignCenter,
        QModelIndex(root_).siblingAtColumn(SpaceTreeModel::sizeColumn).data().toString());
    if (root_.parent().isValid()) {
        painter.setFont(hint);
        painter.setPen(QColor(0x6b, 0x72, 0x80));
        painter.drawText(text.adjusted(0, text.height() * 0.66, 0, 0), Qt::AlignCenter,
                         QStringLiteral("Click to go back"));
    }
}

QModelIndex SunburstView::indexAt(const QPointF& point) const {
    QPointF d = point - centre();
    double distance = std::hypot(d.x(), d.y());
    if (distance < hole_) {
        return root_;
    }
    double angle = std::atan2(d.x(), -d.y()) * 180 / std::numbers::pi;
    if (angle < 0) {
        angle += 360;
    }
    for (const Wedge& w : wedges_) {
        if (distance >= w.inner && distance < w.outer && angle >= w.start &&
            angle < w.start + w.span) {
            return w.index;
        }
    }
    return {};
}

std::optional<QPointF> SunburstView::centreOf(const QModelIndex& index) const {
    for (const Wedge& w : wedges_) {
        if (w.index == index) {
            double angle = (w.start + w.span / 2) * std::numbers::pi / 180;
            double r = (w.inner + w.outer) / 2;
            return centre() + QPointF(r * std::sin(angle), -r * std::cos(angle));
        }
    }
    return std::nullopt;
}

void SunburstView::mouseMoveEvent(QMouseEvent* event) {
    QModelIndex at = indexAt(event->position());
    if (at != QModelIndex(hovered_)) {
        hovered_ = at;
        update();
        emit hovered(at);
    }
    if (at.isValid()) {
        QToolTip::showText(event->globalPosition().toPoint(),
                           homeRelative(at.data(pathRole).toString().toStdString()) + "\n" +
                               at.siblingAtColumn(SpaceTreeModel::sizeColumn).data().toString(),
                           this);
    }
}

void SunburstView::leaveEvent(QEvent* event) {
    hovered_ = QModelIndex();
    update();
    emit hovered(QModelIndex());
    QWidget::leaveEvent(event);
}

void SunburstView::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        return;
    }
    QModelIndex at = indexAt(event->position());
    if (!at.isValid()) {
        return;
    }
    if (at == QModelIndex(root_)) {
        QModelIndex up = root_.parent();
        if (up.isValid()) {
            setRootIndex(up);
            emit zoomed(up);
        }
        return;
    }
    if (at.data(hasChildrenRole).toBool()) {
        setRootIndex(at);
        emit zoomed(at);
        emit selected(at);
        return;
    }
    selected_ = at;
    update();
    emit selected(at);
}

// ---------------------------------------------------------------------------------------------
// SpaceMapPage

SpaceMapPage::SpaceMapPage(QWidget* parent) : QWidget(parent) {
    runner_ = new SpaceRunner(this);
    model_ = new SpaceTreeModel(state_, this);
    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Space Map"),
        QStringLiteral("Your home folder as rings: each ring is one level deeper, each wedge as "
                       "wide as the space it takes. Click a folder to look inside, the middle to "
                       "go back. Nothing moves from here."));

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
    scan_ = new QPushButton(QStringLiteral("Scan"));
    scan_->setProperty("primary", true);
    scan_->setMinimumWidth(110);
    top->addWidget(scan_, 0, Qt::AlignTop);
    layout->addLayout(top);
    progress_ = new ProgressStrip;
    layout->addWidget(progress_);
    banner_ = new Banner;
    layout->addWidget(banner_);

    auto* body = new QHBoxLayout;
    body->setSpacing(18);
    sunburst_ = new SunburstView;
    sunburst_->setModel(model_);
    body->addWidget(sunburst_, 3);

    auto* side = new QVBoxLayout;
    side->setSpacing(8);
    auto* crumbsRow = new QHBoxLayout;
    crumbs_ = new QLabel;
    crumbs_->setStyleSheet(QStringLiteral("font-weight: 600;"));
    up_ = new QPushButton(QStringLiteral("Back Out"));
    crumbsRow->addWidget(crumbs_, 1);
    crumbsRow->addWidget(up_);
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
    list_->setItemDelegate(new RoomyDelegate(28, list_));
    list_->header()->setSectionResizeMode(SpaceTreeModel::nameColumn, QHeaderView::Stretch);
    list_->header()->setSectionResizeMode(SpaceTreeModel::sizeColumn,
                                          QHeaderView::ResizeToContents);
    list_->header()->setStretchLastSection(false);
    list_->setTextElideMode(Qt::ElideMiddle);
    side->addWidget(list_, 1);
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
    sideBox->setFixedWidth(360);
    body->addWidget(sideBox);
    layout->addLayout(body, 1);

    connect(scan_, &QPushButton::clicked, this, [this] { startScan(budget_); });
    connect(progress_, &ProgressStrip::stopRequested, runner_, &SpaceRunner::stop);
    connect(up_, &QPushButton::clicked, this, [this] {
        QModelIndex up = sunburst_->rootIndex().parent();
        if (up.isValid()) {
            sunburst_->setRootIndex(up);
            showRoot(up);
        }
    });
    connect(reveal_, &QPushButton::clicked, this, [this] {
        QModelIndex at = sunburst_->selectedIndex();
        if (at.isValid()) {
            showInFiles(at.data(pathRole).toString());
        }
    });
    connect(sunburst_, &SunburstView::hovered, this, &SpaceMapPage::onHovered);
    connect(sunburst_, &SunburstView::selected, this, &SpaceMapPage::onSelected);
    connect(sunburst_, &SunburstView::zoomed, this, &SpaceMapPage::showRoot);
    connect(list_, &QTreeView::clicked, this, [this](const QModelIndex& index) {
        QModelIndex at = index.siblingAtColumn(0);
        if (at.data(hasChildrenRole).toBool()) {
            sunburst_->setRootIndex(at);
            showRoot(at);
        } else {
            onSelected(at);
        }
    });
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
    runner_->scan(homeDirectory(), budget, streamMinimumBytes_);
    progress_->update(0, QStringLiteral("Starting the scan"));
    if (!state_.tree()) {
        status_->setText(QStringLiteral("Scanning your home folder…"));
        statusDetail_->setText(QStringLiteral("Reading sizes only; nothing moves. Big items are "
                                              "listed as soon as they are found."));
    }
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
    pointer_->setText(homeRelative(index.data(pathRole).toString().toStdString()) +
                      QStringLiteral(" — ") + size);
}

void SpaceMapPage::onSelected(const QModelIndex& index) {
    reveal_->setEnabled(index.isValid());
    onHovered(index);
}

void SpaceMapPage::showRoot(const QModelIndex& root) {
    list_->setRootIndex(root);
    QStringList names;
    for (QModelIndex at = root; at.isValid(); at = at.parent()) {
        names.prepend(at.parent().isValid() ? at.data().toString() : QStringLiteral("Home"));
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
