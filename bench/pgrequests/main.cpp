// How fast print requests become durable jobs on PostgreSQL, against what the
// database server allows.
//
//  1. The floor: one-row INSERT and COMMIT after another into a tbJob-like table
//     of the same database, synchronous_commit on, as the server commits (one
//     connection of Qt's driver, nothing of the server in between).
//  2. The real headless server on a temporary installation whose brixa.mda names
//     that database: accepted print requests per second and latency with 1 and
//     with 32 connections, every client waiting for each reply before it sends
//     the next request.
//     1 and 2 take turns in short slices; the figures are the medians over three
//     rounds of each round's request rate / floor rate. The goals are the SQLite
//     bench's (bench-requests): 1 connection at least 0.9 of the floor, 32
//     connections at least 12 times it.
//
// Without a database server in the environment (PGHOST, PGPORT, PGUSER,
// PGPASSWORD) it runs itself under pg_virtualenv, on a throw-away cluster with
// fsync on (pg_virtualenv turns it off), so commits wait for the disk.
//
// Usage: bench-pgrequests [seconds per load phase, default 5]
#include "../support/load.h"

#include "foundation/settings.h"

#include <QCoreApplication>
#include <QDir>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>

#include <cstdio>

using namespace quill;
using namespace reqload;

namespace {

QSqlDatabase cluster(const QString& name, const QString& database)
{
    // libpq reads host, port, user and password from the PG* variables
    // pg_virtualenv sets.
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), name);
    db.setDatabaseName(database);
    return db;
}

bool exec(QSqlDatabase& db, const QString& sql)
{
    QSqlQuery q(db);
    if (q.exec(sql))
        return true;
    std::fprintf(stderr, "%s: %s\n", qPrintable(sql), qPrintable(q.lastError().text()));
    return false;
}

// The floor: autocommitted one-row inserts on a connection of its own.
class BareCommits {
public:
    explicit BareCommits(const QString& database) : db_(cluster(QStringLiteral("floor"), database))
    {
        ok_ = db_.open() && exec(db_, QStringLiteral("SET synchronous_commit = on"))
            && exec(db_, QStringLiteral("CREATE TABLE IF NOT EXISTS floor (Id INTEGER PRIMARY KEY, PrinterId INTEGER, Job TEXT)"))
            && insert_.prepare(QStringLiteral("INSERT INTO floor (Id, PrinterId, Job) VALUES (?, 1, ?)"));
        QSqlQuery q(db_);
        if (ok_ && q.exec(QStringLiteral("SHOW fsync")) && q.next())
            fsync = q.value(0).toString();
    }
    bool ok() const { return ok_; }
    void slice(int ms)
    {
        QElapsedTimer t;
        t.start();
        while (t.elapsed() < ms) {
            insert_.bindValue(0, ++n_);
            insert_.bindValue(1, QString::fromLatin1(printRequest(0, n_)));
            if (!insert_.exec()) {
                std::fprintf(stderr, "floor: %s\n", qPrintable(insert_.lastError().text()));
                return;
            }
            ++counted_;
        }
        ns_ += t.nsecsElapsed();
    }
    double takeRate()
    {
        const double r = ns_ ? double(counted_) * 1e9 / double(ns_) : 0;
        counted_ = ns_ = 0;
        return r;
    }
    QString fsync;

private:
    QSqlDatabase db_;
    QSqlQuery insert_{db_};
    bool ok_ = false;
    qint64 n_ = 0, counted_ = 0, ns_ = 0;
};

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("PGPORT")) {
        // A cluster of its own, and this program again inside it.
        std::fflush(stdout);
        std::vector<char*> args{const_cast<char*>("pg_virtualenv"), const_cast<char*>("-t"),
                                const_cast<char*>("-o"), const_cast<char*>("fsync=on")};
        for (int i = 0; i < argc; ++i)
            args.push_back(argv[i]);
        args.push_back(nullptr);
        ::execvp("pg_virtualenv", args.data());
        std::fprintf(stderr, "no PostgreSQL: pg_virtualenv could not be run (Debian package postgresql-common)\n");
        return 1;
    }
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int seconds = argc > 1 ? qBound(1, QByteArray(argv[1]).toInt(), 600) : 5;
    QTemporaryDir tmp(QDir::tempPath() + QStringLiteral("/bench-pgrequests-XXXXXX"));
    if (!tmp.isValid())
        return 1;
    qputenv("XDG_CONFIG_DIRS", tmp.filePath(QStringLiteral("machine")).toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", tmp.filePath(QStringLiteral("user")).toLocal8Bit());
    RegSetValue(HKEY_CURRENT_USER, KeyQuillbase, QStringLiteral("dwUseLog"), REG_DWORD, 1);

    // The server's database, its account file and its tables.
    const QString database = QStringLiteral("benchbrixa");
    {
        QSqlDatabase admin = cluster(QStringLiteral("admin"), QStringLiteral("postgres"));
        if (!admin.open() || !exec(admin, QStringLiteral("CREATE DATABASE ") + database)) {
            std::fprintf(stderr, "cannot create the database: %s\n", qPrintable(admin.lastError().text()));
            return 1;
        }
    }
    QSqlDatabase::removeDatabase(QStringLiteral("admin"));
    Installation inst;
    inst.home = tmp.filePath(QStringLiteral("home"));
    inst.port = freePort();
    QDir().mkpath(inst.home);
    QFile pass(tmp.filePath(QStringLiteral("pgpass")));
    QFile mda(inst.home + QStringLiteral("/brixa.mda"));
    if (!pass.open(QIODevice::WriteOnly) || !pass.setPermissions(QFile::ReadOwner | QFile::WriteOwner)
        || pass.write(qgetenv("PGPASSWORD") + '\n') < 0 || !mda.open(QIODevice::WriteOnly)
        || mda.write(QStringLiteral("engine=postgresql\nhost=%1\nport=%2\ndatabase=%3\nuser=%4\npassfile=%5\n")
                         .arg(qEnvironmentVariable("PGHOST", QStringLiteral("localhost")))
                         .arg(qEnvironmentVariableIntValue("PGPORT"))
                         .arg(database, qEnvironmentVariable("PGUSER", QStringLiteral("postgres")), pass.fileName())
                         .toUtf8())
            < 0) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(mda.fileName()));
        return 1;
    }
    pass.close();
    mda.close();
    if (!runInit(inst.home)) {
        std::fprintf(stderr, "quillbase --init failed\n");
        return 1;
    }
    Emulator emulator;
    std::printf("printer 1 at 127.0.0.1#%u%s\n", emulator.port, emulator.port == 9 ? " (no emulator)" : " (emulator)");
    {
        QSqlDatabase db = cluster(QStringLiteral("setup"), database);
        if (!db.open()
            || !exec(db, QStringLiteral("UPDATE tbServer SET port = %1, AutoStartService = 1").arg(inst.port))
            || !exec(db, QStringLiteral("INSERT INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection2, "
                                        "Passive) VALUES (1, 'Bench', 1, 2, '127.0.0.1#%1', 0)")
                             .arg(emulator.port)))
            return 1;
    }
    QSqlDatabase::removeDatabase(QStringLiteral("setup"));

    const int rounds = 3, slices = 8, sliceMs = std::max(200, seconds * 1000 / slices);
    std::vector<double> commitRates, oneRates, manyRates, oneRatios, manyRatios, oneP50, manyP50;
    BareCommits bare(database);
    if (!bare.ok())
        return 1;
    std::printf("%d s per load phase, %d cores, fsync %s, synchronous_commit on\n", seconds,
                QThread::idealThreadCount(), qPrintable(bare.fsync));
    {
        ServerProcess server(inst);
        if (server.start() < 0) {
            std::fprintf(stderr, "server did not start\n");
            return 1;
        }
        for (int r = 1; r <= rounds; ++r) {
            LoadFigures one, many;
            for (int i = 0; i < slices; ++i) {
                bare.slice(sliceMs);
                one.add(load(inst.port, 1, sliceMs));
                bare.slice(sliceMs);
                many.add(load(inst.port, 32, sliceMs));
            }
            const double commitRate = bare.takeRate();
            std::printf("round %d: floor %.0f commits/s; 1 connection %.0f req/s (p50 %.2f ms, ERR %lld), "
                        "32 connections %.0f req/s (p50 %.2f ms, ERR %lld)\n",
                        r, commitRate, one.rate(), percentile(one.latencies, 0.5), one.errors, many.rate(),
                        percentile(many.latencies, 0.5), many.errors);
            commitRates.push_back(commitRate);
            oneRates.push_back(one.rate());
            manyRates.push_back(many.rate());
            oneRatios.push_back(one.rate() / commitRate);
            manyRatios.push_back(many.rate() / commitRate);
            oneP50.push_back(percentile(one.latencies, 0.5));
            manyP50.push_back(percentile(many.latencies, 0.5));
        }
        server.stop();
    }
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    auto met = [](bool yes) { return yes ? "met" : "MISSED"; };
    std::printf("\nmedians of %d rounds\n%-44s %10s %10s %8s\n", rounds, "figure", "measured", "goal", "");
    std::printf("%-44s %10.0f %10s\n", "floor commits/s (one row per commit)", median(commitRates), "-");
    std::printf("%-44s %10.0f %10s\n", "requests/s, 1 connection", median(oneRates), "-");
    std::printf("%-44s %10.3f %10s %8s\n", "  as a share of the floor", median(oneRatios), ">= 0.90",
                met(median(oneRatios) >= 0.9));
    std::printf("%-44s %10.2f %10s\n", "  p50 ms", median(oneP50), "-");
    std::printf("%-44s %10.0f %10s\n", "requests/s, 32 connections", median(manyRates), "-");
    std::printf("%-44s %10.2f %10s %8s\n", "  as a multiple of the floor", median(manyRatios), ">= 12",
                met(median(manyRatios) >= 12.0));
    std::printf("%-44s %10.2f %10s\n", "  p50 ms", median(manyP50), "-");
    return 0;
}
