#pragma once
// What the operator's window sees of the core: the command surface (Operator),
// the models it shows (job list, printer list, traffic), the status codes its
// pictures stand for, texts by number, the message sink it implements and the
// event log. The window includes nothing else from below the shell; the build
// checks it (src/gui/CMakeLists.txt).
#include "database/jobstore.h"        // JobListModel
#include "database/slots.h"           // printer status codes
#include "foundation/eventlog.h"      // LogWrite
#include "shell/messages.h"      // MessageSink, MsgBox
#include "foundation/strutil.h"       // NullToLong
#include "foundation/texts.h"         // GetString
#include "protocol/traffic.h"         // TrafficIndicator
#include "service/printerlistmodel.h" // PrinterListModel
#include "shell/operator.h"
