#pragma once
#include "database/jobdatabase.h"
#include "database/slots.h"

#include <QLockFile>
#include <QObject>
#include <memory>

namespace quill {

class ControlServer;
class JobDatabase;
class JobStore;
class Listener;
class Operator;
class PrintService;
class RequestHandler;
class TrafficIndicator;

// Why a start-up step stopped the start or fell short, as a value: the server
// logs it, the operator's commands tell the operator (Operator::startupFailed).
struct StartupFailure {
    enum class Step {
        HomeNotWritable, // nothing can be written in the installation folder (folder, why)
        OtherInstance,   // another copy runs from this folder
        Database,        // the database could not be opened or read (database)
        Drivers,         // the driver objects could not be made (failure)
        Listener,        // the port could not be opened; the server runs on without it
        Unexpected,      // any other error that ended the start (failure)
    };
    explicit StartupFailure(Step s) : step(s) {}
    Step step;
    QString folder;
    QString why;
    DatabaseFailure database;
    Failure failure;
};

// The whole server without its window: start-up in its fixed order, the parts
// it owns for the run, and the shutdown.
class Server : public QObject {
    Q_OBJECT
public:
    struct Options {
        int statusIntervalMs = 60000;
        bool headless = true;
    };
    enum StartResult { Started, OtherInstance, NoDatabase, StartupFailed, HomeNotWritable };

    explicit Server(Options options, QObject* parent = nullptr);
    ~Server() override;

    StartResult startup();
    // Stops the service, releases the drivers, closes the database; once.
    void shutdown();

    bool starting() const { return starting_; }
    bool shutDown() const { return shutDown_; }
    // The service button, for callers without a window.
    bool serviceRunning() const;
    // False when the service could not start (the operator tells why).
    bool startService();
    void stopService();

    // Operator switches read at start-up.
    bool silentMode() const;
    bool quitQuestion() const { return quitQuestion_; }
    void setQuitQuestion(bool on) { quitQuestion_ = on; }
    bool autostartAtLogon() const { return autostartAtLogon_; }
    bool addinScala() const { return addinScala_; }

    PrinterSlots& printers() { return printers_; }
    JobDatabase& database() { return *db_; }
    JobStore& jobs() { return *jobs_; }
    Listener& listener() { return *listener_; }
    TrafficIndicator& traffic() { return *traffic_; }
    RequestHandler& requests() { return *handler_; }
    // Driver objects, job timers, status polling and the printer list.
    PrintService& printService() { return *service_; }
    // The operator's commands: one surface, shared by the window and the
    // control socket, so a printer dialog open in one is seen by the other.
    Operator& commands() { return *commands_; }
    // The control socket (quillbase.sock), open from start-up to shutdown.
    ControlServer& control() { return *control_; }

signals:
    void startupFinished();
    // The listener was opened (true) or could not be (false), at start-up or
    // when the operator changed the port.
    void listenerChanged(bool listening);
    void serviceStateChanged(bool running);
    // Shutdown begins: the parts are closed next (they live on until ~Server).
    void aboutToShutDown();

private:
    StartResult fail(StartResult r);
    // Hands a failure of the start-up to the operator's commands.
    void report(const StartupFailure& failure);
    void readRegistrySettings();
    void logSettings();
    // Per-machine tBindAddress and tAllowedClients into the listener.
    void configureListener();
    void clearCurrentTemplate(qint32 templateId);

    Options options_;
    bool starting_ = false;
    bool shutDown_ = false;
    bool quitQuestion_ = false;
    bool autostartAtLogon_ = false;
    bool addinScala_ = false;
    std::unique_ptr<QLockFile> instanceLock_;
    PrinterSlots printers_;
    std::unique_ptr<JobDatabase> db_;
    std::unique_ptr<JobStore> jobs_;
    std::unique_ptr<PrintService> service_;
    std::unique_ptr<TrafficIndicator> traffic_;
    std::unique_ptr<Listener> listener_;
    std::unique_ptr<RequestHandler> handler_;
    std::unique_ptr<Operator> commands_;
    std::unique_ptr<ControlServer> control_;
};

} // namespace quill
