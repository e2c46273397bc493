#include "app/DiskViews.h"

#include "app/Models.h"
#include "app/Widgets.h"
#include "base/CleanerError.h"
#include "core/ByteFormat.h"
#include "platform/Home.h"
#include "platform/LoginItem.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDateTime>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QHelpEvent>
#include <QPainter>
#include <QToolTip>
#include <QVBoxLayout>
#include <ctime>

namespace sd::app {
namespace {

const QColor freeColour(0xd8, 0xde, 0xe6);
const QColor reserveColour(0xb8, 0xc0, 0xcc);
const QColor restColour(0x8a, 0x94, 0xa6);
const QColor rowColours[] = {QColor(0x3b, 0x82, 0xf6), QColor(0x10, 0xb9, 0x81),
                             QColor(0xf5, 0x9e, 0x0b), QColor(0xef, 0x44, 0x44),
                             QColor(0x8b, 0x5c, 0xf6), QColor(0x06, 0xb6, 0xd4),
                             QColor(0xec, 0x48, 0x99), QColor(0x84, 0xcc, 0x16)};

QString text(const std::string& s) {
    return QString::fromStdString(s);
}

QString signedBytes(std::int64_t delta) {
    std::uint64_t size =
        delta < 0 ? static_cast<std::uint64_t>(-delta) : static_cast<std::uint64_t>(delta);
    return (delta < 0 ? QStringLiteral("−") : QStringLiteral("+")) + bytesText(size);
}

} // namespace

StorageBar::StorageBar(QWidget* parent) : QWidget(parent) {
    runner_ = new TaskRunner(this);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(4);
    auto* top = new QHBoxLayout;
    summary_ = new QLabel;
    summary_->setWordWrap(true);
    explain_ = new QPushButton(QStringLiteral("Explain the Whole Disk"));
    top->addWidget(summary_, 1);
    top->addWidget(explain_, 0, Qt::AlignTop);
    layout->addLayout(top);
    layout->addSpacing(22); // the bar is painted here
    rows_ = new QLabel;
    rows_->setObjectName(QStringLiteral("muted"));
    rows_->setWordWrap(true);
    rows_->setTextFormat(Qt::PlainText);
    rows_->hide();
    layout->addWidget(rows_);
    connect(explain_, &QPushButton::clicked, this, &StorageBar::explain);
    connect(runner_, &TaskRunner::runningChanged, this, [this](bool running) {
        explain_->setEnabled(!running);
        explain_->setText(running ? QStringLiteral("Measuring the Disk…")
                                  : QStringLiteral("Explain the Whole Disk"));
    });
    connect(runner_, &TaskRunner::failed, this, [this](const QString& message, bool cancelled) {
        rows_->setText(cancelled ? QStringLiteral("Stopped; nothing was changed.")
                                 : message + QStringLiteral(" Nothing was changed."));
        rows_->show();
    });
    refresh();
}

void StorageBar::refresh(std::optional<std::uint64_t> homeBytes) {
    std::string error;
    figures_ = platform::volumeFigures(platform::homeDirectory(), error);
    if (!figures_) {
        summary_->setText(text(error));
        segments_.clear();
        update();
        return;
    }
    const platform::VolumeFigures& f = *figures_;
    summary_->setText(QStringLiteral("%1 (%2): %3 used, %4 free of %5.")
                          .arg(text(f.mountPoint), text(f.fileSystemType), bytesText(f.usedBytes),
                               bytesText(f.freeBytes), bytesText(f.totalBytes)));
    segments_.clear();
    if (homeBytes && *homeBytes <= f.usedBytes) {
        segments_.push_back({QStringLiteral("Your home folder"), *homeBytes,
                             QStringLiteral("What the last scan measured in your home.")});
        segments_.push_back({QStringLiteral("Everything else"), f.usedBytes - *homeBytes,
                             QStringLiteral("The system, apps and other folders. Explain the "
                                            "whole disk to see what.")});
    } else {
        segments_.push_back({QStringLiteral("Used"), f.usedBytes, QString()});
    }
    update();
}

void StorageBar::explain() {
    runner_->start<DiskReport>(
        [](const std::stop_token& stop) {
            DiskSurvey survey;
            return survey.survey(stop);
        },
        [this](DiskReport& report) { showReport(report); });
}

void StorageBar::showReport(const DiskReport& report) {
    for (const DiskVolume& volume : report.volumes) {
        if (!volume.holdsHome) {
            continue;
        }
        figures_ = volume.figures;
        segments_.clear();
        QStringList lines;
        for (const DiskRow& row : volume.rows) {
            QString sentence = text(row.sentence);
            if (!row.reclaimCommands.empty()) {
                sentence += QStringLiteral(" To give it back, run: ") +
                            text(row.reclaimCommands.front()) +
                            QStringLiteral(" (Sparrowdeck never runs it).");
            }
            segments_.push_back({text(row.title), row.bytes, sentence});
            lines << QStringLiteral("%1 — %2. %3")
                         .arg(text(row.title), bytesText(row.bytes), sentence);
        }
        segments_.push_back({QStringLiteral("The unexplained rest"), volume.unexplainedBytes,
                             text(volume.unexplainedSentence)});
        lines << QStringLiteral("The unexplained rest — %1. %2")
                     .arg(bytesText(volume.unexplainedBytes), text(volume.unexplainedSentence));
        rows_->setText(lines.join(QLatin1Char('\n')));
        rows_->show();
    }
    update();
}

QRect StorageBar::barRect() const {
    int top = summary_->geometry().bottom() + 6;
    return {0, top, width(), 16};
}

int StorageBar::segmentAt(const QPoint& at) const {
    if (!figures_ || !barRect().contains(at) || figures_->totalBytes == 0) {
        return -1;
    }
    const QRect bar = barRect();
    double x = bar.left();
    for (size_t i = 0; i < segments_.size(); ++i) {
        double w = bar.width() * static_cast<double>(segments_[i].bytes) /
                   static_cast<double>(figures_->totalBytes);
        if (at.x() >= x && at.x() < x + w) {
            return static_cast<int>(i);
        }
        x += w;
    }
    return -1;
}

bool StorageBar::event(QEvent* e) {
    if (e->type() == QEvent::ToolTip) {
        auto* help = static_cast<QHelpEvent*>(e);
        int i = segmentAt(help->pos());
        if (i >= 0) {
            const Segment& s = segments_[static_cast<size_t>(i)];
            QToolTip::showText(
                help->globalPos(),
                QStringLiteral("%1 — %2\n%3").arg(s.title, bytesText(s.bytes), s.sentence), this);
        } else {
            QToolTip::hideText();
        }
        return true;
    }
    return QWidget::event(e);
}

void StorageBar::paintEvent(QPaintEvent*) {
    if (!figures_ || figures_->totalBytes == 0) {
        return;
    }
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRect bar = barRect();
    const double total = static_cast<double>(figures_->totalBytes);
    double x = bar.left();
    auto fill = [&](std::uint64_t bytes, const QColor& colour) {
        double w = bar.width() * static_cast<double>(bytes) / total;
        p.fillRect(QRectF(x, bar.top(), w, bar.height()), colour);
        x += w;
    };
    for (size_t i = 0; i < segments_.size(); ++i) {
        bool rest = segments_[i].title == QStringLiteral("The unexplained rest");
        fill(segments_[i].bytes, rest ? restColour : rowColours[i % std::size(rowColours)]);
    }
    fill(figures_->freeBytes, freeColour);
    fill(figures_->reservedBytes, reserveColour);
    p.setPen(QPen(palette().color(QPalette::Mid), 1));
    p.setBrush(Qt::NoBrush);
    p.drawRoundedRect(QRectF(bar).adjusted(0.5, 0.5, -0.5, -0.5), 3, 3);
}

ChangesPanel::ChangesPanel(QWidget* parent) : QWidget(parent) {
    runner_ = new TaskRunner(this);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    headline_ = new QLabel(QStringLiteral("Scan to see what changed since the last time."));
    headline_->setWordWrap(true);
    layout->addWidget(headline_);
    list_ = new QTreeWidget;
    list_->setColumnCount(3);
    list_->setHeaderLabels(
        {QStringLiteral("Change"), QStringLiteral("Folder"), QStringLiteral("Now")});
    list_->setRootIsDecorated(false);
    list_->setUniformRowHeights(true);
    list_->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    list_->header()->setSectionResizeMode(1, QHeaderView::Stretch);
    list_->header()->setSectionResizeMode(2, QHeaderView::ResizeToContents);
    list_->setTextElideMode(Qt::ElideMiddle);
    layout->addWidget(list_, 1);
    connect(runner_, &TaskRunner::failed, this, [this](const QString& message, bool) {
        headline_->setText(QStringLiteral("The scan could not be compared: ") + message);
    });
}

void ChangesPanel::recordScan(const SpaceTree& tree) {
    ScanSnapshot snapshot = snapshotOf(tree, static_cast<std::int64_t>(std::time(nullptr)));
    runner_->start<Outcome>(
        [snapshot](const std::stop_token&) {
            Outcome outcome;
            ScanHistory history(ScanHistory::defaultFile());
            outcome.notice = history.recoveryNotice();
            std::int64_t id = history.save(snapshot);
            history.thin(snapshot.takenAt);
            if (auto base = baselineFor(history.snapshots(snapshot.root), id)) {
                outcome.baseline = history.load(base->id);
            }
            if (outcome.baseline) {
                outcome.changes = compareSnapshots(*outcome.baseline, snapshot);
                outcome.totalDelta = static_cast<std::int64_t>(snapshot.totalBytes) -
                                     static_cast<std::int64_t>(outcome.baseline->totalBytes);
            }
            return outcome;
        },
        [this](Outcome& outcome) {
            list_->clear();
            changes_.reset();
            if (outcome.baseline) {
                changes_ = outcome.changes;
            }
            QString line;
            if (!outcome.baseline) {
                line = QStringLiteral("This is the first scan kept of this folder; the next one "
                                      "will show what changed.");
            } else {
                line = QStringLiteral("%1 since the scan of %2.")
                           .arg(signedBytes(outcome.totalDelta),
                                QDateTime::fromSecsSinceEpoch(outcome.baseline->takenAt)
                                    .toString(QStringLiteral("d MMMM, hh:mm")));
                line += outcome.changes.empty()
                            ? QStringLiteral(" No folder grew or shrank by 1 MB or more.")
                            : QStringLiteral(" On the map, warm wedges grew and cool ones shrank; "
                                             "grey ones stayed about the same.");
            }
            if (outcome.notice) {
                line = text(*outcome.notice) + QLatin1Char(' ') + line;
            }
            headline_->setText(line);
            for (const FolderChange& c : outcome.changes) {
                QString kind = c.kind == ChangeKind::appeared   ? QStringLiteral(" (new)")
                               : c.kind == ChangeKind::vanished ? QStringLiteral(" (gone)")
                                                                : QString();
                auto* item = new QTreeWidgetItem(
                    {signedBytes(c.delta()), homeRelative(c.path) + kind, bytesText(c.after)});
                item->setData(1, Qt::UserRole, text(c.path));
                item->setForeground(0, c.delta() > 0 ? QColor(0xc2, 0x41, 0x0c)
                                                     : QColor(0x04, 0x78, 0x57));
                list_->addTopLevelItem(item);
            }
            emit changesShown();
        });
}

CompanionSettings::CompanionSettings(QWidget* parent) : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    startAtLogin_ = new QCheckBox(QStringLiteral("Start the companion at login"));
    startAtLogin_->setChecked(platform::companionStartsAtLogin());
    note_ = paragraph(QStringLiteral("It sits in the tray, samples free space every 30 minutes "
                                     "and tells you, a few times a month at most, when the disk "
                                     "runs low, when removed apps left data behind, and on "
                                     "Sundays how the week went."),
                      "muted");
    layout->addWidget(startAtLogin_);
    layout->addWidget(note_);
    connect(startAtLogin_, &QCheckBox::toggled, this, [this](bool on) {
        try {
            platform::setCompanionStartsAtLogin(
                on, QCoreApplication::applicationFilePath().toStdString());
        } catch (const CleanerError& error) {
            QSignalBlocker block(startAtLogin_);
            startAtLogin_->setChecked(!on);
            note_->setText(text(error.what()));
        }
    });
}

} // namespace sd::app
