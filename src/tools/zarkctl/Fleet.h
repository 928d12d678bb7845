#pragma once

#include "Target.h"

#include "Failure.h"

class Invocation;
class Output;

/// Runs a command on all devices that are named, at once, and prints what they said together. What fails on one device
/// is told with its name and does not stop the others; the worst exit status is the result.
ExitStatus runOnDevices(const Invocation& invocation, const QList<Target>& targets, Output* output);
