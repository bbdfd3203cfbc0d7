// libFuzzer target: arbitrary bytes as arrivals on a client connection, through
// the request handler and the add-in framing, against a real server on a
// throw-away installation. The first byte picks the framing mode and the
// connection; the rest is the arrival.
#include "database/jobstore.h"
#include "foundation/paths.h"
#include "protocol/requesthandler.h"
#include "shell/installation.h"
#include "shell/server.h"

#include <QCoreApplication>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdlib>

namespace {

struct Harness {
    // On tmpfs: every arrival commits, and fsync on a disk would make the run crawl.
    QTemporaryDir dir{QStringLiteral("/dev/shm/quillfuzz-XXXXXX")};
    std::unique_ptr<QCoreApplication> app;
    std::unique_ptr<quill::Server> server;
};

Harness* harness = nullptr;

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    harness = new Harness;
    harness->app = std::make_unique<QCoreApplication>(*argc, *argv);
    qputenv("XDG_CONFIG_DIRS", harness->dir.filePath("machine").toUtf8());
    qputenv("XDG_CONFIG_HOME", harness->dir.filePath("user").toUtf8());
    quill::SetHomeDir(harness->dir.path());
    QString message;
    if (!quill::ProvisionInstallation(harness->dir.path(), &message))
        std::abort();
    {
        // Any free port: a fuzzing run must not hold the port a real server wants.
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("fuzz-setup"));
        db.setDatabaseName(harness->dir.filePath(QStringLiteral("brixa.mdb")));
        if (!db.open() || !QSqlQuery(db).exec(QStringLiteral("UPDATE tbServer SET port = 0")))
            std::abort();
        db.close();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("fuzz-setup"));
    harness->server = std::make_unique<quill::Server>(quill::Server::Options{});
    if (harness->server->startup() != quill::Server::Started)
        std::abort();
    harness->server->startService();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    quill::RequestHandler& handler = harness->server->requests();
    handler.setAddinScala(data[0] & 1);
    const int connection = 1 + (data[0] >> 1) % 4;
    const QByteArray bytes(reinterpret_cast<const char*>(data + 1), qsizetype(size - 1));
    handler.SrvHandleRequest(QString::fromLatin1(bytes), connection);
    // As in the server, the event loop runs between arrivals: that commits the
    // open batch, sends its replies and runs whatever the request scheduled.
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    // A club's queue holds tens of jobs. Left to grow over millions of inputs,
    // every withdraw request would purge thousands under the sanitizers and
    // read as a hang, so the harness withdraws everything now and then.
    if (harness->server->jobs().jobList().count() > 500) {
        handler.SrvHandleRequest(QStringLiteral("BRIXA\t1.00\tC\t\t\t\t\t\t\t\t3\t*\t*"), connection);
        QCoreApplication::processEvents();
    }
    return 0;
}
