#include "foundation/settings.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace quill;

// Both scopes point into a temporary folder, so the machine's own settings are never touched.
class TestSettings : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
private slots:
    void initTestCase()
    {
        QVERIFY(dir.isValid());
        qputenv("XDG_CONFIG_DIRS", (dir.path() + "/machine:/etc/xdg").toUtf8());
        qputenv("XDG_CONFIG_HOME", (dir.path() + "/user").toUtf8());
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
        QTest::newRow("zero") << REG_DWORD << QVariant(0) << "0000000000";
        QTest::newRow("high byte set") << REG_DWORD << QVariant(qint64(0xFFFFFFFFll)) << "4294967295";
        QTest::newRow("negative wraps to unsigned") << REG_DWORD << QVariant(-1) << "4294967295";
        QTest::newRow("text") << REG_SZ << QVariant("SE") << "SE";
        QTest::newRow("number-looking text stays text") << REG_SZ << QVariant("46") << "46";
        QTest::newRow("other type writes text") << 7 << QVariant("a b") << "a b";
        QTest::newRow("empty text") << REG_SZ << QVariant("") << "";
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
        QCOMPARE(RegGetValue(HKEY_CURRENT_USER, "SOFTWARE\\Other\\Key", "x"), QString());
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
};

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
