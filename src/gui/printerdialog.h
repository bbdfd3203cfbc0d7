#pragma once
// The printer dialog frmSrvPrinter and its advanced dialog
// frmSrvPrinterAdvanced. They show a PrinterSettings value and hand OK,
// Cancel and the device buttons to Operator; validation, saving and the
// device steps are the core's.
//
//   PrinterSettings values;
//   if (op.openEditPrinter(id, &values) == Operator::Outcome::Done)
//       (new PrinterDialog(op, values, PrinterSettings::ModeEdit, window))->show();
#include "shell/window.h"

#include <QDialog>
#include <QPointer>

class QCheckBox;
class QComboBox;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QRadioButton;

namespace quill {

class PrinterAdvancedDialog;

class PrinterDialog : public QDialog {
    Q_OBJECT
public:
    // Opens over `owner` (the main window), which stays disabled until the
    // dialog is gone; the dialog deletes itself when it closes.
    PrinterDialog(Operator& op, const PrinterSettings& values, int mode, QWidget* owner);
    ~PrinterDialog() override;

    PrinterSettings values() const;
    void setAdvancedSettings(const QString& text) { advancedSettings_ = text; }
    QString advancedSettings() const { return advancedSettings_; }

    void ok();
    void cancel();
    void startDevice(Operator::DeviceOperation operation);
    void openAdvanced();

protected:
    void reject() override; // Escape
    void closeEvent(QCloseEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void buildUi();
    void fillLists();
    void setValues(const PrinterSettings& values);
    void setConnectionState();
    void showDevice();
    void showTypePicture();
    void setDeviceRunning(bool running);
    void deviceFinished(Operator::DeviceOperation operation, Operator::Outcome outcome,
                        const PrinterSettings& values);
    void finish(); // closes without Cancel
    void releaseOwner();

    Operator& op_;
    QPointer<QWidget> owner_;
    int mode_;
    bool closing_ = false;
    QPointer<QWidget> focusBeforeDevice_;
    bool deviceRunning_ = false;
    QString advancedSettings_; // cmdAdvanced's tag

    QLineEdit* txtPrinterName_ = nullptr;
    QComboBox* cboPrinterType_ = nullptr;
    QLabel* picPrinterType_ = nullptr;
    QGroupBox* fraConnection_ = nullptr;
    QRadioButton* optSerial_ = nullptr;
    QRadioButton* optNetwork_ = nullptr;
    QLabel* lblCOMPort_ = nullptr;
    QComboBox* cboCOMPort_ = nullptr;
    QLabel* lblCOMRate_ = nullptr;
    QComboBox* cboCOMRate_ = nullptr;
    QLabel* lblNetIP_ = nullptr;
    QLineEdit* txtNetIP_ = nullptr;
    QLabel* lblNetPort_ = nullptr;
    QLabel* lblDevice_ = nullptr;
    QLineEdit* txtNetPort_ = nullptr;
    QCheckBox* chkNetConnectOnly_ = nullptr;
    QComboBox* cboAdjStrobe_ = nullptr;
    QComboBox* cboAdjSpeed_ = nullptr;
    QCheckBox* chkPassive_ = nullptr;
    QList<QPushButton*> buttons_;
    QPointer<PrinterAdvancedDialog> advanced_;
};

class PrinterAdvancedDialog : public QDialog {
    Q_OBJECT
public:
    // Filled from the printer dialog's advanced-settings text; OK writes it back.
    explicit PrinterAdvancedDialog(PrinterDialog& printerDialog);
    ~PrinterAdvancedDialog() override;

    void ok();

private:
    PrinterDialog& printerDialog_;
    QComboBox* cboCutterInstalled_ = nullptr;
    QLineEdit* txtDispensingFeed_ = nullptr;
    QLineEdit* txtReverseFeed_ = nullptr;
};

// The key filter and select-all-on-focus of a number or address box.
void FilterKeys(QLineEdit* box, const QString& pattern);
// The window a dialog disabled, enabled and in front again (once).
void ReturnToOwner(QPointer<QWidget>& owner);
// Keeps a parentless dialog above its owner's window: the window manager
// stacks and minimises it with the owner, yet disabling the owner does not
// disable the dialog. Called before the dialog is first shown.
void MakeTransientFor(QWidget* dialog, QWidget* owner);

} // namespace quill
