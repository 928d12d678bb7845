#pragma once

#include <QList>

#include "Target.h"

class Invocation;

/// The devices that a command line, the environment and the profiles name: each --url, each line of --urls, each
/// --profile; without any of them ZARK_URL, then the profile "default", then http://localhost:8080. Asks for a password
/// that is needed and given nowhere. Throws a Failure of status ExitUsage.
QList<Target> targetsOf(const Invocation& invocation);
