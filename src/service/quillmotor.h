#pragma once
// The printer driver "Quillmotor.MP104C": one object per printer slot. The
// server writes identity, connection and job into its properties, starts a
// check or a print run, and reads Result when the matching event comes.
// All work runs on the event loop over the printer link (printers/link.h):
// nothing here blocks, and every step has a time limit, so every run that
// was started ends with its event.
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <deque>
#include <functional>
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
    Q_PROPERTY(bool NewTemplate READ NewTemplate WRITE setNewTemplate)
    Q_PROPERTY(qint32 JobId READ JobId WRITE setJobId)
    Q_PROPERTY(QString JobData READ JobData WRITE setJobData)
    Q_PROPERTY(QString Result READ Result)
    Q_PROPERTY(qint32 TemplateId READ TemplateId WRITE setTemplateId)

public:
    static inline const QString ProgId = QStringLiteral("Quillmotor.MP104C");

    explicit MP104C(QObject* parent = nullptr);
    ~MP104C() override;

    qint32 PrinterId() const { return printerId_; }
    void setPrinterId(qint32 v) { printerId_ = v; }
    QString Port() const { return port_; }
    void setPort(const QString& v) { port_ = v; }
    QString Settings() const { return settings_; }
    void setSettings(const QString& v) { settings_ = v; }
    bool NewTemplate() const { return newTemplate_; }
    void setNewTemplate(bool v) { newTemplate_ = v; }
    qint32 JobId() const { return jobId_; }
    void setJobId(qint32 v) { jobId_ = v; }
    QString JobData() const { return jobData_; }
    void setJobData(const QString& v) { jobData_ = v; }
    QString Result() const { return result_; }
    qint32 TemplateId() const { return templateId_; }
    void setTemplateId(qint32 v) { templateId_ = v; }

    // Both start work and return at once; true means the matching event will
    // follow. A request made while a print run is under way waits for it; a
    // check asked for again while one is under way starts afresh, and one
    // waiting check answers for all requests made meanwhile.
    Q_INVOKABLE bool MPCheck();
    Q_INVOKABLE bool MPPrintJob();

    bool busy() const { return current_.has_value() || !queue_.empty(); }

    // Limit for connecting and for each answer (default 10 s).
    void setAnswerTimeout(int ms) { answerTimeoutMs_ = ms; }
    int answerTimeout() const { return answerTimeoutMs_; }

signals:
    void MPCheckFinished();
    void MPPrintJobFinished();

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
        qint32 jobId = 0;
        QString jobData;
        qint32 templateId = 0;
        std::deque<Step> steps;
        int copies = 1;
        bool layoutSent = false;
    };

    Work snapshot(bool print) const;
    void startNext();
    void onConnected();
    void onReadyRead();
    void onLinkLost();
    void onTimeout();
    // Appends the layout (when asked), the variables and the PRINT of the
    // current run; false when the run has already finished with an error.
    bool addLabelSteps(bool withLayout);
    void sendStep();
    void answer(int result, const QStringList& values);
    void finish(const QString& result);
    void closeTransport();
    void log(const QString& text) const;
    QString runName() const;

    qint32 printerId_ = 0;
    QString port_;
    QString settings_;
    bool newTemplate_ = false;
    qint32 jobId_ = 0;
    QString jobData_;
    QString result_;
    qint32 templateId_ = 0;

    std::deque<Work> queue_;
    std::optional<Work> current_;
    QIODevice* io_ = nullptr;
    QString linkKey_; // the connection this run holds in the link gate
    LinkDecoder* decoder_ = nullptr;
    bool connected_ = false;
    quint32 nextId_ = 1;
    quint32 waitingFor_ = 0;
    QString waitingVerb_;
    QTimer timer_;
    int answerTimeoutMs_ = 10000;
};

} // namespace quill
