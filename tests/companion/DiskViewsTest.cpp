// The Space Map's storage bar and its What Changed list, on the offscreen platform.
#include "app/DiskViews.h"

#include "AppTestMain.h"
#include "Fixture.h"
#include "app/Models.h"
#include "platform/Home.h"
#include "space/SpaceTreeScanner.h"

#include <QSignalSpy>
#include <QTest>
#include <fstream>

namespace sd::test {

class DiskViewsTest : public QObject {
    Q_OBJECT

private slots:
    void whatChangedListsTheGrownChain() {
        std::string t = freshFolder("changes-panel");
        makeDirs(t + "/a/b");
        makeDirs(t + "/quiet");
        writeFilledFile(t + "/a/b/grows", 2'000'000);
        writeFilledFile(t + "/quiet/stays", 3'000'000);
        app::ChangesPanel panel;
        QSignalSpy shown(&panel, &app::ChangesPanel::changesShown);
        SpaceTreeScanner scanner;
        panel.recordScan(scanner.scan(t).tree);
        QVERIFY(shown.wait(20'000));
        QVERIFY2(panel.headline().contains(QStringLiteral("first scan")),
                 qPrintable(panel.headline()));
        QCOMPARE(panel.list()->topLevelItemCount(), 0);

        {
            std::ofstream more(t + "/a/b/grows", std::ios::app | std::ios::binary);
            more << std::string(5'000'000, 'z');
        }
        panel.recordScan(scanner.scan(t).tree);
        QVERIFY(shown.wait(20'000));
        QStringList paths;
        for (int i = 0; i < panel.list()->topLevelItemCount(); ++i) {
            QTreeWidgetItem* item = panel.list()->topLevelItem(i);
            paths << item->data(1, Qt::UserRole).toString();
            QVERIFY2(item->text(0).startsWith(QStringLiteral("+5.0")), qPrintable(item->text(0)));
        }
        const QString root = QString::fromStdString(t);
        QCOMPARE(paths,
                 (QStringList{root, root + QStringLiteral("/a"), root + QStringLiteral("/a/b")}));
        QVERIFY2(panel.headline().startsWith(QStringLiteral("+5.0")), qPrintable(panel.headline()));
    }

    void theStorageBarShowsTheFileSystemsFigures() {
        app::StorageBar bar;
        std::string error;
        auto usedNow = [&] {
            return platform::volumeFigures(platform::homeDirectory(), error).value().usedBytes;
        };
        const platform::VolumeFigures f =
            platform::volumeFigures(platform::homeDirectory(), error).value();
        QVERIFY2(bar.summaryText().endsWith(
                     QStringLiteral(" free of %1.").arg(app::bytesText(f.totalBytes))),
                 qPrintable(bar.summaryText()));
        QCOMPARE(bar.segments().size(), size_t{1});

        // After a scan of the home: the home's part and everything else, which together are the
        // used figure read at that moment (others may write to this disk while the test runs).
        std::uint64_t before = usedNow();
        bar.refresh(std::uint64_t{1'000'000});
        std::uint64_t after = usedNow();
        QCOMPARE(bar.segments().size(), size_t{2});
        QCOMPARE(bar.segments()[0].bytes, std::uint64_t{1'000'000});
        std::uint64_t sum = bar.segments()[0].bytes + bar.segments()[1].bytes;
        QVERIFY(sum >= std::min(before, after) && sum <= std::max(before, after));

        // A home bigger than all that is used cannot be right: the bar does not split.
        bar.refresh(f.totalBytes + 1);
        QCOMPARE(bar.segments().size(), size_t{1});
    }
};

SD_REGISTER_APP_TEST(DiskViewsTest);

} // namespace sd::test

#include "DiskViewsTest.moc"
