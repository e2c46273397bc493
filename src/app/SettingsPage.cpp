#include "app/SettingsPage.h"

#include "app/AssistantViews.h"
#include "app/DiskViews.h"
#include "app/Widgets.h"
#include "platform/Dirs.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QItemSelectionModel>
#include <QListView>
#include <QPushButton>
#include <QVBoxLayout>

namespace sd::app {

SettingsPage::SettingsPage(CatalogState& catalog, QWidget* parent) : QWidget(parent) {
    model_ = new SweepTargetsModel(catalog, this);
    QVBoxLayout* layout = pageLayout(
        this, QStringLiteral("Settings"),
        QStringLiteral("What every Sweep includes, and what this copy of Sparrowdeck is."));

    layout->addWidget(sectionLabel(QStringLiteral("Every Sweep")));
    layout->addWidget(paragraph(QStringLiteral("Switch a cache off to leave it out of every "
                                               "Sweep. You can still clean it from Cleanup."),
                                "muted"));
    list_ = new QListView;
    QListView* list = list_;
    list->setModel(model_);
    list->setAlternatingRowColors(true);
    list->setItemDelegate(new RoomyDelegate(30, list));
    layout->addWidget(list, 1);
    auto* note = paragraph(QString(), "muted");
    layout->addWidget(note);
    auto showNote = [note](const QModelIndex& index) {
        note->setText(index.isValid() ? index.data().toString() + QStringLiteral(": ") +
                                            index.data(noteRole).toString()
                                      : QString());
    };
    connect(list->selectionModel(), &QItemSelectionModel::currentChanged, this, showNote);
    connect(model_, &SweepTargetsModel::dataChanged, this,
            [list, showNote] { showNote(list->currentIndex()); });
    connect(model_, &SweepTargetsModel::leftOutChanged, this, &SettingsPage::leftOutChanged);

    layout->addSpacing(6);
    layout->addWidget(sectionLabel(QStringLiteral("Assistant")));
    layout->addWidget(new AssistantSettings(platform::UserDefaults::standard()));

    layout->addSpacing(6);
    layout->addWidget(sectionLabel(QStringLiteral("Companion")));
    layout->addWidget(new CompanionSettings);

    layout->addSpacing(6);
    layout->addWidget(sectionLabel(QStringLiteral("This copy")));
    layout->addWidget(paragraph(
        QStringLiteral("Sparrowdeck %1. It measures the caches of your whole account, system "
                       "caches included, and never deletes: what it reclaims goes to the Trash.")
            .arg(QApplication::applicationVersion()),
        nullptr));
    layout->addWidget(paragraph(
        QStringLiteral("Activity is kept in %1/journal.json; settings in %2/sparrowdeck.")
            .arg(homeRelative(platform::supportDirectory()), homeRelative(platform::configHome())),
        "muted"));
    again_ = new QPushButton(QStringLiteral("Show the Introduction Again"));
    QPushButton* again = again_;
    auto* row = new QHBoxLayout;
    row->addWidget(again);
    row->addStretch(1);
    layout->addLayout(row);
    connect(again, &QPushButton::clicked, this, &SettingsPage::showIntroduction);
}

} // namespace sd::app
