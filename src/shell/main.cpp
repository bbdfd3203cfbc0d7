#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "shell/installation.h"
#include "shell/server.h"
#include "shell/systemdnotify.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QSocketNotifier>
#include <QTextStream>

#ifdef QUILL_HAVE_GUI
#include "shell/gui/gui.h"
#include <QApplication>
#endif

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onTerminate(int sig)
{
    const char c = char(sig);
    [[maybe_unused]] const auto n = ::write(signalPipe[1], &c, 1);
}

// SIGTERM and SIGINT run the ordinary shutdown from the event loop.
void installSignalHandlers(quill::Server& server)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0)
        return;
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, &server);
    QObject::connect(notifier, &QSocketNotifier::activated, &server, [&server, notifier] {
        char c;
        [[maybe_unused]] const auto n = ::read(signalPipe[0], &c, 1);
        notifier->setEnabled(false);
        server.shutdown();
        QCoreApplication::exit(0);
    });
    struct sigaction sa = {};
    sa.sa_handler = onTerminate;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
}

} // namespace

int main(int argc, char** argv)
{
    bool headless = false;
    for (int i = 1; i < argc; ++i) {
        const QByteArray a(argv[i]);
        if (a == "--headless" || a == "--init" || a == "--version" || a == "-v" || a == "--help" || a == "-h")
            headless = true;
    }
#ifdef QUILL_HAVE_GUI
    std::unique_ptr<QCoreApplication> app(headless ? new QCoreApplication(argc, argv)
                                                   : new QApplication(argc, argv));
#else
    headless = true;
    auto app = std::make_unique<QCoreApplication>(argc, argv);
#endif
    QCoreApplication::setApplicationName(QStringLiteral("Quillbase"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QUILL_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Quillbase label-printer server"));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption homeOpt(QStringLiteral("home"),
                                     QStringLiteral("Installation folder (default: the executable's folder)."),
                                     QStringLiteral("DIR"));
    const QCommandLineOption initOpt(QStringLiteral("init"),
                                     QStringLiteral("Provision a new installation in the --home folder and exit."));
    const QCommandLineOption headlessOpt(QStringLiteral("headless"), QStringLiteral("Run without a window."));
    const QCommandLineOption statusOpt(QStringLiteral("status-interval"),
                                       QStringLiteral("Interval of the printer status pass (default 60000)."),
                                       QStringLiteral("MS"), QStringLiteral("60000"));
    parser.addOptions({homeOpt, initOpt, headlessOpt, statusOpt});
    parser.process(*app);

    QTextStream err(stderr);
    const QString home = parser.isSet(homeOpt) ? parser.value(homeOpt) : QCoreApplication::applicationDirPath();
    quill::SetHomeDir(home);

    if (parser.isSet(initOpt)) {
        QString message;
        const bool ok = quill::ProvisionInstallation(quill::HomeDir(), &message);
        QTextStream(ok ? stdout : stderr) << message << Qt::endl;
        if (ok)
            QTextStream(stdout) << quill::NextSteps(quill::HomeDir());
        return ok ? 0 : 1;
    }

    bool ok = false;
    const int interval = parser.value(statusOpt).toInt(&ok);
    if (!ok || interval < 10) {
        err << "Invalid --status-interval: " << parser.value(statusOpt) << Qt::endl;
        return 2;
    }

    quill::Server::Options options;
    options.statusIntervalMs = interval;
    options.headless = headless;
    // Without a window the log's lines go to stderr too: journald keeps them.
    quill::SetLogToStderr(headless);
    quill::Server server(options);
    quill::SystemdNotifier notifier(server);
    installSignalHandlers(server);
#ifdef QUILL_HAVE_GUI
    std::unique_ptr<quill::Gui> gui;
    if (!headless)
        gui = std::make_unique<quill::Gui>(server);
#endif
    const int start = server.startup();
    if (start != quill::Server::Started)
        return start == quill::Server::OtherInstance ? 0 : 1;
    return app->exec();
}
