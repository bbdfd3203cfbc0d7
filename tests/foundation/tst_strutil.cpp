// Text helpers: fields and tokens, the job text's fields, number readers,
// connection strings, key patterns and the wire encoding.
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
    void addSlash()
    {
        QCOMPARE(AddSlash(""), QString(""));
        QCOMPARE(AddSlash("/srv/brixa"), QString("/srv/brixa/"));
        QCOMPARE(AddSlash("/"), QString("/"));
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

};

QTEST_GUILESS_MAIN(TestStrUtil)
#include "tst_strutil.moc"
