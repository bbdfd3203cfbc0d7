// The set-up step of `make run` (tools/demo.sh --setup-only) on fresh copies of
// the script: it must work every time, keep a complete demo, and leave nothing
// half made behind when a step fails.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

struct Run {
    int code = -1;
    QString output;
};

// Runs the copied script's set-up in `copy` under bash, after `prelude`.
Run setup(const QString& copy, const QString& prelude = "true")
{
    QProcess p;
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.setWorkingDirectory(copy);
    p.start("bash", {"-c", prelude + "; exec tools/demo.sh --setup-only \"$0\"", QUILL_BUILD_DIR});
    Run r;
    if (!p.waitForFinished(120000)) {
        p.kill();
        p.waitForFinished(5000);
        return r;
    }
    r.output = QString::fromUtf8(p.readAll());
    r.code = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    return r;
}

// A copy of the repository as far as the script sees it: tools/demo.sh.
bool freshCopy(const QString& dir)
{
    return QDir().mkpath(dir + "/tools") && QFile::copy(QUILL_SOURCE_DIR "/tools/demo.sh", dir + "/tools/demo.sh");
}

QString userConf(const QString& copy)
{
    QFile f(copy + "/demo/config/user/Norvu/Brixa.conf");
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

void checkComplete(const QString& copy, const Run& r)
{
    QVERIFY2(r.code == 0, qPrintable(r.output));
    QVERIFY2(r.output.contains("Installation created in " + copy + "/demo"), qPrintable(r.output));
    QVERIFY(QFile::exists(copy + "/demo/brixa.mdb"));
    QVERIFY(userConf(copy).contains("dwUseTrafficLog=dword:00000001"));
}

} // namespace

class TestDemo : public QObject {
    Q_OBJECT
private slots:
    void fiveFreshSetupsInARow()
    {
        QTemporaryDir tmp;
        QVERIFY(tmp.isValid());
        for (int i = 0; i < 5; ++i) {
            const QString copy = tmp.filePath(QString::number(i));
            QVERIFY(freshCopy(copy));
            checkComplete(copy, setup(copy));
        }
    }

    // A second set-up keeps the first one's installation (its queued jobs).
    void completeDemoIsKept()
    {
        QTemporaryDir tmp;
        QVERIFY(tmp.isValid() && freshCopy(tmp.path()));
        checkComplete(tmp.path(), setup(tmp.path()));
        QFile mine(tmp.filePath("demo/mine.txt"));
        QVERIFY(mine.open(QIODevice::WriteOnly));
        mine.close();
        const Run again = setup(tmp.path());
        QVERIFY2(again.code == 0, qPrintable(again.output));
        QVERIFY2(!again.output.contains("Installation created"), qPrintable(again.output));
        QVERIFY(QFile::exists(tmp.filePath("demo/mine.txt")));
    }

    // --init killed part-way (file size limit): nothing of it stays, and the
    // next run sets up a complete demo, also over what an older failure left.
    void failedSetupLeavesNothingHalfMade()
    {
        QTemporaryDir tmp;
        QVERIFY(tmp.isValid() && freshCopy(tmp.path()));
        const Run failed = setup(tmp.path(), "ulimit -f 8");
        QVERIFY2(failed.code == 1, qPrintable(failed.output));
        QVERIFY2(failed.output.contains("demo: could not create the installation"), qPrintable(failed.output));
        QCOMPARE(QDir(tmp.filePath("demo")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                 QStringList{".demo.lock"});

        // What a failed run of an older script left: a database, no settings.
        QFile stale(tmp.filePath("demo/brixa.mdb"));
        QVERIFY(stale.open(QIODevice::WriteOnly));
        stale.write("half");
        stale.close();
        checkComplete(tmp.path(), setup(tmp.path()));
    }
};

QTEST_GUILESS_MAIN(TestDemo)
#include "tst_demo.moc"
