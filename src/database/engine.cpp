#include "database/engine.h"

#include <QDir>
#include <QFile>

#include <sys/stat.h>

namespace quill {

namespace {

Error unusable(const QString& why)
{
    return Error(3028, QStringLiteral("Can't start your application. The workgroup information file ") + why);
}

// libpq's quoting of a keyword value: in single quotes, with \ and ' escaped.
QString quoted(const QString& v)
{
    QString out = v;
    out.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    out.replace(QLatin1Char('\''), QLatin1String("\\'"));
    return QLatin1Char('\'') + out + QLatin1Char('\'');
}

} // namespace

QString DbTarget::describe() const
{
    if (!postgres())
        return file;
    QString where = host.isEmpty() ? QStringLiteral("the local socket") : host;
    if (port > 0)
        where += QLatin1Char(':') + QString::number(port);
    QString text = QStringLiteral("PostgreSQL database ") + (database.isEmpty() ? QStringLiteral("(default)") : database)
        + QStringLiteral(" on ") + where;
    if (!service.isEmpty())
        text += QStringLiteral(" (service ") + service + QLatin1Char(')');
    return text;
}

QString DbTarget::connectOptions() const
{
    QStringList o;
    if (!service.isEmpty())
        o << QStringLiteral("service=") + quoted(service);
    if (!passfile.isEmpty() && password().isEmpty())
        o << QStringLiteral("passfile=") + quoted(passfile);
    o << QStringLiteral("application_name=quillbase");
    // The event loop waits for a connection being opened again: not for a whole TCP time-out.
    o << QStringLiteral("connect_timeout=10");
    return o.join(QLatin1Char(';'));
}

QString DbTarget::password() const
{
    if (!postgres() || passfile.isEmpty())
        return {};
    QFile f(passfile);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    for (const QByteArray& raw : f.readAll().split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        // libpq's lines have four unescaped colons.
        int colons = 0;
        for (qsizetype i = 0; i < line.size(); ++i) {
            if (line[i] == '\\')
                ++i;
            else if (line[i] == ':')
                ++colons;
        }
        return colons >= 4 ? QString() : QString::fromUtf8(line);
    }
    return {};
}

DbTarget ReadAccountFile(const QString& accountFile, const QString& databaseFile)
{
    QFile f(accountFile);
    if (!f.open(QIODevice::ReadOnly))
        throw unusable(QStringLiteral("can't be read: ") + f.errorString());
    DbTarget t = DbTarget::sqliteFile(databaseFile);
    const QList<QByteArray> lines = f.readAll().split('\n');
    for (const QByteArray& raw : lines) {
        const QByteArray line = raw.trimmed();
        const qsizetype eq = line.indexOf('=');
        if (line.isEmpty() || line.startsWith('#') || eq < 0)
            continue;
        const QByteArray key = line.left(eq).trimmed().toLower();
        const QString value = QString::fromUtf8(line.mid(eq + 1).trimmed());
        if (key == "engine") {
            const QString engine = value.toLower();
            if (engine == QLatin1String("postgresql") || engine == QLatin1String("postgres"))
                t.engine = DbTarget::Engine::Postgres;
            else if (engine != QLatin1String("sqlite"))
                throw unusable(QStringLiteral("names the engine ") + engine + QLatin1Char('.'));
        } else if (key == "host") {
            t.host = value;
        } else if (key == "port") {
            bool ok = false;
            t.port = value.toInt(&ok);
            if (!ok || t.port < 1 || t.port > 65535)
                throw unusable(QStringLiteral("names the port ") + value + QLatin1Char('.'));
        } else if (key == "database") {
            t.database = value;
        } else if (key == "user") {
            t.user = value;
        } else if (key == "passfile") {
            t.passfile = value;
        } else if (key == "service") {
            t.service = value;
        } else if (key == "backup") {
            t.backupDir = value;
        }
    }
    if (t.postgres() && !t.passfile.isEmpty()) {
        // libpq would only warn and go on without the password.
        struct stat st;
        if (::stat(QFile::encodeName(t.passfile).constData(), &st) != 0)
            throw unusable(QStringLiteral("names the password file ") + t.passfile + QStringLiteral(", which is not there."));
        if (st.st_mode & (S_IRWXG | S_IRWXO))
            throw unusable(QStringLiteral("names the password file ") + t.passfile
                           + QStringLiteral(", which others may read: it must have mode 0600."));
    }
    return t;
}

DbTarget InstallationTarget(const QString& dir)
{
    const QDir d(dir);
    return ReadAccountFile(d.filePath(QStringLiteral("brixa.mda")), d.filePath(QStringLiteral("brixa.mdb")));
}

} // namespace quill
