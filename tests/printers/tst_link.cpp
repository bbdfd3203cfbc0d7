// Printer link codec: encoding round trips and the decoder on broken input.
#include "printers/link.h"

#include <QtTest>

using namespace quill;

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
        QTest::newRow("id too large") << QByteArray("Q\t2147483648\tSTATUS\n") << 0 << 0 << 1 << 0;
        QTest::newRow("unknown escape") << QByteArray("Q\t1\tVAR\t1\t\\q\n") << 0 << 0 << 1 << 0;
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
        // A line just under the limit is still a frame.
        const QString payload(link::MaxFrameBytes - 40, QLatin1Char('x'));
        d.feed(EncodeRequest(10, link::Var, {QStringLiteral("1"), payload}));
        QVERIFY(d.next(&f));
        QCOMPARE(f.args.value(1), payload);

        // Frames nobody takes: the oldest are kept, in order, the rest counted.
        QByteArray many;
        for (int i = 1; i <= link::MaxQueuedFrames + 36; ++i)
            many += EncodeRequest(quint32(i), link::Status, {QStringLiteral("4")});
        LinkDecoder q;
        q.feed(many);
        QCOMPARE(q.pendingFrames(), link::MaxQueuedFrames);
        QCOMPARE(q.rejected(), 36);
        QVERIFY(q.next(&f));
        QCOMPARE(f.id, 1u);
    }
};

QTEST_GUILESS_MAIN(TestLink)
#include "tst_link.moc"
