#include "foundation/eventlog.h"
#include "foundation/paths.h"

#include "support/dbfixture.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using namespace quill;
using quill::dbtest::CurrentLogText;

namespace {
// The pattern of one entry: "[yyyy-MM-dd HH:mm:ss.zzz] <pid> <text>".
QString entry(const QString& text)
{
    return "\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\] "
        + QString::number(QCoreApplication::applicationPid()) + ' ' + QRegularExpression::escape(text);
}
} // namespace

class TestEventLog : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        SetHomeDir(dir.path());
        QVERIFY(QDir::setCurrent(dir.path()));
    }
    void init()
    {
        SetLogClockForTesting({});
        SetUseLog(false);
        SetUseTrafficLog(false);
        for (const QString& f : QDir(dir.path()).entryList({"*.log"}))
            QFile::remove(dir.filePath(f));
    }

    void weekNames_data()
    {
        QTest::addColumn<QDate>("date");
        QTest::addColumn<QString>("name");
        QTest::newRow("mid November") << QDate(2004, 11, 15) << "Quillbase47.log";
        QTest::newRow("1 Jan in last year's week 53") << QDate(2021, 1, 1) << "Quillbase53.log";
        QTest::newRow("31 Dec in next year's week 1") << QDate(2024, 12, 31) << "Quillbase1.log";
        QTest::newRow("Monday of week 1") << QDate(2024, 1, 1) << "Quillbase1.log";
    }
    void weekNames()
    {
        QFETCH(QDate, date);
        QTEST(WeeklyLogName("Quillbase", date), "name");
    }

    // Events and traffic each have their switch; an entry is one line ending
    // with CR LF (no bare LF anywhere), a traffic entry its header line and the
    // text as it came.
    void entries_data()
    {
        QTest::addColumn<bool>("events");
        QTest::addColumn<bool>("traffic");
        QTest::addColumn<QString>("pattern"); // the whole file; empty: no file
        const QString traffic = entry("Network traffic\r\nBRIXA\t1.00\tP\nline two") + "\r\n";
        QTest::newRow("switched off") << false << false << "";
        QTest::newRow("events") << true << false << entry("first") + "\r\n" + entry("second") + "\r\n";
        QTest::newRow("traffic") << false << true << traffic;
        QTest::newRow("both") << true << true << entry("first") + "\r\n" + traffic + entry("second") + "\r\n";
    }
    void entries()
    {
        QFETCH(bool, events);
        QFETCH(bool, traffic);
        QFETCH(QString, pattern);
        SetUseLog(events);
        SetUseTrafficLog(traffic);
        LogInit("Quillbase");
        QCOMPARE(LogFileName(), WeeklyLogName("Quillbase", QDate::currentDate()));
        LogWrite("first");
        LogTraffic("BRIXA\t1.00\tP\nline two");
        LogWrite("second");
        QCOMPARE(QFile::exists(LogFilePath()), !pattern.isEmpty());
        const QString text = CurrentLogText();
        QVERIFY2(QRegularExpression("\\A" + pattern + "\\z").match(text).hasMatch(), qPrintable(text));
        const QDateTime t(QDate(2004, 11, 15), QTime(14, 3, 27, 45));
        QVERIFY(LogEntryHeader(t).startsWith("[2004-11-15 14:03:27.045] "));
    }

    void nameFixedAtStart()
    {
        SetUseLog(true);
        SetLogClockForTesting(QDate(2026, 11, 15)); // week 46
        LogInit("Quillbase");
        SetLogClockForTesting(QDate(2026, 11, 16)); // week 47
        LogWrite("after midnight");
        QCOMPARE(LogFileName(), QString("Quillbase46.log"));
        QVERIFY(QFile::exists(dir.filePath("Quillbase46.log")));
        QVERIFY(!QFile::exists(dir.filePath("Quillbase47.log")));
    }

    void logCleanup_data()
    {
        QTest::addColumn<QDate>("today");
        QTest::addColumn<QList<int>>("kept");
        QTest::newRow("week 1 keeps 53") << QDate(2026, 1, 1) << QList<int>{1, 53};
        QTest::newRow("week 10") << QDate(2026, 3, 5) << QList<int>{9, 10};
        QTest::newRow("week 53") << QDate(2020, 12, 31) << QList<int>{52, 53};
    }
    void logCleanup()
    {
        QFETCH(QDate, today);
        QFETCH(QList<int>, kept);
        SetLogClockForTesting(today);
        for (int i = 0; i <= 54; ++i) {
            for (const char* base : {"Quillbase", "Quillmotor"}) {
                QFile f(dir.filePath(QString("%1%2.log").arg(base).arg(i)));
                QVERIFY(f.open(QIODevice::WriteOnly));
            }
        }
        LogCleanup("Quillbase");
        for (int i = 0; i <= 54; ++i) {
            const bool expectKept = kept.contains(i) || i == 0 || i == 54; // only 1..53 are touched
            QCOMPARE(QFile::exists(dir.filePath(QString("Quillbase%1.log").arg(i))), expectKept);
            QVERIFY(QFile::exists(dir.filePath(QString("Quillmotor%1.log").arg(i))));
        }
    }

    void unwritableLogIsIgnored()
    {
        SetUseLog(true);
        LogInit("Quillbase");
        QVERIFY(QDir(dir.path()).mkdir(LogFileName())); // a folder where the file should be
        LogWrite("goes nowhere");                        // must simply return
        QVERIFY(QFileInfo(LogFilePath()).isDir());
        QVERIFY(QDir(dir.path()).rmdir(LogFileName()));
    }
};

QTEST_GUILESS_MAIN(TestEventLog)
#include "tst_eventlog.moc"
