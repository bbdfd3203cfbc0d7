// What the program keeps beside its database: the settings and the weekly log.
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/settings.h"
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

// Both settings scopes point into a temporary folder, so the machine's own
// settings are never touched.
class TestSettings : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        qputenv("XDG_CONFIG_DIRS", (dir.path() + "/machine:/etc/xdg").toUtf8());
        qputenv("XDG_CONFIG_HOME", (dir.path() + "/user").toUtf8());
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

    void scopesAreSeparateFiles()
    {
        QCOMPARE(SettingsFile(HKEY_LOCAL_MACHINE), dir.path() + "/machine/Norvu/Brixa.conf");
        QCOMPARE(SettingsFile(HKEY_CURRENT_USER), dir.path() + "/user/Norvu/Brixa.conf");
        RegSetValue(HKEY_CURRENT_USER, KeyQuillbase, "dwUseLog", REG_DWORD, 1);
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, "dwUseLog"), QString());
        QCOMPARE(RegGetValue(HKEY_CURRENT_USER, KeyQuillbase, "dwUseLog"), QString("0000000001"));
    }

    void typedValues_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QString>("read");
        QTest::newRow("number 46") << REG_DWORD << QVariant(46) << "0000000046";
        QTest::newRow("number from text") << REG_DWORD << QVariant("46") << "0000000046";
        QTest::newRow("negative wraps to unsigned") << REG_DWORD << QVariant(-1) << "4294967295";
        QTest::newRow("number-looking text stays text") << REG_SZ << QVariant("46") << "46";
        QTest::newRow("other type writes text") << 7 << QVariant("a b") << "a b";
    }
    void typedValues()
    {
        QFETCH(int, type);
        QFETCH(QVariant, value);
        RegSetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "value", type, value);
        QTEST(RegGetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "value"), "read");
    }

    void missingValues()
    {
        QCOMPARE(RegGetValue(HKEY_CURRENT_USER, KeyQuillbase, "dwSilentMode"), QString());
        RegSetValue(HKEY_CURRENT_USER, "SOFTWARE\\Other\\Key", "x", REG_SZ, "y"); // no store: ignored
        QCOMPARE(RegGetValue(HKEY_CURRENT_USER, "SOFTWARE\\Other\\Key", "x"), QString());
    }

    void longTextIsNotRead()
    {
        RegSetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "t2047", REG_SZ, QString(2047, 'a'));
        RegSetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "t2048", REG_SZ, QString(2048, 'a'));
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "t2047").size(), 2047);
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "t2048"), QString());
    }

    void writingCreatesTheKey()
    {
        QTemporaryDir fresh;
        qputenv("XDG_CONFIG_HOME", (fresh.path() + "/new/deeper").toUtf8());
        RegSetValue(HKEY_CURRENT_USER, KeyQuillbase, "dwQuitQuestion", REG_DWORD, 1);
        qputenv("XDG_CONFIG_HOME", (dir.path() + "/user").toUtf8());
        QFile f(fresh.path() + "/new/deeper/Norvu/Brixa.conf");
        QVERIFY(f.open(QIODevice::ReadOnly));
        const QByteArray text = f.readAll();
        QVERIFY2(text.contains("[Quillbase]") && text.contains("dwQuitQuestion=dword:00000001"), text);
    }

    void autostartEntry()
    {
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyRun, "Quillbase"), QString());
        RegSetValue(HKEY_LOCAL_MACHINE, KeyRun, "Quillbase", REG_SZ, "/opt/quillbase/quillbase");
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyRun, "Quillbase"), QString("/opt/quillbase/quillbase"));
        QVERIFY(QFile::exists(AutostartFile(HKEY_LOCAL_MACHINE)));
    }

    void weekNames_data()
    {
        QTest::addColumn<QDate>("date");
        QTest::addColumn<QString>("name");
        QTest::newRow("1 Jan in last year's week 53") << QDate(2021, 1, 1) << "Quillbase53.log";
        QTest::newRow("31 Dec in next year's week 1") << QDate(2024, 12, 31) << "Quillbase1.log";
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

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
