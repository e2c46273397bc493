#include "app/SunburstView.h"

#include "app/Models.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QToolTip>
#include <algorithm>
#include <cmath>
#include <numbers>

namespace sd::app {

namespace {

constexpr int ringsShown = 4;
constexpr double thinnestDegrees = 0.35; // narrower wedges are not drawn apart
constexpr double fileDepth = 0.72;       // files reach this far across their ring
constexpr double labelPadding = 4;
constexpr int lettersAtLeast = 3; // a name cut shorter than this is not worth drawing
const QColor ink(0x1f, 0x23, 0x28);
const QColor mutedInk(0x6b, 0x72, 0x80);
const QColor focusInk(0x25, 0x63, 0xeb);
const QColor knownCacheInk(0x0f, 0x5f, 0x59);

double radians(double degrees) {
    return degrees * std::numbers::pi / 180;
}

// A point at `radius` and `degrees` clockwise from twelve o'clock.
QPointF polar(const QPointF& centre, double radius, double degrees) {
    return centre +
           QPointF(radius * std::sin(radians(degrees)), -radius * std::cos(radians(degrees)));
}

} // namespace

std::optional<LabelFit> fitWedgeLabel(const QString& name, const QFontMetricsF& metrics,
                                      double inner, double outer, double spanDegrees) {
    if (name.isEmpty() || outer <= inner || spanDegrees <= 0) {
        return std::nullopt;
    }
    double height = metrics.height();
    double thickness = outer - inner;
    double halfSpan = radians(std::min(spanDegrees, 180.0)) / 2;
    double middle = (inner + outer) / 2;

    // Along the ring the text is a straight line tangent at the middle radius: it must stay
    // between the wedge's two sides (the chord at its inner edge) and inside the outer arc.
    double ringLength = 0;
    if (height + 2 <= thickness) {
        double innerEdge = middle - height / 2;
        double outerEdge = middle + height / 2;
        double chord = spanDegrees >= 180 ? 2 * innerEdge : 2 * innerEdge * std::sin(halfSpan);
        double reach = outer - labelPadding / 2;
        double withinArc =
            reach > outerEdge ? 2 * std::sqrt(reach * reach - outerEdge * outerEdge) : 0;
        ringLength = std::min(chord, withinArc) - 2 * labelPadding;
    }
    // Along the radius the text runs from the inner arc to the outer one, and the wedge must be
    // as wide as a line of text where it is narrowest.
    double radiusLength = 0;
    double narrowest = spanDegrees >= 180 ? 2 * inner : 2 * inner * std::sin(halfSpan);
    if (height + 2 <= narrowest) {
        radiusLength = thickness - 2 * labelPadding;
    }

    double width = metrics.horizontalAdvance(name);
    if (ringLength > 0 && width <= ringLength) {
        return LabelFit{name, true};
    }
    if (radiusLength > 0 && width <= radiusLength) {
        return LabelFit{name, false};
    }
    bool alongRing = ringLength >= radiusLength;
    double room = std::max(ringLength, radiusLength);
    if (room <= 0) {
        return std::nullopt;
    }
    QString cut = metrics.elidedText(name, Qt::ElideRight, room);
    if (cut.size() < lettersAtLeast + 1) {
        return std::nullopt;
    }
    return LabelFit{cut, alongRing};
}

SunburstView::SunburstView(QWidget* parent) : QWidget(parent) {
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(300, 300);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void SunburstView::setModel(SpaceTreeModel* model) {
    model_ = model;
    connect(model_, &QAbstractItemModel::modelReset, this,
            [this] { setRootIndex(model_->index(0, 0)); });
    connect(model_, &SpaceTreeModel::coloursChanged, this, [this] {
        layoutWedges();
        update();
    });
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

QFont SunburstView::labelFont() const {
    QFont small = font();
    small.setPixelSize(11);
    return small;
}

void SunburstView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    layoutWedges();
}

void SunburstView::focusInEvent(QFocusEvent* event) {
    QWidget::focusInEvent(event);
    update();
}

void SunburstView::focusOutEvent(QFocusEvent* event) {
    QWidget::focusOutEvent(event);
    update();
}

void SunburstView::layoutWedges() {
    wedges_.clear();
    labels_.clear();
    double radius = std::min(width(), height()) / 2.0 - 8;
    hole_ = radius * 0.26;
    ring_ = (radius - hole_) / ringsShown;
    if (model_ == nullptr || !root_.isValid()) {
        return;
    }
    addRing(root_, 1, 0, 360);
    placeLabels();
}

void SunburstView::addRing(const QModelIndex& parent, int depth, double start, double span) {
    auto total = parent.data(bytesRole).value<quint64>();
    if (total == 0) {
        return;
    }
    double at = start;
    for (int row = 0; row < model_->rowCount(parent); ++row) {
        QModelIndex child = model_->index(row, 0, parent);
        double share = span * static_cast<double>(child.data(bytesRole).value<quint64>()) /
                       static_cast<double>(total);
        if (share >= thinnestDegrees) {
            bool other = child.data(isOtherRole).toBool();
            bool file = !other && !child.data(isDirectoryRole).toBool();
            double inner = hole_ + (depth - 1) * ring_;
            double outer = inner + (file ? ring_ * fileDepth : ring_);
            QColor colour = child.data(colourRole).value<QColor>();
            wedges_.push_back({child, inner, outer, at, share,
                               colour.isValid() ? colour : SpaceTreeModel::otherColour(), file,
                               !child.data(knownCacheRole).toString().isEmpty()});
            if (depth < ringsShown && child.data(hasChildrenRole).toBool()) {
                addRing(child, depth + 1, at, share);
            }
        }
        at += share;
    }
}

void SunburstView::placeLabels() {
    QFontMetricsF metrics(labelFont());
    QPointF c = centre();
    for (const Wedge& w : wedges_) {
        if (w.index.data(isOtherRole).toBool()) {
            continue;
        }
        std::optional<LabelFit> fit =
            fitWedgeLabel(w.index.data().toString(), metrics, w.inner, w.outer, w.span);
        if (!fit) {
            continue;
        }
        double middle = w.start + w.span / 2;
        // Text stays upright: along the ring it turns over in the lower half, along the radius
        // it reads outwards on the right and inwards on the left.
        double rotation = fit->alongRing ? (middle > 90 && middle < 270 ? middle - 180 : middle)
                                         : (middle <= 180 ? middle - 90 : middle - 270);
        labels_.push_back({w.index, fit->text, polar(c, (w.inner + w.outer) / 2, middle), rotation,
                           fit->alongRing});
    }
}

void SunburstView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPointF c = centre();
    if (hasFocus()) {
        painter.setPen(QPen(focusInk, 2));
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 10, 10);
    }
    if (!root_.isValid()) {
        painter.setPen(mutedInk);
        painter.drawText(rect(), Qt::AlignCenter | Qt::TextWordWrap,
                         QStringLiteral("Scan your home folder to draw its map."));
        return;
    }
    auto outline = [&](const Wedge& w) {
        QRectF outer(c.x() - w.outer, c.y() - w.outer, 2 * w.outer, 2 * w.outer);
        QRectF inner(c.x() - w.inner, c.y() - w.inner, 2 * w.inner, 2 * w.inner);
        // Angles run clockwise from twelve o'clock; Qt's run counter-clockwise from three.
        double from = 90 - w.start;
        QPainterPath path;
        path.arcMoveTo(outer, from);
        path.arcTo(outer, from, -w.span);
        path.arcTo(inner, from - w.span, w.span);
        path.closeSubpath();
        return path;
    };
    const Wedge* chosen = nullptr;
    for (const Wedge& w : wedges_) {
        QPainterPath path = outline(w);
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
        if (w.isKnownCache) {
            painter.setPen(QPen(knownCacheInk, 1.6, Qt::DashLine));
            painter.drawPath(path);
        }
        if (w.index == selected_) {
            chosen = &w;
        }
    }
    if (chosen != nullptr) {
        painter.setPen(QPen(hasFocus() ? focusInk : ink, hasFocus() ? 3 : 2));
        painter.drawPath(outline(*chosen));
    }

    QFont small = labelFont();
    painter.setFont(small);
    QFontMetricsF metrics(small);
    for (const Label& label : labels_) {
        const Wedge* w = wedgeOf(label.index);
        QColor fill = w != nullptr ? w->colour : QColor(Qt::white);
        painter.save();
        painter.translate(label.at);
        painter.rotate(label.rotation);
        painter.setPen(fill.lightnessF() > 0.62 ? ink : QColor(Qt::white));
        double width = metrics.horizontalAdvance(label.text) + 2;
        painter.drawText(QRectF(-width / 2, -metrics.height() / 2, width, metrics.height()),
                         Qt::AlignCenter, label.text);
        painter.restore();
    }

    // The middle names what is shown and, below a folder, offers the way back out.
    painter.setPen(Qt::NoPen);
    painter.setBrush(root_ == hovered_ ? QColor(0xee, 0xf1, 0xf6) : QColor(Qt::white));
    painter.drawEllipse(c, hole_ - 2, hole_ - 2);
    if (selected_ == root_ && hasFocus()) {
        painter.setPen(QPen(focusInk, 3));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(c, hole_ - 3, hole_ - 3);
    }
    QRectF text(c.x() - hole_ * 0.8, c.y() - hole_ * 0.55, hole_ * 1.6, hole_ * 1.1);
    // The middle's text shrinks with the map, so a small window still shows the whole size.
    QFont name = font();
    name.setPixelSize(std::clamp(static_cast<int>(hole_ * 0.2), 10, 14));
    name.setWeight(QFont::DemiBold);
    QFont size = font();
    size.setPixelSize(std::clamp(static_cast<int>(hole_ * 0.24), 11, 18));
    size.setWeight(QFont::DemiBold);
    painter.setPen(ink);
    painter.setFont(name);
    painter.drawText(text.adjusted(0, 0, 0, -text.height() * 0.62), Qt::AlignCenter,
                     QFontMetrics(name).elidedText(root_.data().toString(), Qt::ElideMiddle,
                                                   static_cast<int>(text.width())));
    painter.setFont(size);
    painter.drawText(
        text.adjusted(-hole_ * 0.15, text.height() * 0.3, hole_ * 0.15, -text.height() * 0.3),
        Qt::AlignCenter,
        QModelIndex(root_).siblingAtColumn(SpaceTreeModel::sizeColumn).data().toString());
    if (root_.parent().isValid()) {
        painter.setFont(small);
        painter.setPen(mutedInk);
        painter.drawText(text.adjusted(0, text.height() * 0.66, 0, 0), Qt::AlignCenter,
                         QStringLiteral("Click to go back"));
    }
}

const SunburstView::Wedge* SunburstView::wedgeOf(const QModelIndex& index) const {
    for (const Wedge& w : wedges_) {
        if (w.index == index) {
            return &w;
        }
    }
    return nullptr;
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
    const Wedge* w = wedgeOf(index);
    if (w == nullptr) {
        return std::nullopt;
    }
    return polar(centre(), (w->inner + w->outer) / 2, w->start + w->span / 2);
}

std::optional<QColor> SunburstView::colourOf(const QModelIndex& index) const {
    const Wedge* w = wedgeOf(index);
    return w == nullptr ? std::nullopt : std::optional(w->colour);
}

void SunburstView::select(const QModelIndex& index) {
    QModelIndex chosen = index.siblingAtColumn(0);
    if (chosen != QModelIndex(root_) && wedgeOf(chosen) == nullptr) {
        chosen = root_;
    }
    selected_ = chosen;
    update();
    emit selected(chosen);
}

bool SunburstView::zoomIn() {
    QModelIndex chosen = selected_;
    if (!chosen.isValid() || chosen == QModelIndex(root_) ||
        !chosen.data(hasChildrenRole).toBool()) {
        return false;
    }
    setRootIndex(chosen);
    emit zoomed(chosen);
    emit selected(chosen);
    return true;
}

bool SunburstView::zoomOut() {
    QModelIndex from = root_;
    QModelIndex up = from.parent();
    if (!up.isValid()) {
        return false;
    }
    setRootIndex(up);
    emit zoomed(up);
    // The folder just left stays chosen, so Enter goes straight back in.
    select(from);
    return true;
}

std::vector<QModelIndex> SunburstView::ringOf(const QModelIndex& index) const {
    std::vector<const Wedge*> ring;
    for (const Wedge& w : wedges_) {
        if (QModelIndex(w.index).parent() == index.parent()) {
            ring.push_back(&w);
        }
    }
    std::sort(ring.begin(), ring.end(),
              [](const Wedge* a, const Wedge* b) { return a->start < b->start; });
    std::vector<QModelIndex> out;
    out.reserve(ring.size());
    for (const Wedge* w : ring) {
        out.push_back(w->index);
    }
    return out;
}

void SunburstView::moveSelection(int key) {
    QModelIndex at = selected_;
    auto firstChild = [this](const QModelIndex& parent) -> QModelIndex {
        for (const Wedge& w : wedges_) {
            if (QModelIndex(w.index).parent() == parent) {
                return w.index;
            }
        }
        return {};
    };
    if (!at.isValid() || at == QModelIndex(root_)) {
        if (key != Qt::Key_Up) {
            if (QModelIndex first = firstChild(root_); first.isValid()) {
                select(first);
            }
        }
        return;
    }
    switch (key) {
    case Qt::Key_Left:
    case Qt::Key_Right: {
        std::vector<QModelIndex> ring = ringOf(at);
        auto here = std::find(ring.begin(), ring.end(), at);
        if (here == ring.end() || ring.size() < 2) {
            return;
        }
        auto n = static_cast<std::ptrdiff_t>(ring.size());
        std::ptrdiff_t i = here - ring.begin();
        select(ring[static_cast<size_t>((i + (key == Qt::Key_Right ? 1 : n - 1)) % n)]);
        return;
    }
    case Qt::Key_Down:
        if (QModelIndex first = firstChild(at); first.isValid()) {
            select(first);
        }
        return;
    case Qt::Key_Up:
        select(at.parent());
        return;
    default:
        return;
    }
}

void SunburstView::keyPressEvent(QKeyEvent* event) {
    switch (event->key()) {
    case Qt::Key_Left:
    case Qt::Key_Right:
    case Qt::Key_Up:
    case Qt::Key_Down:
        moveSelection(event->key());
        event->accept();
        return;
    case Qt::Key_Return:
    case Qt::Key_Enter:
        zoomIn();
        event->accept();
        return;
    case Qt::Key_Backspace:
        zoomOut();
        event->accept();
        return;
    default:
        QWidget::keyPressEvent(event);
    }
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
    if (event->button() == Qt::BackButton) {
        zoomOut();
        event->accept();
        return;
    }
    if (event->button() != Qt::LeftButton) {
        QWidget::mousePressEvent(event);
        return;
    }
    QModelIndex at = indexAt(event->position());
    if (!at.isValid()) {
        return;
    }
    if (at == QModelIndex(root_)) {
        zoomOut();
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

} // namespace sd::app
