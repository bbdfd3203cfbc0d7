#pragma once
// The about box: the program's title, the version line (text 10081) with the
// protocol version, the country code and the language in use, and a button
// that starts the desktop's system-information tool.
#include <QDialog>
#include <QStringList>

class QLabel;
class QPushButton;

namespace quill {

class AboutBox : public QDialog {
    Q_OBJECT
public:
    explicit AboutBox(QWidget* parent = nullptr);

    // Text 10081 filled with version, protocol version, country and language.
    static QString versionLine();
    // The system-information tools looked for on PATH, in this order.
    static QStringList sysInfoTools();
    // Starts the first tool found; otherwise says it is unavailable. True when started.
    static bool StartSysInfo();

private:
    QLabel* lblTitle_;
    QLabel* lblVersion_;
    QPushButton* cmdSysInfo_;
};

} // namespace quill
