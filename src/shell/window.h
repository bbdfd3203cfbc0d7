#pragma once
// What the operator's window sees of the core: the command surface (Operator),
// the models it shows (job list, printer list, traffic), the status codes its
// pictures stand for, texts by number, the message sink it implements, the
// event log and the label renderer (which the core does not link). The window
// includes nothing else from below the shell; the build checks it
// (src/gui/CMakeLists.txt).
#include "database/jobstore.h"        // JobListModel
#include "database/slots.h"           // printer status codes
#include "foundation/eventlog.h"      // LogWrite
#include "foundation/jobfields.h"     // JobFields (history entries' texts)
#include "foundation/strutil.h"       // NullToLong
#include "foundation/texts.h"         // GetString
#include "protocol/traffic.h"         // TrafficIndicator
#include "service/printerlistmodel.h" // PrinterListModel
#include "label/label.h"              // the label renderer, for a job's preview
#include "shell/messages.h"           // MessageSink, MsgBox
#include "shell/operator.h"
