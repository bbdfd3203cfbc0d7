#pragma once
// The printer driver "Quillmotor.MP104C": one object per printer slot. The
// server writes identity and connection into its properties, starts a check,
// or a print run from a PrintJob value, and gets the run's result with the
// matching event.
// All work runs on the event loop over the printer link (printers/link.h),
// each run in its turn on the connection's link object (printerlink.h):
// nothing here blocks, and every step has a time limit, so every run that
// was started ends with its event.
#include "foundation/printjob.h"
#include "printers/printerlink.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <deque>
#include <functional>
#include <memory>
#include <optional>

class QIODevice;

namespace quill {

class LinkDecoder;

// The variables a job text gives the label layout, as (number, value) pairs.
QList<QPair<int, QString>> JobVariables(const QString& jobText);

class MP104C : public QObject {
    Q_OBJECT
    Q_PROPERTY(qint32 PrinterId READ PrinterId WRITE setPrinterId)
    Q_PROPERTY(QString Port READ Port WRITE setPort)
    Q_PROPERTY(QString Settings READ Settings WRITE setSettings)

public:
    static inline const QString ProgId = QStringLiteral("Quillmotor.MP104C");

    explicit MP104C(QObject* parent = nullptr);
    ~MP104C() override;

    // The links its runs take their turn on (the print service's); without
    // one the driver has links of its own.
    void setLinks(PrinterLinks* links) { links_ = links; }

    qint32 PrinterId() const { return printerId_; }
    void setPrinterId(qint32 v) { printerId_ = v; }
    QString Port() const { return port_; }
    void setPort(const QString& v) { port_ = v; }
    QString Settings() const { return settings_; }
    void setSettings(const QString& v) { settings_ = v; }

    // Both start work and return at once; true means the matching event will
    // follow. A request made while a print run is under way waits for it; a
    // check asked for again while one is under way starts afresh, and one
    // waiting check answers for all requests made meanwhile. A print run
    // sends the layout first when newTemplate is set.
    Q_INVOKABLE bool MPCheck();
    bool MPPrintJob(const quill::PrintJob& job, bool newTemplate);

    bool busy() const { return current_.has_value() || !queue_.empty(); }

    // Limit for connecting and for each answer (default 10 s).
    void setAnswerTimeout(int ms) { answerTimeoutMs_ = ms; }
    int answerTimeout() const { return answerTimeoutMs_; }

signals:
    // The run's printer id, and for a print run its job, come with the result:
    // whatever was written meanwhile for a run that waits behind it.
    void MPCheckFinished(qint32 printerId, const quill::DriverResult& result);
    void MPPrintJobFinished(qint32 printerId, const quill::PrintJob& job, const quill::DriverResult& result);

private:
    struct Step {
        QString verb;
        QStringList args;
    };
    struct Work {
        bool print = false;
        qint32 printerId = 0;
        QString port;
        QString settings;
        bool newTemplate = false;
        PrintJob job;
        std::deque<Step> steps;
        int copies = 1;
        bool layoutSent = false;
    };

    Work snapshot(bool print) const;
    bool enqueue(Work w);
    void startNext();
    void onLinkGranted();
    void onConnected();
    void onReadyRead();
    void onLinkLost();
    void onTimeout();
    // Appends the layout (when asked), the variables and the PRINT of the
    // current run; false when the run has already finished with an error.
    bool addLabelSteps(bool withLayout);
    void sendStep();
    void answer(int result, const QStringList& values);
    void finish(const DriverResult& result);
    void closeTransport();
    void log(const QString& text) const;
    QString runName() const;

    qint32 printerId_ = 0;
    QString port_;
    QString settings_;

    std::deque<Work> queue_;
    std::optional<Work> current_;
    QPointer<QIODevice> io_; // the link's (PrinterLink::openTransport)
    QString linkKey_;
    PrinterLinks& links();
    QPointer<PrinterLinks> links_;
    std::unique_ptr<PrinterLinks> ownLinks_;
    PrinterLinks::Ticket ticket_ = 0; // this run's turn on its connection
    LinkDecoder* decoder_ = nullptr;
    bool connected_ = false;
    quint32 nextId_ = 1;
    quint32 waitingFor_ = 0;
    QString waitingVerb_;
    QTimer timer_;
    int answerTimeoutMs_ = 10000;
};

} // namespace quill

Q_DECLARE_METATYPE(quill::PrintJob)
Q_DECLARE_METATYPE(quill::DriverResult)
