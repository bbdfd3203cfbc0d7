// The job text's fields and the connection string's parts.
#include "foundation/connection.h"
#include "foundation/error.h"
#include "foundation/jobfields.h"
#include "foundation/printjob.h"
#include "foundation/strutil.h"

#include <QTest>

using namespace quill;

class TestJobFields : public QObject {
    Q_OBJECT
private slots:
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
        QTest::newRow("out of range") << "BRIXA\t1.00\tP\t99999999999\t1" << "P;-1;1;1;;0;;";
        QTest::newRow("add-in form") << "BRIXA\t1.00\tP\t1\t5\t2\tWS\t0\t\t\tu\tcap\t\r\n"
                                     << "P;1;5;2;WS;0;u;cap";
        QTest::newRow("leading TAB stripped once") << "\tBRIXA\t1.00\tP\t4" << "P;4;-1;1;;0;;";
        QTest::newRow("empty text") << "" << ";-1;-1;1;;0;;";
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
        QVERIFY(job.readable(PrintJob::ListedFields));
    }

    // Every field, number and the count read as GetToken, NullToLong and CountTokens read them,
    // the 16-bit overflow included: a separator beyond character 32767 throws
    // for the field it ends and every later one, never for those before.
    void sameAsTheFieldReaders_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("request") << "BRIXA\t1.00\tP\t1";
        QTest::newRow("both ends") << "\ta\t\tb\t";
        QTest::newRow("only a TAB") << "\t";
        QTest::newRow("two TABs") << "\t\t";
        QTest::newRow("no TAB") << "abc";
        QTest::newRow("separator at 32766") << QString(32766, 'x') + "\tY\tZ";
        QTest::newRow("separator at 32767") << QString(32767, 'x') + "\tY\tZ";
        QTest::newRow("field 9 too long") << "BRIXA\t1.00\tP\t1\t5\t1\tWS\t0\t" + QString(40000, 'v') + "\tA\tu\tcap";
        QTest::newRow("long last field") << "BRIXA\t1.00\tP\t" + QString(40000, 'v');
        QTest::newRow("numbers") << "0\t 5\t+5\t5.6\t007\t123456789\t999999999\t1234567890\t2147483648\t&H1F\t-3\t5 \t٣\t\t1e3";
    }
    // A field replaced (the printer of a moved job); the rest of the text as it was.
    void withField_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("field");
        QTest::addColumn<QString>("result");
        QTest::newRow("a middle field") << "BRIXA\t1.00\tP\t1\t5" << 4 << "BRIXA\t1.00\tP\t2\t5";
        QTest::newRow("the last field") << "BRIXA\t1.00\tP\t1" << 4 << "BRIXA\t1.00\tP\t2";
        QTest::newRow("an empty field") << "BRIXA\t1.00\tP\t\t5" << 4 << "BRIXA\t1.00\tP\t2\t5";
        QTest::newRow("leading and trailing TAB kept") << "\tBRIXA\t1.00\tP\t1\t" << 4 << "\tBRIXA\t1.00\tP\t2\t";
        QTest::newRow("no such field: unchanged") << "BRIXA\t1.00\tP" << 4 << "BRIXA\t1.00\tP";
    }
    void withField()
    {
        QFETCH(QString, text);
        QFETCH(int, field);
        QFETCH(QString, result);
        QCOMPARE(JobFields(text).withField(field, "2"), result);
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
            const QVariant expected = outcome([&] { return GetToken(text, TAB, n); });
            QCOMPARE(outcome([&] { return f.field(n); }), expected);
            QCOMPARE(outcome([&] { return f.number(n, -7); }),
                     outcome([&] { return NullToLong(GetToken(text, TAB, n), -7); }));
        }
        QCOMPARE(outcome([&] { return f.count(); }), outcome([&] { return CountTokens(text, TAB); }));
    }

    void overflowIsRaisedWhenTheFieldIsRead()
    {
        // Fields before the long one stay readable; the trap sees the rest.
        const JobFields f("BRIXA\t1.00\tP\t2\t5\t1\tWS\t0\t" + QString(40000, 'v') + "\t\tuser\tcap");
        QCOMPARE(f.printerId(), 2);
        QCOMPARE(f.checkMode(), 0);
        QVERIFY_THROWS_EXCEPTION(Error, f.user());
        QVERIFY_THROWS_EXCEPTION(Error, f.count());
    }

    // The job value tells which of its readers would meet the overflow.
    void jobValueKnowsWhereTheOverflowStarts_data()
    {
        QTest::addColumn<int>("longField"); // the field 40,000 characters long
        QTest::addColumn<bool>("checked");
        QTest::addColumn<bool>("listed");
        QTest::newRow("template") << 5 << false << false;
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
        QTest::newRow("serial") << "COM2:#57600" << "COM2:" << "57600" << true << 0;
        QTest::newRow("network") << "10.0.0.5#23" << "10.0.0.5" << "23" << true << 0;
        QTest::newRow("blanks kept") << " COM1: # 9600 " << " COM1: " << " 9600 " << true << 0;
        QTest::newRow("address alone") << "10.0.0.5" << "10.0.0.5" << "" << false << 0;
        QTest::newRow("split at the first #") << "a#b#c" << "a" << "b#c" << true << 0;
        QTest::newRow("nothing before #") << "#23" << "" << "23" << true << 0;
        QTest::newRow("device name, any case") << " com3 " << " com3 " << "" << false << 3;
        QTest::newRow("device name with colon") << "COM9:" << "COM9:" << "" << false << 9;
        QTest::newRow("no port 0") << "COM0:" << "COM0:" << "" << false << 0;
        QTest::newRow("empty") << "" << "" << "" << false << 0;
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

QTEST_GUILESS_MAIN(TestJobFields)
#include "tst_jobfields.moc"
