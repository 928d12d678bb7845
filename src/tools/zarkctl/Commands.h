#pragma once

#include <QList>

#include "Failure.h"

class Invocation;
class Output;
struct Report;
struct Session;

// What the table of commands names. Each asks the device, fills the session's report or writes what has no end, and
// throws a Failure. Those of a local session have no device.

ExitStatus runGet(Session& session);
ExitStatus runLs(Session& session);
ExitStatus runTree(Session& session);
ExitStatus runRows(Session& session);
ExitStatus runSet(Session& session);
ExitStatus runCall(Session& session);
ExitStatus runWatch(Session& session);
ExitStatus runUpload(Session& session);
ExitStatus runStream(Session& session);
ExitStatus runLogin(Session& session);
ExitStatus runLogout(Session& session);
ExitStatus runPasswd(Session& session);
ExitStatus runCert(Session& session);
ExitStatus runSign(Session& session);
ExitStatus runDump(Session& session);
ExitStatus runDiff(Session& session);
ExitStatus runRestore(Session& session);
ExitStatus runMetrics(Session& session);
void printMetrics(const Invocation& invocation, const QList<Report>& reports, Output* output);
ExitStatus runCompletion(Session& session);
ExitStatus runHelp(Session& session);
ExitStatus runVersion(Session& session);
