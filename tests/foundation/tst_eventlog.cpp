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
    void weekNames_data();
    void weekNames();
    void switchedOffWritesNothing();
    void entryFormat();
    void trafficEntry();
    void nameFixedAtStart();
    void logCleanup_data();
    void logCleanup();
    void unwritableLogIsIgnored();
};

void TestEventLog::weekNames_data()
{
    QTest::addColumn<QDate>("date");
    QTest::addColumn<QString>("name");
    QTest::newRow("mid November") << QDate(2004, 11, 15) << "Quillbase47.log";
    QTest::newRow("February") << QDate(2026, 2, 12) << "Quillbase7.log";
    QTest::newRow("1 Jan in last year's week 53") << QDate(2021, 1, 1) << "Quillbase53.log";
    QTest::newRow("31 Dec in next year's week 1") << QDate(2024, 12, 31) << "Quillbase1.log";
    QTest::newRow("Monday of week 1") << QDate(2024, 1, 1) << "Quillbase1.log";
}

void TestEventLog::weekNames()
{
    QFETCH(QDate, date);
    QFETCH(QString, name);
    QCOMPARE(WeeklyLogName("Quillbase", date), name);
}

void TestEventLog::switchedOffWritesNothing()
{
    LogInit("Quillbase");
    LogWrite("nothing");
    LogTraffic("nothing");
    QVERIFY(!QFile::exists(LogFilePath()));
}

void TestEventLog::entryFormat()
{
    SetUseLog(true);
    LogInit("Quillbase");
    QCOMPARE(LogFileName(), WeeklyLogName("Quillbase", QDate::currentDate()));
    LogWrite("first");
    LogWrite("second");
    const QString text = CurrentLogText();
    const QRegularExpression entry(
        "^\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}\\] \\d+ (first|second)$");
    const QStringList lines = text.split("\r\n");
    QCOMPARE(lines.size(), 3); // two entries, each ending with CR LF
    QVERIFY2(entry.match(lines[0]).hasMatch(), qPrintable(lines[0]));
    QVERIFY2(entry.match(lines[1]).hasMatch(), qPrintable(lines[1]));
    QVERIFY(lines[2].isEmpty());
    QVERIFY(!text.contains(QRegularExpression("[^\r]\n")));

    const QDateTime t(QDate(2004, 11, 15), QTime(14, 3, 27, 45));
    QVERIFY(LogEntryHeader(t).startsWith("[2004-11-15 14:03:27.045] "));
}

void TestEventLog::trafficEntry()
{
    SetUseTrafficLog(true);
    LogInit("Quillbase");
    LogWrite("event is off");
    LogTraffic("BRIXA\t1.00\tP\nline two");
    const QStringList lines = CurrentLogText().split("\r\n");
    QVERIFY(lines[0].endsWith("] " + QString::number(QCoreApplication::applicationPid()) + " Network traffic"));
    QCOMPARE(lines[1], QString("BRIXA\t1.00\tP\nline two"));
    QVERIFY(!CurrentLogText().contains("event is off"));
}

void TestEventLog::nameFixedAtStart()
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

void TestEventLog::logCleanup_data()
{
    QTest::addColumn<QDate>("today");
    QTest::addColumn<QList<int>>("kept");
    QTest::newRow("week 1 keeps 53") << QDate(2026, 1, 1) << QList<int>{1, 53};
    QTest::newRow("week 10") << QDate(2026, 3, 5) << QList<int>{9, 10};
    QTest::newRow("week 53") << QDate(2020, 12, 31) << QList<int>{52, 53};
    QTest::newRow("week 2") << QDate(2026, 1, 8) << QList<int>{1, 2};
}

void TestEventLog::logCleanup()
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

void TestEventLog::unwritableLogIsIgnored()
{
    SetUseLog(true);
    LogInit("Quillbase");
    QVERIFY(QDir(dir.path()).mkdir(LogFileName())); // a folder where the file should be
    LogWrite("goes nowhere");                        // must simply return
    QVERIFY(QFileInfo(LogFilePath()).isDir());
    QVERIFY(QDir(dir.path()).rmdir(LogFileName()));
}

QTEST_GUILESS_MAIN(TestEventLog)
#include "tst_eventlog.moc"
