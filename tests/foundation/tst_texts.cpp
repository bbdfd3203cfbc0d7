// What the program keeps beside its database, all in a temporary folder: the
// texts by number (language files, the built-in table and its English twin),
// the settings in both scopes and the weekly log.
#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "foundation/settings.h"
#include "foundation/texts.h"
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
// Each table's entries, and the lines meant as entries: a line the parser
// drops (no tab, bad id) or a repeated id makes the table smaller.
QHash<qint32, QString> readTable(const QString& path, int* entryLines)
{
    QFile f(path);
    const QByteArray data = f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    *entryLines = 0;
    for (const QByteArray& line : data.split('\n'))
        *entryLines += !line.trimmed().isEmpty() && !line.startsWith('#');
    return ParseStringTable(data);
}

QStringList argsIn(const QString& text)
{
    static const QRegularExpression re(QStringLiteral("ARG#\\d+"), QRegularExpression::CaseInsensitiveOption);
    QStringList out;
    for (auto it = re.globalMatch(text); it.hasNext();)
        out << it.next().captured().toUpper();
    out.sort();
    out.removeDuplicates();
    return out;
}

} // namespace

class TestTexts : public QObject {
    Q_OBJECT
    QTemporaryDir dir;
    void writeLanguage(const QString& cc, const QByteArray& content)
    {
        QDir(dir.path()).mkpath("lang");
        QFile f(dir.path() + "/lang/BrixaLang" + cc + ".Language");
        QVERIFY(f.open(QIODevice::WriteOnly | QIODevice::Truncate));
        f.write(content);
    }
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
        QDir(dir.path() + "/lang").removeRecursively();
        SetLanguageSettings("SE", 46);
        ResetLanguage();
        SetLogClockForTesting({});
        SetUseLog(false);
        SetUseTrafficLog(false);
        for (const QString& f : QDir(dir.path()).entryList({"*.log"}))
            QFile::remove(dir.filePath(f));
    }

    // Without a language file the built-in table answers, and that is decided
    // once per run: a file that turns up later is read after a reset only.
    void builtinTable()
    {
        QCOMPARE(LanguageDisplayText(), QString()); // nothing decided yet
        QCOMPARE(GetString(9003), QString("Brixa - Printerserver"));
        QCOMPARE(LanguageState(), 2);
        QCOMPARE(GetString(12345), QString("String missing:12345"));
        // Captions marked "##" get a leading blank, "#£" none.
        QCOMPARE(LocaliseCaption("##9003#x"), QString(" Brixa - Printerserver"));
        QCOMPARE(LocaliseCaption("#£9003#x"), QString("Brixa - Printerserver"));
        QCOMPARE(LanguageDisplayText(), QString("Default (Swedish)"));
        writeLanguage("SE", "9003\tlater\n");
        QCOMPARE(GetString(9003), QString("Brixa - Printerserver"));
        ResetLanguage();
        QCOMPARE(GetString(9003), QString("later"));
    }

    void languageOrder_data()
    {
        QTest::addColumn<QString>("configured");
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("title");
        QTest::addColumn<int>("state");
        QTest::newRow("configured country first") << "dk" << QStringList{"DK", "SE"} << "DK title" << 1;
        QTest::newRow("falls back to Swedish file") << "NO" << QStringList{"SE"} << "SE title" << 1;
        QTest::newRow("no file: built-in table") << "UK" << QStringList{} << "Brixa - Printerserver" << 2;
    }
    void languageOrder()
    {
        QFETCH(QString, configured);
        QFETCH(QStringList, installed);
        QFETCH(int, state);
        for (const QString& cc : installed)
            writeLanguage(cc, "# comment\n9003\t" + cc.toUtf8() + " title\n12055\tARG#1 @ ARG#2\\nnext\n");
        SetLanguageSettings(configured, 45);
        QTEST(GetString(9003), "title");
        QCOMPARE(LanguageState(), state);
        if (state == 1) {
            QCOMPARE(GetString(12055, "u|w"), QString("u @ w\nnext"));
            QCOMPARE(GetString(12056), QString("String missing:12056"));
            QCOMPARE(LanguageDisplayText(), LanguageName(configured));
        }
    }

    void lookups()
    {
        QCOMPARE(CountryCodeFromNumber(44), QString("UK"));
        QCOMPARE(CountryCodeFromNumber(1), QString("XX"));
        QCOMPARE(LanguageName("uk"), QString("English(UK)"));
    }

    // Both tables parse line by line to texts without blanks at their ends,
    // hold the same numbers with the same placeholders and accelerators, and
    // keep the texts that double as picture keys equal in pairs and apart.
    void tablesAgree()
    {
        int seLines = 0, ukLines = 0;
        const QHash<qint32, QString> se = readTable(":/quill/strings_se.tsv", &seLines);
        const QHash<qint32, QString> uk = readTable(QUILL_SOURCE_DIR "/lang/BrixaLangUK.Language", &ukLines);
        QVERIFY(!se.isEmpty());
        QCOMPARE(se.size(), seLines);
        QCOMPARE(uk.size(), ukLines);
        QCOMPARE(QSet<qint32>(uk.keyBegin(), uk.keyEnd()), QSet<qint32>(se.keyBegin(), se.keyEnd()));
        for (const auto* table : {&se, &uk}) {
            for (auto it = table->cbegin(); it != table->cend(); ++it)
                QVERIFY2(!it->isEmpty() && *it == it->trimmed(), qPrintable(QString::number(it.key())));
            for (const auto& [a, b] : {std::pair{12077, 12078}, {12051, 12079}, {12050, 12080}, {12074, 12081},
                                       {12052, 12083}})
                QCOMPARE(table->value(a), table->value(b));
            QVERIFY(table->value(12084) != table->value(12085));
            QCOMPARE(QSet<QString>({table->value(12138), table->value(12139), table->value(12140)}).size(), 3);
        }
        for (auto it = se.cbegin(); it != se.cend(); ++it) {
            const QByteArray where = QByteArray::number(it.key());
            QVERIFY2(argsIn(*it) == argsIn(uk[it.key()]), where.constData());
            QVERIFY2(it->contains('&') == uk[it.key()].contains('&'), where.constData());
        }
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

    void autostartEntry()
    {
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyRun, "Quillbase"), QString());
        RegSetValue(HKEY_LOCAL_MACHINE, KeyRun, "Quillbase", REG_SZ, "/opt/quillbase/quillbase");
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyRun, "Quillbase"), QString("/opt/quillbase/quillbase"));
        QVERIFY(QFile::exists(AutostartFile(HKEY_LOCAL_MACHINE)));
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


};

QTEST_GUILESS_MAIN(TestTexts)
#include "tst_texts.moc"
