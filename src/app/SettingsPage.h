#pragma once

#include "app/CatalogState.h"
#include "app/Models.h"

#include <QListView>
#include <QPushButton>
#include <QWidget>

namespace sd::app {

// Settings: which catalog targets every Sweep leaves out, and what this build is.
class SettingsPage : public QWidget {
    Q_OBJECT

public:
    SettingsPage(CatalogState& catalog, QWidget* parent = nullptr);

    SweepTargetsModel& model() noexcept { return *model_; }
    QListView* list() const noexcept { return list_; }
    QPushButton* introductionButton() const noexcept { return again_; }

signals:
    void leftOutChanged();
    void showIntroduction();

private:
    SweepTargetsModel* model_;
    QListView* list_;
    QPushButton* again_;
};

} // namespace sd::app
