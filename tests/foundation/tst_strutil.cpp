// Text helpers: fields and tokens, the job text's fields, number readers,
// connection strings, key patterns and the wire encoding.
#include "foundation/connection.h"
#include "foundation/cp1252.h"
#include "foundation/error.h"
#include "foundation/jobfields.h"
#include "foundation/printjob.h"
#include "foundation/strutil.h"

#include <QTest>

using namespace quill;

class TestStrUtil : public QObject {
    Q_OBJECT
private slots:
    // GetToken and CountTokens read the same fields: every field of the text,
    // and nothing before the first or after the last.
    void tokens_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("sep");
        QTest::addColumn<QStringList>("fields");
        QTest::newRow("one leading and trailing sep stripped") << "\tBRIXA\t1.00\tP\t" << "\t"
                                                               << QStringList{"BRIXA", "1.00", "P"};
        QTest::newRow("only one sep stripped at each end") << ";;a;;c;;" << ";" << QStringList{"", "a", "", "c", ""};
        QTest::newRow("text is only the separator") << ";" << ";" << QStringList{""};
        QTest::newRow("empty text") << "" << ";" << QStringList{};
    }
    void tokens()
    {
        QFETCH(QString, text);
        QFETCH(QString, sep);
        QFETCH(QStringList, fields);
        QCOMPARE(CountTokens(text, sep), fields.size());
        for (int n = -1; n <= fields.size() + 1; ++n)
            QCOMPARE(GetToken(text, sep, n), fields.value(n - 1));
    }

    void positionsAreSixteenBit()
    {
        // A separator at position 32767 is found; one further is an overflow
        // the caller's trap sees.
        const QString text = QString(32766, 'x') + "\t\tY";
        QCOMPARE(GetToken(text, "\t", 1), QString(32766, 'x'));
        try {
            GetToken(text, "\t", 2);
            QFAIL("no overflow raised");
        } catch (const Error& e) {
            QCOMPARE(e.number, ErrOverflow);
        }
        QVERIFY_THROWS_EXCEPTION(Error, CountTokens(text, "\t"));
        QCOMPARE(CountTokens(QString(100000, 'x'), "\t"), 1);
    }

    // The database readers, with -1 (or "d") for a missing value.
    void converters_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<int>("asLong");
        QTest::addColumn<int>("asInt");
        QTest::addColumn<QString>("asStr");
        QTest::newRow("blanks around") << QVariant(" 7 ") << 7 << 7 << " 7 ";
        QTest::newRow("empty text") << QVariant("") << -1 << -1 << "d";
        QTest::newRow("null") << QVariant() << -1 << -1 << "d";
        QTest::newRow("non-numeric") << QVariant("abc") << -1 << -1 << "abc";
        QTest::newRow("half rounds to even") << QVariant("2.5") << 2 << 2 << "2.5";
        QTest::newRow("fraction") << QVariant(2.6) << 3 << 3 << "2.6";
        QTest::newRow("beyond 16 bits") << QVariant("40000") << 40000 << -1 << "40000";
        QTest::newRow("above 32-bit signed") << QVariant("4294967295") << -1 << -1 << "4294967295";
        QTest::newRow("integer value") << QVariant(qint64(20001)) << 20001 << 20001 << "20001";
    }
    void converters()
    {
        QFETCH(QVariant, value);
        QTEST(NullToLong(value, -1), "asLong");
        QTEST(int(NullToInt(value, -1)), "asInt");
        QTEST(NullToStr(value, "d"), "asStr");
    }

    void addBackslash()
    {
        QCOMPARE(AddBackslash(""), QString(""));
        QCOMPARE(AddBackslash("C:\\Brixa"), QString("C:\\Brixa\\"));
        QCOMPARE(AddSlash("/"), QString("/"));
    }

    void keyAllowed_data()
    {
        QTest::addColumn<int>("key");
        QTest::addColumn<QString>("pattern");
        QTest::addColumn<bool>("allowed");
        QTest::newRow("code") << 8 << "0-9;[16];[8]" << true;
        QTest::newRow("code range, top") << 57 << "[48-57]" << true;
        QTest::newRow("code range, above") << 58 << "[48-57]" << false;
        QTest::newRow("char range") << int('b') << "a-c" << true;
        QTest::newRow("empty pattern") << 65 << "" << false;
    }
    void keyAllowed()
    {
        QFETCH(int, key);
        QFETCH(QString, pattern);
        QTEST(KeyAllowed(key, pattern), "allowed");
    }

    void deviceResults_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("result");
        QTest::newRow("ribbon before paper") << 5 << "ERR\tSlut på färgband";
        QTest::newRow("paper") << 1 << "ERR\tSlut på papper";
        QTest::newRow("head raised") << 8 << "ERR\tPrinterhuvud uppfällt";
        QTest::newRow("unrelated bit") << 2 << "OK\t";
    }
    void deviceResults()
    {
        QFETCH(int, status);
        QTEST(DeviceStatusResult(status), "result");
    }

    void cp1252RoundTrip()
    {
        const QString swedish = QStringLiteral("Slut på färgband – €5");
        const QByteArray bytes = ToCp1252(swedish);
        QCOMPARE(bytes.size(), swedish.size());
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
        QCOMPARE(job.text, text);
    }

    // Every field, number and the count read as GetToken, NullToLong and
    // CountTokens read them, the 16-bit overflow included: a separator beyond
    // character 32767 throws for the field it ends and every later one.
    void sameAsTheFieldReaders_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("both ends") << "\ta\t\tb\t";
        QTest::newRow("only a TAB") << "\t";
        QTest::newRow("separators at 32766 and 32767") << QString(32766, 'x') + "\t\tZ";
        QTest::newRow("field 9 too long") << "BRIXA\t1.00\tP\t1\t5\t1\tWS\t0\t" + QString(40000, 'v') + "\tA\tu\tcap";
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

    // A field replaced (the printer of a moved job); the rest of the text as it was.
    void withField_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("result");
        QTest::newRow("a middle field") << "BRIXA\t1.00\tP\t1\t5" << "BRIXA\t1.00\tP\t2\t5";
        QTest::newRow("leading and trailing TAB kept") << "\tBRIXA\t1.00\tP\t1\t" << "\tBRIXA\t1.00\tP\t2\t";
        QTest::newRow("no such field: unchanged") << "BRIXA\t1.00\tP" << "BRIXA\t1.00\tP";
    }
    void withField()
    {
        QFETCH(QString, text);
        QTEST(JobFields(text).withField(4, "2"), "result");
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

    void connectionString_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("device");
        QTest::addColumn<QString>("rateOrPort");
        QTest::addColumn<bool>("hasHash");
        QTest::addColumn<int>("comPort");
        QTest::newRow("blanks kept") << " COM1: # 9600 " << " COM1: " << " 9600 " << true << 0;
        QTest::newRow("address alone") << "10.0.0.5" << "10.0.0.5" << "" << false << 0;
        QTest::newRow("split at the first #") << "a#b#c" << "a" << "b#c" << true << 0;
        QTest::newRow("device name, any case") << " com3: " << " com3: " << "" << false << 3;
        QTest::newRow("no port 0") << "COM0" << "COM0" << "" << false << 0;
    }
    void connectionString()
    {
        QFETCH(QString, text);
        const ConnectionString c = ConnectionString::parse(text);
        QTEST(c.device, "device");
        QTEST(c.rateOrPort, "rateOrPort");
        QTEST(c.hasHash, "hasHash");
        QTEST(c.comPort(), "comPort");
    }
};

QTEST_GUILESS_MAIN(TestStrUtil)
#include "tst_strutil.moc"
