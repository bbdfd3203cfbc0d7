// Which queued jobs a withdraw takes: a job's workstation and user against the
// request's, as plain fields or as the parts of the tag "workstation|user".
#include "protocol/senderfilter.h"
#include "support/dbfixture.h"

#include <QTest>

using namespace quill;

class TestSenderFilter : public QObject {
    Q_OBJECT
private slots:
    void matches_data()
    {
        QTest::addColumn<QString>("ws");   // the job's workstation field
        QTest::addColumn<QString>("user"); // the job's user field
        QTest::addColumn<QString>("w");    // the request's, upper case or "*"
        QTest::addColumn<QString>("u");
        QTest::addColumn<bool>("taken");
        QTest::newRow("both") << "KASSA1" << "Anna" << "KASSA1" << "ANNA" << true;
        QTest::newRow("blanks and case") << " kassa1 " << " anna " << "KASSA1" << "ANNA" << true;
        QTest::newRow("other workstation") << "KASSA1" << "Anna" << "KASSA2" << "*" << false;
        QTest::newRow("other user") << "KASSA1" << "Anna" << "*" << "BO" << false;
        QTest::newRow("any of both") << "" << "" << "*" << "*" << true;
        QTest::newRow("blank workstation, user") << "" << "Anna" << "*" << "ANNA" << true;
        QTest::newRow("blank workstation, named") << "  " << "Anna" << "KASSA1" << "*" << false;
        QTest::newRow("tag in the workstation") << "K1|Bo" << "x" << "K1" << "BO" << true;
        QTest::newRow("tag in the user") << "K1" << "Bo|x" << "K1" << "BO" << true;
        QTest::newRow("tag, user beyond it") << "K1|Bo" << "x" << "K1" << "X" << false;
        QTest::newRow("letters beyond ASCII") << "Kassa å" << "Åsa" << "KASSA Å" << "ÅSA" << true;
        QTest::newRow("ASCII job, request beyond") << "KASSA1" << "asa" << "KASSA1" << "ÅSA" << false;
        QTest::newRow("job beyond, ASCII request") << "KASSA1" << "åsa" << "KASSA1" << "ASA" << false;
        QTest::newRow("last letter of the alphabet") << "kassaz" << "Anna" << "KASSAZ" << "ANNA" << true;
        QTest::newRow("line end trimmed") << "KASSA1" << "anna\r" << "KASSA1" << "ANNA" << true;
        QTest::newRow("no-break space trimmed") << "KASSA1" << "anna\u00a0" << "KASSA1" << "ANNA" << true;
        QTest::newRow("request not trimmed") << "KASSA1" << "Anna" << "KASSA1" << " ANNA" << false;
    }
    void matches()
    {
        QFETCH(QString, ws);
        QFETCH(QString, user);
        QFETCH(QString, w);
        QFETCH(QString, u);
        QueuedJob job;
        job.text = dbtest::JobText(1, 1, "1", ws, user, "caption").toUtf8();
        QTEST(SenderFilter(w, u).matches(job), "taken");
    }
};

QTEST_GUILESS_MAIN(TestSenderFilter)
#include "tst_senderfilter.moc"
