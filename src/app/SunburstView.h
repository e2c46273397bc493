#pragma once

#include "app/SpaceTreeModel.h"

#include <QColor>
#include <QPersistentModelIndex>
#include <QWidget>
#include <optional>
#include <vector>

namespace sd::app {

// A sunburst of the model: the shown folder in the middle, each ring one level deeper, each wedge
// as wide as its share. Hovering names a wedge, clicking a folder's wedge zooms into it, clicking
// the middle zooms back out. A node's "other" share is one grey wedge.
class SunburstView : public QWidget {
    Q_OBJECT

public:
    explicit SunburstView(QWidget* parent = nullptr);

    void setModel(SpaceTreeModel* model);
    void setRootIndex(const QModelIndex& index);
    QModelIndex rootIndex() const { return root_; }
    QModelIndex selectedIndex() const { return selected_; }
    // The wedge under a point of the widget; the root for the middle, invalid outside.
    QModelIndex indexAt(const QPointF& point) const;
    // The middle of a wedge drawn for `index`, for tests that click it.
    std::optional<QPointF> centreOf(const QModelIndex& index) const;

signals:
    void hovered(const QModelIndex& index);
    void selected(const QModelIndex& index);
    void zoomed(const QModelIndex& root);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    struct Wedge {
        QPersistentModelIndex index;
        double inner = 0, outer = 0; // radii
        double start = 0, span = 0;  // degrees, counter-clockwise from three o'clock
        QColor colour;
    };
    void layoutWedges();
    void addRing(const QModelIndex& parent, int depth, double start, double span, double hue);
    QPointF centre() const;

    SpaceTreeModel* model_ = nullptr;
    QPersistentModelIndex root_;
    QPersistentModelIndex hovered_;
    QPersistentModelIndex selected_;
    std::vector<Wedge> wedges_;
    double hole_ = 0;
    double ring_ = 0;
};

} // namespace sd::app
