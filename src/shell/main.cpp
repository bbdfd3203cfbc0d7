#include "foundation/eventlog.h"
#include "foundation/paths.h"
#include "gui/mainwindow.h"
#include "gui/messagebox.h"
#include "shell/installation.h"
#include "shell/operator.h"
#include "shell/server.h"
#include "shell/systemdnotify.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QSocketNotifier>
#include <QTextStream>

#include <csignal>
#include <cstdlib>
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

QtMessageHandler qtHandler = nullptr;

// While the window system is opened: Qt ends the process when none can be
// reached, so say what to do instead and end without a core dump. Its own
// warnings about it are left out, the line below says it all.
void onQtMessage(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type == QtFatalMsg) {
        QTextStream(stderr) << "quillbase: cannot open the window (no usable display); "
                               "run with --headless to serve without a window."
                            << Qt::endl;
        std::_Exit(3);
    }
    if (type == QtWarningMsg || type == QtCriticalMsg)
        return;
    // The plugin loader's own note on a failed platform ("could not load ...
    // even though it was found") comes as info.
    if (type == QtInfoMsg && context.category && qstrncmp(context.category, "qt.qpa.", 7) == 0)
        return;
    qtHandler(type, context, text);
}

// A display the window could be shown on: a platform chosen by hand, or a
// window system named in the environment.
bool displayAvailable()
{
    return !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") || !qEnvironmentVariableIsEmpty("DISPLAY") ||
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
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
    if (!headless && !displayAvailable()) {
        QTextStream(stderr) << "quillbase: no display to open the window on (DISPLAY is not set); "
                               "run with --headless to serve without a window."
                            << Qt::endl;
        return 3;
    }
    std::unique_ptr<QCoreApplication> app;
    if (headless) {
        app = std::make_unique<QCoreApplication>(argc, argv);
    } else {
        qtHandler = qInstallMessageHandler(onQtMessage);
        app = std::make_unique<QApplication>(argc, argv);
        qInstallMessageHandler(qtHandler);
        // The window hides into the notification area; boxes shown while it
        // is hidden must not end the program when they close.
        QApplication::setQuitOnLastWindowClosed(false);
    }
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
    auto exitCode = [](quill::Server::StartResult r) { return r == quill::Server::OtherInstance ? 0 : 1; };
    if (headless) {
        const quill::Server::StartResult start = server.startup();
        if (start != quill::Server::Started)
            return exitCode(start);
        return app->exec();
    }
    // The window exists before the start-up runs, so the boxes of the start-up
    // are the window's.
    quill::WidgetMessageSink sink;
    quill::MainWindow window(server.commands());
    QObject::connect(&window, &quill::MainWindow::finished, app.get(), [] { QCoreApplication::exit(0); });
    const quill::Server::StartResult start = window.start();
    if (start != quill::Server::Started)
        return exitCode(start);
    return app->exec();
}
