#pragma once

#include "app/SpaceTreeModel.h"

#include <QColor>
#include <QFontMetricsF>
#include <QPersistentModelIndex>
#include <QWidget>
#include <optional>
#include <vector>

namespace sd::app {

// How a wedge's name fits it: along the ring when there is room there, else along the radius,
// else cut short with an ellipsis while a few letters still show. Nothing when even that fails.
struct LabelFit {
    QString text;
    bool alongRing = true;
};
std::optional<LabelFit> fitWedgeLabel(const QString& name, const QFontMetricsF& metrics,
                                      double inner, double outer, double spanDegrees);

// A sunburst of the model: the shown folder in the middle, each ring one level deeper, each wedge
// as wide as its share and named when its name fits. Folders fill their ring; files are pale and
// shorter; a node's "other" share is one grey wedge; caches the Sweep measures have a dashed
// outline. Colours come from the model, so they stay put when the map zooms.
//
// Pointer: hovering names a wedge, clicking a folder zooms into it, clicking the middle or the
// mouse's back button zooms out. Keyboard: the arrows choose a wedge (left and right among its
// neighbours, down into it, up out of it), Enter zooms into the chosen folder, Backspace out.
class SunburstView : public QWidget {
    Q_OBJECT

public:
    // A name drawn on a wedge, as the view placed it.
    struct Label {
        QPersistentModelIndex index;
        QString text;
        QPointF at;          // the middle of the text
        double rotation = 0; // degrees, clockwise
        bool alongRing = true;
    };

    explicit SunburstView(QWidget* parent = nullptr);

    void setModel(SpaceTreeModel* model);
    void setRootIndex(const QModelIndex& index);
    QModelIndex rootIndex() const { return root_; }
    QModelIndex selectedIndex() const { return selected_; }
    // Chooses a wedge as the arrows would; the root when `index` is not drawn.
    void select(const QModelIndex& index);
    // The wedge under a point of the widget; the root for the middle, invalid outside.
    QModelIndex indexAt(const QPointF& point) const;
    // The middle of a wedge drawn for `index`, for tests that click it.
    std::optional<QPointF> centreOf(const QModelIndex& index) const;
    // The colour a drawn wedge is filled with.
    std::optional<QColor> colourOf(const QModelIndex& index) const;
    // Every name drawn on the map, in drawing order.
    const std::vector<Label>& labels() const noexcept { return labels_; }
    // Zooms into the chosen folder; false when the choice is not a folder with rows of its own.
    bool zoomIn();
    // Zooms out to the shown folder's parent; false at the top.
    bool zoomOut();

signals:
    void hovered(const QModelIndex& index);
    void selected(const QModelIndex& index);
    void zoomed(const QModelIndex& root);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;

private:
    struct Wedge {
        QPersistentModelIndex index;
        double inner = 0, outer = 0; // radii
        double start = 0, span = 0;  // degrees, clockwise from twelve o'clock
        QColor colour;
        bool isFile = false;
        bool isKnownCache = false;
    };
    void layoutWedges();
    void addRing(const QModelIndex& parent, int depth, double start, double span);
    void placeLabels();
    const Wedge* wedgeOf(const QModelIndex& index) const;
    // The drawn neighbours of a wedge in its ring, in clockwise order.
    std::vector<QModelIndex> ringOf(const QModelIndex& index) const;
    void moveSelection(int key);
    QPointF centre() const;
    QFont labelFont() const;

    SpaceTreeModel* model_ = nullptr;
    QPersistentModelIndex root_;
    QPersistentModelIndex hovered_;
    QPersistentModelIndex selected_;
    std::vector<Wedge> wedges_;
    std::vector<Label> labels_;
    double hole_ = 0;
    double ring_ = 0;
};

} // namespace sd::app
