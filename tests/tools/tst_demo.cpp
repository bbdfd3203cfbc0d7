// The set-up step of `make run` (tools/demo.sh --setup-only) on a fresh copy of
// the script: it keeps a complete demo, and leaves nothing half made behind
// when a step fails.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

class TestDemo : public QObject {
    Q_OBJECT

    QTemporaryDir copy_;

    // The copied script's set-up under bash, after `prelude`; its exit code
    // (-1 when it did not end) and its output.
    std::pair<int, QString> setup(const QString& prelude = "true")
    {
        QProcess p;
        p.setProcessChannelMode(QProcess::MergedChannels);
        p.setWorkingDirectory(copy_.path());
        p.start("bash", {"-c", prelude + "; exec tools/demo.sh --setup-only \"$0\"", QUILL_BUILD_DIR});
        // Not ended in time: killed as `p` goes.
        const bool ended = p.waitForFinished(120000) && p.exitStatus() == QProcess::NormalExit;
        return {ended ? p.exitCode() : -1, QString::fromUtf8(p.readAll())};
    }

private slots:
    // --init killed part-way (file size limit): nothing of it stays. The next
    // run sets up a complete demo, also over what an older failure left (a
    // database, no settings); a run after that keeps it as it is.
    void setupIsAllOrNothing()
    {
        QVERIFY(QDir().mkpath(copy_.filePath("tools")));
        QVERIFY(QFile::copy(QUILL_SOURCE_DIR "/tools/demo.sh", copy_.filePath("tools/demo.sh")));
        const auto failed = setup("ulimit -f 8");
        QVERIFY2(failed.first == 1, qPrintable(failed.second));
        QVERIFY2(failed.second.contains("demo: could not create the installation"), qPrintable(failed.second));
        QCOMPARE(QDir(copy_.filePath("demo")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                 QStringList{".demo.lock"});

        QFile stale(copy_.filePath("demo/brixa.mdb"));
        QVERIFY(stale.open(QIODevice::WriteOnly));
        stale.write("half");
        stale.close();
        const auto made = setup();
        QVERIFY2(made.first == 0, qPrintable(made.second));
        QVERIFY2(made.second.contains("Installation created in " + copy_.path() + "/demo"), qPrintable(made.second));
        QFile conf(copy_.filePath("demo/config/user/Norvu/Brixa.conf"));
        QVERIFY(conf.open(QIODevice::ReadOnly));
        QVERIFY(conf.readAll().contains("dwUseTrafficLog=dword:00000001"));
        QVERIFY(QFileInfo(copy_.filePath("demo/brixa.mdb")).size() > 4);

        QFile mine(copy_.filePath("demo/mine.txt"));
        QVERIFY(mine.open(QIODevice::WriteOnly));
        mine.close();
        const auto again = setup();
        QVERIFY2(again.first == 0, qPrintable(again.second));
        QVERIFY2(!again.second.contains("Installation created"), qPrintable(again.second));
        QVERIFY(QFile::exists(copy_.filePath("demo/mine.txt")));
    }
};

QTEST_GUILESS_MAIN(TestDemo)
#include "tst_demo.moc"
