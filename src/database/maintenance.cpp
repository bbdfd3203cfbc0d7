// Start-up maintenance of brixa.mdb: backup, integrity check, compaction through
// brixa_compact.mdb, then open. Each step may fail on its own; the database is
// then opened as it is.
//
// The database runs in WAL mode, so the main file alone is not the database while
// a -wal file holds committed pages (after a crash, for instance). Before the main
// file is copied or deleted it is checkpointed, and no step touches it while its
// -wal still holds data. Copies are fsync'd, and the folder with them, before the
// next step relies on them.
#include "database/jobdatabase.h"
#include "database/salvage.h"
#include "foundation/eventlog.h"
#include "foundation/paths.h"

#include <QDateTime>
#include <QDir>
#include <QProcess>
#include <QFile>
#include <QFileInfo>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QRegularExpression>

#include <optional>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quill {

namespace {

Error errnoError(int err)
{
    return Error(err, QString::fromLocal8Bit(std::strerror(err)));
}

MaintenanceStepHook stepHook = nullptr;

void crashPoint(const char* step)
{
    if (stepHook)
        stepHook(step);
}

bool exists(const QString& path)
{
    struct stat st;
    return ::lstat(QFile::encodeName(path).constData(), &st) == 0;
}

// Size and modification time: what a commit by anyone changes in the main file
// once it is checkpointed.
QString fileStamp(const QString& path)
{
    struct stat st;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return {};
    return QStringLiteral("%1 %2.%3").arg(st.st_size).arg(st.st_mtim.tv_sec).arg(st.st_mtim.tv_nsec);
}

// Whether another connection has the WAL database open: each one holds a read
// lock on byte 128 of the -shm file for as long as it is open. Deleting the
// file would cut it off from the database the server then uses, and what it
// writes afterwards would be lost; on a platform that refuses to delete an open
// file this is where the delete fails.
bool openElsewhere(const QString& path)
{
    const int fd = ::open(QFile::encodeName(path + QStringLiteral("-shm")).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct flock probe = {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    probe.l_start = 128;
    probe.l_len = 1;
    const bool held = ::fcntl(fd, F_OFD_GETLK, &probe) == 0 && probe.l_type != F_UNLCK;
    ::close(fd);
    return held;
}

qint64 fileSize(const QString& path)
{
    struct stat st;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return -1;
    return qint64(st.st_size);
}

void removeFile(const QString& path)
{
    if (::unlink(QFile::encodeName(path).constData()) != 0 && errno != ENOENT)
        throw errnoError(errno);
}

void syncPath(const QString& path, bool directory)
{
    const int fd = ::open(QFile::encodeName(path).constData(), directory ? (O_RDONLY | O_DIRECTORY) : O_RDONLY);
    if (fd < 0)
        throw errnoError(errno);
    const int rc = ::fsync(fd);
    const int err = errno;
    ::close(fd);
    if (rc != 0)
        throw errnoError(err);
}

void syncFolder() { syncPath(HomeDir(), true); }

// Copies src to a new file dst and fsyncs it; a failed copy leaves no dst.
void copyFileDurable(const QString& src, const QString& dst)
{
    const int in = ::open(QFile::encodeName(src).constData(), O_RDONLY);
    if (in < 0)
        throw errnoError(errno);
    const int out = ::open(QFile::encodeName(dst).constData(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (out < 0) {
        const int err = errno;
        ::close(in);
        throw errnoError(err);
    }
    int err = 0;
    char buf[1 << 16];
    for (;;) {
        const ssize_t n = ::read(in, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            err = errno;
            break;
        }
        if (n == 0)
            break;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(out, buf + done, size_t(n - done));
            if (w < 0) {
                if (errno == EINTR)
                    continue;
                err = errno;
                break;
            }
            done += w;
        }
        if (err)
            break;
    }
    if (!err && ::fsync(out) != 0)
        err = errno;
    ::close(in);
    if (::close(out) != 0 && !err)
        err = errno;
    if (err) {
        ::unlink(QFile::encodeName(dst).constData());
        throw errnoError(err);
    }
}

// Brings every committed page of a WAL database into its main file. Afterwards
// the main file alone is the whole database, or this throws.
void checkpoint(const QString& path)
{
    const QString wal = path + QStringLiteral("-wal");
    if (!exists(wal) && !exists(path + QStringLiteral("-shm")) && !exists(path + QStringLiteral("-journal")))
        return;
    {
        FileConnection c(path);
        // Reading the schema also rolls back a hot rollback journal.
        c.rows(QStringLiteral("SELECT count(*) FROM sqlite_master"));
        const QStringList r = c.rows(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)"));
        if (!r.isEmpty() && r.first().startsWith(QLatin1Char('1')))
            throw Error(5, QStringLiteral("database is locked"));
    }
    if (fileSize(wal) > 0)
        throw Error(5, QStringLiteral("database is locked (its write-ahead log still holds data)"));
}

// The integrity check, and on success what a backup record says of the file:
// each table's row count. Throws the damage found.
QString integrityCheck(const QString& path)
{
    FileConnection c(path);
    const QStringList r = c.rows(QStringLiteral("PRAGMA integrity_check"));
    if (r != QStringList{QStringLiteral("ok")})
        throw Error(11, QStringLiteral("database disk image is malformed: ")
                            + (r.isEmpty() ? QStringLiteral("no result") : r.first()));
    QStringList counts;
    for (const QString& table : c.rows(QStringLiteral("SELECT name FROM sqlite_master WHERE type = 'table' "
                                                      "AND name NOT LIKE 'sqlite_%' ORDER BY name"))) {
        QString quoted = table;
        quoted.replace(QLatin1Char('"'), QLatin1String("\"\""));
        counts << table + QLatin1Char(' ')
                + c.rows(QStringLiteral("SELECT count(*) FROM \"") + quoted + QLatin1Char('"')).value(0);
    }
    return counts.join(QStringLiteral(", "));
}

void compactInto(const QString& path, const QString& target)
{
    FileConnection c(path);
    QString quoted = target;
    quoted.replace(QLatin1Char('\''), QLatin1String("''"));
    c.rows(QStringLiteral("VACUUM INTO '") + quoted + QLatin1Char('\''));
}

// What the check found wrong with the file itself, as opposed to what kept it
// from looking (a full disk, a lock): SQLITE_CORRUPT and SQLITE_NOTADB.
bool isDamage(const Error& e)
{
    return (e.number & 0xff) == 11 || (e.number & 0xff) == 26;
}

// Backups of earlier starts, oldest first by name, kept in backups/ beside
// brixa_backup.mdb. Each backup has a record beside it (name + ".check"): its
// first line "ok" when the copy passed the integrity check, then when it was
// checked and its tables' row counts, and "kept ..." once a repair followed it.
constexpr int BackupGenerations = 5;

QString recordOf(const QString& backup)
{
    return backup + QStringLiteral(".check");
}

QStringList recordLines(const QString& backup)
{
    QFile f(recordOf(backup));
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

bool passed(const QString& backup)
{
    return recordLines(backup).value(0) == QLatin1String("ok");
}

void writeRecord(const QString& backup, const QStringList& lines)
{
    const QString path = recordOf(backup);
    const QString fresh = path + QStringLiteral(".tmp");
    QFile f(fresh);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        throw Error(f.error(), f.errorString());
    const QByteArray bytes = (lines.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8();
    if (f.write(bytes) != bytes.size() || !f.flush() || ::fsync(f.handle()) != 0) {
        const Error e(f.error(), f.errorString());
        f.close();
        f.remove();
        throw e;
    }
    f.close();
    if (::rename(QFile::encodeName(fresh).constData(), QFile::encodeName(path).constData()) != 0)
        throw errnoError(errno);
}

QString stampOf(const QString& path)
{
    return QFileInfo(path).lastModified().toString(QStringLiteral("yyyyMMdd-HHmmsszzz"));
}

// Moves the previous start's backup, with its record, into backups/ under the
// time it was made.
void keepGeneration(const QString& backup)
{
    const QString folder = HomePath(QStringLiteral("backups"));
    if (!QDir().mkpath(folder))
        throw errnoError(errno ? errno : EACCES);
    QString name = folder + QStringLiteral("/brixa_backup-") + stampOf(backup);
    QString target = name + QStringLiteral(".mdb");
    for (int n = 2; exists(target); ++n)
        target = name + QStringLiteral("_%1.mdb").arg(n);
    if (::rename(QFile::encodeName(backup).constData(), QFile::encodeName(target).constData()) != 0)
        throw errnoError(errno);
    if (exists(recordOf(backup))
        && ::rename(QFile::encodeName(recordOf(backup)).constData(), QFile::encodeName(recordOf(target)).constData()) != 0)
        throw errnoError(errno);
    syncPath(folder, true);
}

// Only once the new backup is in place; a failure here costs nothing but room.
// The newest backup that passed its check stays whatever the count, and so does
// one that a repair followed (the last copy of what the repair could not read).
void pruneGenerations()
{
    QDir folder(HomePath(QStringLiteral("backups")));
    const QStringList kept = folder.entryList({QStringLiteral("brixa_backup-*.mdb")}, QDir::Files, QDir::Name);
    qsizetype newestPassed = -1;
    for (qsizetype i = kept.size() - 1; i >= 0 && newestPassed < 0; --i)
        if (passed(folder.filePath(kept[i])))
            newestPassed = i;
    qsizetype excess = kept.size() - BackupGenerations;
    for (qsizetype i = 0; i < kept.size() && excess > 0; ++i) {
        const QString path = folder.filePath(kept[i]);
        if (i == newestPassed || recordLines(path).filter(QRegularExpression(QStringLiteral("^kept"))).size() > 0)
            continue;
        if (folder.remove(kept[i])) {
            folder.remove(kept[i] + QStringLiteral(".check"));
            --excess;
        }
    }
}

// The database is copied and the copy checked: a backup is made only of a
// database that passed, so starts on a damaged one never push a good backup
// out. The new backup is written under another name first: a start that cannot
// make one leaves every earlier backup as it was. Returns the damage the check
// found (then no backup is made), or nothing.
std::optional<Error> makeBackup(const QString& mdb, const QString& backup)
{
    const QString fresh = HomePath(QStringLiteral("brixa_backup.tmp"));
    removeFile(fresh);
    removeFile(recordOf(fresh));
    checkpoint(mdb);
    try {
        copyFileDurable(mdb, fresh);
        QString counts;
        try {
            counts = integrityCheck(fresh);
        } catch (const Error& e) {
            ::unlink(QFile::encodeName(fresh).constData());
            if (!isDamage(e))
                throw;
            return e;
        }
        writeRecord(fresh, {QStringLiteral("ok"),
                            QStringLiteral("checked ") + QDateTime::currentDateTime().toString(Qt::ISODate),
                            counts});
        if (QFileInfo(backup).isFile())
            keepGeneration(backup);
        else
            removeFile(backup);
        if (::rename(QFile::encodeName(fresh).constData(), QFile::encodeName(backup).constData()) != 0
            || ::rename(QFile::encodeName(recordOf(fresh)).constData(), QFile::encodeName(recordOf(backup)).constData())
                != 0)
            throw errnoError(errno);
        syncFolder();
    } catch (...) {
        ::unlink(QFile::encodeName(fresh).constData());
        ::unlink(QFile::encodeName(recordOf(fresh)).constData());
        throw;
    }
    pruneGenerations();
    return std::nullopt;
}

// The newest backup that passed its check: brixa_backup.mdb or one in backups/.
QString newestGoodBackup(const QString& backup)
{
    if (QFileInfo(backup).isFile() && passed(backup))
        return backup;
    QDir folder(HomePath(QStringLiteral("backups")));
    QStringList kept = folder.entryList({QStringLiteral("brixa_backup-*.mdb")}, QDir::Files, QDir::Name);
    for (qsizetype i = kept.size() - 1; i >= 0; --i)
        if (passed(folder.filePath(kept[i])))
            return folder.filePath(kept[i]);
    return {};
}

// After a repair the newest good backup holds what the repair may have lost:
// it stays, whatever the number of later starts.
void keepForRepair(const QString& good, const QString& aside)
{
    if (good.isEmpty())
        return;
    QStringList lines = recordLines(good);
    lines << QStringLiteral("kept: the last good copy before the repair that set aside ") + aside;
    try {
        writeRecord(good, lines);
    } catch (const std::exception&) {
        // Only the pruning protection is missing; the repair stands.
    }
}

// Rebuilds brixa.mdb from what can still be read of it; the damaged file stays
// beside it under a dated name. Each table's count is logged.
void repairDamaged(const QString& mdb, const Error& damage, const QString& good)
{
    if (openElsewhere(mdb))
        throw errnoError(EBUSY);
    checkpoint(mdb);
    const QString rebuilt = HomePath(QStringLiteral("brixa_repair.tmp"));
    removeFile(rebuilt);
    // Every table but the jobs is configuration: its rows lost to the damage come
    // back from the good backup. A job there may have been printed since.
    QStringList restorable;
    if (!good.isEmpty()) {
        FileConnection c(good);
        restorable = c.rows(QStringLiteral("SELECT name FROM sqlite_master WHERE type = 'table' "
                                           "AND name NOT LIKE 'sqlite_%' AND name <> 'tbJob'"));
    }
    const QList<SalvagedTable> tables = SalvageDatabase(mdb, rebuilt, good, restorable);
    const QString aside = QStringLiteral("brixa_damaged-")
        + QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss")) + QStringLiteral(".mdb");
    try {
        syncPath(rebuilt, false);
        removeFile(HomePath(aside));
        if (::link(QFile::encodeName(mdb).constData(), QFile::encodeName(HomePath(aside)).constData()) != 0)
            copyFileDurable(mdb, HomePath(aside));
        removeFile(mdb + QStringLiteral("-wal"));
        removeFile(mdb + QStringLiteral("-shm"));
        if (::rename(QFile::encodeName(rebuilt).constData(), QFile::encodeName(mdb).constData()) != 0)
            throw errnoError(errno);
        syncFolder();
    } catch (...) {
        ::unlink(QFile::encodeName(rebuilt).constData());
        throw;
    }
    keepForRepair(good, aside);
    LogWrite(QStringLiteral("Warning SrvOpenDatabases Repair database: ") + damage.text()
             + QStringLiteral("; rebuilt from the rows that could be read, the damaged file kept as ") + aside);
    for (const SalvagedTable& t : tables) {
        LogWrite(QStringLiteral("Warning SrvOpenDatabases Repair database: %1: %2 rows recovered, %3 lost%4")
                     .arg(t.name)
                     .arg(t.recovered)
                     .arg(t.lost)
                     .arg(t.tailUnreadable ? QStringLiteral(" and the rows after the last one recovered")
                                           : QString()));
        if (t.restored > 0)
            LogWrite(QStringLiteral("Warning SrvOpenDatabases Repair database: %1: %2 rows restored from %3")
                         .arg(t.name)
                         .arg(t.restored)
                         .arg(QDir(HomeDir()).relativeFilePath(good)));
    }
}

// Each start writes a dated dump into the folder brixa.mda names, under
// another name until it is whole.
void dumpDatabase(const DbTarget& t)
{
    if (!QDir().mkpath(t.backupDir))
        throw errnoError(errno ? errno : EACCES);
    const QString target = QDir(t.backupDir).filePath(
        QStringLiteral("brixa-") + QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"))
        + QStringLiteral(".dump"));
    const QString partial = target + QStringLiteral(".tmp");
    QStringList args{QStringLiteral("--format=custom"), QStringLiteral("--no-password"), QStringLiteral("--file"), partial};
    if (!t.host.isEmpty())
        args << QStringLiteral("--host") << t.host;
    if (t.port > 0)
        args << QStringLiteral("--port") << QString::number(t.port);
    if (!t.user.isEmpty())
        args << QStringLiteral("--username") << t.user;
    if (!t.database.isEmpty())
        args << QStringLiteral("--dbname") << t.database;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    if (!t.service.isEmpty())
        env.insert(QStringLiteral("PGSERVICE"), t.service);
    if (!t.password().isEmpty())
        env.insert(QStringLiteral("PGPASSWORD"), t.password());
    else if (!t.passfile.isEmpty())
        env.insert(QStringLiteral("PGPASSFILE"), t.passfile);
    QProcess dump;
    dump.setProcessEnvironment(env);
    dump.setProcessChannelMode(QProcess::SeparateChannels);
    dump.start(QStringLiteral("pg_dump"), args);
    // A club's database dumps in seconds; a dump that hangs must not keep the server from starting.
    constexpr int DumpLimitMs = 10 * 60 * 1000;
    const bool finished = dump.waitForStarted(10000) && dump.waitForFinished(DumpLimitMs);
    if (!finished || dump.exitStatus() != QProcess::NormalExit || dump.exitCode() != 0) {
        const QString why = !finished && dump.error() == QProcess::FailedToStart
            ? QStringLiteral("pg_dump could not be started: ") + dump.errorString()
            : !finished ? QStringLiteral("pg_dump did not finish within 10 minutes")
                        : QString::fromLocal8Bit(dump.readAllStandardError()).trimmed();
        if (dump.state() != QProcess::NotRunning) {
            dump.kill();
            dump.waitForFinished(5000);
        }
        ::unlink(QFile::encodeName(partial).constData());
        throw Error(finished ? dump.exitCode() : 1, why.isEmpty() ? QStringLiteral("pg_dump failed") : why);
    }
    syncPath(partial, false);
    if (::rename(QFile::encodeName(partial).constData(), QFile::encodeName(target).constData()) != 0)
        throw errnoError(errno);
    syncPath(t.backupDir, true);
    LogWrite(QStringLiteral("SrvOpenDatabases Backup database: ") + target);
}

} // namespace

// The lock one server holds on its PostgreSQL database for its whole run: the
// queue in memory is that server's alone.
constexpr qint64 ServerLockKey = 0x5175696c6c62; // "Quillb"

OpenResult JobDatabase::openFailed(const std::exception& e)
{
    const DatabaseFailure failed{DatabaseFailure::Kind::NotOpened,
                                 Failure{QStringLiteral("SrvOpenDatabases"), asError(e)}};
    LogWrite(failed.failure.line());
    SrvCloseDatabases();
    return failed;
}

OpenResult JobDatabase::openServerDatabase(const DbTarget& target)
{
    // The lock comes first: a second server stops before it does anything.
    auto lock = [this, target] {
        bool held = false;
        db_.run(QStringLiteral("SELECT pg_try_advisory_lock(?)"), {ServerLockKey},
                [&](QSqlQuery& q) { held = q.next() && q.value(0).toBool(); });
        if (!held)
            throw Error(3045, QStringLiteral("Could not use ") + target.describe()
                                  + QStringLiteral("; another Quillbase server is using it."));
    };
    try {
        db_.open(target);
        lock();
        // The lock went with a lost connection: the new one takes it again.
        db_.setReconnected([lock, target] {
            LogWrite(QStringLiteral("SrvOpenDatabases: the connection to ") + target.describe()
                     + QStringLiteral(" was lost and has been opened again"));
            lock();
        });
        // The steps the engine has no use for say so.
        if (target.backupDir.isEmpty()) {
            LogWrite(QStringLiteral("SrvOpenDatabases Backup database: none (brixa.mda names no backup folder)"));
        } else {
            try {
                dumpDatabase(target);
            } catch (const std::exception& e) {
                LogWrite(QStringLiteral("Warning SrvOpenDatabases Backup database failed. Error: ") + errorText(e));
            }
        }
        crashPoint("backup");
        LogWrite(QStringLiteral("SrvOpenDatabases Repair database: PostgreSQL's own (recovery from its write-ahead log)"));
        LogWrite(QStringLiteral("SrvOpenDatabases Compact database: PostgreSQL's own (autovacuum)"));
        return {};
    } catch (const std::exception& e) {
        return openFailed(e);
    }
}

void SetMaintenanceStepHook(MaintenanceStepHook hook)
{
    stepHook = hook;
}

OpenResult JobDatabase::SrvOpenDatabases()
{
    const QString mda = HomePath(QString::fromLatin1(AccountFileName));
    const QString mdb = HomePath(QString::fromLatin1(DatabaseFileName));
    const QString backup = HomePath(QString::fromLatin1(BackupFileName));
    const QString compact = HomePath(QString::fromLatin1(CompactFileName));

    try {
        if (!exists(mda)) {
            LogWrite(QStringLiteral("SrvOpenDatabases failed. Can't find file brixa.mda."));
            return DatabaseFailure{DatabaseFailure::Kind::NoAccountFile, Failure{QStringLiteral("SrvOpenDatabases")}};
        }
        const DbTarget target = ReadAccountFile(mda, mdb);
        if (target.postgres())
            return openServerDatabase(target);
        if (!exists(mdb)) {
            LogWrite(QStringLiteral("SrvOpenDatabases failed. Can't find file brixa.mdb."));
            return DatabaseFailure{DatabaseFailure::Kind::NoDatabaseFile, Failure{QStringLiteral("SrvOpenDatabases")}};
        }

        // Each step either completes or logs its warning and skips the rest.
        [&] {
            std::optional<Error> damage;
            try {
                damage = makeBackup(mdb, backup);
            } catch (const std::exception& e) {
                LogWrite(QStringLiteral("Warning SrvOpenDatabases Backup database failed. Error: ") + errorText(e));
                return;
            }
            crashPoint("backup");

            try {
                if (damage)
                    repairDamaged(mdb, *damage, newestGoodBackup(backup));
            } catch (const std::exception& e) {
                LogWrite(QStringLiteral("Warning SrvOpenDatabases Repair database failed. Error: ") + errorText(e));
                return;
            }
            crashPoint("repair");

            try {
                if (exists(compact))
                    removeFile(compact);
                syncFolder();
            } catch (const std::exception& e) {
                LogWrite(QStringLiteral("Warning SrvOpenDatabases Compact database Step 1 - Failed to delete "
                                        "brixa_compact.mdb. Error: ")
                         + errorText(e));
                return;
            }
            crashPoint("compact1");

            QString compacted;
            try {
                compacted = fileStamp(mdb);
                compactInto(mdb, compact);
                // VACUUM INTO does not sync what it wrote.
                syncPath(compact, false);
                syncFolder();
            } catch (const std::exception& e) {
                LogWrite(QStringLiteral("Warning SrvOpenDatabases Compact database Step 2 - Failed to compact "
                                        "brixa.mdb to brixa_compact.mdb. Error: ")
                         + errorText(e));
                return;
            }
            crashPoint("compact2");

            // brixa.mdb stays until the compacted copy replaces it in one rename, so
            // no moment of the start leaves the folder without a database that opens.
            try {
                if (exists(mdb)) {
                    // Not while another program has it open, nor when it committed
                    // since the compaction: the compacted copy would lose its work.
                    if (openElsewhere(mdb))
                        throw errnoError(EBUSY);
                    checkpoint(mdb);
                    if (fileStamp(mdb) != compacted)
                        throw errnoError(EBUSY);
                    // Empty after the checkpoint; they must not meet the new file.
                    removeFile(mdb + QStringLiteral("-wal"));
                    removeFile(mdb + QStringLiteral("-shm"));
                    syncFolder();
                }
            } catch (const std::exception& e) {
                LogWrite(QStringLiteral("Warning SrvOpenDatabases Compact database Step 3 - Failed to delete "
                                        "brixa.mdb. Error: ")
                         + errorText(e));
                return;
            }
            crashPoint("compact3");

            // Copied under another name and renamed over brixa.mdb: either the old
            // or the compacted database is brixa.mdb at every instant.
            const QString restoring = HomePath(QStringLiteral("brixa_restore.tmp"));
            try {
                removeFile(restoring);
                copyFileDurable(compact, restoring);
                if (::rename(QFile::encodeName(restoring).constData(), QFile::encodeName(mdb).constData()) != 0)
                    throw errnoError(errno);
                syncFolder();
            } catch (const std::exception& e) {
                ::unlink(QFile::encodeName(restoring).constData());
                // brixa.mdb is still the database as it was: the start goes on with it.
                LogWrite(QStringLiteral("SrvOpenDatabases Compact database Step 4 - Failed to copy brixa_compact.mdb "
                                        "to brixa.mdb. Error: ")
                         + errorText(e));
                return;
            }
            crashPoint("compact4");

            try {
                if (exists(compact))
                    removeFile(compact);
                syncFolder();
            } catch (const std::exception& e) {
                LogWrite(QStringLiteral("Warning SrvOpenDatabases Compact database Step 5 - Failed to delete "
                                        "brixa_compact.mdb. Error: ")
                         + errorText(e));
            }
            crashPoint("compact5");
        }();

        db_.open(mdb);
        return {};
    } catch (const std::exception& e) {
        return openFailed(e);
    }
}

} // namespace quill
