#pragma once
// The settings dialog frmSrvAdj: the server's port and its seven switches,
// loaded from and saved through Operator (which rebinds the listener).
#include "shell/window.h"

#include <QDialog>
#include <QPointer>

class QCheckBox;
class QLineEdit;

namespace quill {

class SettingsDialog : public QDialog {
    Q_OBJECT
public:
    // Opens over `owner` (the main window), which stays disabled until the
    // dialog is gone; the dialog deletes itself when it closes.
    SettingsDialog(Operator& op, QWidget* owner);
    ~SettingsDialog() override;

    void ok();

private:
    void releaseOwner();

    Operator& op_;
    QPointer<QWidget> owner_;
    QLineEdit* txtServerPort_ = nullptr;
    QCheckBox* chkAutoStart_ = nullptr;
    QCheckBox* chkAutoStartService_ = nullptr;
    QCheckBox* chkStartMinimized_ = nullptr;
    QCheckBox* chkSilentMode_ = nullptr;
    QCheckBox* chkUseLog_ = nullptr;
    QCheckBox* chkUseTrafficLog_ = nullptr;
    QCheckBox* chkQuitQuestion_ = nullptr;
};

} // namespace quill
