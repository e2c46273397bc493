#include "app/SunburstView.h"

#include "app/Models.h"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QToolTip>
#include <array>
#include <cmath>
#include <numbers>

namespace sd::app {

namespace {

// Hues for the top-level wedges, chosen to sit apart and stay calm.
const std::array<QColor, 8> wedgePalette{QColor(0x4f, 0x7c, 0xe8), QColor(0x2f, 0xa8, 0x8f),
                                         QColor(0xe0, 0x8a, 0x3c), QColor(0x9b, 0x6b, 0xd6),
                                         QColor(0xd9, 0x5f, 0x7a), QColor(0x5a, 0xb0, 0xd8),
                                         QColor(0xc4, 0xa8, 0x35), QColor(0x6d, 0x8a, 0x5a)};
const QColor otherColour(0xc9, 0xce, 0xd6);
constexpr int ringsShown = 4;
constexpr double thinnestDegrees = 0.35; // narrower wedges are not drawn apart

} // namespace

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

} // namespace sd::app
