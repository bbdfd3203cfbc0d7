// What foundation keeps for the rest, all in a temporary folder: text helpers
// (fields and tokens, the job text's fields, number readers, the wire
// encoding), the texts by number (language files, the built-in table and its
// English twin), the settings in both scopes and the weekly log.
#include "foundation/cp1252.h"
#include "foundation/error.h"
#include "foundation/eventlog.h"
#include "foundation/jobfields.h"
#include "foundation/paths.h"
#include "foundation/printjob.h"
#include "foundation/settings.h"
#include "foundation/strutil.h"
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

class TestFoundation : public QObject {
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

    void addSlash()
    {
        QCOMPARE(AddSlash(""), QString(""));
        QCOMPARE(AddSlash("/srv/brixa"), QString("/srv/brixa/"));
    }

    void cp1252RoundTrip()
    {
        const QString swedish = QStringLiteral("Slut på färgband – €5");
        const QByteArray bytes = ToCp1252(swedish);
        QCOMPARE(uchar(bytes.at(swedish.indexOf(u'€'))), uchar(0x80));
        QCOMPARE(uchar(bytes.at(swedish.indexOf(u'–'))), uchar(0x96));
        // Every byte decodes to something and back to itself.
        QByteArray all(256, 0);
        for (int i = 0; i < 256; ++i)
            all[i] = char(i);
        QCOMPARE(ToCp1252(FromCp1252(all)), all);
        QCOMPARE(ToCp1252(QStringLiteral("漢")), QByteArray("?"));
    }

    // The named fields with their defaults: printer;template;copies;workstation;mode;user;caption.
    void named_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("read");
        QTest::newRow("complete") << "BRIXA\t1.00\tP\t2\t15\t3\t KASSA1 \t1\ta\tb\tuser1\tEtikett\tx"
                                  << "P;2;15;3;KASSA1;1;user1;Etikett";
        QTest::newRow("cut after the workstation") << "BRIXA\t1.00\tP\t2\t15\t3\tWS" << "P;2;15;3;WS;0;;";
        QTest::newRow("blank and non-numeric numbers") << "BRIXA\t1.00\tP\t \tx7\t\tWS\tzwei"
                                                       << "P;-1;-1;1;WS;0;;";
        QTest::newRow("fractions round half to even") << "BRIXA\t1.00\tP\t2.5\t3.5\t0.4\t\t-0.6" << "P;2;4;0;;-1;;";
        QTest::newRow("add-in form") << "\tBRIXA\t1.00\tP\t1\t5\t2\tWS\t0\t\t\tu\tcap\t\r\n"
                                     << "P;1;5;2;WS;0;u;cap";
    }
    void named()
    {
        QFETCH(QString, text);
        const JobFields f(text);
        const QStringList read{f.operation(),
                               QString::number(f.printerId()),
                               QString::number(f.templateId()),
                               QString::number(f.copies()),
                               f.workstation(),
                               QString::number(f.checkMode()),
                               f.user(),
                               f.caption()};
        QTEST(read.join(QLatin1Char(';')), "read");
        // The job value carries the same numbers, read once.
        const PrintJob job = PrintJob::fromText(text);
        QCOMPARE(job.print, f.operation() == "P");
        QCOMPARE(QList<int>({job.printerId, job.templateId, job.copies, job.checkMode}),
                 QList<int>({f.printerId(), f.templateId(), f.copies(), f.checkMode()}));
    }

    // Every field, number and the count read as GetToken, NullToLong and
    // CountTokens read them, the 16-bit overflow included: a separator beyond
    // character 32767 throws for the field it ends and every later one.
    void sameAsTheFieldReaders_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("both ends") << "\ta\t\tb\t";
        QTest::newRow("separators at 32766 and 32767") << QString(32766, 'x') + "\t\tZ";
        QTest::newRow("numbers") << "0\t 5\t+5\t5.6\t007\t123456789\t999999999\t1234567890\t2147483648\t&H1F\t-3\t5 \t٣\t\t1e3";
    }
    void sameAsTheFieldReaders()
    {
        QFETCH(QString, text);
        const JobFields f(text);
        auto outcome = [](auto read) {
            try {
                return QVariant(read());
            } catch (const Error& e) {
                return QVariant(QStringLiteral("error %1").arg(e.number));
            }
        };
        for (int n = 0; n <= 15; ++n) {
            QCOMPARE(outcome([&] { return f.field(n); }), outcome([&] { return GetToken(text, TAB, n); }));
            QCOMPARE(outcome([&] { return f.number(n, -7); }),
                     outcome([&] { return NullToLong(GetToken(text, TAB, n), -7); }));
        }
        QCOMPARE(outcome([&] { return f.count(); }), outcome([&] { return CountTokens(text, TAB); }));
    }

    // The job value tells which of its readers would meet the overflow.
    void jobValueKnowsWhereTheOverflowStarts_data()
    {
        QTest::addColumn<int>("longField"); // the field 40,000 characters long
        QTest::addColumn<bool>("checked");
        QTest::addColumn<bool>("listed");
        QTest::newRow("check mode") << 8 << false << false;
        QTest::newRow("field 9") << 9 << true << false;
        QTest::newRow("caption") << 12 << true << false;
        QTest::newRow("field 13") << 13 << true << true;
    }
    void jobValueKnowsWhereTheOverflowStarts()
    {
        QFETCH(int, longField);
        QStringList fields{"BRIXA", "1.00", "P", "2", "5", "1", "WS", "0", "", "", "user", "cap", "x", "y"};
        fields[longField - 1] = QString(40000, 'v');
        const PrintJob job = PrintJob::fromText(fields.join(TAB));
        QTEST(job.readable(PrintJob::CheckedFields), "checked");
        QTEST(job.readable(PrintJob::ListedFields), "listed");
        QCOMPARE(job.printerId, 2);
    }

    // Without a language file the built-in table answers, and that is decided
    // once per run: a file that turns up later is read after a reset only.
    void builtinTable()
    {
        QCOMPARE(LanguageDisplayText(), QString()); // nothing decided yet
        QCOMPARE(GetString(9003), QString("Brixa - Printerserver"));
        QCOMPARE(LanguageState(), 2);
        QCOMPARE(GetString(12345), QString("String missing:12345"));
        QCOMPARE(CountryCodeFromNumber(44), QString("UK")); // the English file's name
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

    // Each scope is a file of its own; numbers read back as ten unsigned
    // digits, texts as they were; the autostart key is a desktop entry.
    void settingsFiles()
    {
        QCOMPARE(SettingsFile(HKEY_LOCAL_MACHINE), dir.path() + "/machine/Norvu/Brixa.conf");
        QCOMPARE(SettingsFile(HKEY_CURRENT_USER), dir.path() + "/user/Norvu/Brixa.conf");
        RegSetValue(HKEY_CURRENT_USER, KeyQuillbase, "dwUseLog", REG_DWORD, 1);
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyQuillbase, "dwUseLog"), QString());
        QCOMPARE(RegGetValue(HKEY_CURRENT_USER, KeyQuillbase, "dwUseLog"), QString("0000000001"));
        RegSetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "number", REG_DWORD, -1);
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "number"), QString("4294967295"));
        RegSetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "text", REG_SZ, "46");
        QCOMPARE(RegGetValue(HKEY_LOCAL_MACHINE, KeyBrixa, "text"), QString("46"));
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

QTEST_GUILESS_MAIN(TestFoundation)
#include "tst_foundation.moc"
