// What the debugger's two files share: the listings that are both commands and parts of the stop
// report, and the actions that are more than a listing. All are for the thread of the script.
#pragma once

#include "run.h"
#include "run_debugger.h"

// Where a frame stands: for the innermost one where the run stopped, for the others the call they
// wait for. Null when no line record covers the place.
const psLineData* debugFrameLine(const psProc* p, const subctx* frame);

// Printed on the session's channel.
void debugPrintSource(psIo* io, const psLineData* line);  // "<no source>" for null
void debugList(psProc* p);
void debugLast(psProc* p);
void debugBacktrace(psProc* p);
void debugVariables(psProc* p);

// Makes the run stop before the next line when it continues.
void debugBeginStep(psProc* p, bool disassembly);
// Compiles and runs statements in the selected frame. What they leave is the values they changed:
// the record of the stop is as before.
void debugRunStatements(psProc* p, psText text);
