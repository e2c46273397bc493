#pragma once

#include "app/CatalogState.h"
#include "app/Models.h"

#include <QWidget>

namespace sd::app {

// Settings: which catalog targets every Sweep leaves out, and what this build is.
class SettingsPage : public QWidget {
    Q_OBJECT

public:
    SettingsPage(CatalogState& catalog, QWidget* parent = nullptr);

    SweepTargetsModel& model() noexcept { return *model_; }

signals:
    void leftOutChanged();
    void showIntroduction();

private:
    SweepTargetsModel* model_;
};

} // namespace sd::app
