// What goes to the printer: the link codec (round trips, the decoder on
// broken input) and the label layouts (parser, placeholders, Code 128 bars,
// the layouts we ship).
#include "label/label.h"
#include "printers/link.h"

#include <QtTest>

using namespace quill;

namespace {

QString resource(const QString& name)
{
    QFile f(QStringLiteral(QUILL_SOURCE_DIR "/src/resources/") + name);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

} // namespace

class TestLink : public QObject {
    Q_OBJECT
private slots:
    void roundTrip_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::newRow("empty field") << QStringList{"", "m"};
        QTest::newRow("separators and escape look-alikes") << QStringList{"a\tb\nc\r\\d \\t \\x41 \\\\"};
        QTest::newRow("control bytes and XON/XOFF") << QStringList{QString::fromLatin1("\x01\x11\x13\x1b\x7f")};
    }

    void roundTrip()
    {
        QFETCH(QStringList, args);
        // A control byte left raw on the wire would split the frame, be dropped as
        // flow control or make the decoder refuse it: the round trip shows each.
        LinkDecoder d;
        d.feed(EncodeRequest(42, link::Service, args) + EncodeAnswer(42, link::LayoutAccepted, args));
        LinkFrame q, a, none;
        QVERIFY(d.next(&q) && d.next(&a) && !d.next(&none));
        QCOMPARE(q.kind, LinkFrame::Request);
        QCOMPARE(q.id, 42u);
        QCOMPARE(q.verb, link::Service);
        QCOMPARE(q.args, args);
        QCOMPARE(a.kind, LinkFrame::Answer);
        QCOMPARE(a.id, 42u);
        QCOMPARE(a.result, link::LayoutAccepted);
        QCOMPARE(a.args, args);
        QCOMPARE(d.rejected(), 0);
    }

    void decoder_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<int>("chunk"); // 0 = all at once
        QTest::addColumn<int>("frames");
        QTest::addColumn<int>("rejected");
        QTest::addColumn<int>("buffered");
        const QByteArray good = "Q\t7\tSTATUS\t4\n";
        QTest::newRow("two frames, odd chunks, CRLF") << good + "\r\nA\t7\t-2\r\n" << 5 << 2 << 0 << 0;
        QTest::newRow("partial") << QByteArray("Q\t1\tSTA") << 3 << 0 << 0 << 7;
        QTest::newRow("XON/XOFF between bytes") << QByteArray("Q\t7\t\x13STA\x11TUS\t4\n") << 2 << 1 << 0 << 0;
        QTest::newRow("plain text") << QByteArray("hello printer\n") << 0 << 0 << 1 << 0;
        QTest::newRow("garbage then good") << QByteArray("\xff\xfe\x00zz\n", 6) + good << 3 << 1 << 1 << 0;
    }

    void decoder()
    {
        QFETCH(QByteArray, input);
        QFETCH(int, chunk);
        LinkDecoder d;
        for (qsizetype i = 0; i < input.size(); i += chunk ? chunk : input.size())
            d.feed(input.mid(i, chunk ? chunk : input.size()));
        int n = 0;
        LinkFrame f;
        while (d.next(&f))
            ++n;
        QTEST(n, "frames");
        QTEST(d.rejected(), "rejected");
        QTEST(d.bufferedBytes(), "buffered");
    }

    void memoryStaysBounded()
    {
        // An endless line is dropped up to its LF; decoding resumes after it.
        LinkDecoder d;
        const QByteArray big(link::MaxFrameBytes * 3, 'a');
        for (qsizetype i = 0; i < big.size(); i += 1000) {
            d.feed(big.mid(i, 1000));
            QVERIFY(d.bufferedBytes() < link::MaxFrameBytes);
        }
        d.feed("tail without meaning\nQ\t9\tLOCK\n");
        LinkFrame f;
        QVERIFY(d.next(&f));
        QCOMPARE(f.verb, link::Lock);
        QCOMPARE(d.rejected(), 1);
    }

    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("elements"); // -1: refused
        QTest::addColumn<QString>("error"); // start of the reason
        QTest::newRow("every element") << "label 400 300\ntext 1 2 20 \"a {1}\" bold center\n"
                                          "barcode 5 6 50 2 \"{2}\" text\nline 0 0 10 10 3\nbox 0 0 400 300\n"
                                       << 4 << QString();
        QTest::newRow("comments, quote escapes, CRLF")
            << "# x\n\n label 100 50 # size\r\ntext 1 1 10 \"say \\\"hi\\\" \\\\ # no comment\"\r\n" << 1 << QString();
        QTest::newRow("element before label") << "text 1 1 10 \"x\"\nlabel 10 10" << -1
                                              << "line 1: label statement must come first";
        QTest::newRow("label too big") << "label 5000 50" << -1 << "line 1: label";
        QTest::newRow("unknown statement") << "label 100 50\n\nellipse 1 2 3" << -1 << "line 3: unknown";
        QTest::newRow("text bad option") << "label 100 50\ntext 1 1 10 \"x\" italic" << -1
                                         << "line 2: unknown text option";
    }

    void parse()
    {
        QFETCH(QString, text);
        QFETCH(int, elements);
        QFETCH(QString, error);
        LabelLayout layout;
        QString why;
        QCOMPARE(ParseLabelLayout(text, &layout, &why), elements >= 0);
        if (elements >= 0)
            QCOMPARE(layout.elements.size(), elements);
        else
            QVERIFY2(why.startsWith(error), qPrintable(why));
    }

    void placeholders()
    {
        const QMap<int, QString> vars{{1, "Brixa"}, {2, "{1}"}, {12, "Tolv"}};
        QCOMPARE(FillPlaceholders("a{1}b{12}c", vars), QString("aBrixabTolvc"));
        QCOMPARE(FillPlaceholders("[{3}]{x}{0}", vars), QString("[]{x}{0}")); // missing: nothing
        QCOMPARE(FillPlaceholders("{2}", vars), QString("{1}")); // values are not re-read
    }

    void code128Bars()
    {
        // "A": start B 211214, 'A' 111323, check (104 + 33) % 103 = 34 -> 131123, stop 2331112.
        QCOMPARE(Code128Widths("A"),
                 (QVector<int>{2, 1, 1, 2, 1, 4, 1, 1, 1, 3, 2, 3, 1, 3, 1, 1, 2, 3, 2, 3, 3, 1, 1, 1, 2}));
    }

    void ourLayouts()
    {
        // The shipped layouts parse; the test label's only variable is its title line.
        LabelLayout demo, test;
        QString why;
        QVERIFY2(ParseLabelLayout(resource("demo.lbl"), &demo, &why), qPrintable(why));
        QVERIFY2(ParseLabelLayout(resource("0.lbl"), &test, &why), qPrintable(why));
        QCOMPARE(test.variables(), QSet<int>{1});
    }
};

QTEST_GUILESS_MAIN(TestLink)
#include "tst_link.moc"
